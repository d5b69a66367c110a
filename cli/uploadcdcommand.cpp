// pelicane-cli upload-cd: the desktop program's CD upload without a window.
//
// Opens the disc (a drive or a disc image), compiles its metadata, takes the
// album data from the options or the terminal, then runs the same session as
// the main window: each track is ripped, encoded to FLAC and uploaded, one at
// a time.
#include "cli/arguments.h"
#include "cli/commands.h"
#include "cli/sessionterminalprompter.h"
#include "cli/signin.h"
#include "cli/terminal.h"

#include "cd/plcaudiocdprocessor.h"
#include "cd/plcvolumetype.h"
#include "core/formatting.h"
#include "core/logger.h"
#include "platform/discimages.h"
#include "service/lyraboxservice.h"
#include "session/audiocdflow.h"
#include "session/audiocdprompter.h"
#include "session/sessionmodel.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QEventLoop>
#include <QFileInfo>
#include <QTextStream>
#include <QTimer>

#include <cstdio>
#include <optional>
#include <unistd.h>

namespace {

enum ExitStatus {
    ExitSuccess = 0,     // every track uploaded or already in the library
    ExitFilesFailed = 1, // some track failed, or the run stopped before the end
    ExitUsage = 2,
    ExitNotStarted = 3, // no sign-in, the disc could not be read, or the session expired
    ExitInterrupted = 130,
};

const char *const kUsage = "Usage: pelicane-cli upload-cd [OPTIONS] DEVICE-OR-IMAGE\n"
                           "\n"
                           "Rips an audio CD (a drive such as /dev/sr0, or a .cue/.toc disc image) track\n"
                           "by track to tagged FLAC files and uploads them, one at a time, with the\n"
                           "metadata MusicBrainz, CD-TEXT and the cover services give for the disc.\n"
                           "\n"
                           "  --album TITLE     the album title (default: what the disc's metadata says)\n"
                           "  --artist NAME     the album artist (likewise)\n"
                           "  --disc N          the disc number (likewise; text that is not a number gives 1)\n"
                           "  --release MBID    use this MusicBrainz release of those the disc matches\n"
                           "  --playlist NAME   file the tracks under a playlist\n"
                           "  --tag NAME        tag the tracks\n"
                           "  --yes             take the metadata found for what the options leave out,\n"
                           "                    without asking\n"
                           "\n"
                           "Without --yes, album data the options leave out is asked for on the terminal\n"
                           "(Enter keeps what was found); without a terminal, what was found is used.\n"
                           "\n"
                           "The account is read from PELICANE_EMAIL and PELICANE_PASSWORD, or asked for\n"
                           "on the terminal (the password without echo). It is never an argument.\n"
                           "\n"
                           "A track that cannot be ripped is reported and skipped; the other tracks go\n"
                           "on (the desktop program asks whether to retry, skip or cancel). Ctrl-C stops\n"
                           "the run and prints what was done.\n"
                           "\n"
                           "Exit status: 0 when every track was uploaded, 1 when a track failed or the\n"
                           "run stopped early, 2 for wrong arguments, 3 when signing in failed, the disc\n"
                           "could not be read or the session expired, 130 when interrupted.\n";

struct UploadCDOptions
{
    QString disc;
    std::optional<QString> album;
    std::optional<QString> artist;
    std::optional<QString> discNumber;
    QString release;
    QString playlist;
    QString tag;
    bool yes = false;
    bool help = false;
};

std::optional<UploadCDOptions> parseOptions(const QStringList &args, QString *error)
{
    UploadCDOptions options;
    QStringList positional;
    ArgumentScanner scanner(args);
    while (scanner.next()) {
        const QString &arg = scanner.current();
        if (!scanner.isOption()) {
            positional.append(arg);
            continue;
        }
        if (arg == QLatin1String("--help") || arg == QLatin1String("-h")) {
            options.help = true;
            continue;
        }
        if (arg == QLatin1String("--yes") || arg == QLatin1String("-y")) {
            options.yes = true;
            continue;
        }
        std::optional<QString> *slot = nullptr;
        QString *plain = nullptr;
        if (arg == QLatin1String("--album")) {
            slot = &options.album;
        } else if (arg == QLatin1String("--artist")) {
            slot = &options.artist;
        } else if (arg == QLatin1String("--disc")) {
            slot = &options.discNumber;
        } else if (arg == QLatin1String("--release")) {
            plain = &options.release;
        } else if (arg == QLatin1String("--playlist")) {
            plain = &options.playlist;
        } else if (arg == QLatin1String("--tag")) {
            plain = &options.tag;
        } else {
            *error = QStringLiteral("unknown option %1").arg(scanner.raw());
            return std::nullopt;
        }
        const std::optional<QString> taken = scanner.takeValue(error);
        if (!taken) {
            return std::nullopt;
        }
        if (slot) {
            *slot = *taken;
        } else {
            *plain = *taken;
        }
    }
    if (options.help) {
        return options;
    }
    if (positional.size() != 1) {
        *error = positional.isEmpty() ? QStringLiteral("no disc given") : QStringLiteral("give one disc");
        return std::nullopt;
    }
    options.disc = positional.first();
    return options;
}

// The disc volume for a device node or an image path: an image is inserted,
// as the desktop program does when one is opened.
std::optional<QString> discVolume(const QString &argument, QString *error)
{
    if (DiscImages::isDiscImageFile(argument)) {
        DiscImages::insert(argument);
        return DiscImages::normalizedPath(argument);
    }
    if (PLCVolumeType::isDiskAtPath(argument)) {
        return argument;
    }
    if (!QFileInfo::exists(argument)) {
        *error = QStringLiteral("no such drive or disc image: %1").arg(argument);
    } else {
        *error = QStringLiteral("%1 is neither a drive holding a CD nor a .cue/.toc disc image").arg(argument);
    }
    return std::nullopt;
}

QString shown(const std::optional<QString> &text)
{
    return text ? *text : QStringLiteral("unknown");
}

QString shown(std::optional<int> number)
{
    return number ? QString::number(*number) : QStringLiteral("unknown");
}

void printMetadata(QTextStream &out, const DiscMetadata &metadata)
{
    if (!metadata.discId.isEmpty()) {
        out << "Disc id: " << metadata.discId << "\n";
    }
    if (!metadata.releases.isEmpty()) {
        out << "Releases holding the disc:\n";
        for (const ReleaseCandidate &release : metadata.releases) {
            out << (release.id == metadata.releaseId ? "  * " : "    ") << release.id << "  " << release.title;
            if (!release.artistCredit.isEmpty()) {
                out << " / " << release.artistCredit;
            }
            const QStringList details = QStringList{release.date, release.country, release.label}.filter(
                QRegularExpression(QStringLiteral(".")));
            if (!details.isEmpty()) {
                out << " (" << details.join(QStringLiteral(", ")) << ")";
            }
            out << "\n";
        }
    }
    if (metadata.tags) {
        out << "Tracks:\n";
        for (const QString &path : metadata.trackPaths) {
            const PLCID3Tag tag = metadata.tags->value(path);
            out << "  " << shown(tag.track()) << ". " << shown(tag.title()) << " / " << shown(tag.artist()) << "\n";
        }
        if (!metadata.trackPaths.isEmpty()) {
            const PLCID3Tag first = metadata.tags->value(metadata.trackPaths.first());
            out << "Album: " << shown(first.album()) << " / " << shown(first.albumArtist()) << ", disc "
                << shown(first.discNumber()) << ", " << shown(first.year()) << "\n";
            out << "Artwork: "
                << (first.artwork() ? QStringLiteral("%1, %2 bytes")
                                          .arg(shown(first.artworkFormat()), QString::number(first.artwork()->size()))
                                    : QStringLiteral("none"))
                << "\n";
        }
    }
    out << Qt::flush;
}

// One line typed on the terminal; the default when it is empty or input ended.
QString ask(const QString &question, const QString &found)
{
    QTextStream err(stderr);
    err << question << " [" << found << "]: " << Qt::flush;
    // The C stream keeps what was typed ahead for the next question.
    char buffer[4096];
    const QString line = std::fgets(buffer, sizeof buffer, stdin) ? QString::fromLocal8Bit(buffer) : QString();
    return line.trimmed().isEmpty() ? found : line.trimmed();
}

// Answers the session: the one disc given, the album data of the options,
// a failed track with Skip, every other message printed.
class CliCDPrompter : public SessionTerminalPrompter, public AudioCDPrompter
{
public:
    CliCDPrompter(const UploadCDOptions &options, StatusLine &status)
        : SessionTerminalPrompter(status), m_options(options)
    {}

