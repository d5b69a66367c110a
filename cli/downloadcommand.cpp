// pelicane-cli download-library FOLDER: the whole library into
// FOLDER/My Lyrabox Library, resuming where an earlier run stopped.
#include "cli/arguments.h"
#include "cli/commands.h"
#include "cli/signedinrun.h"
#include "cli/terminal.h"

#include "library/downloadlibrarymodel.h"
#include "service/lyraboxservice.h"

#include <QFileInfo>
#include <QLocale>
#include <QTextStream>

#include <filesystem>
#include <system_error>

namespace {

// No window to answer from: the details are printed and the one button taken.
class TerminalPrompter : public DownloadLibraryPrompter
{
public:
    int showAlert(const QString &title, const QString &text, const QStringList &, Appearance) override
    {
        QTextStream err(stderr);
        err << "\n" << title << ": " << text << Qt::endl;
        return 1000;
    }
};

// The download's progress; on a pipe, a line per change of step so a log
// of the job stays readable.
class ProgressPrinter
{
public:
    void show(const DownloadLibraryViewState &view)
    {
        QString line = view.actionText;
        if (!view.progressTextHidden && !view.progressText.isEmpty()) {
            line += QStringLiteral("  ") + view.progressText;
        }
        if (view.progressDeterminate) {
            const int filled = int(view.progressValue * 30);
            line = QStringLiteral("[%1%2] %3% ")
                       .arg(QString(filled, u'#'), QString(30 - filled, u'.'))
                       .arg(int(view.progressValue * 100), 3) +
                   line;
        }
        if (m_status.isTerminal() || view.actionText != m_lastAction) {
            m_status.show(line);
        }
        m_lastAction = view.actionText;
    }

    void endLine() { m_status.endLine(); }

private:
    StatusLine m_status;
    QString m_lastAction;
};

const char *const kUsage = "Usage: pelicane-cli download-library FOLDER\n"
                           "\n"
                           "Downloads the whole library into FOLDER/My Lyrabox Library. An interrupted\n"
                           "download continues where it stopped when the same command runs again.\n"
                           "A segment that fails is tried again every 5 seconds for as long as it takes\n"
                           "(a line each minute tells how long the service has not answered); a folder\n"
                           "that cannot be written ends the run with exit status 1.\n"
                           "The account is read from PELICANE_EMAIL and PELICANE_PASSWORD, or asked for.\n";

struct DownloadOptions
{
    QString folder; // absolute
};

// The one folder; --help only alone.
Parsed<DownloadOptions> parseDownloadOptions(const QStringList &args)
{
    QStringList positional;
    bool help = false;
    bool unknown = false;
    ArgumentScanner scanner(args);
    while (scanner.next()) {
        if (!scanner.isOption()) {
            positional.append(scanner.current());
        } else if (scanner.isHelp() && !scanner.hasInlineValue()) {
            help = true;
        } else {
            unknown = true;
        }
    }
    if (help && args.size() == 1) {
        return CommandExit::help(kUsage);
    }
    if (help || unknown || positional.size() != 1) {
        return CommandExit::wrongArguments(kUsage);
    }
    const QString folder = QFileInfo(positional.first()).absoluteFilePath();
    if (QFileInfo(folder).exists() && !QFileInfo(folder).isDir()) {
        return CommandExit::wrongArguments(QStringLiteral("pelicane-cli: %1 is not a folder\n").arg(folder));
    }
    return DownloadOptions{folder};
}

struct DownloadOutcome
{
    int status = Exit::Failed;
    // The whole library is in the folder.
    bool completed = false;
    qint64 trackCount = 0;
    QString destination;
};

// Says on standard error what went wrong or what the service is up to; the
// failures that end the download end the run with status 1.
void reportFailures(SignedInRun &run, DownloadLibraryModel &model, ProgressPrinter &printer)
{
    QObject *context = run.context();
    const auto say = [&printer](const QString &text) {
        printer.endLine();
        QTextStream(stderr) << text << Qt::endl;
    };
    QObject::connect(&model, &DownloadLibraryModel::chunkFailed, context, [&model, say] {
        say(model.viewState().errorInfoText);
        model.OnErrorInfo();
    });
    QObject::connect(&model, &DownloadLibraryModel::configurationFailed, context, [&run, say](const Error &error) {
        say(QStringLiteral("pelicane-cli: the library could not be read: ") + error.localizedDescription());
        run.finish(Exit::Failed);
    });
    QObject::connect(&model, &DownloadLibraryModel::destinationFailed, context, [&run, say](const Error &error) {
        say(QStringLiteral("pelicane-cli: ") + error.localizedDescription());
        run.finish(Exit::Failed);
    });
    QObject::connect(&model, &DownloadLibraryModel::serviceSilent, context, say);
    QObject::connect(&model, &DownloadLibraryModel::extractionFailed, context,
                     [say](const QString &, const Error &error) {
                         say(QStringLiteral("pelicane-cli: ") + error.localizedDescription());
                     });
    QObject::connect(&model, &DownloadLibraryModel::incomplete, context, [&run, say](const Error &) {
        say(QStringLiteral("pelicane-cli: the library download is incomplete; run the same command again to fetch "
                           "what is missing"));
        run.finish(Exit::Failed);
    });
}

DownloadOutcome runDownload(const DownloadOptions &options)
{
    DownloadOutcome outcome;
    std::error_code created;
    std::filesystem::create_directories(QFile::encodeName(options.folder).toStdString(), created);
    if (created) {
        QTextStream(stderr) << "pelicane-cli: cannot create " << options.folder << ": "
                            << QString::fromLocal8Bit(created.message().c_str()) << Qt::endl;
        return outcome;
    }
    SignedInRun run(Exit::Failed);
    if (!run.signIn()) {
        outcome.status = run.status();
        return outcome;
    }
    const LyraboxService &service = LyraboxService::sharedService();
    TerminalPrompter prompter;
    ProgressPrinter printer;
    DownloadLibraryModel model(QUrl::fromLocalFile(options.folder), service.userId(), service.userToken(), &prompter);
    QObject::connect(&model, &DownloadLibraryModel::viewStateChanged, run.context(),
                     [&] { printer.show(model.viewState()); });
    reportFailures(run, model, printer);
    QObject::connect(&model, &DownloadLibraryModel::completed, run.context(), [&] {
        printer.endLine();
        outcome.completed = true;
        outcome.trackCount = model.totalTrackCount();
        outcome.destination = model.destinationPath();
        run.finish(Exit::Success);
    });
    // Ctrl-C stops cleanly; the next run resumes from the record.
    outcome.status = run.exec([&] { model.start(); },
                              [&] {
                                  printer.endLine();
                                  QTextStream(stderr)
                                      << "pelicane-cli: stopped; run the same command again to continue" << Qt::endl;
                                  run.finish();
                              });
    return outcome;
}

int printDownloadSummary(const DownloadOutcome &outcome)
{
    if (outcome.completed) {
        QTextStream(stdout) << "Library of " << QLocale::c().toString(outcome.trackCount) << " tracks in "
                            << outcome.destination << Qt::endl;
    }
    return outcome.status;
}

} // namespace

int runDownloadLibraryCommand(const QStringList &args)
{
    return runCommand(parseDownloadOptions(args), runDownload, printDownloadSummary);
}
