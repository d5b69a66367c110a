#include "audio/cdripper.h"

#include <cdio/paranoia/cdda.h>
#include <cdio/paranoia/paranoia.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

namespace {

constexpr int kAccurateRipSkip = 2940; // five sectors less one sample

// The engine's lines go to the console, not to the log file.
void consoleLog(const char *format, ...) __attribute__((format(printf, 1, 2)));
void consoleLog(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stderr, format, arguments);
    va_end(arguments);
    std::fflush(stderr);
}

bool isDiscImage(CdIo_t *disc)
{
    switch (cdio_get_driver_id(disc)) {
    case DRIVER_BINCUE:
    case DRIVER_CDRDAO:
    case DRIVER_NRG:
        return true;
    default:
        return false;
    }
}

uint32_t readWord(const uint8_t *bytes)
{
    return uint32_t(bytes[0]) | uint32_t(bytes[1]) << 8 | uint32_t(bytes[2]) << 16 | uint32_t(bytes[3]) << 24;
}

void passDriveTexts(cdrom_drive_t *drive, const RipMessageCallback &message, bool *stop)
{
    if (char *errors = cdio_cddap_errors(drive)) {
        ripForwardDriveText(errors, message, stop);
        cdio_cddap_free_messages(errors);
    }
    if (char *messages = cdio_cddap_messages(drive)) {
        ripForwardDriveText(messages, message, stop);
        cdio_cddap_free_messages(messages);
    }
}

} // namespace

void ripForwardDriveText(const char *text, const RipMessageCallback &message, bool *stop)
{
    if (!text) {
        return;
    }
    // Disc images answer "405: Option not supported by drive" to drive
    // settings; it means nothing for the audio and must not stop the rip.
    static const char kHarmless[] = "405: Option not supported by drive";
    std::string kept;
    const char *line = text;
    while (*line) {
        const char *end = std::strchr(line, '\n');
        const size_t length = end ? size_t(end - line) + 1 : std::strlen(line);
        if (std::strncmp(line, kHarmless, sizeof kHarmless - 1) != 0) {
            kept.append(line, length);
        }
        line += length;
    }
    if (kept.find_first_not_of(" \t\r\n") == std::string::npos) {
        return;
    }
    if (message) {
        message(kept.c_str());
    }
    *stop = true;
}

void ripAccurateRipChecksums(const uint8_t *audio, uint64_t stereoSamples, bool isFirstTrack, bool isLastTrack,
                             uint32_t *v1, uint32_t *v2)
{
    // Positions m are 1-based. The first track skips its first 2939 samples;
    // the last skips its final 2940, unless it is also the first (a one-track
    // disc sums its end in full).
    const int64_t n = int64_t(stereoSamples);
    const int64_t first = isFirstTrack ? kAccurateRipSkip : 1;
    const int64_t last = (isLastTrack && !isFirstTrack) ? n - kAccurateRipSkip : n;
    uint32_t sum1 = 0;
    uint32_t sum2 = 0;
    for (int64_t m = first; m <= last; ++m) {
        const uint32_t word = readWord(audio + (m - 1) * 4);
        const uint64_t product = uint64_t(word) * uint64_t(m);
        sum1 += uint32_t(product);
        sum2 += uint32_t(product) + uint32_t(product >> 32);
    }
    *v1 = sum1;
    *v2 = sum2;
}

