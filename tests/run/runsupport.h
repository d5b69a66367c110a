#pragma once

#include "fingerprint/filehash.h"
#include "support/sessiontesting.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QJsonArray>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QSet>

// A folder of music files made for a test: every file's bytes are its own
// (a header naming the file, then seeded noise), so every digest differs.
struct MusicFolder
{
    QString root;
    QStringList paths;           // in the order they were made
    QHash<QString, QString> md5; // path -> digest
    qint64 totalBytes = 0;

    // `count` files of sizes from minBytes to maxBytes in a few sub-folders,
    // with the service's extensions in turn.
    static MusicFolder make(const QString &root, int count, qint64 minBytes, qint64 maxBytes, quint32 seed)
    {
        static const QStringList extensions{"mp3", "flac", "m4a", "ogg", "wav", "MP3"};
        MusicFolder folder;
        folder.root = root;
        QRandomGenerator random(seed);
        for (int i = 0; i < count; ++i) {
            const QString path = QStringLiteral("%1/Artist %2/Album %3/%4 Track %5.%6")
                                     .arg(root)
                                     .arg(i % 7)
                                     .arg(i % 3)
                                     .arg(i, 3, 10, QLatin1Char('0'))
                                     .arg(seed)
                                     .arg(extensions.at(i % extensions.size()));
            QByteArray bytes = "test music " + path.toUtf8() + '\n';
            const qint64 size = minBytes + qint64(random.bounded(quint64(maxBytes - minBytes + 1)));
            const qsizetype header = bytes.size();
            bytes.append(QByteArray(std::max<qint64>(size - header, 0), '\0'));
            random.fillRange(reinterpret_cast<quint32 *>(bytes.data() + header), (bytes.size() - header) / 4);
            folder.write(path, bytes.left(size), size);
        }
        return folder;
    }

    // A large file written sparse (header, hole, tail): quick to make, with a
    // digest of its own.
    void addSparse(const QString &path, qint64 size)
    {
        const QByteArray header = "sparse test file " + path.toUtf8();
        write(path, header, size, header);
    }

    void write(const QString &path, const QByteArray &bytes, qint64 size, const QByteArray &tail = {})
    {
        QDir().mkpath(QFileInfo(path).path());
        QFile file(path);
        if (file.open(QIODevice::WriteOnly)) {
            file.write(bytes);
            file.resize(size);
            if (!tail.isEmpty() && file.seek(size - tail.size())) {
                file.write(tail);
            }
        }
        file.close();
        paths.append(path);
        md5.insert(path, FileHash::md5HashOfFileAtPath(path).value_or(QString()));
        totalBytes += size;
    }

    QStringList digests(const QStringList &of) const
    {
        QStringList result;
        for (const QString &path : of) {
            result << md5.value(path);
        }
        result.sort();
        return result;
    }
};

// One field of every stored file of a library answer (DevServerProcess::library()), sorted.
inline QStringList libraryField(const QJsonObject &library, const QString &field = QStringLiteral("md5"))
{
    QStringList values;
    for (const QJsonValue &file : library.value(QStringLiteral("files")).toArray()) {
        values << file.toObject().value(field).toString();
    }
    values.sort();
    return values;
}

inline QSet<QString> toSet(const QStringList &list)
{
    return QSet<QString>(list.begin(), list.end());
}
