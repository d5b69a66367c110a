// The upload operation against the local service and, for time-outs, stalls and the stuck
// guard, against a bare scripted server; then the service client's dispatch of uploads: the
// configuration it fills, playlist positions, the delegate callbacks and stopping.
#include "core/appinfo.h"
#include "core/logger.h"
#include "platform/operationqueue.h"
#include "service/lyraboxservice.h"
#include "upload/asyncuploadrequestoperation.h"
#include "uploadtestsupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QProcess>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int kWaitMs = 60000;

using Reports = UploadReports;

class RecordingDelegate : public LyraboxServiceDelegate
{
public:
    struct Finish
    {
        QString path;
        OptionalError error;
    };
    QList<Finish> finishes;
    QHash<QString, QList<int>> progress;
    bool offMainThread = false;

    void lyraboxDidLogin(LyraboxService *, const OptionalError &) override {}
    void lyraboxDidFinishUpload(LyraboxService *, const QString &filePath, const OptionalError &error) override
    {
        offMainThread |= QThread::currentThread() != qApp->thread();
        finishes.append({filePath, error});
    }
    void lyraboxDidUpdateUploadProgress(LyraboxService *, const QString &filePath, int percent) override
    {
        offMainThread |= QThread::currentThread() != qApp->thread();
        progress[filePath].append(percent);
    }
};

QJsonObject storedFile(const DevServerProcess &server, const QString &fileName)
{
    QJsonObject found;
    for (const QJsonValue &file : server.library().value("files").toArray()) {
        if (file.toObject().value("file_name").toString() == fileName) {
            found = file.toObject(); // the latest
        }
    }
    return found;
}

// The configurations of the operations waiting in a suspended queue.
QList<AsyncUploadRequestConfiguration> queuedConfigurations(LyraboxService &service)
{
    QList<AsyncUploadRequestConfiguration> configs;
    for (const OperationPtr &operation : service.fileLoadOperationQueue()->operations()) {
        if (auto upload = std::dynamic_pointer_cast<AsyncUploadRequestOperation>(operation)) {
            configs << upload->config();
        }
    }
    return configs;
}

// Makes `root`/x…/x…/track.mp3 longer than 4,096 bytes, folder by folder
// (no call takes the whole path); returns it.
QString makeOverlongPath(const QString &root)
{
    const QByteArray part(250, 'x');
    int dir = ::open(QFile::encodeName(root).constData(), O_RDONLY | O_DIRECTORY);
    QString path = root;
    for (int i = 0; i < 18 && dir >= 0; ++i) {
        ::mkdirat(dir, part.constData(), 0755);
        const int next = ::openat(dir, part.constData(), O_RDONLY | O_DIRECTORY);
        ::close(dir);
        dir = next;
        path += u'/' + QString::fromLatin1(part);
    }
    if (dir < 0) {
        return {};
    }
    const int file = ::openat(dir, "track.mp3", O_WRONLY | O_CREAT, 0644);
    const bool written = file >= 0 && ::write(file, "music", 5) == 5;
    ::close(file);
    ::close(dir);
    return written ? path + QStringLiteral("/track.mp3") : QString();
}

} // namespace

class TestUploadOperation : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    DevServerProcess m_server;
    Credentials m_credentials;
    OperationQueue m_queue;
    std::unique_ptr<LyraboxService> m_service;
    RecordingDelegate m_delegate;

    AsyncUploadRequestConfiguration config(const QString &path, const QString &url = QString()) const
    {
        return uploadConfiguration(url.isEmpty() ? m_server.uploadUrl() : url, path, m_credentials);
    }
    int uploadRequests() const { return m_server.requestCounts().value("upload").toInt(); }

    // Runs the operation to completion: exactly one final report, or the case fails.
    Reports run(const AsyncUploadRequestConfiguration &c, std::shared_ptr<AsyncUploadRequestOperation> *keep = nullptr,
                const AsyncUploadRequestOperation::Timeouts &timeouts = {})
    {
        Reports reports;
        auto operation = makeReportingOperation(c, &reports, timeouts);
        m_queue.addOperation(operation);
        if (!settle(m_queue, operation, reports, 600000)) {
            QTest::qFail(qPrintable(QStringLiteral("%1: %2 final reports").arg(c.filePath).arg(reports.finals())),
                         __FILE__, __LINE__);
        }
        if (keep) {
            *keep = operation;
        }
        return reports;
    }

    // Writes `name` with `size` bytes (unless 0) and uploads it.
    Reports upload(const QString &name, qint64 size, const QString &url = QString(),
                   const AsyncUploadRequestOperation::Timeouts &timeouts = {},
                   std::shared_ptr<AsyncUploadRequestOperation> *keep = nullptr)
    {
        const QString path = m_dir.filePath(name);
        if (size > 0 && !writePatternFile(path, size, quint32(size))) {
            QTest::qFail(qPrintable(QStringLiteral("cannot write ") + path), __FILE__, __LINE__);
        }
        return run(config(path, url), keep, timeouts);
    }

