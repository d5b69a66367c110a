// The upload run of the session model, piece by piece: starting a run, the
// Upload page's texts and rows, pause, resume, cancel and start over, each
// file's result with the failure prompts, and the re-hash just before a file
// goes. Service answers come from the local service; finishes of single
// files are fed in directly where a test needs a particular error.
#include "runsupport.h"

#include "fingerprint/filehash.h"
#include "fingerprint/md5cache.h"
#include "service/lyraboxservice.h"
#include "session/sessionmodel.h"
#include "support/devserverprocess.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QTemporaryDir>
#include <QTest>

namespace {

Error failure(int code, const QString &message = QStringLiteral("It went wrong"))
{
    return Error::errorWithMessage(message, code);
}

const QString kTenInARow = QStringLiteral("10 files failed to upload in a row. Please check your internet "
                                          "connection. If the problem persists, contact support.");

} // namespace

class TestUploadRun : public QObject
{
    Q_OBJECT

    DevServerProcess m_server;
    QTemporaryDir m_files;

    // A model that is on the Upload page with a run going, without the
    // check phase having started anything.
    void startRunning(SessionModel &model)
    {
        model.setMainPageType(MainPageTypeUpload);
        QVERIFY(model.isUploading());
    }

    QString writeFile(const QString &name, const QByteArray &content)
    {
        const QString path = m_files.filePath(name);
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly)) {
            return QString();
        }
        file.write(content);
        return path;
    }