    // The command starts the sequence with its one disc; the chooser never opens.
    void chooseDisk(const QStringList &disks, std::function<void(int, const QString &)> done) override
    {
        done(disks.isEmpty() ? 0 : 1, disks.value(0));
    }
    void setChooserDisks(const QStringList &) override {}
    void closeChooser() override {}

    void promptAlbum(const AlbumPromptInput &input, std::function<void(const QString &)>,
                     std::function<void(int, const AlbumPromptResult &)> done) override
    {
        if (!input.notice.isEmpty()) {
            QTextStream(stderr) << input.notice << Qt::endl;
        }
        const bool interactive = !m_options.yes && ::isatty(STDIN_FILENO);
        const auto value = [&](const std::optional<QString> &given, const QString &found, const QString &question) {
            if (given) {
                return *given;
            }
            return interactive ? ask(question, found) : found;
        };
        AlbumPromptResult album;
        album.albumTitle =
            value(m_options.album, input.albumTitle.value_or(QStringLiteral("Unknown Album")), QStringLiteral("Album"));
        album.albumArtist = value(m_options.artist, input.albumArtist.value_or(QStringLiteral("Unknown Artist")),
                                  QStringLiteral("Album artist"));
        album.discNumber = AudioCDPrompter::discNumberFromText(
            value(m_options.discNumber, QString::number(input.discNumber.value_or(1)), QStringLiteral("Disc number")));
        album.artwork = input.artwork.value_or(QByteArray());
        album.playlistName = m_options.playlist;
        album.tagName = m_options.tag;
        QTextStream(stderr) << "Uploading \"" << album.albumTitle << "\" by " << album.albumArtist << ", disc "
                            << album.discNumber << Qt::endl;
        done(1, album);
    }
    void refillAlbumPrompt(const AlbumPromptInput &) override {}
    // What failed in a lookup is said; the run goes on with what was found.
    void setAlbumPromptBusy(bool busy, const QString &message) override
    {
        if (!busy && !message.isEmpty()) {
            QTextStream(stderr) << message << Qt::endl;
        }
    }
    void selectAlbumPromptRelease(const QString &) override {}

private:
    const UploadCDOptions &m_options;
};

// "Track 2 of 12: Reading 45% Gull Song".
QString progressLine(const SessionModel &session)
{
    const qint64 total = session.foundFilesCountCache();
    const qint64 done = session.completedFiles().size() + session.erroredFiles().size() + session.skippedFiles().size();
    if (session.uploadListItems().isEmpty()) {
        return QStringLiteral("Track %1 of %2").arg(qMin(done + 1, total)).arg(total);
    }
    const UploadListItem &row = session.uploadListItems().first();
    return QStringLiteral("Track %1 of %2: %3 %4%")
        .arg(qMin(done + 1, total))
        .arg(total)
        .arg(row.pathLabelText())
        .arg(row.progress());
}

} // namespace

