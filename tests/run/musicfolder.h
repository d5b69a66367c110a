#pragma once

#include "fingerprint/filehash.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QRandomGenerator>
#include <QString>
#include <QStringList>

// A folder of music files made for a test: every file's bytes are its own
// (seeded noise after a header naming the file), so every digest differs
// and a re-run makes the same files.
struct MusicFolder
{
    QString root;
    QStringList paths;           // in the order they were made
    QHash<QString, QString> md5; // path -> digest
    qint64 totalBytes = 0;

    // count files of sizes spread from minBytes to maxBytes, in a few
    // sub-folders, with the service's extensions in turn.
    static MusicFolder make(const QString &root, int count, qint64 minBytes, qint64 maxBytes, quint32 seed)
    {
        static const QStringList extensions{QStringLiteral("mp3"), QStringLiteral("flac"), QStringLiteral("m4a"),
                                            QStringLiteral("ogg"), QStringLiteral("wav"),  QStringLiteral("MP3")};
        MusicFolder folder;
        folder.root = root;
        QRandomGenerator random(seed);
        for (int i = 0; i < count; ++i) {
            const QString dir = QStringLiteral("%1/Artist %2/Album %3").arg(root).arg(i % 7).arg(i % 3);
            QDir().mkpath(dir);
            const QString path = QStringLiteral("%1/%2 Track %3.%4")
                                     .arg(dir)
                                     .arg(i, 3, 10, QLatin1Char('0'))
                                     .arg(seed)
                                     .arg(extensions.at(i % extensions.size()));
            const qint64 size = minBytes + qint64(random.bounded(quint64(maxBytes - minBytes + 1)));
            folder.add(path, size, random);
        }
        return folder;
    }

    // A large file written sparse: a header of its own, then a hole, then a
    // tail, so it is quick to make and has a digest of its own.
    void addSparse(const QString &path, qint64 size)
    {
        QDir().mkpath(QFileInfo(path).path());
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly)) {
            return;
        }
        const QByteArray header = QByteArrayLiteral("sparse test file ") + path.toUtf8();
        file.write(header);
        file.resize(size - qint64(header.size()));
        file.seek(size - qint64(header.size()));
        file.write(header);
        file.close();
        record(path, size);
    }

    void add(const QString &path, qint64 size, QRandomGenerator &random)
    {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly)) {
            return;
        }
        QByteArray block = QByteArrayLiteral("test music ") + path.toUtf8() + '\n';
        qint64 written = 0;
        QByteArray noise(64 * 1024, Qt::Uninitialized);
        while (written < size) {
            if (block.isEmpty()) {
                random.fillRange(reinterpret_cast<quint32 *>(noise.data()), noise.size() / 4);
                block = noise;
            }
            const qint64 n = std::min<qint64>(block.size(), size - written);
            file.write(block.constData(), n);
            written += n;
            block.clear();
        }
        file.close();
        record(path, size);
    }

    void record(const QString &path, qint64 size)
    {
        paths.append(path);
        md5.insert(path, FileHash::md5HashOfFileAtPath(path).value_or(QString()));
        totalBytes += size;
    }
};
