// The Upload and Result pages of the main window against the local service:
// List -> Upload -> Result through the window's own buttons, with a pause
// and a resume on the way.
#include "runsupport.h"

#include "service/lyraboxservice.h"
#include "session/sessionmodel.h"
#include "session/ui/mainwindowcontroller.h"
#include "session/ui/uploadlistitemview.h"
#include "session/ui/uploadlistpresenter.h"
#include "support/devserverprocess.h"
#include "ui_MainWindowController.h"

#include <QTemporaryDir>
#include <QTest>

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

        // Slow answers keep the rows on screen long enough to look at them.
        QVERIFY(m_server.addFault({{"endpoint", "upload"}, {"count", 0}, {"latency_ms", 1500}}));
        window.ui()->uploadThreadCountField->setText(QStringLiteral("2"));
        window.ui()->beginUploadButton->click();
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

        // Pause: the rows go, the files in flight lead the ready list again.
        const QStringList inFlight = window.session()->uploadingFiles().toList();
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
        QCOMPARE(libraryField(m_server.library()).size(), 6);
    }
};

QTEST_MAIN(TestUploadPages)
#include "tst_uploadpages.moc"
