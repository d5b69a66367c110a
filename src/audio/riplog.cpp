#include "audio/riplog.h"

#include "core/appinfo.h"
#include "core/logger.h"
#include "core/paths.h"

#include <QDir>
#include <QFileInfo>
#include <QSaveFile>
#include <QUrl>

#include <array>

namespace {

QString hex8(uint32_t value)
{
    return QStringLiteral("%1").arg(value, 8, 16, QLatin1Char('0')).toUpper();
}

QString orUnknown(const QString &text)
{
    return text.isEmpty() ? QStringLiteral("(unknown)") : text;
}

} // namespace

QString RipLog::text() const
{
    QString out;
    out += QStringLiteral("Pelicane %1 rip log, %2\n\n")
               .arg(AppInfo::shortVersion(), started.toString(QStringLiteral("yyyy-MM-dd hh:mm:ss t")));
    out += (isImage ? QStringLiteral("Image:        ") : QStringLiteral("Drive:        ")) + source + u'\n';
    out += QStringLiteral("Read offset:  %1 samples\n").arg(readOffset);
    out += QStringLiteral("Disc id:      ") + orUnknown(discId) + u'\n';
    out += QStringLiteral("Artist:       ") + orUnknown(artist) + u'\n';
    out += QStringLiteral("Album:        ") + orUnknown(album) + u'\n';
    out += QStringLiteral("AccurateRip:  ") + orUnknown(accurateRipId) + u'\n';
    out += QStringLiteral("Database:     ") + orUnknown(accurateRipLookup) + u'\n';

    int failed = 0;
    for (const RipLogTrack &track : tracks) {
        out += QStringLiteral("\nTrack %1\n").arg(track.number, 2, 10, QLatin1Char('0'));
        out += QStringLiteral("  Sectors:      %1-%2 (%3)\n")
                   .arg(track.firstSector)
                   .arg(track.lastSector)
                   .arg(track.lastSector >= track.firstSector ? track.lastSector - track.firstSector + 1 : 0);
        const RipStatistics &s = track.statistics;
        out += QStringLiteral("  Reads:        %1 sectors, %2 re-read, %3 read errors\n")
                   .arg(s.sectorsRead)
                   .arg(s.rereads)
                   .arg(s.readErrors);
        out += QStringLiteral("  Paranoia:     %1 verifications, %2 corrections, %3 skips\n")
                   .arg(s.verifications)
                   .arg(s.corrections)
                   .arg(s.skips);
        if (track.ripped) {
            out += QStringLiteral("  AccurateRip:  v1 %1, v2 %2\n").arg(hex8(track.checksumV1), hex8(track.checksumV2));
            out += QStringLiteral("  CRC32:        %1\n").arg(hex8(track.crc32));
        }
        out += QStringLiteral("  Verification: ") + track.accurateRip + u'\n';
        if (!track.file.isEmpty()) {
            out += QStringLiteral("  File:         ") + track.file + u'\n';
        }
        out += QStringLiteral("  Result:       ") +
               (track.ripped ? QStringLiteral("ripped") : QStringLiteral("FAILED")) + u'\n';
        if (!track.message.isEmpty()) {
            out += QStringLiteral("  Message:      ") + track.message + u'\n';
        }
        failed += track.ripped ? 0 : 1;
    }
    out += failed == 0 ? QStringLiteral("\nAll %1 tracks ripped without error.\n").arg(tracks.size())
                       : QStringLiteral("\n%1 of %2 tracks failed.\n").arg(failed).arg(tracks.size());
    return out;
}

QString RipLog::fileName() const
{
    QString name = album.trimmed().isEmpty() ? discId.trimmed() : album.trimmed();
    if (name.isEmpty()) {
        name = QStringLiteral("Audio CD");
    }
    // Room for the date and the extension within a file name's 255 bytes.
    name = Paths::safeFileName(name, 200);
    return name + u' ' + started.toString(QStringLiteral("yyyy-MM-dd hh-mm-ss")) + QStringLiteral(".log");
}

QString ripLogFolder()
{
    const QString logFile = Logger::logFileURL().toLocalFile();
    const QString beside = logFile.isEmpty() ? Paths::dataDirectory() : QFileInfo(logFile).absolutePath();
    return beside.isEmpty() ? QString() : beside + QStringLiteral("/rips");
}

OptionalError writeRipLog(const RipLog &log, QString *path)
{
    const QString folder = ripLogFolder();
    if (folder.isEmpty() || !QDir().mkpath(folder)) {
        return Error::errorWithMessage(QStringLiteral("The rip log folder %1 could not be made.").arg(folder));
    }
    QString target = QDir(folder).filePath(log.fileName());
    // Two rips of one disc in the same second keep both logs.
    for (int n = 2; QFileInfo::exists(target); ++n) {
        target = QDir(folder).filePath(log.fileName().chopped(4) + QStringLiteral(" (%1).log").arg(n));
    }
    QSaveFile file(target);
    if (!file.open(QIODevice::WriteOnly)) {
        return Error::errorWithMessage(
            QStringLiteral("The rip log %1 could not be written: %2").arg(target, file.errorString()));
    }
    file.write(log.text().toUtf8());
    if (!file.commit()) {
        return Error::errorWithMessage(
            QStringLiteral("The rip log %1 could not be written: %2")
                .arg(target, Paths::isDiskFull(target) ? QStringLiteral("the disk is full") : file.errorString()));
    }
    Logger::log(QStringLiteral("Rip log written to %1").arg(target));
    if (path) {
        *path = target;
    }
    return std::nullopt;
}

uint32_t ripCrc32(const uint8_t *data, size_t length)
{
    static const std::array<uint32_t, 256> table = [] {
        std::array<uint32_t, 256> t{};
        for (uint32_t i = 0; i < 256; ++i) {
            uint32_t c = i;
            for (int k = 0; k < 8; ++k) {
                c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            }
            t[i] = c;
        }
        return t;
    }();
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 0; i < length; ++i) {
        crc = table[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
    }
    return crc ^ 0xFFFFFFFFu;
}
