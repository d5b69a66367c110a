// pelicane-cli rip DEVICE-OR-IMAGE --out FOLDER [--tracks LIST]
// [--read-offset SAMPLES]: rips audio tracks to tagged FLAC files, checks them
// against AccurateRip and writes the rip log.
#include "cli/arguments.h"
#include "cli/commands.h"
#include "cli/terminal.h"

#include "audio/accuraterip.h"
#include "audio/cdripper.h"
#include "audio/riplog.h"
#include "audio/trackripjob.h"
#include "cd/discsession.h"
#include "cd/plcaudiocdprocessor.h"
#include "cd/plcvolumetype.h"
#include "platform/discimages.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QTextStream>
#include <QUrl>

#include <set>

namespace {

constexpr int kReadRetries = 5;
constexpr int kAccurateRipTimeoutMs = 15000;
constexpr int kMetadataTimeoutMs = 15000;
constexpr int kMaxOffsetSamples = kRipMaxOffsetSectors * 588;

const char kUsage[] = "usage: pelicane-cli rip DEVICE-OR-IMAGE --out FOLDER [--tracks LIST] [--read-offset SAMPLES]\n";

// "1,3-5" as track numbers; false when it is not such a list.
bool parseTrackList(const QString &text, std::set<int> *tracks)
{
    for (const QString &part : text.split(u',')) {
        const QStringList bounds = part.trimmed().split(u'-');
        bool okLow = false;
        bool okHigh = false;
        const int low = bounds.first().toInt(&okLow);
        const int high = bounds.size() == 2 ? bounds.last().toInt(&okHigh) : low;
        if (bounds.size() > 2 || !okLow || (bounds.size() == 2 && !okHigh) || low < 1 || high > 99 || low > high) {
            return false;
        }
        for (int n = low; n <= high; ++n) {
            tracks->insert(n);
        }
    }
    return !tracks->empty();
}

QString safeFileName(QString name)
{
    static const QString kRefused = QStringLiteral("/\\:*?\"<>|");
    for (QChar &c : name) {
        if (kRefused.contains(c) || c.unicode() < 0x20) {
            c = u'_';
        }
    }
    name = name.trimmed();
    if (name.startsWith(u'.')) {
        name.replace(0, 1, u'_');
    }
    return name.left(150);
}

QString twoDigits(int number)
{
    return QStringLiteral("%1").arg(number, 2, 10, QLatin1Char('0'));
}

struct RipOptions
{
    QString target;
    QString folder;
    // None: every audio track.
    std::set<int> tracks;
    int readOffset = 0;
};

CommandExit wrongRipArgument(const QString &text)
{
    return CommandExit::wrongArguments(QStringLiteral("pelicane-cli rip: ") + text);
}

// Takes the value of --out, --tracks or --read-offset; the way out when it is
// wrong.
std::optional<CommandExit> takeRipValue(const QString &option, const QString &value, RipOptions &options,
                                        std::optional<int> &readOffset)
{
    if (option == QLatin1String("--out")) {
        options.folder = value;
    } else if (option == QLatin1String("--tracks")) {
        if (!parseTrackList(value, &options.tracks)) {
            return wrongRipArgument(QStringLiteral("--tracks takes a list such as 1,3-5, not '") + value +
                                    QStringLiteral("'\n"));
        }
    } else {
        bool ok = false;
        const int samples = value.toInt(&ok);
        if (!ok || samples < -kMaxOffsetSamples || samples > kMaxOffsetSamples) {
            return wrongRipArgument(QStringLiteral("--read-offset takes samples from %1 to %2, not '")
                                        .arg(-kMaxOffsetSamples)
                                        .arg(kMaxOffsetSamples) +
                                    value + QStringLiteral("'\n"));
        }
        readOffset = samples;
    }
    return std::nullopt;
}

Parsed<RipOptions> parseRipOptions(const QStringList &args)
{
    const QString usage = QString::fromLatin1(kUsage);
    RipOptions options;
    std::optional<int> readOffset;
    ArgumentScanner scanner(args);
    while (scanner.next()) {
        const QString &arg = scanner.current();
        if (!scanner.isOption()) {
            if (!options.target.isEmpty()) {
                return wrongRipArgument(QStringLiteral("unexpected argument '") + arg + QStringLiteral("'\n") + usage);
            }
            options.target = arg;
            continue;
        }
        if (scanner.isHelp()) {
            return CommandExit::help(usage);
        }
        if (arg != QLatin1String("--out") && arg != QLatin1String("--tracks") &&
            arg != QLatin1String("--read-offset")) {
            return wrongRipArgument(QStringLiteral("unknown option ") + scanner.raw() + QLatin1Char('\n') + usage);
        }
        QString problem;
        const std::optional<QString> value = scanner.takeValue(&problem);
        if (!value || value->isEmpty()) {
            return wrongRipArgument((problem.isEmpty() ? arg + QStringLiteral(" needs a value") : problem) +
                                    QLatin1Char('\n') + usage);
        }
        if (std::optional<CommandExit> wrong = takeRipValue(arg, *value, options, readOffset)) {
            return *wrong;
        }
    }
    if (options.target.isEmpty() || options.folder.isEmpty()) {
        return CommandExit::wrongArguments(usage);
    }
    if (!QFileInfo::exists(options.target)) {
        return wrongRipArgument(QStringLiteral("no such drive or image: ") + options.target + QLatin1Char('\n'));
    }
    // The drive's offset as the user set it, unless given for this rip.
    QString settingProblem;
    options.readOffset = readOffset.value_or(TrackRipJob::configuredReadOffset(&settingProblem));
    if (!readOffset && !settingProblem.isEmpty()) {
        return wrongRipArgument(settingProblem + QLatin1Char('\n'));
    }
    return options;
}

struct RipOutcome
{
    // The status of a rip that could not start; why is printed.
    std::optional<int> notStarted;
    RipLog log;
    QString folder;
    qsizetype chosen = 0;
    int attempted = 0;
    int failures = 0;
    bool interrupted = false;
    QString logPath;
    OptionalError logError;
};

// One rip: the disc opened and looked up, the tracks chosen, each ripped,
// checked and saved in turn (Ctrl-C stops after the track in hand), and the
// rip log written.
class DiscRip
{
public:
    explicit DiscRip(const RipOptions &options) : m_options(options), m_tracks(options.tracks) {}
    RipOutcome run();

private:
    std::optional<int> openDisc();
    std::optional<int> chooseTracks();
    int fail(int status, const QString &why);
    PLCID3Tag tagsOf(int number) const;
    void startLog();
    AccurateRip::Lookup lookUpAccurateRip();
    void ripTracks(const AccurateRip::Lookup &lookup);
    RipLogTrack ripTrack(int number, const AccurateRip::Lookup &lookup);
    void showProgress(const QString &text, bool force);

