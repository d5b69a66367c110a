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

typedef struct cdrom_drive_s cdrom_drive_t;
typedef struct cdrom_paranoia_s cdrom_paranoia_t;

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
};

// current and total sectors, the sector's 1176 sample values (or null), and
// the stop flag the caller may set to end the rip.
using RipProgressCallback = std::function<void(int32_t current, int32_t total, const int16_t *samples, bool *stop)>;
// The drive layer's error and message texts, and the engine's own failure.
using RipMessageCallback = std::function<void(const char *message)>;

constexpr int kRipSectorBytes = 2352;
constexpr int kRipSectorValues = 1176;

// Opens the disc's drive for reading. 0 on success, 1 on failure (told on
// the console only).
int ripOpen(RipContext **context, const RipSettings *settings, CdIo_t *disc);

// The record of track number n, or null when the disc has no such record.
RipTrack *ripTrackRecord(RipContext *context, uint32_t number);

// Rips one track into its record. 0 on success; 1 on failure (the reason
// goes to message) or when the caller stopped it.
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
// with the start skip of a disc's first track and the end skip of its last.
void ripAccurateRipChecksums(const uint8_t *audio, uint64_t stereoSamples, bool isFirstTrack, bool isLastTrack,
                             uint32_t *v1, uint32_t *v2);
