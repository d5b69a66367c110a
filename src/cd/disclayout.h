#pragma once

#include <cdio/cdio.h>

// Where the tracks of an open disc lie, for everything that names, measures
// or reads them (the disc identifier, the volume listing, the ripper), so
// that they agree.
//
// The one layout that needs care is the Enhanced CD: its audio is a session
// of its own, followed by a data session whose first track starts 11400
// sectors (the audio's lead-out, the data's lead-in and pregap) after the
// audio ends. Those sectors belong to no track and cannot be read as audio.
namespace DiscLayout {

constexpr lsn_t kSessionGapSectors = 11400;

// The first session: its first and last track numbers and its lead-out, the
// sector after it. For an Enhanced CD that is the audio without the trailing
// data tracks; otherwise the whole disc. A disc image's table of contents
// has no sessions, so there trailing data tracks count as a session of their
// own when the first starts far enough after the last audio track for the
// gap. False when the table of contents cannot be read.
bool firstSession(CdIo_t *disc, track_t *first, track_t *last, lsn_t *leadOut);

// The sectors of track number, first and last: up to the next track, or the
// end of its session. False when the track is not on the disc.
bool trackSectors(CdIo_t *disc, track_t number, lsn_t *first, lsn_t *last);

} // namespace DiscLayout
