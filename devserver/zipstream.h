#pragma once

#include <QByteArray>
#include <QFile>
#include <QList>
#include <QString>

#include <memory>

// A zip archive of stored (uncompressed) entries produced piece by piece, so a segment of
// any size is sent without being built in memory or on disk. The sizes and CRCs of the
// entries are known in advance, so the archive's exact length is known before the first
// byte goes out. Zip64 records are written only where an archive needs them.
class ZipStream
{
public:
    struct Entry
    {
        QString name; // path inside the archive, UTF-8
        QString sourcePath;
        qint64 size = 0;
        quint32 crc32 = 0;
        qint64 modified = 0; // seconds since 1970
    };

    // `trailer` is sent after the archive (the end marker of a library segment).
    ZipStream(const QList<Entry> &entries, const QByteArray &trailer);

    qint64 size() const { return m_size; }

    // Copies up to `maximum` next bytes into `out`. Returns the count, 0 at the end,
    // -1 when a track's file cannot be read as recorded.
    qint64 read(char *out, qint64 maximum);

private:
    struct Piece
    {
        QByteArray bytes;   // header bytes, or
        QString sourcePath; // a file's content
        qint64 size = 0;
    };

    QList<Piece> m_pieces;
    qint64 m_size = 0;
    qsizetype m_piece = 0;
    qint64 m_pieceOffset = 0;
    std::unique_ptr<QFile> m_file;
};
