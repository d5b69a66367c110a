#pragma once

#include "support/devserverprocess.h"

#include <QByteArray>
#include <QHash>
#include <QJsonArray>
#include <QJsonObject>
#include <QProcess>
#include <QString>

// What the CD-road tests read back from the local service: the stored files
// and, for a FLAC file, its audio and its Vorbis comments as the flac tools
// give them.

// The latest stored record of each file name.
inline QHash<QString, QJsonObject> storedFilesByName(const DevServerProcess &server)
{
    QHash<QString, QJsonObject> files;
    for (const QJsonValue &file : server.library().value(QStringLiteral("files")).toArray()) {
        files.insert(file.toObject().value(QStringLiteral("file_name")).toString(), file.toObject());
    }
    return files;
}

// The decoded samples, 16-bit little-endian; empty when it does not decode.
inline QByteArray decodedFlacAudio(const QString &path)
{
    QProcess flac;
    flac.start(QStringLiteral("flac"),
               {QStringLiteral("-s"), QStringLiteral("-d"), QStringLiteral("-c"), QStringLiteral("--force-raw-format"),
                QStringLiteral("--endian=little"), QStringLiteral("--sign=signed"), path});
    if (!flac.waitForFinished(30000) || flac.exitStatus() != QProcess::NormalExit || flac.exitCode() != 0) {
        return {};
    }
    return flac.readAllStandardOutput();
}

// "title" -> "Gull Song" and so on.
inline QHash<QString, QString> flacTags(const QString &path)
{
    QProcess metaflac;
    metaflac.start(QStringLiteral("metaflac"), {QStringLiteral("--export-tags-to=-"), path});
    QHash<QString, QString> tags;
    if (!metaflac.waitForFinished(30000)) {
        return tags;
    }
    for (const QByteArray &line : metaflac.readAllStandardOutput().split('\n')) {
        const qsizetype eq = line.indexOf('=');
        if (eq > 0) {
            tags.insert(QString::fromUtf8(line.left(eq)).toLower(), QString::fromUtf8(line.mid(eq + 1)));
        }
    }
    return tags;
}

// True when the FLAC file carries a front-cover picture.
inline bool flacHasPicture(const QString &path)
{
    QProcess metaflac;
    metaflac.start(QStringLiteral("metaflac"),
                   {QStringLiteral("--list"), QStringLiteral("--block-type=PICTURE"), path});
    return metaflac.waitForFinished(30000) && metaflac.readAllStandardOutput().contains("type: 3");
}
