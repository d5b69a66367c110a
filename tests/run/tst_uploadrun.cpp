// The upload run of the session model piece by piece: the count prompt, the
// Upload page's texts, pause, resume and cancel, and each file's result with
// the failure prompts, fed in directly where a test needs a particular error.
#include "runsupport.h"

#include "service/lyraboxservice.h"
#include "session/sessionmodel.h"
#include "support/devserverprocess.h"

#include <QTemporaryDir>
#include <QTest>

namespace {

Error failure(int code, const QString &message = QStringLiteral("It went wrong"))
{
    return Error::errorWithMessage(message, code);
}

} // namespace

class TestUploadRun : public QObject
{
    Q_OBJECT

    DevServerProcess m_server;
    QTemporaryDir m_files;

    // On the Upload page with a run going, the check phase having started nothing.
    void startRunning(SessionModel &model)
    {
        model.setMainPageType(MainPageTypeUpload);
        QVERIFY(model.isUploading());
    }

    QString writeFile(const QString &name, const QByteArray &content)
    {
        QFile file(m_files.filePath(name));
        return file.open(QIODevice::WriteOnly) && file.write(content) == content.size() ? file.fileName() : QString();
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
        QVERIFY(m_files.isValid());
    }

    // Requests a test left in flight end here, before the next test's.
    void cleanup()
    {
        LyraboxService::sharedService().stopUploads();
        QTest::qWait(20);
    }

    void countOutsideOneToSixAsksAndStartsNothing()
    {
        for (const QString &text : {QStringLiteral("0"), QStringLiteral("7"), QStringLiteral("many")}) {
            ScriptedPrompter prompter;
            SessionModel model(&prompter);
            model.setMainPageType(MainPageTypeList);
            model.fileLists().add(FileList::Found, QStringLiteral("/music/a.mp3"));
            model.OnUploadFiles(text, QString(), QString());
            QCOMPARE(prompter.alerts.size(), 1);
            QCOMPARE(prompter.alerts[0].message,
                     QStringLiteral("Simultaneous upload count should be between 1 and 6."));
            QVERIFY(prompter.overlay.isEmpty());
            QCOMPARE(model.foundFiles().size(), 1);
        }
    }

    void uploadPageTextsAndRows()
    {
        // Single precision, cut: 53 of 100 shows 52. Skipped, errored and
        // retry files count nowhere.
        ScriptedPrompter prompter;
        SessionModel model(&prompter);
        for (int i = 0; i < 100; ++i) {
            if (i < 53) {
                model.fileLists().add(FileList::Completed, QStringLiteral("/c%1").arg(i));
            } else {
                model.fileLists().add(FileList::Found, QStringLiteral("/f%1").arg(i));
            }
        }
        model.fileLists().add(FileList::Skipped, QStringLiteral("/s"));
        model.fileLists().add(FileList::Errored, QStringLiteral("/e"));
        model.fileLists().add(FileList::Retry, QStringLiteral("/t"));
        model.updateUploadState();
        QCOMPARE(model.uploadStateLabelText(), QStringLiteral("Uploaded: 53 files, 47 remaining, 52% complete"));
        QCOMPARE(model.uploadStateLabel2Text(), QStringLiteral("Skipped: 1 files (already uploaded)."));
        QVERIFY(!model.isUploadStateLabel2Hidden());
        SessionModel empty(&prompter);
        empty.updateUploadState();
        QCOMPARE(empty.uploadStateLabelText(), QStringLiteral("Uploaded: 0 files, 0 remaining, 0% complete"));
        QVERIFY(empty.isUploadStateLabel2Hidden());
    }

    void pauseResumeAndCancelMoveTheLists()
    {
        ScriptedPrompter prompter;
        SessionModel model(&prompter);
        startRunning(model);
        model.fileLists().add(FileList::Uploading, QStringList{QStringLiteral("/a"), QStringLiteral("/b"), QStringLiteral("/c")});
        model.fileLists().add(FileList::Ready, QStringLiteral("/d"));
        model.fileLists().add(FileList::Retry, QStringLiteral("/t"));

        model.OnPauseUpload();
        QVERIFY(!model.isUploading());
        QCOMPARE(model.uploadButtonTitle(), QStringLiteral("Resume Upload"));
        QCOMPARE(model.readyFiles().toList(), (QStringList{"/a", "/b", "/c", "/d"}));
        QVERIFY(model.uploadingFiles().isEmpty());
        QCOMPARE(model.retryFiles().toList(), QStringList{QStringLiteral("/t")});
        QVERIFY(model.uploadListItems().isEmpty());
        // A check result that arrives while paused changes nothing.
        model.md5CheckedWithProgress(0.5);
        QVERIFY(model.uploadingFiles().isEmpty());

        prompter.overlay.clear();
        model.OnPauseUpload();
        QVERIFY(model.isUploading());
        QCOMPARE(model.uploadButtonTitle(), QStringLiteral("Pause Upload"));
        QCOMPARE(prompter.overlay, QStringList{QStringLiteral("start:Preparing upload...")});

        // Cancel pauses and shows the result with what is left.
        model.OnCancelUpload();
        QVERIFY(!model.isUploading());
        QCOMPARE(model.mainPageType(), quint32(MainPageTypeResult));
        QCOMPARE(lastLogBlock(QStringLiteral("Upload Ended"), 7),
                 (QStringList{"Upload Ended", " - Found Files: 0", " - Skipped Files: 0", " - Errored Files: 0",
                              " - Uploading Files: 0", " - Completed Files: 0", " - Retry Files: 1"}));
    }

