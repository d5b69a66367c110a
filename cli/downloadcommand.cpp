// pelicane-cli download-library FOLDER: the whole library into
// FOLDER/My Lyrabox Library, resuming where an earlier run stopped.
#include "cli/commands.h"
#include "cli/signin.h"
#include "cli/terminal.h"

#include "library/downloadlibrarymodel.h"
#include "service/lyraboxservice.h"

#include <QCoreApplication>
#include <QEventLoop>
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

void printUsage(QTextStream &out)
{
    out << "Usage: pelicane-cli download-library FOLDER\n"
           "\n"
           "Downloads the whole library into FOLDER/My Lyrabox Library. An interrupted\n"
           "download continues where it stopped when the same command runs again.\n"
           "A segment that fails is tried again every 5 seconds for as long as it takes\n"
           "(a line each minute tells how long the service has not answered); a folder\n"
           "that cannot be written ends the run with exit status 1.\n"
           "The account is read from PELICANE_EMAIL and PELICANE_PASSWORD, or asked for.\n";
}

} // namespace

int runDownloadLibraryCommand(const QStringList &args)
{
    QTextStream out(stdout);
    QTextStream err(stderr);
    if (args.size() == 1 && (args.first() == QLatin1String("--help") || args.first() == QLatin1String("-h"))) {
        printUsage(out);
        return 0;
    }
    if (args.size() != 1 || args.first().startsWith(u'-')) {
        printUsage(err);
        return 2;
    }
    const QString folder = QFileInfo(args.first()).absoluteFilePath();
    if (QFileInfo(folder).exists() && !QFileInfo(folder).isDir()) {
        err << "pelicane-cli: " << folder << " is not a folder" << Qt::endl;
        return 2;
    }
    std::error_code created;
    std::filesystem::create_directories(QFile::encodeName(folder).toStdString(), created);
    if (created) {
        err << "pelicane-cli: cannot create " << folder << ": " << QString::fromLocal8Bit(created.message().c_str())
            << Qt::endl;
        return 1;
    }

    if (!CliSignIn::signInInteractively()) {
        return 1;
    }
    const LyraboxService &service = LyraboxService::sharedService();

    TerminalPrompter prompter;
    ProgressPrinter printer;
    DownloadLibraryModel model(QUrl::fromLocalFile(folder), service.userId(), service.userToken(), &prompter);
    QEventLoop loop;
    int status = 0;
    auto finish = [&](int code) {
        status = code;
        loop.exit(code);
    };

    QObject::connect(&model, &DownloadLibraryModel::viewStateChanged, &loop, [&] { printer.show(model.viewState()); });
    QObject::connect(&model, &DownloadLibraryModel::chunkFailed, &loop, [&] {
        printer.endLine();
        err << model.viewState().errorInfoText << Qt::endl;
        model.OnErrorInfo();
    });
    QObject::connect(&model, &DownloadLibraryModel::configurationFailed, &loop, [&](const Error &error) {
        printer.endLine();
        err << "pelicane-cli: the library could not be read: " << error.localizedDescription() << Qt::endl;
        finish(1);
    });
    QObject::connect(&model, &DownloadLibraryModel::destinationFailed, &loop, [&](const Error &error) {
        printer.endLine();
        err << "pelicane-cli: " << error.localizedDescription() << Qt::endl;
        finish(1);
    });
    QObject::connect(&model, &DownloadLibraryModel::serviceSilent, &loop, [&](const QString &notice) {
        printer.endLine();
        err << notice << Qt::endl;
    });
    QObject::connect(&model, &DownloadLibraryModel::extractionFailed, &loop, [&](const QString &, const Error &error) {
        printer.endLine();
        err << "pelicane-cli: " << error.localizedDescription() << Qt::endl;
    });
    QObject::connect(&model, &DownloadLibraryModel::incomplete, &loop, [&](const Error &) {
        printer.endLine();
        err << "pelicane-cli: the library download is incomplete; run the same command again to fetch what is "
               "missing"
            << Qt::endl;
        finish(1);
    });
    QObject::connect(&model, &DownloadLibraryModel::completed, &loop, [&] {
        printer.endLine();
        out << "Library of " << QLocale::c().toString(model.totalTrackCount()) << " tracks in "
            << model.destinationPath() << Qt::endl;
        finish(0);
    });

    // Ctrl-C stops cleanly; the next run resumes from the record.
    const InterruptWatcher interrupts([&] {
        printer.endLine();
        err << "pelicane-cli: stopped; run the same command again to continue" << Qt::endl;
        finish(130);
    });

    model.start();
    loop.exec();
    return status;
}
