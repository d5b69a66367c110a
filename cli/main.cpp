#include "cd/librarymessages.h"
#include "cli/commands.h"
#include "core/appinfo.h"
#include "core/logger.h"
#include "core/paths.h"

#include <QCoreApplication>
#include <QTextStream>

namespace {

void printUsage(QTextStream &out)
{
    out << "Usage: pelicane-cli [--verbose] COMMAND [OPTIONS]\n"
           "\n"
           "Commands:\n"
           "  upload [OPTIONS] FOLDER...       upload the music files under the folders\n"
           "      --playlist NAME               file the uploads under a playlist\n"
           "      --tag NAME                    tag the uploads\n"
           "      --reupload                    upload files the library already holds\n"
           "      --threads N                   simultaneous uploads, 1 to 6 (default 3)\n"
           "      --dry-run                     list what would be uploaded, upload nothing\n"
           "  upload-cd [OPTIONS] DEVICE-OR-IMAGE\n"
           "                                   rip an audio CD (a drive or a .cue/.toc image) to\n"
           "                                   tagged FLAC and upload it track by track\n"
           "      --album T, --artist A, --disc N   the album data (default: the disc's metadata)\n"
           "      --release MBID                use this MusicBrainz release\n"
           "      --playlist NAME, --tag NAME   as for upload\n"
           "      --yes                         do not ask for missing album data\n"
           "  download-library FOLDER          download the whole library into FOLDER\n"
           "  disc-info DEVICE-OR-IMAGE        look up an audio CD (a drive or a .cue/.toc image)\n"
           "      --json                        print one JSON object\n"
           "      --release MBID                use this MusicBrainz release\n"
           "  rip DEVICE-OR-IMAGE --out FOLDER rip the audio tracks to tagged FLAC files\n"
           "      --tracks LIST                 only these tracks, e.g. 1,3-5\n"
           "      --read-offset SAMPLES         the drive's read offset (default: the setting, else 0)\n"
           "  --version                        print the version\n"
           "\n"
           "The log is written to the log file of the desktop program; --verbose also\n"
           "prints each of its lines on standard error.\n"
           "\n"
           "The account is read from PELICANE_EMAIL and PELICANE_PASSWORD, or asked for\n"
           "on the terminal (the password without echo). It is never an argument.\n";
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("pelicane-cli"));
    QCoreApplication::setApplicationVersion(AppInfo::shortVersion());

    QStringList args = app.arguments().mid(1);
    // The terminal shows progress and the summary; the log's own lines would
    // bury them, so they go to the log file only unless asked for.
    const bool verbose = !args.isEmpty() && args.first() == QLatin1String("--verbose");
    if (verbose) {
        args.removeFirst();
    }
    Logger::shared().setEchoToStandardError(verbose);
    LibraryMessages::routeToLog();
    Paths::removeTemporaryLeftovers();
    QTextStream out(stdout);
    QTextStream err(stderr);
    if (args.isEmpty() || args.first() == QLatin1String("--help") || args.first() == QLatin1String("-h")) {
        printUsage(args.isEmpty() ? err : out);
        return args.isEmpty() ? 2 : 0;
    }
    const QString command = args.takeFirst();
    if (command == QLatin1String("--version")) {
        out << "pelicane-cli " << AppInfo::shortVersion() << " (" << AppInfo::buildNumber() << ")\n";
        return 0;
    }
    if (command == QLatin1String("upload")) {
        return runUploadCommand(args);
    }
    if (command == QLatin1String("upload-cd")) {
        return runUploadCDCommand(args);
    }
    if (command == QLatin1String("download-library")) {
        return runDownloadLibraryCommand(args);
    }
    if (command == QLatin1String("disc-info")) {
        return runDiscInfoCommand(args);
    }
    if (command == QLatin1String("rip")) {
        return runRipCommand(args);
    }
    err << "pelicane-cli: unknown command '" << command << "'\n\n";
    printUsage(err);
    return 2;
}
