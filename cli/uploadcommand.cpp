// pelicane-cli upload: the desktop program's upload run without a window.
//
// Signs in, scans the folders and runs the same session model as the main
// window, with the same lists and the same log. The session's prompts are
// answered by fixed defaults, documented in the usage text below.
#include "cli/arguments.h"
#include "cli/commands.h"
#include "cli/sessionterminalprompter.h"
#include "cli/signin.h"
#include "cli/terminal.h"
#include "cli/uploadprogress.h"

#include "cd/plcvolumetype.h"
#include "core/formatting.h"
#include "core/logger.h"
#include "service/lyraboxservice.h"
#include "session/md5checkoperation.h"
#include "session/sessionmodel.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QFileInfo>
#include <QTextStream>
#include <QTimer>

#include <cerrno>
#include <cstring>
#include <optional>
#include <sys/stat.h>

namespace {

enum ExitStatus {
    ExitSuccess = 0,     // every file uploaded or already in the library
    ExitFilesFailed = 1, // some file failed or went unread by the scan, or the run stopped before the end
    ExitUsage = 2,
    ExitNotStarted = 3, // no sign-in, the run could not start, or the session expired
    ExitInterrupted = 130,
};

const char *const kUsage = "Usage: pelicane-cli upload [OPTIONS] FOLDER...\n"
                           "\n"
                           "Uploads the music files under the folders (or the files given) that the\n"
                           "library does not hold yet, with the same checks and log as the desktop\n"
                           "program.\n"
                           "\n"
                           "  --playlist NAME   file the uploads under a playlist\n"
                           "  --tag NAME        tag the uploads\n"
                           "  --reupload        upload files the library already holds\n"
                           "  --threads N       simultaneous uploads, 1 to 6 (default 3)\n"
                           "  --dry-run         list what would be uploaded; upload nothing\n"
                           "\n"
                           "The account is read from PELICANE_EMAIL and PELICANE_PASSWORD, or asked for\n"
                           "on the terminal (the password without echo). It is never an argument.\n"
                           "\n"
                           "Questions the desktop program would ask are answered like this: after 50\n"
                           "failed uploads in a row, or when the connection is offline, the run stops;\n"
                           "a failed CD track is skipped; every other message is printed and the run\n"
                           "goes on. Ctrl-C stops the run and prints what was done.\n"
                           "\n"
                           "A file whose upload breaks off for a network reason (a dropped connection,\n"
                           "a time-out, a server that does not answer) is tried again, 5 seconds later,\n"
                           "up to 10 attempts in all; after the 10th it counts as failed and the run\n"
                           "goes on. When the service no longer accepts the session, the run stops\n"
                           "with \"session expired\".\n"
                           "\n"
                           "Exit status: 0 when every file was uploaded or already there, 1 when a file\n"
                           "failed, the search could not read a file or folder, or the run stopped\n"
                           "early (offline included), 2 for wrong arguments,\n"
                           "3 when signing in or starting the run failed or the session expired, 130\n"
                           "when interrupted.\n";

struct UploadOptions
{
    QStringList folders;
    QString playlist;
    QString tag;
    bool reupload = false;
    int threads = 3;
    bool dryRun = false;
    bool help = false;
};

std::optional<UploadOptions> parseOptions(const QStringList &args, QString *error)
{
    UploadOptions options;
    ArgumentScanner scanner(args);
    while (scanner.next()) {
        const QString &arg = scanner.current();
        if (!scanner.isOption()) {
            options.folders.append(arg);
        } else if (arg == QLatin1String("--help") || arg == QLatin1String("-h")) {
            options.help = true;
        } else if (arg == QLatin1String("--playlist") || arg == QLatin1String("--tag")) {
            const std::optional<QString> value = scanner.takeValue(error);
            if (!value) {
                return std::nullopt;
            }
            (arg == QLatin1String("--playlist") ? options.playlist : options.tag) = *value;
        } else if (arg == QLatin1String("--threads")) {
            const std::optional<QString> value = scanner.takeValue(error);
            if (!value) {
                return std::nullopt;
            }
            bool ok = false;
            options.threads = value->toInt(&ok);
            if (!ok || options.threads < 1 || options.threads > SessionModel::kMaxSimultaneousUploads) {
                *error = QStringLiteral("--threads must be a number from 1 to %1")
                             .arg(SessionModel::kMaxSimultaneousUploads);
                return std::nullopt;
            }
        } else if (arg == QLatin1String("--reupload") && !scanner.hasInlineValue()) {
            options.reupload = true;
        } else if (arg == QLatin1String("--dry-run") && !scanner.hasInlineValue()) {
            options.dryRun = true;
        } else {
            *error = QStringLiteral("unknown option %1").arg(scanner.raw());
            return std::nullopt;
        }
    }
    if (options.help) {
        return options;
    }
    if (options.folders.isEmpty()) {
        *error = QStringLiteral("no folder given");
        return std::nullopt;
    }
    for (QString &folder : options.folders) {
        const QFileInfo info(folder);
        struct stat attributes;
        if (::stat(QFile::encodeName(info.absoluteFilePath()).constData(), &attributes) != 0) {
            // Only a path that is really missing is "no such file"; too long or
            // not searchable says so.
            const int code = errno;
            *error = code == ENOENT || code == ENOTDIR
                         ? QStringLiteral("no such file or folder: %1").arg(folder)
                         : QStringLiteral("cannot use %1: %2").arg(folder, QString::fromLocal8Bit(strerror(code)));
            return std::nullopt;
        }
        folder = info.absoluteFilePath();
        if (PLCVolumeType::isDiskAtPath(folder)) {
            *error = QStringLiteral("%1 is an audio CD; use the desktop program to upload CDs").arg(folder);
            return std::nullopt;
        }
    }
    return options;
}

// Reads the digest list for a dry run. The service reports the list only to
// a delegate that takes the sign-in answer as well.
class DigestListWaiter : public LyraboxServiceDelegate
{
public:
    bool respondsToOperation(Operation operation) const override { return implements<DigestListWaiter>(operation); }
    void lyraboxDidLogin(LyraboxService *, const OptionalError &) override {}
    void lyraboxDidReadMd5List(LyraboxService *, const OptionalError &error) override
    {
        m_error = error;
        m_loop.quit();
    }

