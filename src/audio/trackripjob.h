#pragma once

#include "audio/accuraterip.h"
#include "audio/riplog.h"
#include "cd/plcid3tag.h"
#include "core/error.h"

#include <QString>

#include <cdio/cdio.h>

#include <functional>
#include <memory>

class DiscSession;
class FLACEncoder;

// The domain of the errors of a track's rip (code 200): the disc's, not the
// service's.
inline constexpr const char *kRipErrorDomain = "com.lyrabox.pelicane.rip";

// What a rip of one track needs.
struct TrackRipRequest
{
    std::shared_ptr<DiscSession> disc;
    int trackNumber = 0; // the disc's own number
    int readOffset = 0;  // the drive's read offset, stereo samples
    int readRetries = 5;
    PLCID3Tag tags;
    // The database's answer for the disc (fetchAccurateRip()).
    AccurateRip::Lookup accurateRip;
};

// One CD track ripped with error-correcting reads, verified against
// AccurateRip, encoded to a tagged FLAC file and entered in the rip log: the
// whole sequence, for the upload of a CD and for the rip command alike. Runs
// on the calling thread, which is never the GUI thread; the disc is held
// (DiscSession::use) for the read and the encoding, so an eject waits and a
// stop asked for by it ends the rip at the next sector.
class TrackRipJob
{
public:
    enum class Stage { Reading, Encoding };
    // Sectors read (or encoded) of the track's sectors.
    using Progress = std::function<void(Stage stage, qint64 done, qint64 total)>;

    explicit TrackRipJob(TrackRipRequest request);
    ~TrackRipJob();
    TrackRipJob(const TrackRipJob &) = delete;
    TrackRipJob &operator=(const TrackRipJob &) = delete;

    // True when the track was read whole and encoded; stop is asked between
    // sectors and ends the rip as stopped (error() is then the cancelled one).
    bool run(const Progress &progress, const std::function<bool()> &stop);

    // The FLAC file: a temporary file that lives as long as the job.
    QString flacPath() const { return m_flacPath; }
    // Copies the FLAC file to target (replacing what is there).
    OptionalError saveAs(const QString &target) const;

    // Filled by run() whatever came of it, the verdict included.
    const RipLogTrack &logEntry() const { return m_entry; }
    // Why the track failed: a message for the user, code 200 (or cancelled).
    const OptionalError &error() const { return m_error; }

    // The disc's AccurateRip answer, asked once per disc and process (a
    // failed answer is asked again after a minute). Blocks for the network
    // but never holds the disc meanwhile.
    static AccurateRip::Lookup fetchAccurateRip(const std::shared_ptr<DiscSession> &disc, int timeoutMs,
                                                QString *discIdText = nullptr);

    // The read offset configured for every rip (the setting), in samples; 0,
    // with what is wrong in *problem, for a setting that is not a number in
    // the range a drive can have.
    static int configuredReadOffset(QString *problem = nullptr);

private:
    void readAndEncode(CdIo_t *disc, const Progress &progress, const std::function<bool()> &stop);

    TrackRipRequest m_request;
    std::unique_ptr<FLACEncoder> m_encoder;
    QString m_flacPath;
    RipLogTrack m_entry;
    OptionalError m_error;
};
