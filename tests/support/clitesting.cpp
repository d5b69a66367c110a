#include "support/clitesting.h"

#include "support/devserverprocess.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>

ProgramRun runProgram(const QString &program, const QStringList &arguments, const QProcessEnvironment &environment,
                      int timeoutMs)
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.setStandardInputFile(QProcess::nullDevice());
    QElapsedTimer timer;
    timer.start();
    process.start(program, arguments);
    ProgramRun run;
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
    } else if (process.exitStatus() == QProcess::NormalExit) {
        run.exitCode = process.exitCode();
    }
    run.elapsedMs = timer.elapsed();
    run.standardOutput = QString::fromUtf8(process.readAllStandardOutput());
    run.standardError = QString::fromUtf8(process.readAllStandardError());
    return run;
}

QString cliPath()
{
    return QStringLiteral(PELICANE_CLI_PATH);
}

QProcessEnvironment accountEnvironment(const QString &email, const QString &password)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("PELICANE_EMAIL"), email);
    environment.insert(QStringLiteral("PELICANE_PASSWORD"), password);
    return environment;
}

QString makeSamples(const DevServerProcess &server, const QString &folder)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("PELICANE_SAMPLE_SECONDS"), QStringLiteral("1"));
    const ProgramRun run = runProgram(QStringLiteral(PELICANE_SOURCE_DIR "/scripts/make-samples.sh"),
                                      {folder, server.dataDirectory()}, environment);
    const QString cue = QDir(folder).filePath(QStringLiteral("Sample CD/sample-cd.cue"));
    return run.exitCode == 0 && QFile::exists(cue) ? cue : QString();
}