    OptionalError read()
    {
        LyraboxService &service = LyraboxService::sharedService();
        LyraboxServiceDelegate *previous = service.delegate();
        service.setDelegate(this);
        service.readMd5List();
        m_loop.exec();
        service.setDelegate(previous);
        return m_error;
    }

private:
    QEventLoop m_loop;
    OptionalError m_error;
};

// The found files that the library does not hold, by the same check as a
// run, on a worker; none when the digest list cannot be read.
std::optional<QPair<QStringList, QStringList>> checkAgainstLibrary(const QStringList &files, const QString &firstRoot,
                                                                   QString *error)
{
    DigestListWaiter waiter;
    if (const OptionalError readError = waiter.read()) {
        *error = readError->localizedDescription();
        return std::nullopt;
    }
    QStringList toUpload;
    QStringList known;
    QEventLoop loop;
    QObject context;
    Md5CheckOperation::Handlers handlers;
    handlers.audioCD = [&] { loop.quit(); };
    handlers.checked = [&](const QString &path, bool isKnown, qint64, qint64) {
        (isKnown ? known : toUpload).append(path);
    };
    handlers.ended = [&](double) { loop.quit(); };
    OperationQueue queue;
    queue.addOperation(std::make_shared<Md5CheckOperation>(
        &context, files, LyraboxService::sharedService().getMd5List(), firstRoot, std::move(handlers)));
    loop.exec();
    queue.waitUntilAllOperationsAreFinished();
    return qMakePair(toUpload, known);
}

int runDryRun(const UploadOptions &options, SessionModel &session)
{
    QTextStream out(stdout);
    QTextStream err(stderr);
    const QStringList files = session.foundFiles().toList();
    QStringList toUpload = files;
    QStringList known;
    if (!options.reupload) {
        err << "Checking for previously uploaded files..." << Qt::endl;
        QString error;
        const auto checked = checkAgainstLibrary(files, options.folders.first(), &error);
        if (!checked) {
            err << "pelicane-cli: the list of uploaded files could not be read: " << error << Qt::endl;
            return ExitNotStarted;
        }
        toUpload = checked->first;
        known = checked->second;
    }
    out << "Would upload " << groupedNumber(toUpload.size()) << " of " << groupedNumber(files.size())
        << " files:" << Qt::endl;
    for (const QString &path : std::as_const(toUpload)) {
        out << "  " << path << Qt::endl;
    }
    out << "Already in the library: " << groupedNumber(known.size()) << " files" << Qt::endl;
    return ExitSuccess;
}

} // namespace

