// The upload run of the session model piece by piece: starting a run, the
// Upload page's texts and rows, pause, resume, cancel and start over, each
// file's result with the failure prompts, and the re-hash just before a file
// goes. Finishes of single files are fed in directly where a test needs a
// particular error.
#include "runsupport.h"

#include "fingerprint/md5cache.h"
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
        QCOMPARE(SessionModel::leadingIntValue(QStringLiteral("  5 threads")), 5);
        QCOMPARE(SessionModel::leadingIntValue(QStringLiteral("-2")), -2);
        QCOMPARE(SessionModel::leadingIntValue(QStringLiteral("99999999999999")), INT_MAX);
        for (const QString &text : {QStringLiteral("0"), QStringLiteral("7"), QStringLiteral("many")}) {
            ScriptedPrompter prompter;
            SessionModel model(&prompter);
            model.setMainPageType(MainPageTypeList);
            model.foundFiles().append(QStringLiteral("/music/a.mp3"));
            LogWatch log;
            model.OnUploadFiles(text, QString(), QString());
            QCOMPARE(prompter.alerts.size(), 1);
            QCOMPARE(prompter.alerts[0].message,
                     QStringLiteral("Simultaneous upload count should be between 1 and 6."));
            QCOMPARE(prompter.alerts[0].informative, QString());
            QCOMPARE(prompter.alerts[0].buttons, QStringList{QStringLiteral("OK")});
            QVERIFY(prompter.overlay.isEmpty());
            QVERIFY(log.lines().isEmpty());
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
                model.completedFiles() << QStringLiteral("/c%1").arg(i);
            } else {
                model.foundFiles().append(QStringLiteral("/f%1").arg(i));
            }
        }
        model.skippedFiles() << QStringLiteral("/s");
        model.erroredFiles() << QStringLiteral("/e");
        model.retryFiles() << QStringLiteral("/t");
        model.updateUploadState();
        QCOMPARE(model.uploadStateLabelText(), QStringLiteral("Uploaded: 53 files, 47 remaining, 52% complete"));
        QCOMPARE(model.uploadStateLabel2Text(), QStringLiteral("Skipped: 1 files (already uploaded)."));
        QVERIFY(!model.isUploadStateLabel2Hidden());
        SessionModel empty(&prompter);
        empty.updateUploadState();
        QCOMPARE(empty.uploadStateLabelText(), QStringLiteral("Uploaded: 0 files, 0 remaining, 0% complete"));
        QVERIFY(empty.isUploadStateLabel2Hidden());

        // Shown clamped, drawn as given; a CD track names what it is doing.
        UploadListItem row;
        row.setPath(QStringLiteral("/dev/sr0/1 Audio Track.aiff"));
        row.setAudioCDTrackName(QStringLiteral("Intro"));
        row.setUploadProgress(150, true);
        QCOMPARE(row.progressLabelText(), QStringLiteral("100%"));
        QCOMPARE(row.barFraction(), 1.5);
        QCOMPARE(row.pathLabelText(), QStringLiteral("Reading: Intro"));
        row.setUploadProgress(-3, false);
        QCOMPARE(row.progressLabelText(), QStringLiteral("0%"));
        QCOMPARE(row.pathLabelText(), QStringLiteral("Uploading: Intro"));
        row.setUploadProgress(8, true);
        QCOMPARE(row.pathLabelText(), QStringLiteral("Reading: Intro"));

        // Progress reaches its own file's row only.
        SessionModel running(&prompter);
        startRunning(running);
        const QString path = writeFile(QStringLiteral("progress.mp3"), "abc");
        running.readyFiles().append(path);
        running.uploadNextFile();
        QCOMPARE(running.uploadingFiles(), QStringList{path});
        QCOMPARE(running.uploadListViewForFilePath(path)->progressLabelText(), QStringLiteral("0%"));
        running.lyraboxDidUpdateUploadProgress(nullptr, path, 37);
        running.lyraboxDidUpdateUploadProgress(nullptr, QStringLiteral("/elsewhere.mp3"), 90);
        QCOMPARE(running.uploadListViewForFilePath(path)->progressLabelText(), QStringLiteral("37%"));
        QVERIFY(running.uploadListViewForFilePath(QStringLiteral("/elsewhere.mp3")) == nullptr);
        running.OnPauseUpload();
    }

    void pauseResumeAndCancelMoveTheLists()
    {
        ScriptedPrompter prompter;
        SessionModel model(&prompter);
        startRunning(model);
        model.uploadingFiles() << QStringLiteral("/a") << QStringLiteral("/b") << QStringLiteral("/c");
        model.readyFiles().append(QStringLiteral("/d"));
        model.retryFiles() << QStringLiteral("/t");

        model.OnPauseUpload();
        QVERIFY(!model.isUploading());
        QCOMPARE(model.uploadButtonTitle(), QStringLiteral("Resume Upload"));
        QCOMPARE(model.readyFiles().toList(), (QStringList{"/a", "/b", "/c", "/d"}));
        QVERIFY(model.uploadingFiles().isEmpty());
        QCOMPARE(model.retryFiles(), QStringList{QStringLiteral("/t")});
        QVERIFY(model.uploadListItemViews().isEmpty());
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
            model.uploadingFiles() << path;
            model.lyraboxDidFinishUpload(nullptr, path, error);
        };
        for (int i = 0; i < 49; ++i) {
            finish(QStringLiteral("/f%1").arg(i), failure(1));
        }
        QVERIFY(prompter.alerts.isEmpty());
        QVERIFY(model.isUploading());
        QCOMPARE(model.simultaneousErrors(), 49);
        QCOMPARE(model.erroredFiles().size(), 49);

        model.uploadingFiles() << QStringLiteral("/g");
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

        // The count outlives start over; one more failure in a new run asks again.
        model.OnStartOver();
        QCOMPARE(model.mainPageType(), quint32(MainPageTypeSearch));
        QCOMPARE(model.simultaneousErrors(), 50);
        startRunning(model);
        finish(QStringLiteral("/h"), failure(2));
        QCOMPARE(model.simultaneousErrors(), 51);
        QCOMPARE(prompter.alerts.size(), 2);

        // Retrying the errors starts the count again with the new run's error.
        model.setMainPageType(MainPageTypeResult);
        model.OnRetryErrors();
        QCOMPARE(model.simultaneousErrors(), 0);
        QCOMPARE(model.readyFiles().toList(), QStringList{QStringLiteral("/h")});
        QVERIFY(model.erroredFiles().isEmpty());
        QCOMPARE(model.mainPageType(), quint32(MainPageTypeUpload));
        model.OnPauseUpload();
    }

    void aSuccessEndsTheRowOfFailures()
    {
        ScriptedPrompter prompter;
        SessionModel model(&prompter);
        startRunning(model);
        auto finish = [&](const QString &prefix, int count, const OptionalError &error) {
            for (int i = 0; i < count; ++i) {
                model.uploadingFiles() << prefix + QString::number(i);
                model.lyraboxDidFinishUpload(nullptr, prefix + QString::number(i), error);
            }
        };
        finish(QStringLiteral("/a"), 30, failure(3));
        finish(QStringLiteral("/ok"), 1, std::nullopt);
        QCOMPARE(model.simultaneousErrors(), 0);
        finish(QStringLiteral("/b"), 30, failure(3));
        // Transport failures never count.
        finish(QStringLiteral("/t"), 25, failure(-1001));
        QCOMPARE(model.simultaneousErrors(), 30);
        QVERIFY(prompter.alerts.isEmpty());
        QCOMPARE(model.completedFiles(), QStringList{QStringLiteral("/ok0")});
        QCOMPARE(model.erroredFiles().size(), 60);
        model.OnPauseUpload();
    }

    void transportFailuresGoAgainFirst()
    {
        ScriptedPrompter prompter;
        SessionModel model(&prompter);
        startRunning(model);
        const QString ready = writeFile(QStringLiteral("ready.mp3"), "ready");
        const QString lost = writeFile(QStringLiteral("lost.mp3"), "lost");
        model.readyFiles().append(ready);
        model.uploadingFiles() << lost;
        LogWatch log;

        model.lyraboxDidFinishUpload(nullptr, lost, failure(-1005, QStringLiteral("The network connection was lost.")));
        // It went to the retry list and, being first there, out again at once.
        QCOMPARE(model.uploadingFiles(), QStringList{lost});
        QCOMPARE(model.readyFiles().toList(), QStringList{ready});
        QVERIFY(model.retryFiles().isEmpty());
        QVERIFY(log.lines().contains(QStringLiteral("lost.mp3 - The network connection was lost.")));

        // A cancel goes nowhere: the pause that asked for it has put the file back.
        model.OnPauseUpload();
        QCOMPARE(model.readyFiles().toList(), (QStringList{lost, ready}));
        model.lyraboxDidFinishUpload(nullptr, lost, Error::cancelledError());
        QCOMPARE(model.readyFiles().toList(), (QStringList{lost, ready}));
        QVERIFY(model.erroredFiles().isEmpty() && model.retryFiles().isEmpty() && model.completedFiles().isEmpty());

        // While paused, a transport failure is not queued for a retry.
        model.uploadingFiles() << QStringLiteral("/x");
        model.lyraboxDidFinishUpload(nullptr, QStringLiteral("/x"), failure(-1001));
        QVERIFY(model.retryFiles().isEmpty());

        // An upload that had finished when the pause came counts once and does not go again.
        model.lyraboxDidFinishUpload(nullptr, ready, std::nullopt);
        QCOMPARE(model.completedFiles(), QStringList{ready});
        QCOMPARE(model.readyFiles().toList(), QStringList{lost});
    }

    void offlinePausesAndAsksOnce()
    {
        ScriptedPrompter prompter;
        SessionModel model(&prompter);
        startRunning(model);
        model.uploadingFiles() << QStringLiteral("/a") << QStringLiteral("/b") << QStringLiteral("/c");
        model.readyFiles().append(QStringLiteral("/d"));
        const Error offline = failure(-1009, QStringLiteral("The Internet connection appears to be offline."));
        // A second offline failure while the first prompt is up asks nothing more.
        prompter.whileAlertShows = [&] { model.lyraboxDidFinishUpload(nullptr, QStringLiteral("/b"), offline); };

        model.lyraboxDidFinishUpload(nullptr, QStringLiteral("/a"), offline);

        QCOMPARE(prompter.alerts.size(), 1);
        QCOMPARE(prompter.alerts[0].message, QStringLiteral("Upload Error"));
        QCOMPARE(prompter.alerts[0].informative, QStringLiteral("The internet connection appears to be offline."));
        QVERIFY(!model.isUploading());
        // The failed file waits in the retry list and goes first on resume.
        QCOMPARE(model.retryFiles(), QStringList{QStringLiteral("/a")});
        QCOMPARE(model.readyFiles().toList(), (QStringList{"/b", "/c", "/d"}));
        QCOMPARE(model.simultaneousErrors(), 0);
    }

    void externalDriveHintLeavesTheRunGoing()
    {
        ScriptedPrompter prompter;
        SessionModel model(&prompter);
        startRunning(model);
        model.uploadingFiles() << QStringLiteral("/a");
        model.lyraboxDidExperienceExternalDriveError(nullptr);
        QCOMPARE(prompter.titles(), QStringList{QStringLiteral("External Drive Error")});
        QVERIFY(prompter.alerts[0].informative.startsWith(
            QStringLiteral("If you experience issues uploading and are using a NAS, USB or other external or network "
                           "storage device. Open System Preferences > Security & Privacy > Privacy > Full Disk "
                           "Access, click the + button, then add Pelicane app to the list. Contact us if you have "
                           "any questions at ")));
        QVERIFY(prompter.alerts[0].informative.endsWith(SessionModel::kSupportAddress));
        QVERIFY(model.isUploading());
        QCOMPARE(model.uploadingFiles(), QStringList{QStringLiteral("/a")});
        model.OnPauseUpload();
    }

    void cdTrackFailureAsksWhatToDo()
    {
        const QString track = QStringLiteral("/dev/sr9/2 Audio Track.aiff");
        // Retry Track, Skip Track, Cancel Upload.
        for (int answer : {kAlertFirstButtonReturn, kAlertSecondButtonReturn, kAlertThirdButtonReturn}) {
            ScriptedPrompter prompter;
            prompter.answers = {answer};
            SessionModel model(&prompter);
            startRunning(model);
            model.setAudioCDArtworkVisible(true);
            model.uploadingFiles() << track;
            LogWatch log;
            model.lyraboxDidFinishUpload(nullptr, track, failure(1000, QStringLiteral("The disc could not be read.")));
            QCOMPARE(prompter.alerts.size(), 1);
            QCOMPARE(prompter.alerts[0].message, QStringLiteral("CD Rip Error"));
            QCOMPARE(prompter.alerts[0].informative, QStringLiteral("The disc could not be read."));
            QCOMPARE(prompter.alerts[0].buttons, (QStringList{"Retry Track", "Skip Track", "Cancel Upload"}));
            QCOMPARE(model.uploadingFiles(), answer == kAlertFirstButtonReturn ? QStringList{track} : QStringList());
            QCOMPARE(model.erroredFiles(), answer == kAlertSecondButtonReturn ? QStringList{track} : QStringList());
            if (answer == kAlertThirdButtonReturn) {
                // Straight to the Result page, with 0 errors and no "Upload Ended".
                QCOMPARE(model.mainPageType(), quint32(MainPageTypeResult));
                QCOMPARE(model.errorsLabelText(), QStringLiteral("Errors: \t\t0 files"));
                QVERIFY(log.lines().filter(QStringLiteral("Upload Ended")).isEmpty());
                QCOMPARE(prompter.overlay.last(), QStringLiteral("stop"));
            } else {
                QCOMPARE(model.mainPageType(), quint32(MainPageTypeUpload));
                model.OnPauseUpload();
            }
        }
    }

    void aFileChangedSinceTheCheckIsDigestedAgain()
    {
        // The library holds "known bytes"; the local file had other bytes
        // when it was checked and has the known ones by the time it goes.
        QVERIFY(!m_server.seed({QJsonObject{{"name", "known.mp3"}, {"content", "known bytes"}}}).isEmpty());
        const QString path = writeFile(QStringLiteral("changed.mp3"), "other bytes");
        MD5Cache::sharedCache().set(path, *FileHash::md5HashOfFileAtPath(path));
        QVERIFY(!writeFile(QStringLiteral("changed.mp3"), "known bytes").isEmpty());
        // Same second as the cached entry: only a fresh digest can tell.
        const QString knownDigest = *FileHash::md5HashOfFileAtPath(path);

        ScriptedPrompter prompter;
        SessionModel model(&prompter);
        model.attachToService();
        model.setEmail(QString::fromLatin1(DevServerProcess::kDemoEmail));
        model.setPassword(QString::fromLatin1(DevServerProcess::kDemoPassword));
        model.OnLogin();
        QTRY_COMPARE_WITH_TIMEOUT(model.mainPageType(), quint32(MainPageTypeSearch), 30000);
        model.setMainPageType(MainPageTypeList);
        model.OnReuploadChecked(true);
        model.OnUploadFiles(QStringLiteral("1"), QString(), QString());
        // Nothing found: the run ends at once, with the digest list read.
        QTRY_COMPARE_WITH_TIMEOUT(model.mainPageType(), quint32(MainPageTypeResult), 30000);
        QVERIFY(LyraboxService::sharedService().getMd5List().contains(knownDigest));

        model.setIsUploading(true);
        model.readyFiles().append(path);
        model.uploadNextFile();
        QCOMPARE(model.uploadingFiles(), QStringList{path});
        QTRY_COMPARE_WITH_TIMEOUT(model.skippedFiles(), QStringList{path}, 30000);
        QVERIFY(model.uploadingFiles().isEmpty());
        QCOMPARE(MD5Cache::sharedCache().get(path), std::optional<QString>(knownDigest));
        // Its row stays on screen.
        QVERIFY(model.uploadListViewForFilePath(path) != nullptr);
        model.detachFromService();
    }
};

QTEST_GUILESS_MAIN(TestUploadRun)
#include "tst_uploadrun.moc"
