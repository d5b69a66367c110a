// Whole upload runs of the session model against the local service: 300
// files (three of them large) go up and the service then holds exactly
// those (a second run skipping them all is pelicane-cli's, in
// tst_uploadcli); with dropped connections, error answers and slow answers
// every file still ends up uploaded or reported as failed, and none is
// reported uploaded that the service does not hold.
#include "runsupport.h"

#include "fingerprint/md5cache.h"
#include "session/sessionmodel.h"
#include "support/devserverprocess.h"

#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QTest>

namespace {

constexpr int kRunTimeoutMs = 240000;

} // namespace

class TestUploadEndToEnd : public QObject
{
    Q_OBJECT

    DevServerProcess m_server;
    QTemporaryDir m_files;
    MusicFolder m_music;

    // Signs in, scans the folder and starts a run with re-uploads on.
    void startRun(SessionModel &model, const MusicFolder &music, const QString &email, const QString &password,
                  const QString &threads)
    {
        model.attachToService();
        model.setEmail(email);
        model.setPassword(password);
        model.OnLogin();
        QTRY_COMPARE_WITH_TIMEOUT(model.mainPageType(), quint32(MainPageTypeSearch), 30000);
        model.setSearchFolderPath({music.root});
        model.OnSearchFolder();
        QCOMPARE(model.mainPageType(), quint32(MainPageTypeList));
        QTRY_VERIFY_WITH_TIMEOUT(!model.isFileSearchInProgress() && model.isBeginUploadEnabled(), 60000);
        QCOMPARE(model.foundFiles().size(), music.paths.size());
        model.OnReuploadChecked(true);
        model.OnUploadFiles(threads, QString(), QString());
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
        QVERIFY(m_files.isValid());
        m_music = MusicFolder::make(m_files.filePath(QStringLiteral("music")), 297, 1024, 400 * 1024, 7);
        for (int i = 0; i < 3; ++i) {
            m_music.addSparse(m_files.filePath(QStringLiteral("music/Large/Live Set %1.flac").arg(i)),
                              200LL * 1024 * 1024 + i * 4096);
        }
        QCOMPARE(toSet(m_music.md5.values()).size(), 300);
    }

    void firstRunUploadsEveryFile()
    {
        ScriptedPrompter prompter;
        SessionModel model(&prompter);
        QElapsedTimer run;
        run.start();
        startRun(model, m_music, QString::fromLatin1(DevServerProcess::kDemoEmail),
                 QString::fromLatin1(DevServerProcess::kDemoPassword), QStringLiteral("4"));
        QTRY_COMPARE_WITH_TIMEOUT(model.mainPageType(), quint32(MainPageTypeResult), kRunTimeoutMs);
        qInfo("uploaded %lld files (%lld MB) in %lld ms", qint64(model.completedFiles().size()),
              m_music.totalBytes >> 20, run.elapsed());

        QVERIFY2(prompter.alerts.isEmpty(), qPrintable(prompter.titles().join(", ")));
        QCOMPARE(model.completedFiles().size(), 300);
        QCOMPARE(toSet(model.completedFiles().toList()), toSet(m_music.paths));
        QVERIFY(model.skippedFiles().isEmpty() && model.erroredFiles().isEmpty() && model.retryFiles().isEmpty());

        // The service holds exactly these files, byte for byte.
        const QJsonObject library = m_server.library();
        QCOMPARE(libraryField(library), m_music.digests(m_music.paths));
        QStringList paths = m_music.paths;
        paths.sort();
        QCOMPARE(libraryField(library, QStringLiteral("file_path")), paths);

        // The digest cache is written every few seconds, not once per file,
        // and after the run's end it holds every file the run digested.
        MD5Cache *shared = MD5Cache::sharedCacheIfMade();
        QVERIFY(shared);
        QTRY_VERIFY_WITH_TIMEOUT(!shared->hasUnsavedChanges(), 10000);
        QVERIFY2(shared->saveCount() <= 2 + run.elapsed() / 3000,
                 qPrintable(QStringLiteral("%1 saves in %2 ms").arg(shared->saveCount()).arg(run.elapsed())));
        const MD5Cache onDisk(MD5Cache::locateCacheFile());
        for (const QString &path : std::as_const(m_music.paths)) {
            QCOMPARE(onDisk.cache().value(path).md5.toString(), m_music.md5.value(path));
        }
        model.detachFromService();
    }

