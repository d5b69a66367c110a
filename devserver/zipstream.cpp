#include "zipstream.h"

#include <QDateTime>

#include <cstring>

namespace {

constexpr quint32 kMax32 = 0xFFFFFFFFu;
constexpr quint16 kUtf8Names = 0x0800;

void put16(QByteArray &out, quint16 value)
{
    out.append(char(value & 0xFF));
    out.append(char(value >> 8));
}

void put32(QByteArray &out, quint32 value)
{
    put16(out, quint16(value & 0xFFFF));
    put16(out, quint16(value >> 16));
}

void put64(QByteArray &out, quint64 value)
{
    put32(out, quint32(value & kMax32));
    put32(out, quint32(value >> 32));
}

// MS-DOS date and time, local to UTC here; the earliest date a zip can hold is 1980.
void dosDateTime(qint64 seconds, quint16 *time, quint16 *date)
{
    QDateTime when = QDateTime::fromSecsSinceEpoch(seconds, Qt::UTC);
    if (when.date().year() < 1980)
        when = QDateTime(QDate(1980, 1, 1), QTime(0, 0), Qt::UTC);
    *time = quint16((when.time().hour() << 11) | (when.time().minute() << 5) | (when.time().second() / 2));
    *date = quint16(((when.date().year() - 1980) << 9) | (when.date().month() << 5) | when.date().day());
}

} // namespace

ZipStream::ZipStream(const QList<Entry> &entries, const QByteArray &trailer)
{
    QByteArray central;
    qint64 offset = 0;
    auto addBytes = [&](const QByteArray &bytes) {
        m_pieces.append(Piece{bytes, QString(), bytes.size()});
        offset += bytes.size();
    };

    for (const Entry &entry : entries) {
        const QByteArray name = entry.name.toUtf8();
        const quint64 size = quint64(entry.size);
        const quint64 localOffset = quint64(offset);
        const bool bigSize = size >= kMax32;
        const bool bigOffset = localOffset >= kMax32;
        quint16 time, date;
        dosDateTime(entry.modified, &time, &date);

        QByteArray local;
        put32(local, 0x04034b50);
        put16(local, bigSize ? 45 : 20);
        put16(local, kUtf8Names);
        put16(local, 0); // stored
        put16(local, time);
        put16(local, date);
        put32(local, entry.crc32);
        put32(local, bigSize ? kMax32 : quint32(size));
        put32(local, bigSize ? kMax32 : quint32(size));
        put16(local, quint16(name.size()));
        put16(local, bigSize ? 20 : 0);
        local.append(name);
        if (bigSize) {
            put16(local, 0x0001);
            put16(local, 16);
            put64(local, size);
            put64(local, size);
        }
        addBytes(local);
        m_pieces.append(Piece{QByteArray(), entry.sourcePath, entry.size});
        offset += entry.size;

        QByteArray extra;
        if (bigSize) {
            put64(extra, size);
            put64(extra, size);
        }
        if (bigOffset)
            put64(extra, localOffset);
        QByteArray zip64;
        if (!extra.isEmpty()) {
            put16(zip64, 0x0001);
            put16(zip64, quint16(extra.size()));
            zip64.append(extra);
        }
        put32(central, 0x02014b50);
        put16(central, 0x0300 | 45); // made on Unix
        put16(central, zip64.isEmpty() ? 20 : 45);
        put16(central, kUtf8Names);
        put16(central, 0);
        put16(central, time);
        put16(central, date);
        put32(central, entry.crc32);
        put32(central, bigSize ? kMax32 : quint32(size));
        put32(central, bigSize ? kMax32 : quint32(size));
        put16(central, quint16(name.size()));
        put16(central, quint16(zip64.size()));
        put16(central, 0); // comment
        put16(central, 0); // disk
        put16(central, 0); // internal attributes
        put32(central, quint32(0100644) << 16);
        put32(central, bigOffset ? kMax32 : quint32(localOffset));
        central.append(name);
        central.append(zip64);
    }

    const quint64 centralOffset = quint64(offset);
    const quint64 centralSize = quint64(central.size());
    const quint64 count = quint64(entries.size());
    QByteArray end = central;
    if (centralOffset >= kMax32 || count >= 0xFFFF || centralSize >= kMax32) {
        const quint64 zip64EndOffset = centralOffset + centralSize;
        put32(end, 0x06064b50);
        put64(end, 44);
        put16(end, 0x0300 | 45);
        put16(end, 45);
        put32(end, 0);
        put32(end, 0);
        put64(end, count);
        put64(end, count);
        put64(end, centralSize);
        put64(end, centralOffset);
        put32(end, 0x07064b50);
        put32(end, 0);
        put64(end, zip64EndOffset);
        put32(end, 1);
    }
    put32(end, 0x06054b50);
    put16(end, 0);
    put16(end, 0);
    put16(end, quint16(std::min<quint64>(count, 0xFFFF)));
    put16(end, quint16(std::min<quint64>(count, 0xFFFF)));
    put32(end, quint32(std::min<quint64>(centralSize, kMax32)));
    put32(end, quint32(std::min<quint64>(centralOffset, kMax32)));
    put16(end, 0);
    end.append(trailer);
    addBytes(end);
    m_size = offset;
}

qint64 ZipStream::read(char *out, qint64 maximum)
{
    qint64 total = 0;
    while (total < maximum && m_piece < m_pieces.size()) {
        const Piece &piece = m_pieces.at(m_piece);
        const qint64 left = piece.size - m_pieceOffset;
        if (left == 0) {
            ++m_piece;
            m_pieceOffset = 0;
            m_file.reset();
            continue;
        }
        const qint64 n = std::min(left, maximum - total);
        if (piece.sourcePath.isEmpty()) {
            std::memcpy(out + total, piece.bytes.constData() + m_pieceOffset, size_t(n));
        } else {
            if (!m_file) {
                m_file = std::make_unique<QFile>(piece.sourcePath);
                if (!m_file->open(QIODevice::ReadOnly) || m_file->size() != piece.size)
                    return -1;
            }
            if (m_file->read(out + total, n) != n)
                return -1;
        }
        m_pieceOffset += n;
        total += n;
    }
    return total;
}
