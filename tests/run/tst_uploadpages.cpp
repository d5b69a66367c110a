// The Upload and Result pages of the main window against the local service:
// List -> Upload -> Result through the window's own buttons, with a pause
// and a resume on the way.
#include "runsupport.h"

#include "../session/alertdriver.h"
#include "../session/signedinwindow.h"

#include "service/lyraboxservice.h"
#include "session/sessionmodel.h"
#include "session/ui/mainwindowcontroller.h"
#include "session/ui/uploadlistitemview.h"
#include "session/ui/uploadlistpresenter.h"
#include "support/devserverprocess.h"
#include "ui_MainWindowController.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QPlainTextEdit>
#include <QTemporaryDir>
#include <QTest>

class TestUploadPages : public QObject
{
    Q_OBJECT

    DevServerProcess m_server;
    QTemporaryDir m_files;

    // Signs in, scans the folder and begins the upload with `threads` at a
    // time, the service answering as the fault says.
    void beginUpload(MainWindowController &window, const MusicFolder &music, const QString &threads,
                     const QJsonObject &fault)
    {
        signInThroughTheWindow(window);
        window.session()->setSearchFolderPath({music.root});
        window.OnSearchFolder();
        QTRY_VERIFY_WITH_TIMEOUT(window.ui()->beginUploadButton->isEnabled(), 30000);
        QCOMPARE(window.mainPageType(), quint32(MainPageTypeList));
        QVERIFY(m_server.addFault(fault));
        window.ui()->uploadThreadCountField->setText(threads);
        window.ui()->beginUploadButton->click();
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
        QVERIFY(m_files.isValid());
    }

    // Uploads a test left in flight end here, before the next test or the exit.
    void cleanup()
    {
        LyraboxService::sharedService().stopUploads();
        QTest::qWait(20);
    }

    void listToUploadToResultWithPauseAndResume()
    {
        const MusicFolder music = MusicFolder::make(m_files.filePath(QStringLiteral("pages")), 6, 20000, 60000, 5);
        MainWindowController window;
        // Slow answers keep the rows on screen long enough to look at them.
        beginUpload(window, music, QStringLiteral("2"), {{"endpoint", "upload"}, {"count", 0}, {"latency_ms", 1500}});
        QTRY_COMPARE_WITH_TIMEOUT(window.mainPageType(), quint32(MainPageTypeUpload), 30000);
        UploadListPresenter *presenter = window.uploadListPresenter();
        QVERIFY(presenter);
        QTRY_COMPARE_WITH_TIMEOUT(presenter->rowViews().size(), 2, 30000);
        for (UploadListItemView *row : presenter->rowViews()) {
            QVERIFY(music.paths.contains(row->pathText()));
            QVERIFY(row->progressText().endsWith(QLatin1Char('%')));
        }
        QCOMPARE(window.ui()->uploadButton->text(), QStringLiteral("Pause Upload"));
        QVERIFY(window.ui()->uploadStateLabel2->isHidden());

        QVERIFY(window.windowTitle().endsWith(QStringLiteral("% — Pelicane")));

        // Pause: the rows stay, marked; the files in flight lead the ready list again.
        const QStringList inFlight = window.session()->uploadingFiles().toList();
        QCOMPARE(inFlight.size(), 2);
        window.ui()->uploadButton->click();
        QCOMPARE(window.ui()->uploadButton->text(), QStringLiteral("Resume Upload"));
        QCOMPARE(presenter->rowViews().size(), 2);
        for (UploadListItemView *row : presenter->rowViews()) {
            QVERIFY(inFlight.contains(row->pathText()));
            QCOMPARE(row->progressText(), QStringLiteral("Paused"));
        }
        QVERIFY(window.windowTitle().startsWith(QStringLiteral("Paused at ")));
        QVERIFY(window.ui()->transferLabel->text().endsWith(QStringLiteral("paused")));
        QVERIFY(window.session()->uploadingFiles().isEmpty());
        QCOMPARE(window.session()->readyFiles().toList().mid(0, 2), inFlight);

        // Resume: verified again, and on to the end.
        QVERIFY(m_server.clearFaults());
        window.ui()->uploadButton->click();
        QCOMPARE(window.ui()->uploadButton->text(), QStringLiteral("Pause Upload"));
        QTRY_COMPARE_WITH_TIMEOUT(window.mainPageType(), quint32(MainPageTypeResult), 60000);
        QCOMPARE(window.ui()->discoveredLabel->text(), QStringLiteral("Discovered: \t6 files"));
        QCOMPARE(window.ui()->uploadedLabel->text(), QStringLiteral("Uploaded: \t6 files"));
        QCOMPARE(libraryField(m_server.library()).size(), 6);
        // Counted by bytes, every byte of the six files was sent.
        QCOMPARE(window.session()->progressMeter().totalBytes(), music.totalBytes);
        QCOMPARE(window.session()->progressMeter().doneBytes(), music.totalBytes);
        QCOMPARE(window.session()->bytesUploaded(), music.totalBytes);
        QCOMPARE(window.ui()->resultTitleLabel->text(), QStringLiteral("Upload finished"));
        QVERIFY(window.ui()->resultDetailsLabel->text().startsWith(QStringLiteral("Time taken: ")));
        QVERIFY(window.ui()->failedFilesView->isHidden());
        QCOMPARE(window.windowTitle(), QStringLiteral("Pelicane"));
    }