    void failuresInARowStopTheRun()
    {
        ScriptedPrompter prompter;
        SessionModel model(&prompter);
        startRunning(model);
        auto finish = [&](const QString &path, const OptionalError &error) {
            model.fileLists().add(FileList::Uploading, path);
            model.lyraboxDidFinishUpload(nullptr, path, error);
        };
        for (int i = 0; i < 49; ++i) {
            finish(QStringLiteral("/f%1").arg(i), failure(1));
        }
        QVERIFY(prompter.alerts.isEmpty());
        QVERIFY(model.isUploading());
        QCOMPARE(model.simultaneousErrors(), 49);
        QCOMPARE(model.erroredFiles().size(), 49);

        model.fileLists().add(FileList::Uploading, QStringLiteral("/g"));
        LogWatch log;
        finish(QStringLiteral("/f49"), failure(500));
        QCOMPARE(prompter.alerts.size(), 1);
        QCOMPARE(prompter.alerts[0].message, QStringLiteral("Upload Error"));
        QCOMPARE(prompter.alerts[0].informative,
                 QStringLiteral("10 files failed to upload in a row. Please check your internet connection. If the "
                                "problem persists, contact support."));
        QCOMPARE(prompter.alerts[0].buttons, QStringList{QStringLiteral("OK")});
        QVERIFY(!model.isUploading());
        QCOMPARE(model.readyFiles().toList(), QStringList{QStringLiteral("/g")});
        QVERIFY(log.lines().contains(QStringLiteral("f49 - It went wrong")));

        model.OnPauseUpload();
    }

    void transportFailuresGoAgainFirst()
    {
        ScriptedPrompter prompter;
        SessionModel model(&prompter);
        startRunning(model);
        const QString ready = writeFile(QStringLiteral("ready.mp3"), "ready");
        const QString lost = writeFile(QStringLiteral("lost.mp3"), "lost");
        model.fileLists().add(FileList::Ready, ready);
        model.fileLists().add(FileList::Uploading, lost);
        LogWatch log;

        model.lyraboxDidFinishUpload(nullptr, lost, failure(-1005, QStringLiteral("The network connection was lost.")));
        // It went to the retry list and, being first there, out again at once.
        QCOMPARE(model.uploadingFiles().toList(), QStringList{lost});
        QCOMPARE(model.readyFiles().toList(), QStringList{ready});
        QVERIFY(model.retryFiles().isEmpty());
        QVERIFY(log.lines().contains(QStringLiteral("lost.mp3 - The network connection was lost.")));

        // A cancel goes nowhere: the pause that asked for it has put the file back.
        model.OnPauseUpload();
        QCOMPARE(model.readyFiles().toList(), (QStringList{lost, ready}));
        model.lyraboxDidFinishUpload(nullptr, lost, Error::cancelledError());
        QCOMPARE(model.readyFiles().toList(), (QStringList{lost, ready}));
        QVERIFY(model.erroredFiles().isEmpty() && model.retryFiles().isEmpty() && model.completedFiles().isEmpty());
    }

    void offlinePausesAndAsksOnce()
    {
        ScriptedPrompter prompter;
        SessionModel model(&prompter);
        startRunning(model);
        model.fileLists().add(FileList::Uploading, QStringList{QStringLiteral("/a"), QStringLiteral("/b"), QStringLiteral("/c")});
        model.fileLists().add(FileList::Ready, QStringLiteral("/d"));
        const Error offline = failure(-1009, QStringLiteral("The Internet connection appears to be offline."));
        // A second offline failure while the first prompt is up asks nothing more.
        prompter.whileAlertShows = [&] { model.lyraboxDidFinishUpload(nullptr, QStringLiteral("/b"), offline); };

        model.lyraboxDidFinishUpload(nullptr, QStringLiteral("/a"), offline);

        QCOMPARE(prompter.alerts.size(), 1);
        QCOMPARE(prompter.alerts[0].message, QStringLiteral("Upload Error"));
        QCOMPARE(prompter.alerts[0].informative, QStringLiteral("The internet connection appears to be offline."));
        QVERIFY(!model.isUploading());
        // The failed file waits in the retry list and goes first on resume.
        QCOMPARE(model.retryFiles().toList(), QStringList{QStringLiteral("/a")});
        QCOMPARE(model.readyFiles().toList(), (QStringList{"/b", "/c", "/d"}));
        QCOMPARE(model.simultaneousErrors(), 0);
    }
};

QTEST_GUILESS_MAIN(TestUploadRun)
#include "tst_uploadrun.moc"
