#include "upload/cdtrackrips.h"

#include "audio/trackripjob.h"

#include <QHash>
#include <QMutex>

namespace {

struct Records
{
    QMutex lock;
    QHash<QString, RipLogTrack> tracks;
    QHash<QString, std::shared_ptr<TrackRipJob>> ripped;
};

Records &records()
{
    static Records shared;
    return shared;
}

} // namespace

void CDTrackRips::record(const QString &trackPath, const RipLogTrack &track)
{
    QMutexLocker locker(&records().lock);
    records().tracks.insert(trackPath, track);
}

std::optional<RipLogTrack> CDTrackRips::find(const QString &trackPath)
{
    QMutexLocker locker(&records().lock);
    const auto found = records().tracks.constFind(trackPath);
    if (found == records().tracks.constEnd()) {
        return std::nullopt;
    }
    return *found;
}

void CDTrackRips::clear()
{
    QMutexLocker locker(&records().lock);
    records().tracks.clear();
    records().ripped.clear();
}

void CDTrackRips::keepRipped(const QString &trackPath, std::shared_ptr<TrackRipJob> rip)
{
    QMutexLocker locker(&records().lock);
    records().ripped.insert(trackPath, std::move(rip));
}

std::shared_ptr<TrackRipJob> CDTrackRips::takeRipped(const QString &trackPath)
{
    QMutexLocker locker(&records().lock);
    return records().ripped.take(trackPath);
}

void CDTrackRips::dropRipped()
{
    // Released outside the lock: each takes its file with it.
    QHash<QString, std::shared_ptr<TrackRipJob>> dropped;
    {
        QMutexLocker locker(&records().lock);
        dropped.swap(records().ripped);
    }
}
