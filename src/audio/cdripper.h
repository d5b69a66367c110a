#pragma once

// The CD ripping engine: reads one audio track of an open disc with
// error-correcting (paranoia) reads into memory, with an optional drive
// read-offset correction, reports every sector as it arrives and computes the
// track's AccurateRip v1 and v2 checksums.
//
// A plain C-style interface: open a context on a disc, rip any number of its
// tracks, free it. A context belongs to one thread; everything is
// synchronous.

#include <cdio/cdio.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

using cdrom_drive_t = struct cdrom_drive_s;
using cdrom_paranoia_t = struct cdrom_paranoia_s;

// What the caller asks of a rip. The engine reads disableParanoia,
// readRetries, offsetSamples and offsetSectors; the other fields are carried
// for the caller and ignored.
struct RipSettings
{
    uint8_t enabled = 1;
    uint8_t disableParanoia = 0; // non-zero: plain reads; zero: full paranoia
    uint32_t readRetries = 0;    // non-zero: retry-limited reads with this limit
    uint32_t reserved = 0;
    int32_t offsetSamples = 0; // read offset, stereo samples of 4 bytes
    int32_t offsetSectors = 0; // read offset, sectors of 2352 bytes
    float speedLimit = 128.0f;
    int32_t sampleLimit = -1;
};

// What paranoia went through for one track, from its callback and the
// drive reads under it.
struct RipStatistics
{
    uint32_t sectorsRead = 0;   // sectors the drive delivered, re-reads included
    uint32_t rereads = 0;       // sectors read beyond the track's own count
    uint32_t verifications = 0; // jitter checks
    uint32_t corrections = 0;   // jitter, dropped and duplicated bytes fixed
    uint32_t skips = 0;         // positions paranoia gave up on
    uint32_t readErrors = 0;    // drive reads that came back short
};

// One track's results.
struct RipTrack
{
    uint32_t number = 0;      // the disc's own track number
    int32_t preEmphasis = 0;  // libcdio's answer for the track
    uint64_t samples = 0;     // ripping: write position in 16-bit values; ripped: sectors x 1176
    uint32_t firstSector = 0; // logical sector addresses
    uint32_t lastSector = 0;
    uint32_t checksumV1 = 0; // AccurateRip
    uint32_t checksumV2 = 0;
    const uint8_t *audio = nullptr; // first stereo sample after offset correction
    uint8_t *buffer = nullptr;      // owned: the ripped sectors
    RipStatistics statistics;
    std::string failure; // the engine's failure text of the last rip, empty when it succeeded or was stopped
};

struct RipContext
{
    cdrom_drive_t *drive = nullptr;
    cdrom_paranoia_t *paranoia = nullptr;
    RipSettings settings;
    RipTrack *tracks = nullptr; // index n - 1 holds track n, plus one spare
    uint32_t trackCount = 0;
    CdIo_t *disc = nullptr; // not owned
    uint32_t discLength = 0;
    uint32_t leadOut = 0;
    bool bigEndianAudio = false;                                         // the image holds big-endian samples
    long (*driveRead)(cdrom_drive_t *, void *, int32_t, long) = nullptr; // the drive layer's own read
};

// current and total sectors, the sector's 1176 sample values (or null), and
// the stop flag the caller may set to end the rip.
using RipProgressCallback = std::function<void(int32_t current, int32_t total, const int16_t *samples, bool *stop)>;
// The drive layer's error and message texts, and the engine's own failure.
using RipMessageCallback = std::function<void(const char *message)>;

constexpr int kRipSectorBytes = 2352;
constexpr int kRipSectorValues = 1176;

// The AccurateRip first and last tracks: the disc's first and last audio
// tracks (0 when it has none).
track_t ripFirstAudioTrack(CdIo_t *disc);
track_t ripLastAudioTrack(CdIo_t *disc);
bool ripIsAudioTrack(CdIo_t *disc, track_t number);

// Fills the offset fields of settings for a drive's read offset in stereo
// samples: the samples as given, and as many whole sectors, in the same
// direction, as cover them.
void ripSetReadOffset(RipSettings *settings, int32_t samples);

// The largest read offset accepted, in sectors either way.
constexpr int32_t kRipMaxOffsetSectors = 10;

// Opens the disc's drive for reading. 0 on success, 1 on failure (told on
// the console only).
int ripOpen(RipContext **context, const RipSettings *settings, CdIo_t *disc);

// The record of track number n, or null when the disc has no such record.
RipTrack *ripTrackRecord(RipContext *context, uint32_t number);

// Rips one track into its record. 0 on success; 1 on failure (the reason
// goes to message and stays in the record's failure) or when the caller
// stopped it. A track fails when any of its sectors could not be read or had
// to be skipped; audio outside the disc's audio (before its first sector,
// past the lead-out, in a data track or between an Enhanced CD's sessions)
// is silence. The track's sectors are DiscLayout::trackSectors's.
int ripTrack(RipContext *context, RipTrack *track, const RipProgressCallback &progress,
             const RipMessageCallback &message);

// Releases a track's buffer early.
void ripReleaseTrack(RipTrack *track);

// Releases everything and clears the pointer; null is fine.
void ripFree(RipContext **context);

// Hands a drive-layer text on: the harmless "405: Option not supported by
// drive" lines are dropped, anything else goes to message and sets stop.
void ripForwardDriveText(const char *text, const RipMessageCallback &message, bool *stop);

// AccurateRip v1 and v2 of a track's stereo samples (little-endian words),
// with the start skip of a disc's first audio track and the end skip of its
// last.
void ripAccurateRipChecksums(const uint8_t *audio, uint64_t stereoSamples, bool isFirstTrack, bool isLastTrack,
                             uint32_t *v1, uint32_t *v2);

// Test seam at the drive-read layer: every drive read that touches one of
// these sectors comes back short at it, as on a damaged disc, after
// failedReadMilliseconds (a drive struggles before it gives up). Empty (the
// default) for normal use.
void ripSimulateUnreadableSectors(const std::vector<int32_t> &sectors, int failedReadMilliseconds = 0);
// The same for a scratched disc's unstable sectors: every drive read delivers
// them, with different samples each time.
void ripSimulateUnstableSectors(const std::vector<int32_t> &sectors);
