#include "support/discimage.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTextStream>

#include <discid/discid.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <vector>

namespace {

constexpr int kSectorBytes = 2352;
constexpr int kSamplesPerSector = 588;
constexpr int kTableBits = 12;

const std::array<qint16, 1 << kTableBits> &sineTable()
{
    static const std::array<qint16, 1 << kTableBits> table = [] {
        std::array<qint16, 1 << kTableBits> t{};
        for (size_t i = 0; i < t.size(); ++i) {
            t[i] = static_cast<qint16>(std::lround(32767.0 * std::sin(2.0 * M_PI * double(i) / double(t.size()))));
        }
        return t;
    }();
    return table;
}

// Phase step of a frequency for a 32-bit phase accumulator at 44.1 kHz.
quint32 phaseStep(double hertz)
{
    return static_cast<quint32>(hertz / 44100.0 * 4294967296.0);
}

qint32 tone(quint64 n, quint32 step, int amplitude)
{
    const auto phase = static_cast<quint32>(n * step);
    return sineTable()[phase >> (32 - kTableBits)] * amplitude / 32767;
}

// A stateless hash of the sample position: reproducible noise anywhere in a track.
quint32 noiseBits(quint32 seed, quint64 n)
{
    quint64 z = n * 0x9E3779B97F4A7C15ull + seed * 0xBF58476D1CE4E5B9ull + 1;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return static_cast<quint32>(z ^ (z >> 31));
}

qint16 clamp16(qint32 value)
{
    return static_cast<qint16>(std::clamp(value, -32768, 32767));
}

QString msf(qint64 sectors)
{
    return QStringLiteral("%1:%2:%3")
        .arg(sectors / (75 * 60), 2, 10, QLatin1Char('0'))
        .arg((sectors / 75) % 60, 2, 10, QLatin1Char('0'))
        .arg(sectors % 75, 2, 10, QLatin1Char('0'));
}

int toBcd(int value)
{
    return ((value / 10) << 4) | (value % 10);
}

QString quoted(const QString &text)
{
    QString escaped = text;
    escaped.replace(QLatin1Char('"'), QLatin1Char('\''));
    return QLatin1Char('"') + escaped + QLatin1Char('"');
}

void generateAudioSector(quint32 seed, int trackIndex, qint64 sectorInTrack, char *out)
{
    // Every track has its own pair of tones per channel.
    const quint32 left1 = phaseStep(220.0 + 110.0 * trackIndex + seed % 17);
    const quint32 left2 = phaseStep(1375.0 + 37.0 * trackIndex);
    const quint32 right1 = phaseStep(330.0 + 55.0 * trackIndex);
    const quint32 right2 = phaseStep(2750.0 - 41.0 * trackIndex);
    const quint64 first = static_cast<quint64>(sectorInTrack) * kSamplesPerSector;
    auto *samples = reinterpret_cast<unsigned char *>(out);
    for (int i = 0; i < kSamplesPerSector; ++i) {
        const quint64 n = first + static_cast<quint64>(i);
        const quint32 noise = noiseBits(seed + static_cast<quint32>(trackIndex) * 7919u, n);
        const qint32 noiseLeft = static_cast<qint32>(noise & 0x7FF) - 1024;
        const qint32 noiseRight = static_cast<qint32>((noise >> 16) & 0x7FF) - 1024;
        const qint16 left = clamp16(tone(n, left1, 9000) + tone(n, left2, 4000) + noiseLeft);
        const qint16 right = clamp16(tone(n, right1, 8000) + tone(n, right2, 3000) + noiseRight);
        // Little-endian, left channel first, as a BINARY cue file holds it.
        samples[4 * i] = static_cast<unsigned char>(left & 0xFF);
        samples[4 * i + 1] = static_cast<unsigned char>((left >> 8) & 0xFF);
        samples[4 * i + 2] = static_cast<unsigned char>(right & 0xFF);
        samples[4 * i + 3] = static_cast<unsigned char>((right >> 8) & 0xFF);
    }
}

void generateDataSector(qint64 lsn, char *out)
{
    std::memset(out, 0, kSectorBytes);
    std::memset(out + 1, 0xFF, 10);
    const qint64 lba = lsn + 150;
    out[12] = static_cast<char>(toBcd(static_cast<int>(lba / (75 * 60))));
    out[13] = static_cast<char>(toBcd(static_cast<int>((lba / 75) % 60)));
    out[14] = static_cast<char>(toBcd(static_cast<int>(lba % 75)));
    out[15] = 1;
    for (int i = 0; i < 2048; ++i) {
        out[16 + i] = static_cast<char>((lsn + i) & 0xFF);
    }
}

} // namespace

DiscImage::Options DiscImage::audioOptions(const QList<int> &sectors)
{
    Options options;
    for (int count : sectors) {
        Track track;
        track.sectors = count;
        options.tracks.append(track);
    }
    return options;
}

int DiscImage::trackFirstSector(int index) const
{
    int sector = 0;
    for (int i = 0; i < index; ++i) {
        sector += m_options.tracks.at(i).gapBefore + m_options.tracks.at(i).sectors;
    }
    return sector + (index < trackCount() ? m_options.tracks.at(index).gapBefore : 0);
}

int DiscImage::totalSectors() const
{
    return trackFirstSector(trackCount());
}

