#include "audio/trackripjob.h"

#include "audio/cdripper.h"
#include "audio/flacencoder.h"
#include "cd/discsession.h"
#include "core/logger.h"
#include "core/paths.h"
#include "platform/settings.h"
#include "protocol/endpoints.h"

#include <QDateTime>
#include <QFile>
#include <QHash>
#include <QMutex>
#include <QMutexLocker>

#include <algorithm>

namespace {

constexpr int kFailureCode = 200;
// A failed database answer is asked again after this long, not per track.
constexpr qint64 kFailedLookupLifetimeMs = 60000;

struct CachedLookup
{
    AccurateRip::Lookup lookup;
    qint64 askedAt = 0;
};

struct LookupCache
{
    QMutex lock;
    QHash<QString, CachedLookup> byDisc;
};

LookupCache &lookupCache()
{
    static LookupCache shared;
    return shared;
}

// Frees the engine's context on every way out of the rip.
struct RipContextHolder
{
    RipContext *context = nullptr;
    ~RipContextHolder() { ripFree(&context); }
};

Error failure(const QString &message)
{
    return Error::withDomain(QString::fromLatin1(kRipErrorDomain), kFailureCode, message);
}

} // namespace

TrackRipJob::TrackRipJob(TrackRipRequest request) : m_request(std::move(request))
{
    m_entry.number = m_request.trackNumber;
}

TrackRipJob::~TrackRipJob() = default;

int TrackRipJob::configuredReadOffset(QString *problem)
{
    const QVariant setting = Settings::value(kSettingsReadOffset, 0);
    bool ok = false;
    const int samples = setting.toInt(&ok);
    constexpr int kMaxSamples = kRipMaxOffsetSectors * (kRipSectorValues / 2);
    if (ok && samples >= -kMaxSamples && samples <= kMaxSamples) {
        return samples;
    }
    const QString text = QStringLiteral("the read offset setting (%1) is not a number of samples from %2 to %3")
                             .arg(setting.toString())
                             .arg(-kMaxSamples)
                             .arg(kMaxSamples);
    Logger::log(QStringLiteral("Ignoring ") + text);
    if (problem) {
        *problem = text;
    }
    return 0;
}

AccurateRip::Lookup TrackRipJob::fetchAccurateRip(const std::shared_ptr<DiscSession> &disc, int timeoutMs,
                                                  QString *discIdText)
{
    AccurateRip::TableOfContents toc;
    bool tocRead = false;
    const OptionalError ejected =
        disc ? disc->use([&](CdIo_t *handle) { tocRead = AccurateRip::readTableOfContents(handle, &toc); })
             : OptionalError(failure(QStringLiteral("no disc")));
    AccurateRip::Lookup lookup;
    const AccurateRip::DiscIds ids = tocRead ? AccurateRip::discIds(toc) : AccurateRip::DiscIds();
    if (!ids.isValid()) {
        lookup.error = ejected ? ejected->localizedDescription()
                               : QStringLiteral("the disc's table of contents could not be read");
        return lookup;
    }
    if (discIdText) {
        *discIdText = ids.text();
    }
    const QString key = Endpoints::accurateRipURL().toString() + QLatin1Char(' ') + ids.text();
    LookupCache &cache = lookupCache();
    {
        QMutexLocker locker(&cache.lock);
        const auto found = cache.byDisc.constFind(key);
        const qint64 now = QDateTime::currentMSecsSinceEpoch();
        if (found != cache.byDisc.constEnd() && (found->lookup.status != AccurateRip::Lookup::Status::Failed ||
                                                 now - found->askedAt < kFailedLookupLifetimeMs)) {
            return found->lookup;
        }
    }
    lookup = AccurateRip::fetch(ids, Endpoints::accurateRipURL(), timeoutMs);
    QMutexLocker locker(&cache.lock);
    cache.byDisc.insert(key, CachedLookup{lookup, QDateTime::currentMSecsSinceEpoch()});
    return lookup;
}

bool TrackRipJob::run(const Progress &progress, const std::function<bool()> &stop)
{
    m_error.reset();
    m_flacPath.clear();
    m_entry = RipLogTrack();
    m_entry.number = m_request.trackNumber;
    m_entry.accurateRip = QStringLiteral("not checked: the track was not ripped");
    if (!m_request.disc) {
        m_error = failure(QStringLiteral("No CD found"));
    } else if (const OptionalError ejected =
                   m_request.disc->use([&](CdIo_t *disc) { readAndEncode(disc, progress, stop); })) {
        m_error = failure(ejected->localizedDescription());
    }
    if (m_error) {
        m_entry.message = m_error->isCancelled() ? QStringLiteral("Stopped.") : m_error->localizedDescription();
        m_entry.ripped = false;
        m_flacPath.clear();
        m_encoder.reset();
    }
    return !m_error;
}

