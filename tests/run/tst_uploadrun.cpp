// The upload run of the session model piece by piece: the count prompt, the
// Upload page's texts, pause, resume and cancel, and each file's result with
// the failure prompts, fed in directly where a test needs a particular error.
#include "runsupport.h"

#include "service/lyraboxservice.h"
#include "session/md5checkoperation.h"
#include "session/sessionmodel.h"
#include "support/devserverprocess.h"

#include <QSignalSpy>
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

    // The upload of `path` ends with `error` (none: uploaded).
    static void finish(SessionModel &model, const QString &path, const OptionalError &error)
    {
        model.fileLists().add(FileList::Uploading, path);
        model.lyraboxDidFinishUpload(nullptr, path, error);
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

    // Each log line is synced to disk: the check writes a known file's line on its own
    // thread, before the GUI thread hears of the file.
    void knownFilesAreLoggedBeforeTheGuiThreadHears()
    {
        const QString path = writeFile(QStringLiteral("known-%1.mp3").arg(QCoreApplication::applicationPid()), "known");
        const std::optional<QString> md5 = FileHash::md5HashOfFileAtPath(path);
        QVERIFY(md5);
        const QString line = QFileInfo(path).fileName() + QStringLiteral(" - skipped");
        const LogWatch log;
        bool loggedAtCheck = false;
        bool ended = false;
        Md5CheckOperation::Handlers handlers;
        handlers.checked = [&](const QString &, bool known, qint64, qint64) {
            loggedAtCheck = known && log.text().contains(line);
        };
        handlers.ended = [&](double) { ended = true; };
        handlers.logKnown = true;
        QObject context;
        OperationQueue queue;
        queue.addOperation(std::make_shared<Md5CheckOperation>(&context, QStringList{path}, QSet<QString>{*md5},
                                                               m_files.path(), std::move(handlers)));
        QTRY_VERIFY_WITH_TIMEOUT(ended, 10000);
        QVERIFY(loggedAtCheck);
        queue.waitUntilAllOperationsAreFinished();
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
        model.fileLists().add(FileList::Uploading,
                              QStringList{QStringLiteral("/a"), QStringLiteral("/b"), QStringLiteral("/c")});
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
        for (int i = 0; i < 49; ++i) {
            finish(model, QStringLiteral("/f%1").arg(i), failure(1));
        }
        QVERIFY(prompter.alerts.isEmpty());
        QVERIFY(model.isUploading());
        QCOMPARE(model.simultaneousErrors(), 49);
        QCOMPARE(model.erroredFiles().size(), 49);

        model.fileLists().add(FileList::Uploading, QStringLiteral("/g"));
        LogWatch log;
        finish(model, QStringLiteral("/f49"), failure(500));
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

    // Only failures in a row count: one success between them starts the
    // count again, so scattered failures in a long run never stop it.
    void aSuccessResetsTheFailuresInARow()
    {
        ScriptedPrompter prompter;
        SessionModel model(&prompter);
        startRunning(model);
        for (int i = 0; i < 30; ++i) {
            finish(model, QStringLiteral("/f%1").arg(i), failure(1));
        }
        finish(model, QStringLiteral("/ok"), std::nullopt);
        QCOMPARE(model.simultaneousErrors(), 0);
        for (int i = 30; i < 79; ++i) {
            finish(model, QStringLiteral("/f%1").arg(i), failure(1));
        }
        QVERIFY(prompter.alerts.isEmpty());
        QVERIFY(model.isUploading());
        QCOMPARE(model.simultaneousErrors(), 49);
        model.OnPauseUpload();
    }

    // A file whose every attempt breaks off goes again up to the bound, then
    // counts as errored, so the run can end; the count is per file, offline
    // spends none, and retrying the errors gives every file its attempts back.
    void transportFailuresAreBoundedPerFile()
    {
        ScriptedPrompter prompter;
        SessionModel model(&prompter);
        startRunning(model);
        const QString broken = writeFile(QStringLiteral("broken.mp3"), "broken");
        const Error lost = failure(-1005, QStringLiteral("The network connection was lost."));
        QList<int> retrying;
        connect(&model, &SessionModel::uploadRetrying, this,
                [&](const QString &, int attempt, const Error &) { retrying << attempt; });
        LogWatch log;
        for (int attempt = 1; attempt < SessionModel::kMaxAttemptsPerFile; ++attempt) {
            model.fileLists().relocate(broken, FileList::Uploading);
            model.lyraboxDidFinishUpload(nullptr, broken, lost);
            QVERIFY(model.erroredFiles().isEmpty());
            QCOMPARE(model.failedAttempts(broken), attempt);
        }
        QCOMPARE(retrying.size(), 9);
        QCOMPARE(retrying.last(), 9);
        model.fileLists().relocate(broken, FileList::Uploading);
        model.lyraboxDidFinishUpload(nullptr, broken, lost);
        QCOMPARE(model.erroredFiles().toList(), QStringList{broken});
        QVERIFY(!model.retryFiles().contains(broken) && !model.uploadingFiles().contains(broken));
        QVERIFY(log.lines().contains(QStringLiteral("broken.mp3 - gave up after 10 attempts")));
        // Transport failures are not failures in a row of the service.
        QCOMPARE(model.simultaneousErrors(), 0);
        model.OnPauseUpload();

        model.OnRetryErrors();
        QCOMPARE(model.failedAttempts(broken), 0);
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
        model.fileLists().add(FileList::Uploading,
                              QStringList{QStringLiteral("/a"), QStringLiteral("/b"), QStringLiteral("/c")});
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
        // Offline spends none of the file's attempts, and is a state the
        // window can show until the run goes on.
        QCOMPARE(model.failedAttempts(QStringLiteral("/a")), 0);
        QVERIFY(model.isOffline());
        QSignalSpy offlineChanged(&model, &SessionModel::offlineChanged);
        model.OnPauseUpload();
        QVERIFY(!model.isOffline());
        QCOMPARE(offlineChanged.size(), 1);
        model.OnPauseUpload();

        // The last file of a run, met by an offline pause, goes first on
        // resume; the run does not end with it left in the retry list.
        for (const FileList list : {FileList::Ready, FileList::Retry, FileList::Uploading}) {
            model.fileLists().clear(list);
        }
        model.setIsUploading(true);
        finish(model, QStringLiteral("/z"), offline);
        QCOMPARE(model.retryFiles().toList(), QStringList{QStringLiteral("/z")});
        QVERIFY(!model.isUploading());
        model.setIsUploading(true);
        model.md5CheckedWithProgress(1.0);
        QCOMPARE(model.uploadingFiles().toList(), QStringList{QStringLiteral("/z")});
        QVERIFY(model.mainPageType() != MainPageTypeResult);
    }

    // A session revoked mid-run: the first refusal stops the run and checks
    // the session; it is gone, so the sign-in page comes back with the run
    // paused, and no file is counted as failed for it.
    void revokedSessionTakesTheExpiredPath()
    {
        const QString email = QStringLiteral("revoked@lyrabox.test");
        QVERIFY(m_server.createAccount(email, QStringLiteral("pw")));
        const MusicFolder music = MusicFolder::make(m_files.filePath(QStringLiteral("revoked")), 40, 100, 400, 5);
        ScriptedPrompter prompter;
        SessionModel model(&prompter);
        QSignalSpy expired(&model, &SessionModel::sessionExpired);
        model.attachToService();
        model.setEmail(email);
        model.setPassword(QStringLiteral("pw"));
        model.OnLogin();
        QTRY_COMPARE_WITH_TIMEOUT(model.mainPageType(), quint32(MainPageTypeSearch), 10000);
        model.setSearchFolderPath({music.root});
        model.OnSearchFolder();
        QTRY_VERIFY_WITH_TIMEOUT(!model.isFileSearchInProgress() && model.isBeginUploadEnabled(), 10000);
        QVERIFY(m_server.addFault({{"endpoint", "upload"}, {"count", 0}, {"latency_ms", 100}}));
        model.OnUploadFiles(QStringLiteral("3"), QString(), QString());
        QTRY_VERIFY_WITH_TIMEOUT(model.completedFiles().size() >= 3, 10000);
        const qint64 uploadsBefore = m_server.requestCounts().value(QStringLiteral("upload")).toInteger();
        QVERIFY(m_server.revokeToken(email));

        QTRY_COMPARE_WITH_TIMEOUT(model.mainPageType(), quint32(MainPageTypeLogin), 10000);
        QVERIFY(m_server.clearFaults());
        QCOMPARE(expired.size(), 1);
        QVERIFY(!model.isUploading());
        QVERIFY2(model.erroredFiles().isEmpty(), qPrintable(model.erroredFiles().toList().join(", ")));
        QCOMPARE(model.simultaneousErrors(), 0);
        QVERIFY(prompter.titles().contains(QStringLiteral("Login Error")));
        QVERIFY(!prompter.titles().contains(QStringLiteral("Upload Error")));
        // Only the uploads already under way (and those that were being
        // started) met the refusal.
        const qint64 refused = m_server.requestCounts().value(QStringLiteral("upload")).toInteger() - uploadsBefore;
        QVERIFY2(refused <= 6, qPrintable(QString::number(refused)));
        model.detachFromService();
    }
};

QTEST_GUILESS_MAIN(TestUploadRun)
#include "tst_uploadrun.moc"
