// Whole upload runs of the session model against the local service: a
// folder of 300 files (three of them large) goes up, the service then holds
// exactly those files; a second run skips them all; with dropped
// connections, error answers and slow answers every file still ends up
// uploaded or reported as failed, and none is reported uploaded that the
// service does not hold.
#include "musicfolder.h"
#include "runsupport.h"

#include "service/lyraboxservice.h"
#include "session/sessionmodel.h"
#include "support/devserverprocess.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>

namespace {

constexpr int kSmallFiles = 297;
constexpr qint64 kLargeFileBytes = 200LL * 1024 * 1024;
constexpr int kRunTimeoutMs = 240000;

QSet<QString> toSet(const QStringList &list)
{
    return QSet<QString>(list.begin(), list.end());
}

QStringList sorted(QStringList list)
{
    list.sort();
    return list;
}

} // namespace

class TestUploadEndToEnd : public QObject
{
    Q_OBJECT

    DevServerProcess m_server;
    QTemporaryDir m_files;
    MusicFolder m_music;

    void signIn(SessionModel &model, const QString &email, const QString &password)
    {
        model.setEmail(email);
        model.setPassword(password);
        model.OnLogin();
        QTRY_COMPARE_WITH_TIMEOUT(model.mainPageType(), quint32(MainPageTypeSearch), 30000);
    }

    void scan(SessionModel &model, const QString &root, qsizetype expected)
    {
        model.setSearchFolderPath({root});
        model.OnSearchFolder();
        QCOMPARE(model.mainPageType(), quint32(MainPageTypeList));
        QTRY_VERIFY_WITH_TIMEOUT(!model.isFileSearchInProgress() && model.isBeginUploadEnabled(), 60000);
        QCOMPARE(model.foundFiles().size(), expected);
    }

    void upload(SessionModel &model, const QString &threads)
    {
        model.OnUploadFiles(threads, QString(), QString());
        QTRY_COMPARE_WITH_TIMEOUT(model.mainPageType(), quint32(MainPageTypeResult), kRunTimeoutMs);
    }

    QStringList localDigests(const QStringList &paths) const
    {
        QStringList digests;
        for (const QString &path : paths) {
            digests << m_music.md5.value(path);
        }
        return digests;
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
        QVERIFY(m_files.isValid());
        QElapsedTimer made;
        made.start();
        m_music = MusicFolder::make(m_files.filePath(QStringLiteral("music")), kSmallFiles, 1024, 400 * 1024, 7);
        for (int i = 0; i < 3; ++i) {
            m_music.addSparse(m_files.filePath(QStringLiteral("music/Large/Live Set %1.flac").arg(i)),
                              kLargeFileBytes + i * 4096);
        }
        QCOMPARE(m_music.paths.size(), kSmallFiles + 3);
        QCOMPARE(toSet(QStringList(m_music.md5.begin(), m_music.md5.end())).size(), kSmallFiles + 3);
        qInfo("made %lld files, %lld MB, in %lld ms", qint64(m_music.paths.size()), m_music.totalBytes >> 20,
              made.elapsed());
    }

