// The Upload and Result pages of the main window against the local service:
// List -> Upload -> Result through the window's own buttons, with a pause
// and a resume on the way; the rows' place and texts; the count alert; and
// the rows moving down under the check row while the check runs.
#include "runsupport.h"

#include "service/lyraboxservice.h"
#include "session/alertdriver.h"
#include "session/sessionmodel.h"
#include "session/ui/mainwindowcontroller.h"
#include "session/ui/uploadlistitemview.h"
#include "session/ui/uploadlistpresenter.h"
#include "support/devserverprocess.h"
#include "ui_MainWindowController.h"

#include <QScopeGuard>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

class TestUploadPages : public QObject
{
    Q_OBJECT

    DevServerProcess m_server;
    QTemporaryDir m_files;

    // Signs in and scans the folder, up to the List page ready to upload.
    void signInAndScan(MainWindowController &window, const MusicFolder &music)
    {
        window.showWindow();
        window.ui()->emailField->setText(QString::fromLatin1(DevServerProcess::kDemoEmail));
        window.ui()->passwdField->setText(QString::fromLatin1(DevServerProcess::kDemoPassword));
        window.ui()->loginButton->click();
        QTRY_COMPARE_WITH_TIMEOUT(window.mainPageType(), quint32(MainPageTypeSearch), 30000);
        window.session()->setSearchFolderPath({music.root});
        window.OnSearchFolder();
        QTRY_VERIFY_WITH_TIMEOUT(window.ui()->beginUploadButton->isEnabled(), 30000);
        QCOMPARE(window.mainPageType(), quint32(MainPageTypeList));
    }

    // Each row sits 32 below the one before, 30 high, the whole width, and
    // one place further down while the check row shows at the top.
    static void verifyRowPlaces(UploadListPresenter *presenter, const QWidget *area, bool checkRowShown)
    {
        QCOMPARE(presenter->md5CheckProgressView()->isVisible(), checkRowShown);
        if (checkRowShown) {
            QCOMPARE(presenter->md5CheckProgressView()->geometry(), QRect(0, 2, area->width(), 30));
        }
        const int shift = checkRowShown ? 1 : 0;
        for (qsizetype i = 0; i < presenter->rowViews().size(); ++i) {
            QCOMPARE(presenter->rowViews()[i]->geometry(), QRect(0, int(i + shift) * 32 + 2, area->width(), 30));
        }
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
        window.resize(900, 640);
        signInAndScan(window, music);

        // A count out of bounds asks and stays on the List page.
        AlertDriver driver;
        driver.answer(QStringLiteral("OK"));
        window.ui()->uploadThreadCountField->setText(QStringLiteral("7"));
        window.ui()->beginUploadButton->click();
        QCOMPARE(driver.seen.size(), 1);
        QCOMPARE(driver.seen[0].text, QStringLiteral("Simultaneous upload count should be between 1 and 6."));
        QCOMPARE(window.mainPageType(), quint32(MainPageTypeList));

        // Slow answers keep the rows on screen long enough to look at them.
        QVERIFY(m_server.addFault({{"endpoint", "upload"}, {"count", 0}, {"latency_ms", 1500}}));
        window.ui()->uploadThreadCountField->setText(QStringLiteral("2"));
        window.ui()->beginUploadButton->click();
        QTRY_COMPARE_WITH_TIMEOUT(window.mainPageType(), quint32(MainPageTypeUpload), 30000);
        QVERIFY(window.ui()->audioCDArtworkImageView->isHidden());
        UploadListPresenter *presenter = window.uploadListPresenter();
        QVERIFY(presenter);
        QTRY_COMPARE_WITH_TIMEOUT(presenter->rowViews().size(), 2, 30000);
        verifyRowPlaces(presenter, window.ui()->uploadListView, window.session()->isMd5CheckProgressViewOnScreen());
        for (UploadListItemView *row : presenter->rowViews()) {
            QVERIFY(music.paths.contains(row->pathText()));
            QVERIFY(row->progressText().endsWith(QLatin1Char('%')));
        }
        QCOMPARE(window.ui()->uploadButton->text(), QStringLiteral("Pause Upload"));
        QVERIFY(window.ui()->uploadStateLabel2->isHidden());

        // Pause: the rows go, the files in flight lead the ready list again.
        const QStringList inFlight = window.session()->uploadingFiles();
        QCOMPARE(inFlight.size(), 2);
        window.ui()->uploadButton->click();
        QCOMPARE(window.ui()->uploadButton->text(), QStringLiteral("Resume Upload"));
        QVERIFY(presenter->rowViews().isEmpty());
        QVERIFY(window.session()->uploadingFiles().isEmpty());
        QCOMPARE(window.session()->readyFiles().toList().mid(0, 2), inFlight);
        QCOMPARE(window.ui()->uploadStateLabel->text(), window.session()->uploadStateLabelText());

        // Resume: verified again, and on to the end.
        QVERIFY(m_server.clearFaults());
        window.ui()->uploadButton->click();
        QCOMPARE(window.ui()->uploadButton->text(), QStringLiteral("Pause Upload"));
        QTRY_COMPARE_WITH_TIMEOUT(window.mainPageType(), quint32(MainPageTypeResult), 60000);
        QCOMPARE(window.ui()->discoveredLabel->text(), QStringLiteral("Discovered: \t6 files"));
        QCOMPARE(window.ui()->uploadedLabel->text(), QStringLiteral("Uploaded: \t6 files"));
        QCOMPARE(window.ui()->skippedLabel->text(), QStringLiteral("Skipped: \t0 files (already uploaded)"));
        QCOMPARE(window.ui()->errorsLabel->text(), QStringLiteral("Errors: \t\t0 files"));
        QVERIFY(window.ui()->resultsRetryErrorsButton->isHidden());
        QCOMPARE(libraryField(m_server.library()).size(), 6);

        // Start over leads back to the folder page with empty lists.
        window.ui()->resultsStartOverButton->click();
        QCOMPARE(window.mainPageType(), quint32(MainPageTypeSearch));
        QVERIFY(window.session()->completedFiles().isEmpty());
    }

