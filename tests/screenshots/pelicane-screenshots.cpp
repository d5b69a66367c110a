// pelicane-screenshots OUTDIR MUSICDIR: walks the program's windows against
// the local service, as a user would go through them, and writes one PNG per
// page, window and prompt into OUTDIR. Run by scripts/screenshots.sh under a
// virtual display.
#include "../library/librarytestsupport.h"
#include "../scan/scantree.h"

#include "app/splashwindowcontroller.h"
#include "library/ui/downloadlibrarycontroller.h"
#include "platform/discimages.h"
#include "service/lyraboxservice.h"
#include "session/ui/audiocdmetadatacontroller.h"
#include "session/ui/filelistitemview.h"
#include "session/ui/mainwindowcdprompter.h"
#include "session/ui/mainwindowcontroller.h"
#include "session/ui/removefilepromptcontroller.h"
#include "support/clitesting.h"
#include "support/devserverprocess.h"
#include "support/discservicesdata.h"
#include "ui_DownloadLibraryController.h"
#include "ui_MainWindowController.h"
#include "widgets/appearance.h"

#include <QApplication>
#include <QComboBox>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QJsonObject>
#include <QMessageBox>
#include <QPushButton>
#include <QScreen>
#include <QTemporaryDir>
#include <QTimer>

#include <cstdio>
#include <functional>

