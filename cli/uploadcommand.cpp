// pelicane-cli upload: the desktop program's upload run without a window.
//
// Signs in, scans the folders and runs the same session model as the main
// window, with the same lists and the same log. The session's prompts are
// answered by fixed defaults, documented in the usage text below.
#include "cli/arguments.h"
#include "cli/commands.h"
#include "cli/sessionrun.h"
#include "cli/sessionterminalprompter.h"
#include "cli/signedinrun.h"
#include "cli/terminal.h"
#include "cli/uploadprogress.h"

#include "cd/plcvolumetype.h"
#include "core/formatting.h"
#include "core/logger.h"
#include "service/lyraboxservice.h"
#include "session/md5checkoperation.h"

#include <QEventLoop>
#include <QFileInfo>
#include <QTextStream>
#include <QTimer>

#include <cerrno>
#include <cstring>
#include <optional>
#include <sys/stat.h>

namespace {

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
};

// Why a folder (or file) argument cannot be uploaded from; none when it can,
// and it is made absolute.
std::optional<QString> checkFolder(QString &folder)
{
    const QFileInfo info(folder);
    struct stat attributes;
    if (::stat(QFile::encodeName(info.absoluteFilePath()).constData(), &attributes) != 0) {
        // Only a path that is really missing is "no such file"; too long or
        // not searchable says so.
        const int code = errno;
        return code == ENOENT || code == ENOTDIR
                   ? QStringLiteral("no such file or folder: %1").arg(folder)
                   : QStringLiteral("cannot use %1: %2").arg(folder, QString::fromLocal8Bit(strerror(code)));
    }
    folder = info.absoluteFilePath();
    if (PLCVolumeType::isDiskAtPath(folder)) {
        return QStringLiteral("%1 is an audio CD; use the desktop program to upload CDs").arg(folder);
    }
    return std::nullopt;
}