private slots:
    // Requests a test left in flight end here, before the next test's.
    void cleanup()
    {
        LyraboxService::sharedService().stopUploads();
        QTest::qWait(20);
    }

    void initTestCase()
    {
        // Every request of these tests goes to the local service.
        QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
        QVERIFY(m_files.isValid());
    }

    void countFieldIsReadLikeANumber()
    {
        QCOMPARE(SessionModel::leadingIntValue(QStringLiteral("3")), 3);
        QCOMPARE(SessionModel::leadingIntValue(QStringLiteral("  4")), 4);
        QCOMPARE(SessionModel::leadingIntValue(QStringLiteral("5 threads")), 5);
        QCOMPARE(SessionModel::leadingIntValue(QStringLiteral("+6")), 6);
        QCOMPARE(SessionModel::leadingIntValue(QStringLiteral("-2")), -2);
        QCOMPARE(SessionModel::leadingIntValue(QStringLiteral("three")), 0);
        QCOMPARE(SessionModel::leadingIntValue(QString()), 0);
        QCOMPARE(SessionModel::leadingIntValue(QStringLiteral("99999999999999")), INT_MAX);

        // 0, 7 and text all give the alert naming 6, without informative
        // text, and start nothing.
        for (const QString &text : {QStringLiteral("0"), QStringLiteral("7"), QStringLiteral("many")}) {
            RunPrompter prompter;
            SessionModel model(&prompter);
            model.setMainPageType(MainPageTypeList);
            model.foundFiles().append(QStringLiteral("/music/a.mp3"));
            const qsizetype logged = logLines().size();
            model.OnUploadFiles(text, QString(), QString());
            QCOMPARE(prompter.alerts.size(), 1);
            QCOMPARE(prompter.alerts[0].message,
                     QStringLiteral("Simultaneous upload count should be between 1 and 6."));
            QCOMPARE(prompter.alerts[0].informative, QString());
            QCOMPARE(prompter.alerts[0].buttons, QStringList{QStringLiteral("OK")});
            QVERIFY(prompter.overlay.isEmpty());
            QCOMPARE(logLines().size(), logged);
            QCOMPARE(model.foundFiles().size(), 1);
        }
    }

    void startingARunLogsItsBlockAndSetsTheService()
    {
        LyraboxService &service = LyraboxService::sharedService();
        for (bool reupload : {false, true}) {
            RunPrompter prompter;
            SessionModel model(&prompter);
            model.setMainPageType(MainPageTypeList);
            model.foundFiles().append(QStringList{QStringLiteral("/music/a.mp3"), QStringLiteral("/music/b.mp3")});
            model.erroredFiles() << QStringLiteral("/music/old.mp3");
            model.OnReuploadChecked(!reupload);
            QCOMPARE(service.reuploadDuplicates(), reupload);

            model.OnUploadFiles(QStringLiteral("2"), QStringLiteral("Road Trip"), QString());

            QCOMPARE(prompter.overlay, QStringList{QStringLiteral("start:Preparing upload...")});
            QCOMPARE(service.createPlaylistName(), QStringLiteral("Road Trip"));
            QVERIFY(service.createTagName().isNull());
            QCOMPARE(service.simultaneousUploadCount(), 2u);
            QCOMPARE(model.foundFilesCountCache(), 2);
            QCOMPARE(
                lastLogBlock(QStringLiteral("Starting Upload"), 9),
                (QStringList{QStringLiteral("Starting Upload"), QStringLiteral(" - Found Files: 2"),
                             QStringLiteral(" - Skipped Files (0 expected): 0"),
                             QStringLiteral(" - Errored Files (0 expected): 1"),
                             QStringLiteral(" - Uploading Files (0 expected): 0"),
                             QStringLiteral(" - Completed Files (0 expected): 0"),
                             QStringLiteral(" - Retry Files (0 expected): 0"),
                             QStringLiteral(" - Playlist Name: Road Trip"), QStringLiteral(" - Tag Name: (null)")}));
            // Re-uploading skips nothing, so nothing is left to check.
            QCOMPARE(model.foundFiles().size(), reupload ? 0 : 2);
            QCOMPARE(model.readyFiles().size(), reupload ? 2 : 0);
            service.stopService();
        }
        service.reset();
        QVERIFY(service.createPlaylistName().isNull());
    }

    void uploadPageTexts()
    {
        RunPrompter prompter;
        SessionModel model(&prompter);
        for (int i = 0; i < 3; ++i) {
            model.completedFiles() << QStringLiteral("/c%1").arg(i);
        }
        model.readyFiles().append(QStringLiteral("/r"));
        model.updateUploadState();
        QCOMPARE(model.uploadStateLabelText(), QStringLiteral("Uploaded: 3 files, 1 remaining, 75% complete"));
        QVERIFY(model.isUploadStateLabel2Hidden());

        // Single precision, cut: 53 of 100 shows 52. Skipped, errored and
        // retry files count nowhere.
        model.completedFiles().clear();
        model.readyFiles().clear();
        for (int i = 0; i < 53; ++i) {
            model.completedFiles() << QStringLiteral("/c%1").arg(i);
        }
        for (int i = 0; i < 47; ++i) {
            model.foundFiles().append(QStringLiteral("/f%1").arg(i));
        }
        model.skippedFiles() << QStringLiteral("/s");
        model.erroredFiles() << QStringLiteral("/e");
        model.retryFiles() << QStringLiteral("/t");
        model.updateUploadState();
        QCOMPARE(model.uploadStateLabelText(), QStringLiteral("Uploaded: 53 files, 47 remaining, 52% complete"));
        QCOMPARE(model.uploadStateLabel2Text(), QStringLiteral("Skipped: 1 files (already uploaded)."));
        QVERIFY(!model.isUploadStateLabel2Hidden());

        model.foundFiles().clear();
        model.completedFiles().clear();
        for (int i = 0; i < 1234; ++i) {
            model.completedFiles() << QStringLiteral("/c%1").arg(i);
        }
        model.updateUploadState();
        QCOMPARE(model.uploadStateLabelText(), QStringLiteral("Uploaded: 1,234 files, 0 remaining, 100% complete"));
        model.completedFiles().clear();
        model.updateUploadState();
        QCOMPARE(model.uploadStateLabelText(), QStringLiteral("Uploaded: 0 files, 0 remaining, 0% complete"));
    }

    void rowsShowTheirFileAndProgress()
    {
        UploadListItem row;
        row.setupView();
        row.setPath(QStringLiteral("/music/a.mp3"));
        row.setFilePath(QStringLiteral("/music/a.mp3"));
        row.setUploadProgress(42, false);
        QCOMPARE(row.pathLabelText(), QStringLiteral("/music/a.mp3"));
        QCOMPARE(row.progressLabelText(), QStringLiteral("42%"));
        // Shown clamped, drawn as given.
        row.setUploadProgress(150, false);
        QCOMPARE(row.progress(), 100);
        QCOMPARE(row.progressLabelText(), QStringLiteral("100%"));
        QCOMPARE(row.barFraction(), 1.5);
        row.setUploadProgress(-3, false);
        QCOMPARE(row.progressLabelText(), QStringLiteral("0%"));
        QCOMPARE(row.barFraction(), -0.03);

        UploadListItem track;
        track.setPath(QStringLiteral("/dev/sr0/1 Audio Track.aiff"));
        track.setAudioCDTrackName(QStringLiteral("Intro"));
        track.setUploadProgress(0, true);
        QCOMPARE(track.pathLabelText(), QStringLiteral("Reading: Intro"));
        track.setUploadProgress(7, false);
        QCOMPARE(track.pathLabelText(), QStringLiteral("Uploading: Intro"));
        track.setUploadProgress(8, true);
        QCOMPARE(track.pathLabelText(), QStringLiteral("Reading: Intro"));

        // 30 high, 32 apart, hanging from the top; one further down while
        // the check row shows at the top.
        QCOMPARE(SessionModel::uploadListRowFrame(0, false, 500), QRect(0, 2, 500, 30));
        QCOMPARE(SessionModel::uploadListRowFrame(2, false, 500), QRect(0, 66, 500, 30));
        QCOMPARE(SessionModel::uploadListRowFrame(0, true, 500), QRect(0, 34, 500, 30));
        QCOMPARE(SessionModel::uploadListRowFrame(-1, true, 500), QRect(0, 2, 500, 30));
    }

    void progressReachesTheFilesRow()
    {
        RunPrompter prompter;
        SessionModel model(&prompter);
        startRunning(model);
        model.stopWaitingAnimation();
        const QString path = writeFile(QStringLiteral("progress.mp3"), "abc");
        model.readyFiles().append(path);
        model.uploadNextFile();
        QCOMPARE(model.uploadingFiles(), QStringList{path});
        QCOMPARE(model.uploadListItemViews().size(), 1);
        QCOMPARE(model.uploadListItemViews()[0].progressLabelText(), QStringLiteral("0%"));
        model.lyraboxDidUpdateUploadProgress(nullptr, path, 37);
        QCOMPARE(model.uploadListViewForFilePath(path)->progressLabelText(), QStringLiteral("37%"));
        model.lyraboxDidUpdateUploadProgress(nullptr, QStringLiteral("/elsewhere.mp3"), 90);
        QCOMPARE(model.uploadListViewForFilePath(path)->progress(), 37);
        QVERIFY(model.uploadListViewForFilePath(QStringLiteral("/elsewhere.mp3")) == nullptr);
        model.OnPauseUpload();
    }

    void pauseResumeAndCancelMoveTheLists()
    {
        RunPrompter prompter;
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
                 (QStringList{QStringLiteral("Upload Ended"), QStringLiteral(" - Found Files: 0"),
                              QStringLiteral(" - Skipped Files: 0"), QStringLiteral(" - Errored Files: 0"),
                              QStringLiteral(" - Uploading Files: 0"), QStringLiteral(" - Completed Files: 0"),
                              QStringLiteral(" - Retry Files: 1")}));
    }

    void failuresInARowStopTheRun()
    {
        RunPrompter prompter;
        SessionModel model(&prompter);
        startRunning(model);
        for (int i = 0; i < 49; ++i) {
            const QString path = QStringLiteral("/f%1").arg(i);
            model.uploadingFiles() << path;
            model.lyraboxDidFinishUpload(nullptr, path, failure(1));
        }
        QVERIFY(prompter.alerts.isEmpty());
        QVERIFY(model.isUploading());
        QCOMPARE(model.simultaneousErrors(), 49);
        QCOMPARE(model.erroredFiles().size(), 49);

        model.uploadingFiles() << QStringLiteral("/f49") << QStringLiteral("/g");
        model.lyraboxDidFinishUpload(nullptr, QStringLiteral("/f49"), failure(500));
        QCOMPARE(prompter.alerts.size(), 1);
        QCOMPARE(prompter.alerts[0].message, QStringLiteral("Upload Error"));
        QCOMPARE(prompter.alerts[0].informative, kTenInARow);
        QCOMPARE(prompter.alerts[0].buttons, QStringList{QStringLiteral("OK")});
        QVERIFY(!model.isUploading());
        QCOMPARE(model.readyFiles().toList(), QStringList{QStringLiteral("/g")});
        QCOMPARE(logLines().last(), QStringLiteral("f49 - It went wrong"));

        // The count outlives pause, resume and start over; one more failure
        // in a new run asks again.
        model.OnStartOver();
        QCOMPARE(model.mainPageType(), quint32(MainPageTypeSearch));
        QCOMPARE(model.simultaneousErrors(), 50);
        startRunning(model);
        model.uploadingFiles() << QStringLiteral("/h");
        model.lyraboxDidFinishUpload(nullptr, QStringLiteral("/h"), failure(2));
        QCOMPARE(model.simultaneousErrors(), 51);
        QCOMPARE(prompter.alerts.size(), 2);

        // Retrying the errors starts the count again.
        model.setMainPageType(MainPageTypeResult);
        model.OnRetryErrors();
        QCOMPARE(model.simultaneousErrors(), 0);
        // Start over had emptied the lists; the new run's error is what goes.
        QCOMPARE(model.readyFiles().toList(), QStringList{QStringLiteral("/h")});
        QVERIFY(model.erroredFiles().isEmpty());
        QCOMPARE(model.mainPageType(), quint32(MainPageTypeUpload));
        model.OnPauseUpload();
    }

    void aSuccessEndsTheRowOfFailures()
    {
        RunPrompter prompter;
        SessionModel model(&prompter);
        startRunning(model);
        auto finish = [&](const QString &path, const OptionalError &error) {
            model.uploadingFiles() << path;
            model.lyraboxDidFinishUpload(nullptr, path, error);
        };
        for (int i = 0; i < 30; ++i) {
            finish(QStringLiteral("/a%1").arg(i), failure(3));
        }
        finish(QStringLiteral("/ok"), std::nullopt);
        QCOMPARE(model.simultaneousErrors(), 0);
        for (int i = 0; i < 30; ++i) {
            finish(QStringLiteral("/b%1").arg(i), failure(3));
        }
        // Transport failures never count.
        for (int i = 0; i < 25; ++i) {
            model.uploadingFiles() << QStringLiteral("/t%1").arg(i);
            model.lyraboxDidFinishUpload(nullptr, QStringLiteral("/t%1").arg(i), failure(-1001));
        }
        QCOMPARE(model.simultaneousErrors(), 30);
        QVERIFY(prompter.alerts.isEmpty());
        QCOMPARE(model.completedFiles(), QStringList{QStringLiteral("/ok")});
        QCOMPARE(model.erroredFiles().size(), 60);
        model.OnPauseUpload();
    }

    void transportFailuresGoAgainFirst()
    {
        RunPrompter prompter;
        SessionModel model(&prompter);
        startRunning(model);
        const QString ready = writeFile(QStringLiteral("ready.mp3"), "ready");
        const QString lost = writeFile(QStringLiteral("lost.mp3"), "lost");
        model.readyFiles().append(ready);
        model.uploadingFiles() << lost;

        model.lyraboxDidFinishUpload(nullptr, lost, failure(-1005, QStringLiteral("The network connection was lost.")));
        // It went to the retry list and, being first there, out again at once.
        QCOMPARE(model.uploadingFiles(), QStringList{lost});
        QCOMPARE(model.readyFiles().toList(), QStringList{ready});
        QVERIFY(model.retryFiles().isEmpty());
        QCOMPARE(logLines().last(), QStringLiteral("lost.mp3 - The network connection was lost."));

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

        // An upload that had finished when the pause came counts once and
        // does not go again.
        model.lyraboxDidFinishUpload(nullptr, ready, std::nullopt);
        QCOMPARE(model.completedFiles(), QStringList{ready});
        QCOMPARE(model.readyFiles().toList(), QStringList{lost});
    }

    void offlinePausesAndAsksOnce()
    {
        RunPrompter prompter;
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

    void externalDriveHint()
    {
        RunPrompter prompter;
        SessionModel model(&prompter);
        startRunning(model);
        model.uploadingFiles() << QStringLiteral("/a");
        model.lyraboxDidExperienceExternalDriveError(nullptr);
        QCOMPARE(prompter.alerts.size(), 1);
        QCOMPARE(prompter.alerts[0].message, QStringLiteral("External Drive Error"));
        QVERIFY(prompter.alerts[0].informative.startsWith(
            QStringLiteral("If you experience issues uploading and are using a NAS, USB or other external or network "
                           "storage device. Open System Preferences > Security & Privacy > Privacy > Full Disk "
                           "Access, click the + button, then add Pelicane app to the list. Contact us if you have "
                           "any questions at ")));
        QVERIFY(prompter.alerts[0].informative.endsWith(SessionModel::kSupportAddress));
        QCOMPARE(prompter.alerts[0].buttons, QStringList{QStringLiteral("OK")});
        // The run goes on as it was.
        QVERIFY(model.isUploading());
        QCOMPARE(model.uploadingFiles(), QStringList{QStringLiteral("/a")});
        model.OnPauseUpload();
    }

    void cdTrackFailureAsksWhatToDo()
    {
        // Retry Track, Skip Track, Cancel Upload.
        for (int answer : {kAlertFirstButtonReturn, kAlertSecondButtonReturn, kAlertThirdButtonReturn}) {
            RunPrompter prompter;
            prompter.answers = {answer};
            SessionModel model(&prompter);
            startRunning(model);
            model.setAudioCDArtworkVisible(true);
            model.uploadingFiles() << QStringLiteral("/dev/sr9/2 Audio Track.aiff");
            const qsizetype logged = logLines().size();
            model.lyraboxDidFinishUpload(nullptr, QStringLiteral("/dev/sr9/2 Audio Track.aiff"),
                                         failure(1000, QStringLiteral("The disc could not be read.")));
            QCOMPARE(prompter.alerts.size(), 1);
            QCOMPARE(prompter.alerts[0].message, QStringLiteral("CD Rip Error"));
            QCOMPARE(prompter.alerts[0].informative, QStringLiteral("The disc could not be read."));
            QCOMPARE(prompter.alerts[0].buttons, (QStringList{"Retry Track", "Skip Track", "Cancel Upload"}));
            if (answer == kAlertFirstButtonReturn) {
                QVERIFY(model.erroredFiles().isEmpty());
                QCOMPARE(model.uploadingFiles(), QStringList{QStringLiteral("/dev/sr9/2 Audio Track.aiff")});
                model.OnPauseUpload();
            } else if (answer == kAlertSecondButtonReturn) {
                QCOMPARE(model.erroredFiles(), QStringList{QStringLiteral("/dev/sr9/2 Audio Track.aiff")});
                QCOMPARE(model.mainPageType(), quint32(MainPageTypeUpload));
                model.OnPauseUpload();
            } else {
                // Straight to the Result page, with 0 errors and no "Upload Ended".
                QVERIFY(model.erroredFiles().isEmpty());
                QCOMPARE(model.mainPageType(), quint32(MainPageTypeResult));
                QCOMPARE(model.errorsLabelText(), QStringLiteral("Errors: \t\t0 files"));
                QVERIFY(logLines().mid(logged).filter(QStringLiteral("Upload Ended")).isEmpty());
                QCOMPARE(prompter.overlay.last(), QStringLiteral("stop"));
            }
        }
    }

    void aFileChangedSinceTheCheckIsDigestedAgain()
    {
        // The library holds "known bytes"; the local file had other bytes
        // when it was checked and has the known ones by the time it goes.
        const QByteArray known = "known bytes";
        QVERIFY(!m_server.seed(QJsonArray{QJsonObject{{"name", "known.mp3"}, {"content", QString::fromLatin1(known)}}})
                     .isEmpty());
        const QString path = writeFile(QStringLiteral("changed.mp3"), "other bytes");
        MD5Cache::sharedCache().set(path, *FileHash::md5HashOfFileAtPath(path));
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(known);
        file.close();
        // Same second as the cached entry: only a fresh digest can tell.
        const QString knownDigest = *FileHash::md5HashOfFileAtPath(path);

        RunPrompter prompter;
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
