#include "upload/cdtrackrips.h"

#include <QHash>
#include <QMutex>

namespace {

struct Records
{
    QMutex lock;
    QHash<QString, RipLogTrack> tracks;
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
}