    void firstRunUploadsEveryFile()
    {
        RunPrompter prompter;
        SessionModel model(&prompter);
        model.attachToService();
        signIn(model, QString::fromLatin1(DevServerProcess::kDemoEmail),
               QString::fromLatin1(DevServerProcess::kDemoPassword));
        scan(model, m_music.root, m_music.paths.size());
        model.OnReuploadChecked(true);

        QElapsedTimer run;
        run.start();
        upload(model, QStringLiteral("4"));
        qInfo("uploaded %lld files (%lld MB) in %lld ms", qint64(model.completedFiles().size()),
              m_music.totalBytes >> 20, run.elapsed());

        QVERIFY2(prompter.alerts.isEmpty(), qPrintable(prompter.alertTitles().join(", ")));
        QCOMPARE(toSet(model.completedFiles()), toSet(m_music.paths));
        QCOMPARE(model.completedFiles().size(), m_music.paths.size());
        QVERIFY(model.skippedFiles().isEmpty());
        QVERIFY(model.erroredFiles().isEmpty());
        QVERIFY(model.retryFiles().isEmpty());
        QVERIFY(model.foundFiles().isEmpty() && model.readyFiles().isEmpty() && model.uploadingFiles().isEmpty());

        // The service holds exactly these files, byte for byte.
        const QJsonObject library = m_server.library();
        QCOMPARE(sorted(libraryDigests(library)), sorted(localDigests(m_music.paths)));
        QCOMPARE(toSet(libraryFilePaths(library)), toSet(m_music.paths));

        QCOMPARE(lastLogBlock(QStringLiteral("Starting Upload"), 9),
                 (QStringList{QStringLiteral("Starting Upload"), QStringLiteral(" - Found Files: 300"),
                              QStringLiteral(" - Skipped Files (0 expected): 0"),
                              QStringLiteral(" - Errored Files (0 expected): 0"),
                              QStringLiteral(" - Uploading Files (0 expected): 0"),
                              QStringLiteral(" - Completed Files (0 expected): 0"),
                              QStringLiteral(" - Retry Files (0 expected): 0"),
                              QStringLiteral(" - Playlist Name: (null)"), QStringLiteral(" - Tag Name: (null)")}));
        QCOMPARE(lastLogBlock(QStringLiteral("Upload Ended"), 7),
                 (QStringList{QStringLiteral("Upload Ended"), QStringLiteral(" - Found Files: 0"),
                              QStringLiteral(" - Skipped Files: 0"), QStringLiteral(" - Errored Files: 0"),
                              QStringLiteral(" - Uploading Files: 0"), QStringLiteral(" - Completed Files: 300"),
                              QStringLiteral(" - Retry Files: 0")}));
        QCOMPARE(model.discoveredLabelText(), QStringLiteral("Discovered: \t300 files"));
        QCOMPARE(model.uploadedLabelText(), QStringLiteral("Uploaded: \t300 files"));
        QCOMPARE(model.skippedLabelText(), QStringLiteral("Skipped: \t0 files (already uploaded)"));
        QCOMPARE(model.errorsLabelText(), QStringLiteral("Errors: \t\t0 files"));
        QVERIFY(!model.isResultsRetryErrorsButtonVisible());
        QCOMPARE(model.uploadStateLabelText(), QStringLiteral("Uploaded: 300 files, 0 remaining, 100% complete"));
        model.detachFromService();
    }

    void secondRunSkipsEveryFile()
    {
        RunPrompter prompter;
        SessionModel model(&prompter);
        model.attachToService();
        signIn(model, QString::fromLatin1(DevServerProcess::kDemoEmail),
               QString::fromLatin1(DevServerProcess::kDemoPassword));
        scan(model, m_music.root, m_music.paths.size());
        model.OnReuploadChecked(true);
        const qint64 uploadsBefore = m_server.requestCounts().value(QStringLiteral("upload")).toInteger();

        upload(model, QStringLiteral("3"));

        QVERIFY(prompter.alerts.isEmpty());
        QVERIFY(model.completedFiles().isEmpty());
        QCOMPARE(toSet(model.skippedFiles()), toSet(m_music.paths));
        QCOMPARE(m_server.requestCounts().value(QStringLiteral("upload")).toInteger(), uploadsBefore);
        QCOMPARE(m_server.library().value(QStringLiteral("files")).toArray().size(), m_music.paths.size());
        QCOMPARE(model.skippedLabelText(), QStringLiteral("Skipped: \t300 files (already uploaded)"));
        QCOMPARE(model.uploadedLabelText(), QStringLiteral("Uploaded: \t0 files"));
        QCOMPARE(model.uploadStateLabel2Text(), QStringLiteral("Skipped: 300 files (already uploaded)."));
        QVERIFY(!model.isUploadStateLabel2Hidden());
        // Every file was digested once by the check and skipped there.
        QCOMPARE(logLines().filter(QStringLiteral(" - skipped")).size() >= 300, true);
        model.detachFromService();
    }