QByteArray DiscImage::trackBytes(int index) const
{
    QFile bin(m_binPath);
    if (!bin.open(QIODevice::ReadOnly) || !bin.seek(qint64(trackFirstSector(index)) * kSectorBytes)) {
        return QByteArray();
    }
    return bin.read(qint64(trackSectors(index)) * kSectorBytes);
}

QByteArray DiscImage::trackAudio(int index) const
{
    QByteArray bytes = trackBytes(index);
    if (m_options.bigEndian) {
        for (qsizetype i = 0; i + 1 < bytes.size(); i += 2) {
            std::swap(bytes[i], bytes[i + 1]);
        }
    }
    return bytes;
}

QString DiscImage::writeToc() const
{
    QString path = m_cuePath;
    path.replace(path.size() - 4, 4, QStringLiteral(".toc"));
    QFile toc(path);
    if (!m_valid || !toc.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text)) {
        return QString();
    }
    QTextStream out(&toc);
    out << "CD_DA\n";
    for (int t = 0; t < trackCount(); ++t) {
        out << "\nTRACK AUDIO\nFILE " << quoted(QFileInfo(m_binPath).fileName()) << " " << msf(trackFirstSector(t))
            << " " << msf(trackSectors(t)) << "\n";
    }
    out.flush();
    return toc.error() == QFileDevice::NoError ? path : QString();
}

QString DiscImage::musicBrainzDiscId() const
{
    int offsets[100] = {};
    int count = 1;
    while (count < trackCount() && m_options.tracks.at(count).gapBefore == 0) {
        ++count;
    }
    for (int i = 0; i < count; ++i) {
        offsets[firstTrackNumber() + i] = trackFirstSector(i) + 150;
    }
    offsets[0] = trackFirstSector(count - 1) + trackSectors(count - 1) + 150;
    DiscId *disc = discid_new();
    const bool ok = discid_put(disc, firstTrackNumber(), firstTrackNumber() + count - 1, offsets);
    const QString id = ok ? QString::fromLatin1(discid_get_id(disc)) : QString();
    discid_free(disc);
    return id;
}

DiscImage DiscImage::create(const QString &directory, const QString &baseName, const Options &options)
{
    DiscImage image;
    image.m_options = options;
    const QDir dir(directory);
    image.m_cuePath = dir.absoluteFilePath(baseName + QStringLiteral(".cue"));
    image.m_binPath = dir.absoluteFilePath(baseName + QStringLiteral(".bin"));

    QFile bin(image.m_binPath);
    if (options.tracks.isEmpty() || !bin.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        return image;
    }
    constexpr int kChunkSectors = 75;
    std::vector<char> chunk(size_t(kChunkSectors) * kSectorBytes);
    qint64 lsn = 0;
    for (int t = 0; t < options.tracks.size(); ++t) {
        const Track &track = options.tracks.at(t);
        std::fill(chunk.begin(), chunk.end(), '\x5a');
        for (int done = 0; done < track.gapBefore; done += kChunkSectors) {
            const qint64 bytes = qint64(std::min(kChunkSectors, track.gapBefore - done)) * kSectorBytes;
            if (bin.write(chunk.data(), bytes) != bytes) {
                return image;
            }
        }
        lsn += track.gapBefore;
        for (int done = 0; done < track.sectors;) {
            const int count = std::min(kChunkSectors, track.sectors - done);
            for (int s = 0; s < count; ++s) {
                char *sector = chunk.data() + size_t(s) * kSectorBytes;
                if (track.data) {
                    generateDataSector(lsn + done + s, sector);
                } else {
                    generateAudioSector(options.seed, t, done + s, sector);
                    if (options.bigEndian) {
                        for (int i = 0; i < kSectorBytes; i += 2) {
                            std::swap(sector[i], sector[i + 1]);
                        }
                    }
                }
            }
            if (bin.write(chunk.data(), qint64(count) * kSectorBytes) != qint64(count) * kSectorBytes) {
                return image;
            }
            done += count;
        }
        lsn += track.sectors;
    }
    bin.close();

    QFile cue(image.m_cuePath);
    if (!cue.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text)) {
        return image;
    }
    QTextStream out(&cue);
    // libcdio accepts exactly one blank before a quoted CD-TEXT value.
    if (!options.performer.isEmpty()) {
        out << "PERFORMER " << quoted(options.performer) << "\n";
    }
    if (!options.title.isEmpty()) {
        out << "TITLE " << quoted(options.title) << "\n";
    }
    if (!options.genre.isEmpty()) {
        out << "GENRE " << quoted(options.genre) << "\n";
    }
    out << "FILE " << quoted(baseName + QStringLiteral(".bin")) << (options.bigEndian ? " MOTOROLA\n" : " BINARY\n");
    for (int t = 0; t < options.tracks.size(); ++t) {
        const Track &track = options.tracks.at(t);
        out << QStringLiteral("  TRACK %1 %2\n")
                   .arg(options.firstTrackNumber + t, 2, 10, QLatin1Char('0'))
                   .arg(track.data ? QStringLiteral("MODE1/2352") : QStringLiteral("AUDIO"));
        if (!track.title.isEmpty()) {
            out << "    TITLE " << quoted(track.title) << "\n";
        }
        if (!track.performer.isEmpty()) {
            out << "    PERFORMER " << quoted(track.performer) << "\n";
        }
        out << "    INDEX 01 " << msf(image.trackFirstSector(t)) << "\n";
    }
    out.flush();
    image.m_valid = cue.error() == QFileDevice::NoError;
    return image;
}
