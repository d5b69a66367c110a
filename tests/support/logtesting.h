#pragma once

// The application log as the tests read it: its messages without their
// "yyyy-MM-dd HH:mm:ss +0000: " prefix.

#include "core/logger.h"

#include <QFile>
#include <QStringList>

// The log's messages from byte `from` of the file on.
inline QStringList logLines(qint64 from = 0)
{
    QFile file(Logger::logFileURL().toLocalFile());
    if (!file.open(QIODevice::ReadOnly) || !file.seek(from)) {
        return {};
    }
    QStringList lines;
    for (const QByteArray &line : file.readAll().split('\n')) {
        if (line.size() > 27) {
            lines << QString::fromUtf8(line.mid(27));
        }
    }
    return lines;
}

// The log lines written since it was made.
struct LogWatch
{
    qint64 start = Logger::logSize();
    QStringList lines() const { return logLines(start); }
    // The lines as one text, for searching.
    QString text() const { return lines().join(QLatin1Char('\n')); }
    // Lines of one upload: its messages without the "<file name>: " prefix.
    QStringList linesOf(const QString &fileName) const
    {
        const QString prefix = fileName + QStringLiteral(": ");
        QStringList result;
        for (const QString &line : lines()) {
            if (line.startsWith(prefix)) {
                result << line.mid(prefix.size());
            }
        }
        return result;
    }
};

// The `count` lines of the last block that starts with `first`.
inline QStringList lastLogBlock(const QString &first, int count)
{
    const QStringList lines = logLines();
    const qsizetype start = lines.lastIndexOf(first);
    return start < 0 ? QStringList() : lines.mid(start, count);
}