namespace {

QString g_out;
int g_failures = 0;

bool waitUntil(const std::function<bool()> &done, int milliseconds = 60000)
{
    QDeadlineTimer deadline(milliseconds);
    while (!done()) {
        if (deadline.hasExpired()) {
            return false;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
    }
    return true;
}

void pause(int milliseconds)
{
    waitUntil([] { return false; }, milliseconds);
}

void shoot(QWidget *window, const QString &name, int settleMs = 150)
{
    pause(settleMs);
    const QString path = QDir(g_out).filePath(name + QStringLiteral(".png"));
    if (window->grab().save(path)) {
        std::printf("%s\n", qPrintable(path));
    } else {
        std::fprintf(stderr, "could not write %s\n", qPrintable(path));
        ++g_failures;
    }
}

void step(bool ok, const char *what)
{
    if (!ok) {
        std::fprintf(stderr, "screenshots: %s did not happen\n", what);
        ++g_failures;
    }
}

// Shoots the next modal dialog of type T, then closes it with `close`.
template <typename T> void shootNextModal(const QString &name, std::function<void(T *)> close)
{
    QTimer::singleShot(100, [name, close] {
        auto *dialog = qobject_cast<T *>(QApplication::activeModalWidget());
        if (!dialog) {
            shootNextModal<T>(name, close);
            return;
        }
        shoot(dialog, name);
        close(dialog);
    });
}

} // namespace

int main(int argc, char *argv[])
{
    QApplication application(argc, argv);
    application.setApplicationName(QStringLiteral("Pelicane"));
    applyApplicationAppearance(&application);
    if (argc != 3) {
        std::fprintf(stderr, "usage: pelicane-screenshots OUTDIR MUSICDIR\n");
        return 2;
    }
    g_out = QString::fromLocal8Bit(argv[1]);
    const QString music = QDir(QString::fromLocal8Bit(argv[2])).absolutePath();
    QDir().mkpath(g_out);

    DevServerProcess server;
    if (!server.start()) {
        std::fprintf(stderr, "the local service did not start: %s\n", qPrintable(server.errorString()));
        return 1;
    }

    {
        SplashWindowController splash;
        splash.show();
        shoot(&splash, QStringLiteral("01-splash"));
        splash.stopSplashTimer();
    }

    MainWindowController window;
    window.resize(900, 640);
    window.showWindow();
    Ui::MainWindowController *ui = window.ui();
    ui->emailField->setText(QString::fromLatin1(DevServerProcess::kDemoEmail));
    ui->passwdField->setText(QString::fromLatin1(DevServerProcess::kDemoPassword));
    ui->rememberMeCheckbox->setChecked(true);
    shoot(&window, QStringLiteral("02-sign-in"));

    ui->loginButton->click();
    step(waitUntil([&] { return window.mainPageType() == MainPageTypeSearch; }), "sign-in");
    window.session()->setSearchFolderPath({music});
    window.session()->updateSearchFolderPath();
    shoot(&window, QStringLiteral("03-folders"));

    shootNextModal<QFileDialog>(QStringLiteral("04-folder-chooser"), [](QFileDialog *d) { d->reject(); });
    window.OnBrowseFolder();

    // A search through a large tree, caught while it counts, then cancelled.
    {
        QTemporaryDir large;
        const QString tree = large.filePath(QStringLiteral("Archive"));
        step(ScanTree::makeWideTree(tree, 200, 1000) == 200000, "the large tree");
        window.session()->setSearchFolderPath({tree});
        window.OnSearchFolder();
        step(waitUntil([&] {
                 return ui->fileSearchCountLabel->isVisible() &&
                        !ui->fileSearchCountLabel->text().startsWith(QStringLiteral("0 "));
             }),
             "the running count");
        shoot(&window, QStringLiteral("14-searching"), 0);
        ui->cancelSearchButton->click();
        step(window.mainPageType() == MainPageTypeSearch, "the cancelled search");
        window.session()->folderScanRunner().waitForDone();
        window.session()->setSearchFolderPath({music});
        window.session()->updateSearchFolderPath();
    }

    window.OnSearchFolder();
    step(waitUntil([&] { return ui->beginUploadButton->isEnabled(); }), "the scan");
    ui->filesTableView->selectRow(1);
    shoot(&window, QStringLiteral("05-file-list"));

    shootNextModal<RemoveFilePromptController>(QStringLiteral("06-remove-prompt"),
                                               [](RemoveFilePromptController *d) { d->noClicked(); });
    window.removeSelectedFiles();
    pause(400);

    // Slow answers keep the run on screen; one file fails for good.
    server.addFault(QJsonObject{
        {"endpoint", "upload"}, {"count", 1}, {"status", 500}, {"message", "The file could not be stored."}});
    server.addFault(QJsonObject{{"endpoint", "upload"}, {"count", 0}, {"latency_ms", 2500}});
    ui->uploadThreadCountField->setText(QStringLiteral("3"));
    ui->beginUploadButton->click();
    step(waitUntil([&] { return window.mainPageType() == MainPageTypeUpload; }), "the upload page");
    step(waitUntil([&] { return window.session()->completedFiles().size() >= 2; }), "uploads");
    pause(1200);
    shoot(&window, QStringLiteral("07-upload"));

    ui->uploadButton->click();
    pause(300);
    shoot(&window, QStringLiteral("08-paused"));

    // The connection drops in the middle of every upload for a while.
    server.clearFaults();
    server.addFault(QJsonObject{{"endpoint", "upload"}, {"count", 0}, {"drop_after_bytes", 1000}});
    ui->uploadButton->click();
    step(waitUntil([&] { return !ui->connectionLabel->isHidden(); }), "a lost connection");
    shoot(&window, QStringLiteral("09-connection-lost"));
    server.clearFaults();

    shootNextModal<QMessageBox>(QStringLiteral("10-cancel-question"),
                                [](QMessageBox *box) { box->buttons().last()->click(); });
    ui->cancelUploadButton->click();

    step(waitUntil([&] { return window.mainPageType() == MainPageTypeResult; }, 120000), "the end of the run");
    shoot(&window, QStringLiteral("11-result"));

    // The library window, mid-download over a slow link and done.
    LibraryTest::seedTracks(server, 120, 200000);
    server.addFault(QJsonObject{{"endpoint", "segment"}, {"count", 0}, {"bytes_per_second", 4000000}});
    QTemporaryDir folder;
    const LyraboxService &service = LyraboxService::sharedService();
    {
        DownloadLibraryController library(QUrl::fromLocalFile(folder.path()), service.userId(), service.userToken(),
                                          &window);
        library.setFolderOpener([](const QUrl &) {});
        library.show();
        step(waitUntil([&] { return library.ui()->progressTextField->text().endsWith(QStringLiteral(" left")); }),
             "the library download's time left");
        shoot(&library, QStringLiteral("12-library"), 0);
        server.clearFaults();
        step(waitUntil([&] { return library.ui()->actionTextField->text() == QStringLiteral("Done!"); }, 120000),
             "the end of the library download");
        shoot(&library, QStringLiteral("13-library-done"));
        library.setWillClose({});
    }

    // The CD road with a slow MusicBrainz: the lookup's overlay and its
    // Cancel, the album prompt busy with a release picked, and the result
    // with each track's AccurateRip verdict.
    ui->resultsStartOverButton->click();
    step(waitUntil([&] { return window.mainPageType() == MainPageTypeSearch; }), "the Search page again");
    DiscServicesData::pointAt(server);
    QTemporaryDir discFolder;
    const QString sampleDisc = makeSamples(server, discFolder.path());
    step(!sampleDisc.isEmpty(), "the sample disc's image");
    const QDir answers(server.dataDirectory() + QStringLiteral("/musicbrainz"));
    for (const QString &entity : {QStringLiteral("discid"), QStringLiteral("release")}) {
        for (const QString &name : QDir(answers.filePath(entity)).entryList({QStringLiteral("*.xml")})) {
            QFile delay(answers.filePath(entity + QLatin1Char('/') + name + QStringLiteral(".delay")));
            step(delay.open(QIODevice::WriteOnly) && delay.write("2500") > 0, "a slow MusicBrainz");
        }
    }
    DiscImages::insert(sampleDisc);
    step(waitUntil([&] { return ui->searchUploadCDButton->isVisible(); }), "the sample disc");
    ui->searchUploadCDButton->click();
    step(waitUntil([&] { return ui->waitingCancelButton->isVisible(); }), "the lookup's overlay");
    shoot(&window, QStringLiteral("16-cd-lookup"), 300);
    step(waitUntil([&] { return window.cdPrompter()->albumPrompt() != nullptr; }), "the album prompt");
    AudioCDMetadataController *prompt = window.cdPrompter()->albumPrompt();
    prompt->releasePopUp()->setCurrentIndex(1);
    step(waitUntil([&] { return prompt->isBusy(); }), "the release lookup");
    shoot(prompt, QStringLiteral("17-album-prompt-busy"), 300);
    step(waitUntil([&] { return !prompt->isBusy(); }), "the release picked");
    prompt->continueButton()->click();
    step(waitUntil([&] { return window.mainPageType() == MainPageTypeResult; }, 120000), "the end of the CD run");
    shoot(&window, QStringLiteral("18-cd-result"));

    return g_failures == 0 ? 0 : 1;
}