int runUploadCDCommand(const QStringList &args)
{
    QTextStream out(stdout);
    QTextStream err(stderr);
    QString parseError;
    const std::optional<UploadCDOptions> parsed = parseOptions(args, &parseError);
    if (const std::optional<int> exit = exitBeforeRun(parsed, "upload-cd", parseError, kUsage)) {
        return *exit;
    }
    const UploadCDOptions &options = *parsed;
    const std::optional<QString> volume = discVolume(options.disc, &parseError);
    if (!volume) {
        err << "pelicane-cli upload-cd: " << parseError << Qt::endl;
        return ExitUsage;
    }

    if (!CliSignIn::signInInteractively()) {
        return ExitNotStarted;
    }

    StatusLine status;
    CliCDPrompter prompter(options, status);
    SessionModel session(&prompter);
    session.cdFlow()->setPrompter(&prompter);
    session.attachToService();
    QEventLoop loop;
    int exitStatus = ExitSuccess;
    QString stopReason;
    bool ended = false;
    bool running = false;

    const auto finish = [&](int code) {
        exitStatus = code;
        loop.exit(code);
    };
    prompter.stopRunOn(session, &loop,
                       {QStringLiteral("Could not rip from CD"), QStringLiteral("Error starting upload"),
                        QStringLiteral("Error Starting Upload")},
                       ExitNotStarted, finish, &stopReason, &running);
    QObject::connect(session.cdFlow(), &AudioCDFlow::metadataCompiled, &loop, [&](const DiscMetadata &metadata) {
        status.endLine();
        printMetadata(out, metadata);
    });
    QObject::connect(&session, &SessionModel::mainPageTypeChanged, &loop, [&](quint32 page) {
        if (page == MainPageTypeUpload) {
            running = true;
        }
    });
    QObject::connect(&session, &SessionModel::uploadFinished, &loop,
                     [&](const QString &path, const OptionalError &error) {
                         const PLCID3Tag tag = session.audioCDID3Tags().value(path);
                         status.endLine();
                         const QString name = tag.title() ? *tag.title() : QFileInfo(path).fileName();
                         if (!error) {
                             err << "Uploaded: " << name << Qt::endl;
                         } else if (!error->isCancelled()) {
                             err << "Failed: " << name << ": " << error->localizedDescription() << Qt::endl;
                         }
                     });
    QObject::connect(&session, &SessionModel::uploadEnded, &loop, [&] {
        ended = true;
        finish(exitStatus);
    });

    QTimer ticker;
    ticker.setInterval(status.isTerminal() ? 1000 : 10000);
    QObject::connect(&ticker, &QTimer::timeout, &loop, [&] {
        if (session.mainPageType() == MainPageTypeUpload && session.isUploading()) {
            status.show(progressLine(session));
        }
    });

    std::optional<InterruptWatcher> interrupts(std::in_place, [&] {
        stopReason = QStringLiteral("interrupted");
        exitStatus = ExitInterrupted;
        if (session.mainPageType() == MainPageTypeUpload) {
            session.OnCancelUpload();
        } else {
            finish(ExitInterrupted);
        }
    });

    session.setMainPageType(MainPageTypeSearch);
    session.cdFlow()->beginUploadCD(*volume, options.release);
    ticker.start();
    loop.exec();
    ticker.stop();
    interrupts.reset();
    status.endLine();
    session.detachFromService();
    LyraboxService::sharedService().shutdown();
    session.cdFlow()->writeRipLog();
    const QString ripLogPath = session.cdFlow()->ripLogPath();

    if (!ended) {
        if (!ripLogPath.isEmpty()) {
            err << "Rip log: " << ripLogPath << Qt::endl;
        }
        if (!stopReason.isEmpty()) {
            err << "pelicane-cli: stopped: " << stopReason << Qt::endl;
        }
        return exitStatus;
    }

    out << session.discoveredLabelText().replace(QStringLiteral(" files"), QStringLiteral(" tracks")) << "\n"
        << session.uploadedLabelText().replace(QStringLiteral(" files"), QStringLiteral(" tracks")) << "\n"
        << session.errorsLabelText().replace(QStringLiteral(" files"), QStringLiteral(" tracks")) << Qt::endl;
    for (const auto &[track, verdict] : session.cdFlow()->trackVerdicts()) {
        out << "  " << track << ": " << verdict << "\n";
    }
    const qint64 leftOver = session.foundFiles().size() + session.readyFiles().size() +
                            session.uploadingFiles().size() + session.retryFiles().size();
    if (leftOver > 0) {
        out << "Not uploaded: \t" << groupedNumber(leftOver) << " tracks" << Qt::endl;
    }
    out << Qt::flush;
    if (!stopReason.isEmpty()) {
        err << "pelicane-cli: the run stopped: " << stopReason << Qt::endl;
    }
    if (!ripLogPath.isEmpty()) {
        out << "Rip log: " << ripLogPath << Qt::endl;
    }
    err << "Log file: " << Logger::logFileURL().toLocalFile() << Qt::endl;
    if (exitStatus == ExitInterrupted) {
        return ExitInterrupted;
    }
    const bool failed = !session.erroredFiles().isEmpty() || leftOver > 0 || !stopReason.isEmpty();
    return failed ? ExitFilesFailed : ExitSuccess;
}
