// pelicane-cli rip DEVICE-OR-IMAGE --out FOLDER [--tracks LIST]
// [--read-offset SAMPLES]: rips audio tracks to tagged FLAC files, checks them
// against AccurateRip and writes the rip log.
#include "cli/arguments.h"
#include "cli/commands.h"

#include "audio/accuraterip.h"
#include "audio/cdripper.h"
#include "audio/riplog.h"
#include "audio/trackripjob.h"
#include "cd/discsession.h"
#include "cd/plcaudiocdprocessor.h"
#include "cd/plcvolumetype.h"
#include "cli/terminal.h"
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

constexpr int ExitSuccess = 0;
constexpr int ExitTracksFailed = 1;
constexpr int ExitUsage = 2;
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

} // namespace

int runRipCommand(const QStringList &args)
{
    QTextStream out(stdout);
    QTextStream err(stderr);
    QString target;
    QString folder;
    std::set<int> chosen;
    std::optional<int> offsetArgument;
    ArgumentScanner scanner(args);
    while (scanner.next()) {
        const QString &arg = scanner.current();
        if (!scanner.isOption()) {
            if (!target.isEmpty()) {
                err << "pelicane-cli rip: unexpected argument '" << arg << "'\n" << kUsage;
                return ExitUsage;
            }
            target = arg;
            continue;
        }
        if (arg == QLatin1String("--help") || arg == QLatin1String("-h")) {
            out << kUsage;
            return ExitSuccess;
        }
        if (arg != QLatin1String("--out") && arg != QLatin1String("--tracks") &&
            arg != QLatin1String("--read-offset")) {
            err << "pelicane-cli rip: unknown option " << scanner.raw() << "\n" << kUsage;
            return ExitUsage;
        }
        QString problem;
        const std::optional<QString> value = scanner.takeValue(&problem);
        if (!value || value->isEmpty()) {
            err << "pelicane-cli rip: " << (problem.isEmpty() ? arg + QStringLiteral(" needs a value") : problem)
                << "\n"
                << kUsage;
            return ExitUsage;
        }
        if (arg == QLatin1String("--out")) {
            folder = *value;
        } else if (arg == QLatin1String("--tracks")) {
            if (!parseTrackList(*value, &chosen)) {
                err << "pelicane-cli rip: --tracks takes a list such as 1,3-5, not '" << *value << "'\n";
                return ExitUsage;
            }
        } else {
            bool ok = false;
            const int samples = value->toInt(&ok);
            if (!ok || samples < -kMaxOffsetSamples || samples > kMaxOffsetSamples) {
                err << "pelicane-cli rip: --read-offset takes samples from " << -kMaxOffsetSamples << " to "
                    << kMaxOffsetSamples << ", not '" << *value << "'\n";
                return ExitUsage;
            }
            offsetArgument = samples;
        }
    }
    if (target.isEmpty() || folder.isEmpty()) {
        err << kUsage;
        return ExitUsage;
    }
    if (!QFileInfo::exists(target)) {
        err << "pelicane-cli rip: no such drive or image: " << target << "\n";
        return ExitUsage;
    }
    // The drive's offset as the user set it, unless given for this rip.
    QString settingProblem;
    const int readOffset = offsetArgument.value_or(TrackRipJob::configuredReadOffset(&settingProblem));
    if (!offsetArgument && !settingProblem.isEmpty()) {
        err << "pelicane-cli rip: " << settingProblem << "\n";
        return ExitUsage;
    }

    StatusLine status;
    // Opening an image is inserting it, as choosing it in the program does.
    QString volume = target;
    if (DiscImages::isDiscImageFile(target) && DiscImages::insert(target)) {
        volume = DiscImages::normalizedPath(target);
    }
    status.show(QStringLiteral("Reading the disc..."));
    QMap<int, QString> trackPaths;
    if (const auto tracks = PLCVolumeType::contentsOfDiskAtURL(QUrl::fromLocalFile(volume))) {
        for (const PLCVolumeType::TrackFile &track : *tracks) {
            trackPaths.insert(track.trackNumber, track.path);
        }
    }
    DiscMetadataOptions options;
    options.timeoutMs = kMetadataTimeoutMs;
    status.show(QStringLiteral("Looking the disc up..."));
    const DiscMetadata metadata = PLCAudioCDProcessor::compileDiscMetadata(volume, trackPaths.values(), options, {});
    OptionalError openError;
    const std::shared_ptr<DiscSession> session = DiscSession::open(volume, &openError);
    if (!session) {
        status.endLine();
        err << "pelicane-cli rip: " << openError->localizedDescription() << "\n";
        return ExitTracksFailed;
    }

    track_t firstTrack = CDIO_INVALID_TRACK;
    track_t lastTrack = CDIO_INVALID_TRACK;
    session->use([&](CdIo_t *disc) {
        firstTrack = cdio_get_first_track_num(disc);
        lastTrack = cdio_get_last_track_num(disc);
        if (chosen.empty()) {
            for (track_t n = firstTrack; n <= lastTrack && n != CDIO_INVALID_TRACK; ++n) {
                if (ripIsAudioTrack(disc, n)) {
                    chosen.insert(int(n));
                }
            }
        }
    });
    if (chosen.empty()) {
        status.endLine();
        err << "pelicane-cli rip: the disc has no audio track\n";
        return ExitTracksFailed;
    }
    for (int n : chosen) {
        if (n < firstTrack || n > lastTrack) {
            status.endLine();
            err << "pelicane-cli rip: the disc has no track " << n << " (it has tracks " << int(firstTrack) << " to "
                << int(lastTrack) << ")\n";
            return ExitUsage;
        }
    }
    if (!QDir().mkpath(folder)) {
        status.endLine();
        err << "pelicane-cli rip: the folder " << folder << " could not be made\n";
        return ExitTracksFailed;
    }

    RipLog log;
    log.started = QDateTime::currentDateTime();
    log.source = session->deviceName();
    log.isImage = session->isImage();
    log.readOffset = readOffset;
    log.discId = metadata.discId;
    const auto tagsOf = [&](int number) {
        PLCID3Tag tag;
        if (metadata.tags && trackPaths.contains(number)) {
            tag = metadata.tags->value(trackPaths.value(number));
        }
        if (!tag.track()) {
            tag.setTrack(number);
        }
        if (!tag.totalTracks()) {
            tag.setTotalTracks(int(lastTrack));
        }
        return tag;
    };
    if (!trackPaths.isEmpty()) {
        const PLCID3Tag first = tagsOf(trackPaths.firstKey());
        log.album = first.album().value_or(QString());
        log.artist = first.albumArtist().value_or(QString());
    }

    // AccurateRip first: each track's verdict is known as soon as it is ripped.
    status.show(QStringLiteral("Asking AccurateRip..."));
    const AccurateRip::Lookup lookup =
        TrackRipJob::fetchAccurateRip(session, kAccurateRipTimeoutMs, &log.accurateRipId);
    log.accurateRipLookup = lookup.summary();
    status.endLine();
    out << "Disc: " << (log.album.isEmpty() ? QStringLiteral("(unknown album)") : log.album)
        << (log.artist.isEmpty() ? QString() : QStringLiteral(" / ") + log.artist) << ", "
        << (log.discId.isEmpty() ? QStringLiteral("disc id unknown") : QStringLiteral("disc id ") + log.discId)
        << "\nAccurateRip: " << (log.accurateRipId.isEmpty() ? QStringLiteral("-") : log.accurateRipId) << ", "
        << log.accurateRipLookup << "\nRead offset: " << readOffset << " samples\n"
        << Qt::flush;

    bool interrupted = false;
    const InterruptWatcher interrupts([&] { interrupted = true; });
    int failures = 0;
    int done = 0;
    QElapsedTimer sinceShown;
    sinceShown.start();
    const qint64 showEveryMs = status.isTerminal() ? 100 : 2000;
    for (int number : chosen) {
        ++done;
        const QString name = twoDigits(number);
        const QString prefix = QStringLiteral("Track %1 (%2 of %3): ").arg(name).arg(done).arg(chosen.size());
        const auto show = [&](const QString &text, bool force) {
            if (force || sinceShown.elapsed() >= showEveryMs) {
                sinceShown.restart();
                status.show(prefix + text);
            }
        };
        show(QStringLiteral("reading"), true);
        TrackRipRequest request;
        request.disc = session;
        request.trackNumber = number;
        request.readOffset = readOffset;
        request.readRetries = kReadRetries;
        request.tags = tagsOf(number);
        request.accurateRip = lookup;
        TrackRipJob job(request);
        const bool ripped = job.run(
            [&](TrackRipJob::Stage stage, qint64 bytesDone, qint64 total) {
                QCoreApplication::processEvents();
                const QString what =
                    stage == TrackRipJob::Stage::Reading ? QStringLiteral("reading") : QStringLiteral("encoding");
                show(QStringLiteral("%1 %2%").arg(what).arg(bytesDone * 100 / std::max<qint64>(total, 1)), false);
            },
            [&] { return interrupted; });
        RipLogTrack entry = job.logEntry();
        if (ripped) {
            const QString title = request.tags.title().value_or(QString()).trimmed();
            const QString stem =
                title.isEmpty() ? QString(QStringLiteral("Track ") + name) : QString(name + u' ' + title);
            const QString file = QDir(folder).filePath(safeFileName(stem) + QStringLiteral(".flac"));
            if (OptionalError error = job.saveAs(file)) {
                entry.ripped = false;
                entry.message = error->localizedDescription();
                entry.file.clear();
            } else {
                entry.file = QFileInfo(file).absoluteFilePath();
            }
        }
        status.endLine();
        if (entry.ripped) {
            out << "Track " << name << ": ripped, " << entry.accurateRip << " -> " << QFileInfo(entry.file).fileName()
                << "\n";
        } else {
            ++failures;
            out << "Track " << name << ": FAILED: " << entry.message << "\n";
        }
        out.flush();
        log.tracks.append(entry);
        if (interrupted) {
            break;
        }
    }

    QString logPath;
    if (OptionalError error = writeRipLog(log, &logPath)) {
        err << "pelicane-cli rip: " << error->localizedDescription() << "\n";
    } else {
        out << "Rip log: " << logPath << "\n";
    }
    const int skipped = int(chosen.size()) - int(log.tracks.size());
    out << (failures == 0 && skipped == 0
                ? QStringLiteral("%1 tracks ripped to %2\n").arg(done).arg(QDir(folder).absolutePath())
                : QStringLiteral("%1 of %2 tracks failed%3; the others are in %4\n")
                      .arg(failures + skipped)
                      .arg(chosen.size())
                      .arg(interrupted ? QStringLiteral(" (stopped)") : QString())
                      .arg(QDir(folder).absolutePath()));
    out.flush();
    return failures == 0 && skipped == 0 ? ExitSuccess : ExitTracksFailed;
}