private slots:
    void initTestCase()
    {
        Logger::log(QStringLiteral("tst_uploadoperation"));
        QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
        m_credentials = m_server.signInDemo();
        QVERIFY(!m_credentials.token.isEmpty());
    }

    void init()
    {
        m_service = std::make_unique<LyraboxService>();
        m_service->setUserId(m_credentials.userId);
        m_service->setUserToken(m_credentials.token);
        m_delegate = RecordingDelegate();
        m_service->setDelegate(&m_delegate);
    }

    void cleanup()
    {
        m_service->fileLoadOperationQueue()->setSuspended(false);
        m_service->stopUploads();
        m_service->fileLoadOperationQueue()->waitUntilAllOperationsAreFinished();
        QTest::qWait(100);
        m_service.reset();
        m_server.clearFaults();
    }

    void uploadsTheFileWithProgressAndOneSuccess()
    {
        LogWatch log;
        std::shared_ptr<AsyncUploadRequestOperation> operation;
        const Reports reports = upload(QStringLiteral("Good Song.mp3"), 20 * 1024 * 1024 + 17, {}, {}, &operation);
        QCOMPARE(reports.successes, 1);
        QVERIFY(!reports.offMainThread);
        QVERIFY(operation->isFinished() && !operation->isExecuting());
        QVERIFY(operation->didWriteFooter());

        // At most once per whole percent, the first at 1%, the last at 100%.
        QVERIFY(reports.progress.size() >= 10);
        QCOMPARE(int(reports.progress.first() * 100), 1);
        int last = 0;
        for (double fraction : std::as_const(reports.progress)) {
            const int percent = int(fraction * 100);
            QVERIFY2(percent > last, qPrintable(QStringLiteral("%1 after %2").arg(percent).arg(last)));
            last = percent;
        }
        QCOMPARE(last, 100);

        // The service holds the same bytes.
        const QJsonObject stored = storedFile(m_server, QStringLiteral("Good Song.mp3"));
        QCOMPARE(stored.value("md5").toString().toLatin1(), md5OfFile(m_dir.filePath(QStringLiteral("Good Song.mp3"))));
        QCOMPARE(stored.value("content_type").toString(), QStringLiteral("audio/mpeg"));

        const QStringList lines = log.linesOf(QStringLiteral("Good Song.mp3"));
        QCOMPARE(lines.first(), QStringLiteral("Task Started"));
        QCOMPARE(lines.last(),
                 QStringLiteral("Response: StatusCode: 200, Result: True, Canceled: False, Message: File uploaded."));
        QVERIFY(lines.indexOf(QStringLiteral("Header written")) < lines.indexOf(QStringLiteral("Footer written")));
    }

    void progressIsAFractionOfTheWholeBody()
    {
        // A small file: the envelopes around it are a large part of the body.
        std::shared_ptr<AsyncUploadRequestOperation> operation;
        const Reports reports = upload(QStringLiteral("Short.mp3"), 1000, {}, {}, &operation);
        QCOMPARE(reports.successes, 1);
        QVERIFY(!reports.progress.isEmpty());
        for (double fraction : std::as_const(reports.progress)) {
            QVERIFY2(fraction > 0 && fraction <= 1.0, qPrintable(QString::number(fraction)));
        }
        QCOMPARE(reports.progress.last(), 1.0);
        QCOMPARE(operation->lastKnownProgress(), 100.0);
    }

    void serverErrorsCarryTheirMessageAndStatus()
    {
        // A JSON answer gives its message.
        QVERIFY(m_server.addFault({{"endpoint", "upload"}, {"status", 500}, {"message", "Disk full"}}));
        LogWatch log;
        Reports reports = upload(QStringLiteral("refused.ogg"), 200000);
        QCOMPARE(reports.failureCode(), 500);
        QCOMPARE(reports.failures.first().localizedDescription(), QStringLiteral("Disk full"));
        QVERIFY(log.linesOf(QStringLiteral("refused.ogg"))
                    .contains(QStringLiteral("Response: StatusCode: 500, Result: False, Canceled: False, Message: "
                                             "Disk full")));
    }

    void missingFileFailsWithoutARequest()
    {
        const int before = uploadRequests();
        LogWatch log;
        const Reports reports = upload(QStringLiteral("gone.mp3"), 0);
        QCOMPARE(reports.failureCode(), 200);
        QCOMPARE(reports.failures.first().localizedDescription(), QStringLiteral("File does not exist"));
        QCOMPARE(uploadRequests(), before);
        QCOMPARE(log.linesOf(QStringLiteral("gone.mp3")), QStringList{QStringLiteral("Task Started")});
    }

    void presentButUnreachableFilesAreNotMissing()
    {
        const QString overlong = makeOverlongPath(m_dir.path());
        // rm walks a tree this deep; QDir would not.
        const auto remove = qScopeGuard([&] {
            QProcess::execute(QStringLiteral("rm"), {QStringLiteral("-rf"), overlong.section(u'/', 0, -19)});
        });
        QVERIFY(overlong.toUtf8().size() > 4096);
        const Reports reports = run(config(overlong));
        QCOMPARE(reports.failures.size(), 1);
        QCOMPARE(reports.failures.first().localizedDescription(), QString::fromLocal8Bit(strerror(ENAMETOOLONG)));

        if (::geteuid() == 0) {
            QSKIP("root searches every folder; the over-long path above takes the same branch");
        }
        const QString locked = m_dir.filePath(QStringLiteral("locked"));
        QVERIFY(QDir().mkpath(locked));
        QFile track(locked + QStringLiteral("/song.mp3"));
        QVERIFY(track.open(QIODevice::WriteOnly) && track.write("music") == 5);
        track.close();
        QVERIFY(::chmod(QFile::encodeName(locked).constData(), 0600) == 0);
        const auto unlock = qScopeGuard([&] { ::chmod(QFile::encodeName(locked).constData(), 0755); });
        const Reports lockedReports = run(config(track.fileName()));
        QCOMPARE(lockedReports.failures.size(), 1);
        QCOMPARE(lockedReports.failures.first().localizedDescription(), QString::fromLocal8Bit(strerror(EACCES)));
    }

    void cancelledOperationsNeverSucceed()
    {
        const QString path = m_dir.filePath(QStringLiteral("cancel.mp3"));
        QVERIFY(writePatternFile(path, 100000, 15));
        {
            // Before it starts: cancelled, without a request.
            OperationQueue queue;
            queue.setSuspended(true);
            Reports reports;
            auto operation = makeReportingOperation(config(path), &reports);
            queue.addOperation(operation);
            queue.cancelAllOperations();
            queue.setSuspended(false);
            QVERIFY(settle(queue, operation, reports));
            QCOMPARE(reports.failureCode(), -999);
            QVERIFY(!reports.failures.first().hasUserInfo());
        }
        {
            // While waiting for the answer: a cancel still wins over a late success.
            ScriptedHttpServer server;
            QVERIFY(server.listen());
            server.mode = ScriptedHttpServer::Mode::Silent;
            Reports reports;
            auto operation = makeReportingOperation(config(path, server.url()), &reports);
            m_queue.addOperation(operation);
            QTRY_VERIFY_WITH_TIMEOUT(server.bodyComplete() && operation->didWriteFooter(), kWaitMs);
            operation->cancel();
            server.resume();
            QVERIFY(settle(m_queue, operation, reports));
            QCOMPARE(reports.failureCode(), -999);
        }
    }

    void retryWaitsBeforeItStarts()
    {
        const QString path = m_dir.filePath(QStringLiteral("retry.mp3"));
        QVERIFY(writePatternFile(path, 10000, 17));
        AsyncUploadRequestConfiguration c = config(path);
        c.isRetry = true;
        // Five seconds between "Task Started" and the request.
        LogWatch log;
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(run(c).successes, 1);
        QVERIFY2(timer.elapsed() >= 5000, qPrintable(QString::number(timer.elapsed())));
        QCOMPARE(log.linesOf(QStringLiteral("retry.mp3")).mid(0, 3),
                 (QStringList{"Task Started", "Waiting 5 seconds to retry...", "Retrying"}));
    }

    void unansweredUploads_data()
    {
        QTest::addColumn<bool>("stuckGuard"); // the short limit is the stuck guard's, else the request time-out's
        QTest::addColumn<int>("code");        // 0: success
        QTest::addColumn<QString>("logged");
        QTest::newRow("time-out after 100%") << false << 0
                                             << "Response: StatusCode: 200, Result: True, Canceled: False, Message: "
                                                "Timed out, but progress == 100%; assuming success";
        QTest::newRow("stuck guard after the footer")
            << true << -1001 << "Stuck runloop state detected. Forcing operation to end.";
    }

    void unansweredUploads()
    {
        QFETCH(bool, stuckGuard);
        QFETCH(int, code);
        QFETCH(QString, logged);
        ScriptedHttpServer server;
        QVERIFY(server.listen());
        server.mode = ScriptedHttpServer::Mode::Silent;
        AsyncUploadRequestOperation::Timeouts timeouts;
        (stuckGuard ? timeouts.stuckGuardMs : timeouts.requestTimeoutMs) = 1500;
        LogWatch log;
        QElapsedTimer timer;
        timer.start();
        std::shared_ptr<AsyncUploadRequestOperation> operation;
        const Reports reports = upload(QStringLiteral("unanswered.mp3"), 300000, server.url(), timeouts, &operation);
        QVERIFY(timer.elapsed() >= 1500);
        QVERIFY(server.bodyComplete());
        QCOMPARE(reports.successes == 1 ? 0 : reports.failureCode(), code);
        if (code != 0) {
            QCOMPARE(reports.failures.first().localizedDescription(), QStringLiteral("The operation timed out."));
        }
        QVERIFY(operation->lastKnownProgress() >= 100.0);
        const QStringList lines = log.linesOf(QStringLiteral("unanswered.mp3"));
        const auto at =
            std::find_if(lines.cbegin(), lines.cend(), [&](const QString &l) { return l.contains(logged); });
        QVERIFY2(at != lines.cend(), qPrintable(lines.join(u'\n')));
        // The guard starts once the footer is out.
        const qsizetype footer = lines.indexOf(QStringLiteral("Footer written"));
        QVERIFY(footer >= 0 && footer < at - lines.cbegin());
    }

    void dispatchReportsToTheDelegate()
    {
        const QString path = m_dir.filePath(QStringLiteral("Dispatched One.mp3"));
        QVERIFY(writePatternFile(path, 5 * 1024 * 1024, 31));
        LogWatch log;
        m_service->uploadFile(path);
        QTRY_COMPARE_WITH_TIMEOUT(m_delegate.finishes.size(), 1, kWaitMs);
        QTest::qWait(300);
        QCOMPARE(m_delegate.finishes.size(), 1);
        QCOMPARE(m_delegate.finishes.first().path, path);
        QVERIFY(!m_delegate.finishes.first().error);
        QVERIFY(!m_delegate.offMainThread);

        QVERIFY(log.lines().contains(QStringLiteral("Upload: ") + path));

        // Failures reach it with their code.
        QVERIFY(m_server.addFault({{"endpoint", "upload"}, {"status", 500}, {"message", "Broken"}}));
        m_service->uploadFile(path);
        QTRY_COMPARE_WITH_TIMEOUT(m_delegate.finishes.size(), 2, kWaitMs);
        QCOMPARE(m_delegate.finishes.at(1).error.value_or(Error::errorWithMessage()).code(), 500);
        QCOMPARE(m_delegate.finishes.at(1).error->localizedDescription(), QStringLiteral("Broken"));
        QVERIFY(log.lines().contains(
            QRegularExpression(QStringLiteral("^Dispatched One\\.mp3 - errored \\(\\d+\\.\\d{6}\\)$"))));
    }

    void dispatchFillsTheConfigurationAndPlaylistPositions()
    {
        const QString first = m_dir.filePath(QStringLiteral("first.mp3"));
        const QString second = m_dir.filePath(QStringLiteral("second.mp3"));
        QVERIFY(writePatternFile(first, 1000, 32));
        QVERIFY(writePatternFile(second, 1000, 33));
        m_service->fileLoadOperationQueue()->setSuspended(true);

        // Without a playlist name no position is handed out.
        m_service->setCreateTagName(QStringLiteral("Tagged"));
        m_service->setCreatePlaylistName(QStringLiteral(""));
        m_service->uploadFile(first);
        QVERIFY(m_service->playlistOrder().isEmpty());
        m_service->fileLoadOperationQueue()->cancelAllOperations();

        // With one: a position per file, and a retry keeps its position.
        m_service->setCreatePlaylistName(QStringLiteral("Trip"));
        m_service->uploadFile(first);
        m_service->uploadFile(second);
        m_service->uploadFile(first, std::nullopt, true);
        QCOMPARE(m_service->playlistOrderIndex(), 2u);
        const quint64 firstPosition = m_service->playlistOrder().value(first).toULongLong();
        const quint64 secondPosition = m_service->playlistOrder().value(second).toULongLong();
        QVERIFY(secondPosition > firstPosition);
        const QList<AsyncUploadRequestConfiguration> configs = queuedConfigurations(*m_service);
        QCOMPARE(configs.size(), 4);
        QVERIFY(configs.at(0).playlistOrder.isNull());
        QCOMPARE(configs.at(0).createTagName, QStringLiteral("Tagged"));
        QCOMPARE(configs.at(0).userToken, m_credentials.token);
        QCOMPARE(configs.at(2).playlistOrder, QString::number(secondPosition));
        QCOMPARE(configs.at(3).playlistOrder, QString::number(firstPosition));
        QVERIFY(configs.at(3).isRetry && !configs.at(1).isRetry);

        m_service->fileLoadOperationQueue()->setSuspended(false);
        QTRY_COMPARE_WITH_TIMEOUT(m_delegate.finishes.size(), 4, kWaitMs);
        const QJsonObject stored = storedFile(m_server, QStringLiteral("second.mp3"));
        QCOMPARE(stored.value("playlist_order").toVariant().toString(), QString::number(secondPosition));
        QCOMPARE(stored.value("tag_name").toString(), QStringLiteral("Tagged"));
    }

    void stopUploadsCancelsEverything()
    {
        const QString big = m_dir.filePath(QStringLiteral("big.flac"));
        QVERIFY(writePatternFile(big, 300 * 1024 * 1024, 36));
        // The service takes its time with every upload body.
        QVERIFY(m_server.addFault({{"endpoint", "upload"}, {"latency_ms", 20000}, {"count", 0}}));
        QStringList paths;
        for (int i = 0; i < 3; ++i) {
            paths << m_dir.filePath(QStringLiteral("queued-%1.mp3").arg(i));
            QVERIFY(writePatternFile(paths.last(), 50000, quint32(40 + i)));
        }
        m_service->uploadFile(big);
        for (const QString &path : paths) {
            m_service->uploadFile(path);
        }
        QTRY_VERIFY_WITH_TIMEOUT(!m_delegate.progress.value(big).isEmpty(), kWaitMs);
        QCOMPARE(m_service->uploadProgresses().size(), 4);
        m_service->stopUploads();
        QTRY_COMPARE_WITH_TIMEOUT(m_delegate.finishes.size(), 4, kWaitMs);
        QTest::qWait(300);
        QCOMPARE(m_delegate.finishes.size(), 4);
        for (const auto &finish : m_delegate.finishes) {
            QVERIFY2(finish.error && finish.error->code() == -999, qPrintable(finish.path));
        }
        QVERIFY(m_service->uploadProgresses().isEmpty());
        QCOMPARE(m_service->fileLoadOperationQueue()->operationCount(), 0);
    }
};

QTEST_GUILESS_MAIN(TestUploadOperation)
#include "tst_uploadoperation.moc"