Parsed<UploadOptions> parseUploadOptions(const QStringList &args)
{
    const auto wrong = [](const QString &error) { return CommandExit::usageError("upload", error, kUsage); };
    UploadOptions options;
    bool help = false;
    QString error;
    ArgumentScanner scanner(args);
    while (scanner.next()) {
        const QString &arg = scanner.current();
        if (!scanner.isOption()) {
            options.folders.append(arg);
        } else if (scanner.isHelp()) {
            help = true;
        } else if (arg == QLatin1String("--playlist") || arg == QLatin1String("--tag")) {
            const std::optional<QString> value = scanner.takeValue(&error);
            if (!value) {
                return wrong(error);
            }
            (arg == QLatin1String("--playlist") ? options.playlist : options.tag) = *value;
        } else if (arg == QLatin1String("--threads")) {
            const std::optional<QString> value = scanner.takeValue(&error);
            if (!value) {
                return wrong(error);
            }
            bool ok = false;
            options.threads = value->toInt(&ok);
            if (!ok || options.threads < 1 || options.threads > SessionRun::maxSimultaneousUploads()) {
                return wrong(QStringLiteral("--threads must be a number from 1 to %1")
                                 .arg(SessionRun::maxSimultaneousUploads()));
            }
        } else if (arg == QLatin1String("--reupload") && !scanner.hasInlineValue()) {
            options.reupload = true;
        } else if (arg == QLatin1String("--dry-run") && !scanner.hasInlineValue()) {
            options.dryRun = true;
        } else {
            return wrong(QStringLiteral("unknown option %1").arg(scanner.raw()));
        }
    }
    if (help) {
        return CommandExit::help(kUsage);
    }
    if (options.folders.isEmpty()) {
        return wrong(QStringLiteral("no folder given"));
    }
    for (QString &folder : options.folders) {
        if (const std::optional<QString> problem = checkFolder(folder)) {
            return wrong(*problem);
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

// What a dry run found: the files the library does not hold.
struct DryRun
{
    qsizetype files = 0;
    QStringList toUpload;
    qsizetype known = 0;
    // Why the library's list could not be read, when it could not.
    std::optional<QString> readError;
};

DryRun checkFoundFiles(const UploadOptions &options, const QStringList &files)
{
    DryRun dryRun;
    dryRun.files = files.size();
    dryRun.toUpload = files;
    if (!options.reupload) {
        QTextStream(stderr) << "Checking for previously uploaded files..." << Qt::endl;
        QString error;
        const auto checked = checkAgainstLibrary(files, options.folders.first(), &error);
        if (!checked) {
            dryRun.readError = error;
            return dryRun;
        }
        dryRun.toUpload = checked->first;
        dryRun.known = checked->second.size();
    }
    return dryRun;
}

// Uploads what the search found, with a progress line.
SessionRunOutcome uploadFound(const UploadOptions &options, SessionRun &session, StatusLine &status)
{
    UploadProgressMeter meter(session.model());
    QTimer sampler;
    sampler.setInterval(1000);
    QObject::connect(&sampler, &QTimer::timeout, &sampler, [&] { meter.sample(); });
    SessionRun::Hooks hooks;
    hooks.start = [&] {
        meter.begin();
        session.uploadFiles(options.threads, options.playlist, options.tag, options.reupload);
        sampler.start();
    };
    hooks.tick = [&] {
        meter.sample();
        if (session.isUploading()) {
            status.show(meter.line());
        }
    };
    hooks.fileFinished = [&](const QString &path, const OptionalError &error) {
        if (!error) {
            meter.fileCompleted(path);
        } else if (SessionRun::isFileFailure(*error)) {
            status.endLine();
            QTextStream(stderr) << "Failed: " << path << ": " << error->localizedDescription() << Qt::endl;
        }
    };
    return session.exec(hooks);
}

struct UploadOutcome
{
    // Files and folders the search could not read.
    qint64 scanErrors = 0;
    std::optional<DryRun> dryRun;
    SessionRunOutcome run;
};

UploadOutcome runUpload(const UploadOptions &options)
{
    UploadOutcome outcome;
    SignedInRun run(Exit::NotStarted);
    if (!run.signIn()) {
        outcome.run.status = run.status();
        return outcome;
    }
    StatusLine status;
    SessionTerminalPrompter prompter(status);
    SessionRun session(run, status, prompter, nullptr,
                       {QStringLiteral("Error starting upload"), QStringLiteral("Error Starting Upload")});
    QTextStream(stderr) << session.search(options.folders) << Qt::endl;
    outcome.scanErrors = session.scanErrorCount();
    if (options.dryRun) {
        outcome.dryRun = checkFoundFiles(options, session.foundFiles());
    } else {
        outcome.run = uploadFound(options, session, status);
    }
    return outcome;
}

int printDryRun(const DryRun &dryRun)
{
    if (dryRun.readError) {
        QTextStream(stderr) << "pelicane-cli: the list of uploaded files could not be read: " << *dryRun.readError
                            << Qt::endl;
        return Exit::NotStarted;
    }
    QTextStream out(stdout);
    out << "Would upload " << groupedNumber(dryRun.toUpload.size()) << " of " << groupedNumber(dryRun.files)
        << " files:" << Qt::endl;
    for (const QString &path : dryRun.toUpload) {
        out << "  " << path << Qt::endl;
    }
    out << "Already in the library: " << groupedNumber(dryRun.known) << " files" << Qt::endl;
    return Exit::Success;
}

void printScanErrors(qint64 scanErrors)
{
    if (scanErrors > 0) {
        QTextStream(stderr) << "pelicane-cli: " << scanErrors
                            << (scanErrors == 1 ? " file or folder" : " files or folders")
                            << " could not be read while searching; see the log" << Qt::endl;
    }
}

// Files the search could not reach are not uploaded: such a run never ends as a success.
int printUploadSummary(const UploadOutcome &outcome)
{
    if (outcome.dryRun) {
        const int status = printDryRun(*outcome.dryRun);
        printScanErrors(outcome.scanErrors);
        return status == Exit::Success && outcome.scanErrors > 0 ? Exit::Failed : status;
    }
    const SessionRunOutcome &run = outcome.run;
    if (!run.ended) {
        run.printStopReason();
        return run.status;
    }
    QTextStream out(stdout);
    out << run.discovered << "\n" << run.uploaded << "\n" << run.skipped << "\n" << run.errors << Qt::endl;
    for (const QString &path : run.erroredFiles) {
        out << "  failed: " << path << "\n";
    }
    if (run.leftOver > 0) {
        out << "Not uploaded: \t" << groupedNumber(run.leftOver) << " files" << Qt::endl;
    }
    out << Qt::flush;
    run.printStopReason();
    QTextStream(stderr) << "Log file: " << Logger::logFileURL().toLocalFile() << Qt::endl;
    printScanErrors(outcome.scanErrors);
    return run.exitStatus(outcome.scanErrors > 0);
}

} // namespace

int runUploadCommand(const QStringList &args)
{
    return runCommand(parseUploadOptions(args), runUpload, printUploadSummary);
}