int ripOpen(RipContext **context, const RipSettings *settings, CdIo_t *disc)
{
    if (!context) {
        return 1;
    }
    *context = nullptr;
    auto *ctx = new (std::nothrow) RipContext;
    if (!ctx) {
        consoleLog("Unable to malloc ctx");
        return 1;
    }
    if (settings) {
        ctx->settings = *settings;
    }
    ctx->disc = disc;

    // The drive layer works on the disc handle already open, so the disc
    // ripped is the one chosen.
    char *searchMessage = nullptr;
    ctx->drive = disc ? cdio_cddap_identify_cdio(disc, CDDA_MESSAGE_FORGETIT, &searchMessage) : nullptr;
    if (!ctx->drive) {
        consoleLog("Unable to init cddap context");
        if (searchMessage) {
            consoleLog(" - \"%s\"\n", searchMessage);
        } else {
            consoleLog("!\n");
        }
        cdio_cddap_free_messages(searchMessage);
        delete ctx;
        return 1;
    }
    cdio_cddap_free_messages(searchMessage);

    cdio_cddap_verbose_set(ctx->drive, CDDA_MESSAGE_FORGETIT, CDDA_MESSAGE_FORGETIT);
    // An image holds little-endian samples; guessing the byte order from the
    // audio can go wrong on noisy material, so it is not left to a guess.
    if (isDiscImage(disc)) {
        ctx->drive->bigendianp = 0;
    }
    consoleLog("Opening drive...\n");
    if (cdio_cddap_open(ctx->drive) != 0) {
        consoleLog("Unable to open device!\n");
        ripFree(&ctx);
        return 1;
    }
    if (isDiscImage(disc)) {
        ctx->drive->bigendianp = 0;
    }

    ctx->paranoia = cdio_paranoia_init(ctx->drive);
    if (!ctx->paranoia) {
        consoleLog("Unable to init paranoia!\n");
        ripFree(&ctx);
        return 1;
    }
    cdio_paranoia_modeset(ctx->paranoia, ctx->settings.disableParanoia ? PARANOIA_MODE_DISABLE : PARANOIA_MODE_FULL);

    ctx->leadOut = uint32_t(cdio_get_track_lsn(disc, CDIO_CDROM_LEADOUT_TRACK));
    const track_t driveTracks = cdio_cddap_tracks(ctx->drive);
    const track_t lastTrack = cdio_get_last_track_num(disc);
    if (driveTracks > 0) {
        // Recorded only: track 0 is invalid, so this subtracts libcdio's
        // invalid-address answer.
        ctx->discLength = uint32_t(cdio_get_track_last_lsn(disc, lastTrack) - cdio_get_track_last_lsn(disc, 0));
    } else {
        ctx->discLength = uint32_t(cdio_get_disc_last_lsn(disc));
    }

    // Records are indexed by the disc's own track numbers, so a disc whose
    // first track is 2 still finds track n at index n - 1.
    ctx->trackCount = driveTracks;
    if (lastTrack != CDIO_INVALID_TRACK && lastTrack > ctx->trackCount) {
        ctx->trackCount = lastTrack;
    }
    ctx->tracks = new (std::nothrow) RipTrack[ctx->trackCount + 1]();
    if (!ctx->tracks) {
        consoleLog("Unable to malloc ctx");
        ripFree(&ctx);
        return 1;
    }
    for (uint32_t i = 0; i < ctx->trackCount; ++i) {
        ctx->tracks[i].number = i + 1;
    }
    *context = ctx;
    return 0;
}

RipTrack *ripTrackRecord(RipContext *context, uint32_t number)
{
    if (!context || !context->tracks || number < 1 || number > context->trackCount + 1) {
        return nullptr;
    }
    return &context->tracks[number - 1];
}

