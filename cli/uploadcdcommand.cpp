// pelicane-cli upload-cd: the desktop program's CD upload without a window.
//
// Opens the disc (a drive or a disc image), compiles its metadata, takes the
// album data from the options or the terminal, then runs the same session as
// the main window: each track is ripped, encoded to FLAC and uploaded, one at
// a time.
#include "cli/arguments.h"
#include "cli/commands.h"
#include "cli/sessionrun.h"
#include "cli/sessionterminalprompter.h"
#include "cli/signedinrun.h"
#include "cli/terminal.h"

#include "cd/discmetadata.h"
#include "cd/plcvolumetype.h"
#include "core/formatting.h"
#include "core/logger.h"
#include "platform/discimages.h"
#include "session/audiocdprompter.h"

#include <QFileInfo>
#include <QRegularExpression>
#include <QTextStream>

#include <cstdio>
#include <optional>
#include <unistd.h>

namespace {

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
    // The disc's volume: the drive, or the image once inserted.
    QString volume;
    std::optional<QString> album;
    std::optional<QString> artist;
    std::optional<QString> discNumber;
    QString release;
    QString playlist;
    QString tag;
    bool yes = false;
};

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

Parsed<UploadCDOptions> parseUploadCDOptions(const QStringList &args)
{
    const auto wrong = [](const QString &error) { return CommandExit::usageError("upload-cd", error, kUsage); };
    UploadCDOptions options;
    QStringList positional;
    bool help = false;
    QString error;
    ArgumentScanner scanner(args);
    while (scanner.next()) {
        const QString &arg = scanner.current();
        if (!scanner.isOption()) {
            positional.append(arg);
            continue;
        }
        if (scanner.isHelp()) {
            help = true;
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
            return wrong(QStringLiteral("unknown option %1").arg(scanner.raw()));
        }
        const std::optional<QString> taken = scanner.takeValue(&error);
        if (!taken) {
            return wrong(error);
        }
        if (slot) {
            *slot = *taken;
        } else {
            *plain = *taken;
        }
    }
    if (help) {
        return CommandExit::help(kUsage);
    }
    if (positional.size() != 1) {
        return wrong(positional.isEmpty() ? QStringLiteral("no disc given") : QStringLiteral("give one disc"));
    }
    options.disc = positional.first();
    const std::optional<QString> volume = discVolume(options.disc, &error);
    if (!volume) {
        return CommandExit::wrongArguments(QStringLiteral("pelicane-cli upload-cd: ") + error + QLatin1Char('\n'));
    }
    options.volume = *volume;
    return options;
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

SessionRunOutcome runUploadCD(const UploadCDOptions &options)
{
    SignedInRun run(Exit::NotStarted);
    if (!run.signIn()) {
        SessionRunOutcome notStarted;
        notStarted.status = run.status();
        return notStarted;
    }
    StatusLine status;
    CliCDPrompter prompter(options, status);
    SessionRun session(run, status, prompter, &prompter,
                       {QStringLiteral("Could not rip from CD"), QStringLiteral("Error starting upload"),
                        QStringLiteral("Error Starting Upload")});
    SessionRun::Hooks hooks;
    hooks.start = [&] { session.uploadDisc(options.volume, options.release); };
    hooks.tick = [&] {
        if (session.isUploading()) {
            status.show(session.trackProgressLine());
        }
    };
    hooks.discMetadata = [&](const DiscMetadata &metadata) {
        status.endLine();
        QTextStream out(stdout);
        printMetadata(out, metadata);
    };
    hooks.fileFinished = [&](const QString &path, const OptionalError &error) {
        status.endLine();
        if (!error) {
            QTextStream(stderr) << "Uploaded: " << session.trackName(path) << Qt::endl;
        } else if (!error->isCancelled()) {
            QTextStream(stderr) << "Failed: " << session.trackName(path) << ": " << error->localizedDescription()
                                << Qt::endl;
        }
    };
    return session.exec(hooks);
}

QString inTracks(QString line)
{
    return line.replace(QStringLiteral(" files"), QStringLiteral(" tracks"));
}

int printUploadCDSummary(const SessionRunOutcome &run)
{
    QTextStream out(stdout);
    QTextStream err(stderr);
    if (!run.ended) {
        if (!run.ripLogPath.isEmpty()) {
            err << "Rip log: " << run.ripLogPath << Qt::endl;
        }
        run.printStopReason();
        return run.status;
    }
    out << inTracks(run.discovered) << "\n" << inTracks(run.uploaded) << "\n" << inTracks(run.errors) << Qt::endl;
    for (const auto &[track, verdict] : run.trackVerdicts) {
        out << "  " << track << ": " << verdict << "\n";
    }
    if (run.leftOver > 0) {
        out << "Not uploaded: \t" << groupedNumber(run.leftOver) << " tracks" << Qt::endl;
    }
    out << Qt::flush;
    run.printStopReason();
    if (!run.ripLogPath.isEmpty()) {
        out << "Rip log: " << run.ripLogPath << Qt::endl;
    }
    err << "Log file: " << Logger::logFileURL().toLocalFile() << Qt::endl;
    return run.exitStatus();
}

} // namespace

int runUploadCDCommand(const QStringList &args)
{
    return runCommand(parseUploadCDOptions(args), runUploadCD, printUploadCDSummary);
}
