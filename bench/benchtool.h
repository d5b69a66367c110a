#pragma once

#include <QElapsedTimer>
#include <QProcess>
#include <QString>
#include <QStringList>

#include <cstdio>

// Runs a standard tool with its output thrown away; the wall time in
// seconds, or -1 when it failed.
inline double runTool(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.setStandardOutputFile(QProcess::nullDevice());
    process.setStandardErrorFile(QProcess::nullDevice());
    QElapsedTimer timer;
    timer.start();
    process.start(program, arguments);
    if (!process.waitForFinished(-1) || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        std::fprintf(stderr, "%s failed: %s\n", qPrintable(program), qPrintable(process.errorString()));
        return -1;
    }
    return double(timer.nsecsElapsed()) / 1e9;
}