void TrackRipJob::readAndEncode(CdIo_t *disc, const Progress &progress, const std::function<bool()> &stop)
{
    const auto stopped = [&] { return (stop && stop()) || m_request.disc->isStopRequested(); };

    RipSettings settings;
    settings.readRetries = uint32_t(std::max(1, m_request.readRetries));
    ripSetReadOffset(&settings, m_request.readOffset);
    RipContextHolder engine;
    if (ripOpen(&engine.context, &settings, disc) != 0) {
        m_error = failure(QStringLiteral("The disc could not be opened for reading."));
        return;
    }
    const uint32_t number = uint32_t(std::max(0, m_request.trackNumber));
    RipTrack *track = ripIsAudioTrack(disc, track_t(number)) ? ripTrackRecord(engine.context, number) : nullptr;
    if (!track) {
        m_error = failure(QStringLiteral("Track %1 is not an audio track of the disc.").arg(m_request.trackNumber));
        return;
    }

    QString lastMessage;
    const int result = ripTrack(
        engine.context, track,
        [&](int32_t current, int32_t total, const int16_t *samples, bool *stopNow) {
            if (stopped()) {
                *stopNow = true;
            } else if (progress && samples) {
                progress(Stage::Reading, current, total);
            }
        },
        [&](const char *message) {
            if (message) {
                lastMessage = QString::fromLocal8Bit(message).trimmed();
            }
        });
    m_entry.firstSector = track->firstSector;
    m_entry.lastSector = track->lastSector;
    m_entry.statistics = track->statistics;
    if (result != 0) {
        if (stopped()) {
            m_error = Error::cancelledError();
        } else {
            m_error = failure(!track->failure.empty()  ? QString::fromStdString(track->failure)
                              : !lastMessage.isEmpty() ? lastMessage
                                                       : QStringLiteral("The track could not be read from the CD."));
        }
        ripReleaseTrack(track);
        return;
    }

    const uint32_t sectors = track->lastSector - track->firstSector + 1;
    m_entry.checksumV1 = track->checksumV1;
    m_entry.checksumV2 = track->checksumV2;
    m_entry.crc32 = ripCrc32(track->audio, size_t(sectors) * kRipSectorBytes);
    // The database lists the audio tracks only, in order.
    int index = 0;
    for (track_t n = ripFirstAudioTrack(disc); n < track_t(number) && n != CDIO_INVALID_TRACK; ++n) {
        index += ripIsAudioTrack(disc, n) ? 1 : 0;
    }
    m_entry.accurateRip =
        AccurateRip::verify(m_request.accurateRip, index, m_entry.checksumV1, m_entry.checksumV2).text();

    const uint64_t values = uint64_t(sectors) * kRipSectorValues;
    m_encoder = std::make_unique<FLACEncoder>();
    QString written;
    if (OptionalError error = m_encoder->configureWithSampleCount(
            values / 2, m_request.tags, {}, [&written](const QUrl &file) { written = file.toLocalFile(); })) {
        m_error = failure(error->localizedDescription());
        ripReleaseTrack(track);
        return;
    }
    const auto *samples = reinterpret_cast<const int16_t *>(track->audio);
    constexpr uint64_t kChunk = uint64_t(kRipSectorValues) * 75;
    for (uint64_t at = 0; at < values && !stopped(); at += kChunk) {
        if (!m_encoder->processSamples(samples + at, size_t(std::min(kChunk, values - at)))) {
            break;
        }
        if (progress) {
            progress(Stage::Encoding, qint64(at / kRipSectorValues), qint64(sectors));
        }
    }
    ripReleaseTrack(track);
    if (stopped()) {
        m_error = Error::cancelledError();
        return;
    }
    if (OptionalError error = m_encoder->finish()) {
        m_error = failure(error->localizedDescription().trimmed());
        return;
    }
    if (written.isEmpty()) {
        m_error = failure(QStringLiteral("The track is too short to be encoded."));
        return;
    }
    m_flacPath = written;
    m_entry.ripped = true;
    m_entry.file = written;
}

OptionalError TrackRipJob::saveAs(const QString &target) const
{
    if (m_flacPath.isEmpty()) {
        return failure(QStringLiteral("Track %1 was not ripped.").arg(m_request.trackNumber));
    }
    QFile::remove(target);
    if (!QFile::copy(m_flacPath, target)) {
        QFile::remove(target); // no torn copy
        return failure(Paths::isDiskFull(target)
                           ? QStringLiteral("%1 could not be written: the disk is full.").arg(target)
                           : QStringLiteral("%1 could not be written.").arg(target));
    }
    return std::nullopt;
}