int runUploadCommand(const QStringList &args)
{
    QTextStream out(stdout);
    QTextStream err(stderr);
    QString parseError;
    const std::optional<UploadOptions> parsed = parseOptions(args, &parseError);
    if (const std::optional<int> exit = exitBeforeRun(parsed, "upload", parseError, kUsage)) {
        return *exit;
    }
    const UploadOptions &options = *parsed;

    if (!CliSignIn::signInInteractively()) {
        return ExitNotStarted;
    }

    StatusLine status;
    SessionTerminalPrompter prompter(status);
    SessionModel session(&prompter);
    session.attachToService();
    UploadProgressMeter meter(&session);
    QEventLoop loop;
    int exitStatus = ExitSuccess;
    QString stopReason;
    bool running = false;
    bool ended = false;

    auto finish = [&](int code) {
        exitStatus = code;
        loop.exit(code);
    };

    prompter.stopRunOn(session, &loop,
                       {QStringLiteral("Error starting upload"), QStringLiteral("Error Starting Upload")},
                       ExitNotStarted, finish, &stopReason, &running);

    // --- Scan -------------------------------------------------------------------
    session.setMainPageType(MainPageTypeSearch);
    session.setSearchFolderPath(options.folders);
    QObject::connect(&session, &SessionModel::fileSearchInProgressChanged, &loop, [&](bool inProgress) {
        if (!inProgress && !running) {
            loop.quit();
        }
    });
    session.OnSearchFolder();
    if (session.isFileSearchInProgress()) {
        loop.exec();
    }
    err << session.fileCountLabelText().section(QLatin1Char('.'), 0, 0) << "." << Qt::endl;
    // Files the scan could not reach are not uploaded: such a run never ends as a success.
    const qint64 scanErrors = session.scanErrorCount();
    const auto reportScanErrors = [&] {
        if (scanErrors > 0) {
            err << "pelicane-cli: " << scanErrors << (scanErrors == 1 ? " file or folder" : " files or folders")
                << " could not be read while searching; see the log" << Qt::endl;
        }
    };

    if (options.dryRun) {
        const int code = runDryRun(options, session);
        session.detachFromService();
        reportScanErrors();
        return code == ExitSuccess && scanErrors > 0 ? ExitFilesFailed : code;
    }

    // --- Run ----------------------------------------------------------------------
    QTimer ticker;
    ticker.setInterval(status.isTerminal() ? 1000 : 10000);
    QObject::connect(&ticker, &QTimer::timeout, &loop, [&] {
        meter.sample();
        if (session.mainPageType() == MainPageTypeUpload && session.isUploading()) {
            status.show(meter.line());
        }
    });
    QTimer sampler;
    sampler.setInterval(1000);
    QObject::connect(&sampler, &QTimer::timeout, &loop, [&] { meter.sample(); });
    QObject::connect(&session, &SessionModel::uploadFinished, &loop,
                     [&](const QString &path, const OptionalError &error) {
                         if (!error) {
                             meter.fileCompleted(path);
                         } else if (error->code() >= 1 && error->code() != SessionModel::kNotAuthenticatedStatus) {
                             status.endLine();
                             err << "Failed: " << path << ": " << error->localizedDescription() << Qt::endl;
                         }
                     });
    QObject::connect(&session, &SessionModel::uploadEnded, &loop, [&] {
        ended = true;
        finish(exitStatus);
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

    session.OnReuploadChecked(!options.reupload);
    meter.begin();
    running = true;
    session.OnUploadFiles(QString::number(options.threads), options.playlist, options.tag);
    ticker.start();
    sampler.start();
    loop.exec();
    running = false;
    ticker.stop();
    sampler.stop();
    interrupts.reset();
    status.endLine();
    session.detachFromService();
    // Transfers still going (a run stopped early) end before the summary.
    LyraboxService::sharedService().shutdown();

    if (!ended) {
        if (!stopReason.isEmpty()) {
            err << "pelicane-cli: stopped: " << stopReason << Qt::endl;
        }
        return exitStatus;
    }

    // --- Summary ------------------------------------------------------------------
    out << session.discoveredLabelText() << "\n"
        << session.uploadedLabelText() << "\n"
        << session.skippedLabelText() << "\n"
        << session.errorsLabelText() << Qt::endl;
    for (const QString &path : session.erroredFiles()) {
        out << "  failed: " << path << "\n";
    }
    const qint64 leftOver = session.foundFiles().size() + session.readyFiles().size() +
                            session.uploadingFiles().size() + session.retryFiles().size();
    if (leftOver > 0) {
        out << "Not uploaded: \t" << groupedNumber(leftOver) << " files" << Qt::endl;
    }
    out << Qt::flush;
    if (!stopReason.isEmpty()) {
        err << "pelicane-cli: the run stopped: " << stopReason << Qt::endl;
    }
    err << "Log file: " << Logger::logFileURL().toLocalFile() << Qt::endl;
    reportScanErrors();
    if (exitStatus == ExitInterrupted) {
        return ExitInterrupted;
    }
    return !session.erroredFiles().isEmpty() || leftOver > 0 || !stopReason.isEmpty() || scanErrors > 0
               ? ExitFilesFailed
               : ExitSuccess;
}