    const RipOptions &m_options;
    std::set<int> m_tracks;
    StatusLine m_status;
    QMap<int, QString> m_trackPaths;
    DiscMetadata m_metadata;
    std::shared_ptr<DiscSession> m_disc;
    track_t m_firstTrack = CDIO_INVALID_TRACK;
    track_t m_lastTrack = CDIO_INVALID_TRACK;
    RipLog m_log;
    int m_attempted = 0;
    int m_failures = 0;
    bool m_interrupted = false;
    QString m_progressPrefix;
    QElapsedTimer m_sinceShown;
};

RipOutcome DiscRip::run()
{
    RipOutcome outcome;
    outcome.notStarted = openDisc();
    if (!outcome.notStarted) {
        outcome.notStarted = chooseTracks();
    }
    if (outcome.notStarted) {
        return outcome;
    }
    startLog();
    ripTracks(lookUpAccurateRip());
    outcome.logError = writeRipLog(m_log, &outcome.logPath);
    outcome.log = m_log;
    outcome.folder = m_options.folder;
    outcome.chosen = qsizetype(m_tracks.size());
    outcome.attempted = m_attempted;
    outcome.failures = m_failures;
    outcome.interrupted = m_interrupted;
    return outcome;
}

int DiscRip::fail(int status, const QString &why)
{
    m_status.endLine();
    QTextStream(stderr) << "pelicane-cli rip: " << why << "\n";
    return status;
}

// Reads the table of contents and the disc's metadata, and opens it for
// reading; the exit status when it cannot be.
std::optional<int> DiscRip::openDisc()
{
    // Opening an image is inserting it, as choosing it in the program does.
    QString volume = m_options.target;
    if (DiscImages::isDiscImageFile(volume) && DiscImages::insert(volume)) {
        volume = DiscImages::normalizedPath(m_options.target);
    }
    m_status.show(QStringLiteral("Reading the disc..."));
    if (const auto tracks = PLCVolumeType::contentsOfDiskAtURL(QUrl::fromLocalFile(volume))) {
        for (const PLCVolumeType::TrackFile &track : *tracks) {
            m_trackPaths.insert(track.trackNumber, track.path);
        }
    }
    DiscMetadataOptions options;
    options.timeoutMs = kMetadataTimeoutMs;
    m_status.show(QStringLiteral("Looking the disc up..."));
    m_metadata = PLCAudioCDProcessor::compileDiscMetadata(volume, m_trackPaths.values(), options, {});
    OptionalError openError;
    m_disc = DiscSession::open(volume, &openError);
    if (!m_disc) {
        return fail(Exit::Failed, openError->localizedDescription());
    }
    return std::nullopt;
}

// The tracks asked for, or every audio track, and the folder for them; the
// exit status when they cannot be ripped.
std::optional<int> DiscRip::chooseTracks()
{
    m_disc->use([&](CdIo_t *disc) {
        m_firstTrack = cdio_get_first_track_num(disc);
        m_lastTrack = cdio_get_last_track_num(disc);
        if (m_tracks.empty()) {
            for (track_t n = m_firstTrack; n <= m_lastTrack && n != CDIO_INVALID_TRACK; ++n) {
                if (ripIsAudioTrack(disc, n)) {
                    m_tracks.insert(int(n));
                }
            }
        }
    });
    if (m_tracks.empty()) {
        return fail(Exit::Failed, QStringLiteral("the disc has no audio track"));
    }
    for (int n : m_tracks) {
        if (n < m_firstTrack || n > m_lastTrack) {
            return fail(Exit::Usage, QStringLiteral("the disc has no track %1 (it has tracks %2 to %3)")
                                         .arg(n)
                                         .arg(int(m_firstTrack))
                                         .arg(int(m_lastTrack)));
        }
    }
    if (!QDir().mkpath(m_options.folder)) {
        return fail(Exit::Failed, QStringLiteral("the folder %1 could not be made").arg(m_options.folder));
    }
    return std::nullopt;
}

PLCID3Tag DiscRip::tagsOf(int number) const
{
    PLCID3Tag tag;
    if (m_metadata.tags && m_trackPaths.contains(number)) {
        tag = m_metadata.tags->value(m_trackPaths.value(number));
    }
    if (!tag.track()) {
        tag.setTrack(number);
    }
    if (!tag.totalTracks()) {
        tag.setTotalTracks(int(m_lastTrack));
    }
    return tag;
}

void DiscRip::startLog()
{
    m_log.started = QDateTime::currentDateTime();
    m_log.source = m_disc->deviceName();
    m_log.isImage = m_disc->isImage();
    m_log.readOffset = m_options.readOffset;
    m_log.discId = m_metadata.discId;
    if (!m_trackPaths.isEmpty()) {
        const PLCID3Tag first = tagsOf(m_trackPaths.firstKey());
        m_log.album = first.album().value_or(QString());
        m_log.artist = first.albumArtist().value_or(QString());
    }
}

// AccurateRip first: each track's verdict is known as soon as it is ripped.
AccurateRip::Lookup DiscRip::lookUpAccurateRip()
{
    m_status.show(QStringLiteral("Asking AccurateRip..."));
    const AccurateRip::Lookup lookup =
        TrackRipJob::fetchAccurateRip(m_disc, kAccurateRipTimeoutMs, &m_log.accurateRipId);
    m_log.accurateRipLookup = lookup.summary();
    m_status.endLine();
    QTextStream(stdout) << "Disc: " << (m_log.album.isEmpty() ? QStringLiteral("(unknown album)") : m_log.album)
                        << (m_log.artist.isEmpty() ? QString() : QStringLiteral(" / ") + m_log.artist) << ", "
                        << (m_log.discId.isEmpty() ? QStringLiteral("disc id unknown")
                                                   : QStringLiteral("disc id ") + m_log.discId)
                        << "\nAccurateRip: "
                        << (m_log.accurateRipId.isEmpty() ? QStringLiteral("-") : m_log.accurateRipId) << ", "
                        << m_log.accurateRipLookup << "\nRead offset: " << m_options.readOffset << " samples\n"
                        << Qt::flush;
    return lookup;
}

void DiscRip::ripTracks(const AccurateRip::Lookup &lookup)
{
    const InterruptWatcher interrupts([this] { m_interrupted = true; });
    m_sinceShown.start();
    for (int number : m_tracks) {
        ++m_attempted;
        const RipLogTrack entry = ripTrack(number, lookup);
        m_status.endLine();
        QTextStream out(stdout);
        if (entry.ripped) {
            out << "Track " << twoDigits(number) << ": ripped, " << entry.accurateRip << " -> "
                << QFileInfo(entry.file).fileName() << "\n";
        } else {
            ++m_failures;
            out << "Track " << twoDigits(number) << ": FAILED: " << entry.message << "\n";
        }
        out.flush();
        m_log.tracks.append(entry);
        if (m_interrupted) {
            break;
        }
    }
}

// Rips, checks and saves one track; its log entry says how that went.
RipLogTrack DiscRip::ripTrack(int number, const AccurateRip::Lookup &lookup)
{
    const QString name = twoDigits(number);
    m_progressPrefix = QStringLiteral("Track %1 (%2 of %3): ").arg(name).arg(m_attempted).arg(m_tracks.size());
    showProgress(QStringLiteral("reading"), true);
    TrackRipRequest request;
    request.disc = m_disc;
    request.trackNumber = number;
    request.readOffset = m_options.readOffset;
    request.readRetries = kReadRetries;
    request.tags = tagsOf(number);
    request.accurateRip = lookup;
    TrackRipJob job(request);
    const bool ripped = job.run(
        [this](TrackRipJob::Stage stage, qint64 done, qint64 total) {
            QCoreApplication::processEvents();
            const QString what =
                stage == TrackRipJob::Stage::Reading ? QStringLiteral("reading") : QStringLiteral("encoding");
            showProgress(QStringLiteral("%1 %2%").arg(what).arg(done * 100 / std::max<qint64>(total, 1)), false);
        },
        [this] { return m_interrupted; });
    RipLogTrack entry = job.logEntry();
    if (ripped) {
        const QString title = request.tags.title().value_or(QString()).trimmed();
        const QString stem = title.isEmpty() ? QString(QStringLiteral("Track ") + name) : QString(name + u' ' + title);
        const QString file = QDir(m_options.folder).filePath(safeFileName(stem) + QStringLiteral(".flac"));
        if (OptionalError error = job.saveAs(file)) {
            entry.ripped = false;
            entry.message = error->localizedDescription();
            entry.file.clear();
        } else {
            entry.file = QFileInfo(file).absoluteFilePath();
        }
    }
    return entry;
}

void DiscRip::showProgress(const QString &text, bool force)
{
    const qint64 showEveryMs = m_status.isTerminal() ? 100 : 2000;
    if (force || m_sinceShown.elapsed() >= showEveryMs) {
        m_sinceShown.restart();
        m_status.show(m_progressPrefix + text);
    }
}

RipOutcome runRip(const RipOptions &options)
{
    return DiscRip(options).run();
}

int printRipSummary(const RipOutcome &outcome)
{
    if (outcome.notStarted) {
        return *outcome.notStarted;
    }
    QTextStream out(stdout);
    if (outcome.logError) {
        QTextStream(stderr) << "pelicane-cli rip: " << outcome.logError->localizedDescription() << "\n";
    } else {
        out << "Rip log: " << outcome.logPath << "\n";
    }
    const qsizetype skipped = outcome.chosen - outcome.log.tracks.size();
    const bool allRipped = outcome.failures == 0 && skipped == 0;
    const QString folder = QDir(outcome.folder).absolutePath();
    out << (allRipped ? QStringLiteral("%1 tracks ripped to %2\n").arg(outcome.attempted).arg(folder)
                      : QStringLiteral("%1 of %2 tracks failed%3; the others are in %4\n")
                            .arg(outcome.failures + skipped)
                            .arg(outcome.chosen)
                            .arg(outcome.interrupted ? QStringLiteral(" (stopped)") : QString())
                            .arg(folder));
    out.flush();
    return allRipped ? Exit::Success : Exit::Failed;
}

} // namespace

int runRipCommand(const QStringList &args)
{
    return runCommand(parseRipOptions(args), runRip, printRipSummary);
}