    void faultsLoseNoFile()
    {
        const QString email = QStringLiteral("faults@lyrabox.test");
        QVERIFY(m_server.createAccount(email, QStringLiteral("secret")));
        const MusicFolder music =
            MusicFolder::make(m_files.filePath(QStringLiteral("faults")), 40, 64 * 1024, 300 * 1024, 11);
        ScriptedPrompter prompter;
        SessionModel model(&prompter);
        LogWatch log;
        // After every step of the run, no file is in two lists.
        QStringList violations;
        auto checkLists = [&] {
            if (const QString violation = model.fileLists().invariantViolation(); !violation.isEmpty()) {
                violations << violation;
            }
        };
        connect(&model, &SessionModel::uploadStateChanged, this, checkLists);
        connect(&model, &SessionModel::uploadListViewChanged, this, checkLists);
        connect(&model, &SessionModel::uploadFinished, this, checkLists);

        // One kind of fault at a time, each taken up by the next uploads:
        // connections dropped in the middle of the body, error answers, and
        // answers that come late.
        auto remainingFaults = [this] {
            qint64 remaining = 0;
            for (const QJsonValue &rule : m_server.control("GET", "faults").value("faults").toArray()) {
                remaining += rule.toObject().value(QStringLiteral("remaining")).toInteger();
            }
            return remaining;
        };
        QVERIFY(m_server.addFault({{"endpoint", "upload"}, {"count", 2}, {"drop_after_bytes", 30000}}));
        startRun(model, music, email, QStringLiteral("secret"), QStringLiteral("2"));
        QTRY_COMPARE_WITH_TIMEOUT(remainingFaults(), 0, 60000);
        QVERIFY(m_server.addFault(
            {{"endpoint", "upload"}, {"count", 3}, {"status", 500}, {"message", "Internal trouble"}}));
        QTRY_COMPARE_WITH_TIMEOUT(remainingFaults(), 0, 60000);
        QVERIFY(m_server.addFault({{"endpoint", "upload"}, {"count", 2}, {"latency_ms", 3000}}));
        QTRY_COMPARE_WITH_TIMEOUT(model.mainPageType(), quint32(MainPageTypeResult), kRunTimeoutMs);
        QVERIFY(m_server.clearFaults());

        // Every file ended in exactly one place, and the service holds
        // exactly the ones reported uploaded.
        const QSet<QString> completed = toSet(model.completedFiles().toList());
        QCOMPARE(completed.size(), model.completedFiles().size());
        QVERIFY(!completed.intersects(toSet(model.erroredFiles().toList())));
        QCOMPARE(completed + toSet(model.erroredFiles().toList()), toSet(music.paths));
        QVERIFY(model.retryFiles().isEmpty());
        QCOMPARE(model.erroredFiles().size(), 3);
        QCOMPARE(libraryField(m_server.library(email)), music.digests(model.completedFiles().toList()));
        // The dropped uploads went again after the retry wait; error answers
        // counted as failures in a row without stopping the run.
        QVERIFY(!log.lines().filter(QStringLiteral(": Waiting 5 seconds to retry...")).isEmpty());
        QCOMPARE(log.lines().filter(QStringLiteral(" - Internal trouble")).size(), 3);
        QVERIFY(model.simultaneousErrors() <= 3);
        QVERIFY(prompter.alerts.isEmpty());
        QVERIFY2(violations.isEmpty(), qPrintable(violations.join(u'\n')));

        model.detachFromService();
    }
};

QTEST_GUILESS_MAIN(TestUploadEndToEnd)
#include "tst_uploadendtoend.moc"
