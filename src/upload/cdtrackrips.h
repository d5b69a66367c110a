#pragma once

#include "audio/riplog.h"

#include <QString>

#include <memory>
#include <optional>

class TrackRipJob;

// What the last rip of each CD track came to, by the track's path, kept for
// the rip log of a CD upload. The upload operations record from their own
// threads; safe from any thread.
namespace CDTrackRips {

void record(const QString &trackPath, const RipLogTrack &track);
std::optional<RipLogTrack> find(const QString &trackPath);
// Forgets the records and the ripped tracks kept.
void clear();

// A track ripped whole whose upload did not get through, kept with its FLAC
// file so that sending it again does not rip it again; until it is taken,
// or the run ends.
void keepRipped(const QString &trackPath, std::shared_ptr<TrackRipJob> rip);
std::shared_ptr<TrackRipJob> takeRipped(const QString &trackPath);
void dropRipped();

} // namespace CDTrackRips
