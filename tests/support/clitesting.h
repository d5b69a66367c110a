#pragma once

// pelicane-cli run by the tests, and the sample music and disc that
// scripts/make-samples.sh writes.

#include <QJsonDocument>
#include <QJsonObject>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

class DevServerProcess;

struct ProgramRun
{
    int exitCode = -1; // -1: it crashed or did not end in time
    QString standardOutput;
    QString standardError;
    qint64 elapsedMs = 0;

    QJsonObject json() const { return QJsonDocument::fromJson(standardOutput.toUtf8()).object(); }
};

// Runs the program to its end with nothing on its standard input (killed
// after timeoutMs).
ProgramRun runProgram(const QString &program, const QStringList &arguments,
                      const QProcessEnvironment &environment = QProcessEnvironment::systemEnvironment(),
                      int timeoutMs = 120000);

QString cliPath();
inline ProgramRun runCli(const QStringList &arguments,
                         const QProcessEnvironment &environment = QProcessEnvironment::systemEnvironment(),
                         int timeoutMs = 120000)
{
    return runProgram(cliPath(), arguments, environment, timeoutMs);
}

// The environment of a run as `email` (with password "pw" unless given).
QProcessEnvironment accountEnvironment(const QString &email, const QString &password = QStringLiteral("pw"));

// Writes the sample music (one-second tracks) below `folder`, and the sample
// disc's release, cover and AccurateRip entry into the server's data. Returns
// the sample disc's cue sheet, empty when the script failed.
QString makeSamples(const DevServerProcess &server, const QString &folder);
