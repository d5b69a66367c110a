#pragma once

// FLAC files as the reference tools (flac, metaflac) read them, and the
// temporary files a rip leaves.

#include "core/paths.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QDir>
#include <QHash>
#include <QProcess>
#include <QString>
#include <QStringList>

// This process's temporary files (a FLAC file being encoded, a disc image's
// copy), as Paths::temporaryPath names them.
inline QStringList temporaryLeftovers()
{
    return QDir(Paths::temporaryDirectory())
        .entryList({QStringLiteral("pelicane-%1-*").arg(QCoreApplication::applicationPid())},
                   QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot | QDir::Hidden);
}

// A tool's standard output; empty when it fails.
inline QByteArray flacToolOutput(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        return {};
    }
    return process.readAllStandardOutput();
}

// The decoded samples, 16-bit little-endian interleaved; empty when it does
// not decode (decoding fails when the stored MD5 does not match).
inline QByteArray decodedFlacAudio(const QString &path)
{
    return flacToolOutput(QStringLiteral("flac"),
                          {"-s", "-d", "-c", "--force-raw-format", "--endian=little", "--sign=signed", path});
}

// The Vorbis comments in order: "title=Gull Song" and so on.
inline QStringList flacComments(const QString &path)
{
    return QString::fromUtf8(flacToolOutput(QStringLiteral("metaflac"), {"--export-tags-to=-", path}))
        .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

// "title" -> "Gull Song" and so on.
inline QHash<QString, QString> flacTags(const QString &path)
{
    QHash<QString, QString> tags;
    for (const QString &comment : flacComments(path)) {
        tags.insert(comment.section(QLatin1Char('='), 0, 0).toLower(), comment.section(QLatin1Char('='), 1));
    }
    return tags;
}

// True when the FLAC file carries a front-cover picture.
inline bool flacHasPicture(const QString &path)
{
    return flacToolOutput(QStringLiteral("metaflac"), {"--list", "--block-type=PICTURE", path}).contains("type: 3");
}