    // Cancel and Start Over ask while files are left, Return keeps the run;
    // after a cancel the Result page says so and counts the files not sent.
    void stoppingARunAsksAndACancelIsReported()
    {
        const MusicFolder music = MusicFolder::make(m_files.filePath(QStringLiteral("cancel")), 8, 20000, 40000, 6);
        MainWindowController window;
        beginUpload(window, music, QStringLiteral("1"), {{"endpoint", "upload"}, {"count", 0}, {"latency_ms", 1500}});
        QTRY_COMPARE_WITH_TIMEOUT(window.uploadListPresenter()->rowViews().size(), 1, 30000);

        AlertDriver driver;
        QString defaultButton;
        driver.answer(QStringLiteral("Keep Uploading"),
                      [&](QMessageBox *box) { defaultButton = box->defaultButton()->text(); });
        window.ui()->uploadStartOverButton->click();
        QCOMPARE(driver.seen.size(), 1);
        QCOMPARE(driver.seen.last().buttons, (QStringList{"Start Over", "Keep Uploading"}));
        QCOMPARE(defaultButton, QStringLiteral("Keep Uploading"));
        QCOMPARE(window.mainPageType(), quint32(MainPageTypeUpload));
        QVERIFY(window.session()->isUploading());

        driver.answer(QStringLiteral("Cancel Upload"));
        window.ui()->cancelUploadButton->click();
        QCOMPARE(driver.seen.size(), 2);
        QCOMPARE(driver.seen.last().text, QStringLiteral("Cancel the upload?"));
        QCOMPARE(window.mainPageType(), quint32(MainPageTypeResult));
        const qint64 notSent = 8 - window.session()->completedFiles().size();
        QVERIFY(notSent > 0);
        QCOMPARE(window.ui()->resultTitleLabel->text(),
                 QStringLiteral("Upload cancelled: %1 files were not uploaded").arg(notSent));

        // With the run over, Start Over goes without a question.
        window.ui()->resultsStartOverButton->click();
        QCOMPARE(driver.seen.size(), 2);
        QCOMPARE(window.mainPageType(), quint32(MainPageTypeSearch));
    }

    // A dropped connection shows on the page until the files move again; a
    // file the service refuses is listed on the Result page with the reason.
    void lostConnectionAndFailureReasonsAreShown()
    {
        const MusicFolder music = MusicFolder::make(m_files.filePath(QStringLiteral("lost")), 3, 20000, 40000, 7);
        MainWindowController window;
        beginUpload(window, music, QStringLiteral("1"),
                    {{"endpoint", "upload"}, {"count", 1}, {"drop_after_bytes", 1000}});
        QTRY_VERIFY_WITH_TIMEOUT(window.ui()->connectionLabel->isVisible(), 30000);
        QVERIFY(window.ui()->connectionLabel->text().startsWith(QStringLiteral("Connection lost, retrying")));
        // The file waits five seconds before it goes again, and is refused then.
        QVERIFY(m_server.addFault(
            {{"endpoint", "upload"}, {"count", 1}, {"status", 500}, {"message", "The file could not be stored."}}));
        QTRY_VERIFY_WITH_TIMEOUT(window.ui()->connectionLabel->isHidden(), 30000);

        QTRY_COMPARE_WITH_TIMEOUT(window.mainPageType(), quint32(MainPageTypeResult), 60000);
        QCOMPARE(window.session()->erroredFiles().size(), 1);
        const QString failed = window.session()->erroredFiles().first();
        QCOMPARE(window.ui()->resultTitleLabel->text(), QStringLiteral("Upload finished with errors"));
        QVERIFY(window.ui()->failedFilesView->isVisible());
        QCOMPARE(window.ui()->failedFilesView->toPlainText(),
                 QStringLiteral("%1 — The file could not be stored.").arg(failed));
        window.ui()->copyFailedFilesButton->click();
        QCOMPARE(QGuiApplication::clipboard()->text(), window.ui()->failedFilesView->toPlainText());
    }
};

QTEST_MAIN(TestUploadPages)
#include "tst_uploadpages.moc"
