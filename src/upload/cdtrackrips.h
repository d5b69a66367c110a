#pragma once

#include "audio/riplog.h"

#include <QString>

#include <optional>

// What the last rip of each CD track came to, by the track's path, kept for
// the rip log of a CD upload. The upload operations record from their own
// threads; safe from any thread.
namespace CDTrackRips {

void record(const QString &trackPath, const RipLogTrack &track);
std::optional<RipLogTrack> find(const QString &trackPath);
void clear();

} // namespace CDTrackRips