    void rowsMoveDownUnderTheCheckRow()
    {
        // The check reads a pipe first, so it holds still, with its row on
        // screen, until the test writes to the pipe.
        const QString pipe = m_files.filePath(QStringLiteral("held.mp3"));
        QCOMPARE(::mkfifo(QFile::encodeName(pipe).constData(), 0600), 0);
        // Should the test stop early, the check still gets to the end of the pipe.
        const auto release = qScopeGuard([&] {
            const int fd = ::open(QFile::encodeName(pipe).constData(), O_WRONLY | O_NONBLOCK);
            if (fd >= 0) {
                ::close(fd);
            }
        });
        const MusicFolder music = MusicFolder::make(m_files.filePath(QStringLiteral("held")), 2, 1000, 2000, 13);

        ScriptedPrompter prompter;
        SessionModel session(&prompter);
        QWidget area;
        area.resize(480, 300);
        area.show();
        UploadListPresenter presenter(&session, &area);
        // Not running: the check's results stay in the lists, and the pipe
        // is never read a second time.
        session.foundFiles().append(pipe);
        session.startMd5CheckPhase();
        QTRY_VERIFY_WITH_TIMEOUT(presenter.md5CheckProgressView()->isVisible(), 30000);
        QCOMPARE(presenter.md5CheckProgressView()->pathText(),
                 QStringLiteral("Checking for previously uploaded files..."));
        QCOMPARE(presenter.md5CheckProgressView()->progressText(), QStringLiteral("0%"));

        session.readyFiles().append(music.paths);
        session.uploadNextFile();
        session.uploadNextFile();
        QCOMPARE(presenter.rowViews().size(), 2);
        QCOMPARE(presenter.rowViews()[0]->pathText(), music.paths[0]);
        verifyRowPlaces(&presenter, &area, true);

        QFile writer(pipe);
        QVERIFY(writer.open(QIODevice::WriteOnly));
        writer.write("x");
        writer.close();
        QTRY_VERIFY_WITH_TIMEOUT(!presenter.md5CheckProgressView()->isVisible(), 30000);
        verifyRowPlaces(&presenter, &area, false);
        QCOMPARE(session.readyFiles().toList(), QStringList{pipe});
    }
};

QTEST_MAIN(TestUploadPages)
#include "tst_uploadpages.moc"