    void faultsLoseNoFile()
    {
        const QString email = QStringLiteral("faults@lyrabox.test");
        QVERIFY(m_server.createAccount(email, QStringLiteral("secret")));
        const MusicFolder music =
            MusicFolder::make(m_files.filePath(QStringLiteral("faults")), 40, 64 * 1024, 300 * 1024, 11);

        RunPrompter prompter;
        SessionModel model(&prompter);
        model.attachToService();
        signIn(model, email, QStringLiteral("secret"));
        scan(model, music.root, music.paths.size());
        model.OnReuploadChecked(true);

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
        model.OnUploadFiles(QStringLiteral("2"), QString(), QString());
        QTRY_COMPARE_WITH_TIMEOUT(remainingFaults(), 0, 60000);
        QVERIFY(m_server.addFault(
            {{"endpoint", "upload"}, {"count", 3}, {"status", 500}, {"message", "Internal trouble"}}));
        QTRY_COMPARE_WITH_TIMEOUT(remainingFaults(), 0, 60000);
        QVERIFY(m_server.addFault({{"endpoint", "upload"}, {"count", 2}, {"latency_ms", 3000}}));
        QTRY_COMPARE_WITH_TIMEOUT(model.mainPageType(), quint32(MainPageTypeResult), kRunTimeoutMs);
        QVERIFY(m_server.clearFaults());

        // Every file ended in exactly one place, and the service holds
        // exactly the ones reported uploaded.
        const QSet<QString> completed = toSet(model.completedFiles());
        const QSet<QString> errored = toSet(model.erroredFiles());
        QCOMPARE(completed.size(), model.completedFiles().size());
        QVERIFY(!completed.intersects(errored));
        QCOMPARE(completed + errored, toSet(music.paths));
        QVERIFY(model.retryFiles().isEmpty());
        QCOMPARE(model.erroredFiles().size(), 3);
        const QJsonObject library = m_server.library(email);
        QStringList completedDigests;
        for (const QString &path : completed) {
            completedDigests << music.md5.value(path);
        }
        QCOMPARE(sorted(libraryDigests(library)), sorted(completedDigests));
        QCOMPARE(model.errorsLabelText(), QStringLiteral("Errors: \t\t3 files"));
        QVERIFY(model.isResultsRetryErrorsButtonVisible());
        // The dropped uploads went again after the retry wait.
        QVERIFY(!logLines().filter(QStringLiteral(": Waiting 5 seconds to retry...")).isEmpty());
        QCOMPARE(logLines().filter(QStringLiteral(" - Internal trouble")).size(), 3);
        // Error answers count as failures in a row; the run went on.
        QVERIFY(model.simultaneousErrors() <= 3);
        QVERIFY(prompter.alerts.isEmpty());

        // Retrying the errors uploads exactly those and adds to the totals.
        model.OnRetryErrors();
        QCOMPARE(model.simultaneousErrors(), 0);
        QTRY_COMPARE_WITH_TIMEOUT(model.mainPageType(), quint32(MainPageTypeResult), kRunTimeoutMs);
        QCOMPARE(toSet(model.completedFiles()), toSet(music.paths));
        QVERIFY(model.erroredFiles().isEmpty());
        QCOMPARE(sorted(libraryDigests(m_server.library(email))), sorted([&] {
                     QStringList all;
                     for (const QString &path : music.paths) {
                         all << music.md5.value(path);
                     }
                     return all;
                 }()));
        model.detachFromService();
    }
};

QTEST_GUILESS_MAIN(TestUploadEndToEnd)
#include "tst_uploadendtoend.moc"
