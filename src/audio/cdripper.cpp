#include "audio/cdripper.h"

#include <cdio/paranoia/cdda.h>
#include <cdio/paranoia/paranoia.h>

#include "cd/disclayout.h"
#include "core/logger.h"
#include "platform/discimages.h"

#include <QString>

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <thread>

namespace {

constexpr int kAccurateRipSkip = 2940; // five sectors less one sample
constexpr int kSamplesPerSector = 588;

// Paranoia gives up on a sector after its retry count; these bound the drive
// reads and the time spent on one sector beyond that, whatever the drive does.
constexpr int kMaxDriveReadsPerSector = 5000;
constexpr auto kMaxTimePerSector = std::chrono::seconds(60);
// While one sector takes long, the caller is asked this often whether to stop.
constexpr auto kStopPollInterval = std::chrono::milliseconds(250);
// A rip gives up once this many sectors could not be read: the track has
// failed, and a damaged or missing disc would otherwise be read to its end.
constexpr int kMaxBadSectors = 75;

// The engine's lines go to the log, on the terminal only where the log is echoed.
void consolePrintf(const char *format, ...) __attribute__((format(printf, 1, 2)));
void consolePrintf(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    consoleWrite(QString::vasprintf(format, arguments));
    va_end(arguments);
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

std::mutex &simulatedLock()
{
    static std::mutex lock;
    return lock;
}

std::vector<int32_t> &simulatedUnreadable()
{
    static std::vector<int32_t> sectors;
    return sectors;
}

std::chrono::milliseconds &simulatedDelay()
{
    static std::chrono::milliseconds delay{0};
    return delay;
}

std::vector<int32_t> &simulatedUnstable()
{
    static std::vector<int32_t> sectors;
    return sectors;
}

// The bookkeeping of one rip while paranoia works: paranoia's callback and
// the drive reads under it have no room for a context, so they find it here.
// A rip runs on one thread, and so do the calls it causes.
struct ReadWatch
{
    RipContext *context = nullptr;
    int32_t first = 0; // the sectors this rip reads
    int32_t last = -1;
    int32_t runFirst = 0; // the audio around them; outside it is silence
    int32_t runLast = -1;
    // Per sector of that range: 0 not read yet, 1 read at least once, 2 only
    // ever failed.
    std::vector<uint8_t> state;
    std::vector<int32_t> skippedSectors; // where paranoia gave up and moved on
    RipStatistics statistics;
    bool skipped = false; // paranoia skipped since the last sector came back
    bool refuse = false;  // stop requested or work bound reached: fail reads at once
    bool overworked = false;
    int readsThisSector = 0;
    std::chrono::steady_clock::time_point sectorStarted;
    std::chrono::steady_clock::time_point lastPoll;
    std::function<bool()> pollStop; // asks the caller; true when it wants to stop

    void startSector()
    {
        readsThisSector = 0;
        sectorStarted = lastPoll = std::chrono::steady_clock::now();
    }

    void mark(int32_t begin, int32_t end, uint8_t value)
    {
        for (int32_t sector = std::max(begin, first); sector < std::min(end, last + 1); ++sector) {
            uint8_t &slot = state[size_t(sector - first)];
            if (value == 1 || slot != 1) {
                slot = value;
            }
        }
    }
};

thread_local ReadWatch *t_watch = nullptr;

void paranoiaCallback(long position, paranoia_cb_mode_t mode)
{
    ReadWatch *watch = t_watch;
    if (!watch) {
        return;
    }
    switch (mode) {
    case PARANOIA_CB_VERIFY:
        ++watch->statistics.verifications;
        break;
    case PARANOIA_CB_FIXUP_EDGE:
    case PARANOIA_CB_FIXUP_ATOM:
    case PARANOIA_CB_FIXUP_DROPPED:
    case PARANOIA_CB_FIXUP_DUPED:
        ++watch->statistics.corrections;
        break;
    case PARANOIA_CB_SKIP:
        ++watch->statistics.skips;
        watch->skippedSectors.push_back(int32_t(position / kRipSectorValues));
        break;
    case PARANOIA_CB_READERR:
        ++watch->statistics.readErrors;
        break;
    default:
        break;
    }
}

// Stands in for the drive layer's read: counts and bounds the work, lets a
// stop request end a long retry at once, records which sectors really came
// back, and hosts the unreadable-sector test seam.
long watchedDriveRead(cdrom_drive_t *drive, void *buffer, int32_t begin, long sectors)
{
    ReadWatch *watch = t_watch;
    if (!watch) {
        return -1;
    }
    if (!watch->refuse) {
        const auto now = std::chrono::steady_clock::now();
        if (++watch->readsThisSector > kMaxDriveReadsPerSector || now - watch->sectorStarted > kMaxTimePerSector) {
            watch->refuse = true;
            watch->overworked = true;
        } else if (watch->pollStop && now - watch->lastPoll >= kStopPollInterval) {
            watch->lastPoll = now;
            watch->refuse = watch->pollStop();
        }
    }
    // Once refused, reads come back at once as unread silence: a read that
    // fails outright can keep paranoia from ever moving on, silence cannot,
    // and the sectors stay marked as never read.
    if (watch->refuse) {
        if (buffer) {
            std::memset(buffer, 0, size_t(sectors) * kRipSectorBytes);
        }
        watch->mark(begin, int32_t(begin + sectors), 2);
        return sectors;
    }
    // Paranoia reads without a buffer only to move the drive past its cache;
    // outside the audio there is no need, and inside nothing is delivered.
    if (!buffer) {
        if (begin < watch->runFirst || begin + sectors - 1 > watch->runLast) {
            return sectors;
        }
        return watch->context->driveRead(drive, buffer, begin, sectors);
    }
    // Outside the run of audio tracks there is nothing to read as audio:
    // paranoia's look-ahead gets silence there, and the drive is not asked.
    auto *bytes = static_cast<uint8_t *>(buffer);
    if (begin < watch->runFirst) {
        const long before = std::min<long>(sectors, watch->runFirst - begin);
        std::memset(bytes, 0, size_t(before) * kRipSectorBytes);
        if (before == sectors) {
            return sectors;
        }
        const long rest = watchedDriveRead(drive, bytes + before * kRipSectorBytes, watch->runFirst, sectors - before);
        return rest < 0 ? before : before + rest;
    }
    if (begin + sectors - 1 > watch->runLast) {
        const long inside = std::max<long>(0, watch->runLast - begin + 1);
        std::memset(bytes + inside * kRipSectorBytes, 0, size_t(sectors - inside) * kRipSectorBytes);
        if (inside == 0) {
            return sectors;
        }
        const long got = watchedDriveRead(drive, buffer, begin, inside);
        return got == inside ? sectors : got;
    }
    long wanted = sectors;
    std::chrono::milliseconds delay{0};
    {
        std::lock_guard<std::mutex> locker(simulatedLock());
        for (int32_t bad : simulatedUnreadable()) {
            if (bad >= begin && bad < begin + wanted) {
                wanted = bad - begin;
                delay = simulatedDelay();
            }
        }
    }
    if (delay.count() > 0) {
        std::this_thread::sleep_for(delay);
    }
    long got = wanted > 0 ? watch->context->driveRead(drive, buffer, begin, wanted) : -1;
    if (got > 0) {
        watch->statistics.sectorsRead += uint32_t(got);
        std::lock_guard<std::mutex> locker(simulatedLock());
        static uint32_t noise = 2463534242u; // xorshift: never the same samples twice
        for (int32_t unstable : simulatedUnstable()) {
            for (int i = 0; unstable >= begin && unstable < begin + got && i < kRipSectorBytes; ++i) {
                noise ^= noise << 13;
                noise ^= noise >> 17;
                noise ^= noise << 5;
                bytes[size_t(unstable - begin) * kRipSectorBytes + size_t(i)] ^= uint8_t(noise | 1);
            }
        }
    }
    const long delivered = std::max<long>(got, 0);
    watch->mark(begin, int32_t(begin + delivered), 1);
    watch->mark(int32_t(begin + delivered), int32_t(begin + sectors), 2);
    return got;
}

// "12-14, 20" for the listed sectors.
std::string describeRanges(const std::vector<int32_t> &sectors)
{
    std::string text;
    for (size_t i = 0; i < sectors.size();) {
        size_t j = i;
        while (j + 1 < sectors.size() && sectors[j + 1] == sectors[j] + 1) {
            ++j;
        }
        if (!text.empty()) {
            text += ", ";
        }
        text += std::to_string(sectors[i]);
        if (j > i) {
            text += "-" + std::to_string(sectors[j]);
        }
        i = j + 1;
    }
    return text;
}

// The run of audio tracks around number, as sectors: reads never leave it,
// so a data track or the space past the lead-out is never read as audio.
void audioRun(CdIo_t *disc, track_t number, uint32_t leadOut, int32_t *runFirst, int32_t *runLast)
{
    const track_t firstTrack = cdio_get_first_track_num(disc);
    const track_t lastTrack = cdio_get_last_track_num(disc);
    track_t low = number;
    while (low > firstTrack && ripIsAudioTrack(disc, track_t(low - 1))) {
        --low;
    }
    track_t high = number;
    while (high < lastTrack && ripIsAudioTrack(disc, track_t(high + 1))) {
        ++high;
    }
    // The run ends with its session: an Enhanced CD's gap before the data
    // session is not audio either.
    lsn_t highFirst = 0;
    lsn_t highLast = -1;
    DiscLayout::trackSectors(disc, high, &highFirst, &highLast);
    *runFirst = std::max<int32_t>(0, cdio_get_track_lsn(disc, low));
    *runLast = std::min<int32_t>(int32_t(leadOut) - 1, highLast);
}

void setParanoiaMode(RipContext *context)
{
    // Full paranoia without "never skip": with it, paranoia ignores the retry
    // count and retries an unreadable sector for ever. A skipped sector fails
    // the track instead.
    cdio_paranoia_modeset(context->paranoia, context->settings.disableParanoia
                                                 ? PARANOIA_MODE_DISABLE
                                                 : (PARANOIA_MODE_FULL & ~PARANOIA_MODE_NEVERSKIP));
}

} // namespace

bool ripIsAudioTrack(CdIo_t *disc, track_t number)
{
    return disc && cdio_get_track_format(disc, number) == TRACK_FORMAT_AUDIO;
}

track_t ripFirstAudioTrack(CdIo_t *disc)
{
    const track_t first = cdio_get_first_track_num(disc);
    const track_t last = cdio_get_last_track_num(disc);
    if (first == CDIO_INVALID_TRACK || last == CDIO_INVALID_TRACK) {
        return 0;
    }
    for (track_t number = first; number <= last; ++number) {
        if (ripIsAudioTrack(disc, number)) {
            return number;
        }
    }
    return 0;
}

track_t ripLastAudioTrack(CdIo_t *disc)
{
    const track_t first = cdio_get_first_track_num(disc);
    const track_t last = cdio_get_last_track_num(disc);
    if (first == CDIO_INVALID_TRACK || last == CDIO_INVALID_TRACK) {
        return 0;
    }
    for (track_t number = last; number >= first && number > 0; --number) {
        if (ripIsAudioTrack(disc, number)) {
            return number;
        }
    }
    return 0;
}

void ripSetReadOffset(RipSettings *settings, int32_t samples)
{
    const int32_t magnitude = samples < 0 ? -samples : samples;
    const int32_t sectors = (magnitude + kSamplesPerSector - 1) / kSamplesPerSector;
    settings->offsetSamples = samples;
    settings->offsetSectors = samples < 0 ? -sectors : sectors;
}

void ripSimulateUnreadableSectors(const std::vector<int32_t> &sectors, int failedReadMilliseconds)
{
    std::lock_guard<std::mutex> locker(simulatedLock());
    simulatedUnreadable() = sectors;
    simulatedDelay() = std::chrono::milliseconds(failedReadMilliseconds);
}

void ripSimulateUnstableSectors(const std::vector<int32_t> &sectors)
{
    std::lock_guard<std::mutex> locker(simulatedLock());
    simulatedUnstable() = sectors;
}

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
    const auto n = int64_t(stereoSamples);
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
        consolePrintf("Unable to malloc ctx");
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
        consolePrintf("Unable to init cddap context");
        if (searchMessage) {
            consolePrintf(" - \"%s\"\n", searchMessage);
        } else {
            consolePrintf("!\n");
        }
        cdio_cddap_free_messages(searchMessage);
        delete ctx;
        return 1;
    }
    cdio_cddap_free_messages(searchMessage);

    // The drive's error and message texts are kept for the rip to pass on
    // (and to stop on), rather than printed or forgotten.
    cdio_cddap_verbose_set(ctx->drive, CDDA_MESSAGE_LOGIT, CDDA_MESSAGE_LOGIT);
    // Byte order is never guessed from the samples (the guess fails on
    // noise-like audio): drives deliver little-endian audio, and an image says
    // what it holds in its cue or toc file.
    if (const char *imagePath = cdio_get_arg(disc, "cue"); imagePath && *imagePath) {
        ctx->bigEndianAudio = DiscImages::holdsBigEndianAudio(QString::fromLocal8Bit(imagePath));
    }
    ctx->drive->bigendianp = ctx->bigEndianAudio ? 1 : 0;
    consolePrintf("Opening drive...\n");
    if (cdio_cddap_open(ctx->drive) != 0) {
        consolePrintf("Unable to open device!\n");
        ripFree(&ctx);
        return 1;
    }
    ctx->drive->bigendianp = ctx->bigEndianAudio ? 1 : 0;
    ctx->drive->b_swap_bytes = true;
    // What the drive said while opening goes to the console; a rip passes on
    // only what comes up while it reads.
    bool ignored = false;
    passDriveTexts(
        ctx->drive, [](const char *text) { consolePrintf("%s", text); }, &ignored);
    ctx->driveRead = ctx->drive->read_audio;
    ctx->drive->read_audio = watchedDriveRead;

    ctx->paranoia = cdio_paranoia_init(ctx->drive);
    if (!ctx->paranoia) {
        consolePrintf("Unable to init paranoia!\n");
        ripFree(&ctx);
        return 1;
    }
    setParanoiaMode(ctx);

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
        consolePrintf("Unable to malloc ctx");
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
    track->failure.clear();
    track->statistics = RipStatistics();
    const auto fail = [&](const std::string &text) {
        track->failure = text;
        if (message) {
            message(text.c_str());
        }
        return 1;
    };

    report(0, 1, nullptr);
    if (stop) {
        return 1;
    }
    CdIo_t *disc = context->disc;
    const auto number = track_t(track->number);
    const std::string name = "Track " + std::to_string(track->number);

    lsn_t firstLsn = CDIO_INVALID_LSN;
    lsn_t lastLsn = CDIO_INVALID_LSN;
    DiscLayout::trackSectors(disc, number, &firstLsn, &lastLsn);
    if (uint32_t(lastLsn) > context->leadOut) {
        return fail("Track last frame is larger than last disc frame.");
    }
    if (firstLsn == CDIO_INVALID_LSN || lastLsn == CDIO_INVALID_LSN || firstLsn < 0 || firstLsn > lastLsn) {
        return fail(name + " is not on the disc (sectors " + std::to_string(firstLsn) + " to " +
                    std::to_string(lastLsn) + ").");
    }
    if (!ripIsAudioTrack(disc, number)) {
        return fail(name + " is a data track, not audio; it cannot be ripped.");
    }
    const auto first = int32_t(firstLsn);
    const auto last = int32_t(lastLsn);
    track->firstSector = uint32_t(first);
    track->lastSector = uint32_t(last);

    // The offset's sample part must lie within the extra sectors read on its
    // side; anything else would take audio from outside the buffer.
    const int32_t k = context->settings.offsetSectors;
    const int32_t offsetSamples = context->settings.offsetSamples;
    const int32_t absK = k < 0 ? -k : k;
    const bool offsetFits =
        absK <= kRipMaxOffsetSectors && (k < 0 ? offsetSamples <= 0 && offsetSamples >= k * kSamplesPerSector
                                               : offsetSamples >= 0 && offsetSamples <= k * kSamplesPerSector);
    if (!offsetFits) {
        return fail("The read offset of " + std::to_string(offsetSamples) + " samples does not fit its " +
                    std::to_string(k) + " sectors.");
    }
    const int32_t pre = k < 0 ? -k : 0;
    track->preEmphasis = int32_t(cdio_get_track_preemphasis(disc, number));

    // The buffer holds the track with the extra sectors of the offset; what
    // lies outside the disc's audio stays silence.
    const int32_t sectors = last - first + 1;
    const int32_t bufferFirst = first - pre;
    const size_t bufferSectors = size_t(absK) + size_t(sectors);
    const size_t bufferBytes = bufferSectors * kRipSectorBytes;
    ripReleaseTrack(track);
    track->buffer = static_cast<uint8_t *>(std::calloc(bufferSectors, kRipSectorBytes));
    if (!track->buffer) {
        return fail("Unable to allocate the track buffer.");
    }
    track->audio = track->buffer + int64_t(offsetSamples) * 4 + int64_t(pre) * kRipSectorBytes;

    int32_t runFirst = 0;
    int32_t runLast = 0;
    audioRun(disc, number, context->leadOut, &runFirst, &runLast);
    const int32_t readFirst = std::max(bufferFirst, runFirst);
    const int32_t readLast = std::min(first + sectors - 1 + (k > 0 ? k : 0), runLast);
    const int32_t toRead = std::max(0, readLast - readFirst + 1);
    track->samples = uint64_t(readFirst - bufferFirst) * kRipSectorValues;

    report(0, toRead, nullptr);
    if (stop) {
        return 1;
    }

    ReadWatch watch;
    watch.context = context;
    watch.first = readFirst;
    watch.last = readLast;
    // The drive is asked for this track's sectors only: paranoia reads far
    // ahead, and with the whole disc open to it every track would read on to
    // the end of the disc (twice, to verify), making a disc's rip quadratic.
    watch.runFirst = readFirst;
    watch.runLast = readLast;
    watch.state.assign(size_t(toRead), 0);
    watch.pollStop = [&] {
        report(0, toRead, nullptr);
        return stop;
    };
    t_watch = &watch;
    // A fresh reader per track: what paranoia learnt about drift and overlap
    // on a damaged track must not throw off the next one.
    if (cdrom_paranoia_t *fresh = cdio_paranoia_init(context->drive)) {
        cdio_paranoia_free(context->paranoia);
        context->paranoia = fresh;
        setParanoiaMode(context);
    }
    cdio_paranoia_seek(context->paranoia, readFirst, SEEK_SET);

    // The drive's own texts go to the caller as they come; the last one is
    // kept to name the failure when it stopped the rip.
    std::string driveText;
    int32_t stoppedAt = -1;
    const RipMessageCallback keepDriveText = [&](const char *text) {
        driveText = text;
        if (message) {
            message(text);
        }
    };
    std::vector<int32_t> bad;
    int32_t delivered = 0;
    for (int32_t index = 0; index < toRead && !stop; ++index) {
        const int32_t sectorNumber = readFirst + index;
        watch.startSector();
        int16_t *sector =
            context->settings.readRetries != 0
                ? cdio_paranoia_read_limited(context->paranoia, paranoiaCallback, int(context->settings.readRetries))
                : cdio_paranoia_read(context->paranoia, paranoiaCallback);
        passDriveTexts(context->drive, keepDriveText, &stop);
        // A sector is good when it came back, paranoia did not skip it, and
        // the drive delivered it at least once.
        const bool skipped = std::find(watch.skippedSectors.begin(), watch.skippedSectors.end(), sectorNumber) !=
                             watch.skippedSectors.end();
        const bool good = sector && !skipped && watch.state[size_t(index)] == 1 && !watch.overworked;
        if (sector) {
            report(delivered + 1, toRead, sector);
            ++delivered;
            const uint64_t offset = track->samples * 2;
            if (offset + kRipSectorBytes <= bufferBytes) {
                std::memcpy(track->buffer + offset, sector, kRipSectorBytes);
            }
        }
        track->samples += kRipSectorValues;
        if (!good && !watch.refuse) {
            bad.push_back(sectorNumber);
        } else if (!good && watch.overworked) {
            bad.push_back(sectorNumber);
            break;
        }
        if (int(bad.size()) >= kMaxBadSectors) {
            break;
        }
        if (stop && !driveText.empty() && bad.empty()) {
            stoppedAt = sectorNumber;
        }
    }
    t_watch = nullptr;
    watch.statistics.rereads =
        watch.statistics.sectorsRead > uint32_t(toRead) ? watch.statistics.sectorsRead - uint32_t(toRead) : 0;
    track->statistics = watch.statistics;

    if (!bad.empty()) {
        std::string text = name + ": sector";
        text += bad.size() > 1 ? "s " : " ";
        text += describeRanges(bad);
        text += int(bad.size()) >= kMaxBadSectors ? " and possibly more" : "";
        text += " could not be read.";
        return fail(text);
    }
    if (stoppedAt >= 0) {
        // Name the sectors the drive failed on, when it said which; else
        // where the rip was.
        std::vector<int32_t> unread;
        for (size_t i = 0; i < watch.state.size(); ++i) {
            if (watch.state[i] == 2) {
                unread.push_back(readFirst + int32_t(i));
            }
        }
        const std::string where =
            unread.empty() ? "at sector " + std::to_string(stoppedAt) : "reading sectors " + describeRanges(unread);
        return fail(name + ": the drive reported \"" + driveText.substr(0, driveText.find('\n')) + "\" " + where + ".");
    }
    if (stop) {
        return 1;
    }
    if (delivered < toRead) {
        return fail(name + ": " + std::to_string(toRead - delivered) + " of " + std::to_string(toRead) +
                    " sectors were not delivered.");
    }

    consolePrintf("Track %i ripped!\n", int(track->number));

    track->samples = uint64_t(sectors) * kRipSectorValues;
    // AccurateRip skips the edges of the disc's audio, not of the disc: a
    // data track first or last moves them to the first or last audio track.
    const bool isFirstTrack = number == ripFirstAudioTrack(disc);
    const bool isLastTrack = number == ripLastAudioTrack(disc);
    ripAccurateRipChecksums(track->audio, uint64_t(sectors) * kSamplesPerSector, isFirstTrack, isLastTrack,
                            &track->checksumV1, &track->checksumV2);
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