int ripTrack(RipContext *context, RipTrack *track, const RipProgressCallback &progress,
             const RipMessageCallback &message)
{
    bool stop = false;
    const auto report = [&](int32_t current, int32_t total, const int16_t *samples) {
        if (progress) {
            progress(current, total, samples, &stop);
        }
    };

    report(0, 1, nullptr);
    if (stop) {
        return 1;
    }
    CdIo_t *disc = context->disc;
    const auto number = track_t(track->number);

    const uint32_t last = uint32_t(cdio_get_track_last_lsn(disc, number));
    if (last > context->leadOut) {
        if (message) {
            message("Track last frame is larger than last disc frame.");
        }
        return 1;
    }
    const uint32_t first = uint32_t(cdio_get_track_lsn(disc, number));
    track->firstSector = first;
    track->lastSector = last;

    // A negative sector offset starts the read earlier; before the start of
    // the disc there is nothing to read, so that part of the buffer is skipped.
    const int32_t k = context->settings.offsetSectors;
    const int32_t absK = k < 0 ? -k : k;
    const int32_t pre = k < 0 ? -k : 0;
    int32_t start = int32_t(first) - pre;
    const bool movedUp = start < 0;
    if (movedUp) {
        start = 0;
    }
    cdio_paranoia_seek(context->paranoia, start, SEEK_SET);
    track->preEmphasis = int32_t(cdio_get_track_preemphasis(disc, number));

    const int32_t sectors = int32_t(last - first + 1);
    const size_t bufferSectors = size_t(absK) + size_t(sectors);
    const size_t bufferBytes = bufferSectors * kRipSectorBytes;
    ripReleaseTrack(track);
    track->buffer = static_cast<uint8_t *>(std::malloc(bufferBytes));
    if (!track->buffer) {
        if (message) {
            message("Unable to allocate the track buffer.");
        }
        return 1;
    }
    track->audio = track->buffer + int64_t(context->settings.offsetSamples) * 4 + int64_t(pre) * kRipSectorBytes;

    const int32_t skipped = movedUp ? pre - int32_t(first) : 0;
    track->samples = movedUp ? uint64_t(uint32_t(skipped * kRipSectorBytes / 2)) : 0;

    int32_t toRead = absK + sectors - skipped;
    if (k > 0 && int64_t(toRead) + first > context->leadOut) {
        toRead -= absK; // the extra sectors past the end are not read
    }

    report(0, toRead, nullptr);
    if (stop) {
        return 1;
    }

    int32_t delivered = 0;
    // Every attempt moves on by one sector, delivered or not, so the
    // attempts are bounded by the sectors to read.
    for (int32_t attempt = 0; delivered < toRead && attempt < toRead; ++attempt) {
        int16_t *sector =
            context->settings.readRetries != 0
                ? cdio_paranoia_read_limited(context->paranoia, nullptr, int(context->settings.readRetries))
                : cdio_paranoia_read(context->paranoia, nullptr);
        passDriveTexts(context->drive, message, &stop);
        if (sector) {
            report(delivered + 1, toRead, sector);
            ++delivered;
            const uint64_t offset = track->samples * 2;
            if (offset + kRipSectorBytes <= bufferBytes) {
                std::memcpy(track->buffer + offset, sector, kRipSectorBytes);
            }
        }
        track->samples += kRipSectorValues;
        if (stop) {
            return 1;
        }
    }

    consoleLog("Track %i ripped!\n", int(track->number));

    track->samples = uint64_t(sectors) * kRipSectorValues;
    const bool isFirstTrack = number == cdio_get_first_track_num(disc);
    const bool isLastTrack = number == cdio_get_last_track_num(disc);
    ripAccurateRipChecksums(track->audio, uint64_t(sectors) * 588, isFirstTrack, isLastTrack, &track->checksumV1,
                            &track->checksumV2);
    return 0;
}

void ripReleaseTrack(RipTrack *track)
{
    if (track) {
        std::free(track->buffer);
        track->buffer = nullptr;
        track->audio = nullptr;
    }
}

void ripFree(RipContext **context)
{
    if (!context || !*context) {
        return;
    }
    RipContext *ctx = *context;
    if (ctx->tracks) {
        for (uint32_t i = 0; i <= ctx->trackCount; ++i) {
            ripReleaseTrack(&ctx->tracks[i]);
        }
        delete[] ctx->tracks;
    }
    if (ctx->paranoia) {
        cdio_paranoia_free(ctx->paranoia);
    }
    // The disc handle belongs to the caller: close the drive layer only.
    if (ctx->drive) {
        cdio_cddap_close_no_free_cdio(ctx->drive);
    }
    delete ctx;
    *context = nullptr;
}
