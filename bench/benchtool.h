#pragma once

#include <QElapsedTimer>
#include <QFile>
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

// The one-minute load average, printed beside a figure: on a shared machine
// a figure means little without it. -1 when it cannot be read.
inline double loadAverage()
{
    QFile file(QStringLiteral("/proc/loadavg"));
    if (!file.open(QIODevice::ReadOnly)) {
        return -1;
    }
    bool ok = false;
    const double load = file.readLine().split(' ').value(0).toDouble(&ok);
    return ok ? load : -1;
}
