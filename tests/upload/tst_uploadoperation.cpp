// The upload operation against the local service and, for time-outs, stalls and the stuck
// guard, against a bare scripted server.
#include "app/logger.h"
#include "platform/operationqueue.h"
#include "upload/asyncuploadrequestoperation.h"
#include "uploadtestsupport.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <QTimer>

namespace {

constexpr int kWaitMs = 60000;

// What one operation reported, all on the main thread.
struct Reports
{
    QList<double> progress;
    int successes = 0;
    QList<Error> failures;
    bool offMainThread = false;

    int finals() const { return successes + int(failures.size()); }
    // The one failure's code (0 when the outcome was not exactly one failure).
    int failureCode() const { return successes == 0 && failures.size() == 1 ? failures.first().code() : 0; }
};

std::shared_ptr<AsyncUploadRequestOperation> makeOperation(const AsyncUploadRequestConfiguration &configuration,
                                                           Reports *reports,
                                                           const AsyncUploadRequestOperation::Timeouts &timeouts = {})
{
    auto operation = std::make_shared<AsyncUploadRequestOperation>(configuration, timeouts);
    auto onMain = [reports] { reports->offMainThread |= QThread::currentThread() != qApp->thread(); };
    operation->fileLoadProgressBlock = [reports, onMain](double fraction) {
        onMain();
        reports->progress << fraction;
    };
    operation->fileLoadSucceededBlock = [reports, onMain] {
        onMain();
        ++reports->successes;
    };
    operation->fileLoadFailedBlock = [reports, onMain](const Error &error) {
        onMain();
        reports->failures << error;
    };
    return operation;
}

// Waits for the final report and the end of the operation, then a while longer for a
// second report that must not come.
bool settle(OperationQueue &queue, const std::shared_ptr<AsyncUploadRequestOperation> &operation,
            const Reports &reports, int timeoutMs = kWaitMs)
{
    QElapsedTimer timer;
    timer.start();
    while ((reports.finals() == 0 || !operation->isFinished()) && timer.elapsed() < timeoutMs) {
        QTest::qWait(20);
    }
    queue.waitUntilAllOperationsAreFinished();
    QTest::qWait(300);
    return reports.finals() == 1;
}

} // namespace

class TestUploadOperation : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup() { m_server.clearFaults(); }
    void uploadsTheFileWithProgressAndOneSuccess();
    void serverErrorsCarryTheirMessageAndStatus();
    void droppedConnectionFailsOnceWithoutResending();
    void missingFileFailsWithoutARequest();
    void cancelledOperationsNeverSucceed();
    void retryWaitsBeforeItStarts();
    void unansweredUploads_data();
    void unansweredUploads();
    void fileShrinkingWhileSendingFails();
    void memoryStaysFlatForALargeFile();

private:
    // Runs one upload of `path` (written with `size` bytes unless 0) to completion.
    Reports upload(const QString &name, qint64 size, const QString &url = QString(),
                   const AsyncUploadRequestOperation::Timeouts &timeouts = {},
                   std::shared_ptr<AsyncUploadRequestOperation> *keep = nullptr);
    AsyncUploadRequestConfiguration config(const QString &path, const QString &url = QString()) const
    {
        return uploadConfiguration(url.isEmpty() ? m_server.uploadUrl() : url, path, m_credentials);
    }
    int uploadRequests() const { return m_server.requestCounts().value("upload").toInt(); }

    QTemporaryDir m_dir;
    DevServerProcess m_server;
    Credentials m_credentials;
    OperationQueue m_queue;
};

void TestUploadOperation::initTestCase()
{
    Logger::log(QStringLiteral("tst_uploadoperation"));
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    m_credentials = signInDemo(m_server);
    QVERIFY(!m_credentials.token.isEmpty());
}

Reports TestUploadOperation::upload(const QString &name, qint64 size, const QString &url,
                                    const AsyncUploadRequestOperation::Timeouts &timeouts,
                                    std::shared_ptr<AsyncUploadRequestOperation> *keep)
{
    const QString path = m_dir.filePath(name);
    if (size > 0 && !writePatternFile(path, size, quint32(size))) {
        qFatal("cannot write %s", qPrintable(path));
    }
    Reports reports;
    auto operation = makeOperation(config(path, url), &reports, timeouts);
    m_queue.addOperation(operation);
    if (!settle(m_queue, operation, reports, 600000)) {
        qWarning("%s: %d final reports", qPrintable(name), reports.finals());
    }
    if (keep) {
        *keep = operation;
    }
    return reports;
}

void TestUploadOperation::uploadsTheFileWithProgressAndOneSuccess()
{
    const QString path = m_dir.filePath(QStringLiteral("Good Song.mp3"));
    QVERIFY(writePatternFile(path, 20 * 1024 * 1024 + 17, 11));
    AsyncUploadRequestConfiguration c = config(path);
    c.createPlaylistName = QStringLiteral("Trip");
    c.playlistOrder = QStringLiteral("4711");
    c.createTagName = QStringLiteral("tagged");
    LogWatch log;
    Reports reports;
    auto operation = makeOperation(c, &reports);
    m_queue.addOperation(operation);
    QVERIFY(settle(m_queue, operation, reports));
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

    // The service holds the same bytes and every field as sent.
    QJsonObject stored;
    for (const QJsonValue &file : m_server.library().value("files").toArray()) {
        if (file.toObject().value("file_name").toString() == QStringLiteral("Good Song.mp3")) {
            stored = file.toObject();
        }
    }
    QCOMPARE(stored.value("md5").toString().toLatin1(), md5OfFile(path));
    QCOMPARE(stored.value("file_path").toString(), path);
    QCOMPARE(stored.value("playlist_name").toString(), QStringLiteral("Trip"));
    QCOMPARE(stored.value("playlist_order").toVariant().toString(), QStringLiteral("4711"));
    QCOMPARE(stored.value("tag_name").toString(), QStringLiteral("tagged"));
    QCOMPARE(stored.value("content_type").toString(), QStringLiteral("audio/mpeg"));

    const QStringList lines = log.linesOf(QStringLiteral("Good Song.mp3"));
    QCOMPARE(lines.first(), QStringLiteral("Task Started"));
    QCOMPARE(lines.last(),
             QStringLiteral("Response: StatusCode: 200, Result: True, Canceled: False, Message: File uploaded."));
    QVERIFY(lines.indexOf(QStringLiteral("Header written")) < lines.indexOf(QStringLiteral("Footer written")));
}

void TestUploadOperation::serverErrorsCarryTheirMessageAndStatus()
{
    // A JSON answer gives its message; any other its reason phrase.
    QVERIFY(m_server.addFault({{"endpoint", "upload"}, {"status", 500}, {"message", "Disk full"}}));
    LogWatch log;
    Reports reports = upload(QStringLiteral("refused.ogg"), 200000);
    QCOMPARE(reports.failureCode(), 500);
    QCOMPARE(reports.failures.first().localizedDescription(), QStringLiteral("Disk full"));
    QVERIFY(log.linesOf(QStringLiteral("refused.ogg"))
                .contains(QStringLiteral("Response: StatusCode: 500, Result: False, Canceled: False, Message: "
                                         "Disk full")));
    QVERIFY(
        m_server.addFault({{"endpoint", "upload"}, {"status", 503}, {"body", "down"}, {"content_type", "text/plain"}}));
    reports = upload(QStringLiteral("refused.ogg"), 0);
    QCOMPARE(reports.failureCode(), 503);
    QCOMPARE(reports.failures.first().localizedDescription(), QStringLiteral("Service Unavailable"));
}

void TestUploadOperation::droppedConnectionFailsOnceWithoutResending()
{
    const int before = uploadRequests();
    QVERIFY(m_server.addFault({{"endpoint", "upload"}, {"drop_after_bytes", 300000}, {"count", 0}}));
    std::shared_ptr<AsyncUploadRequestOperation> operation;
    const Reports reports = upload(QStringLiteral("dropped.wav"), 4 * 1024 * 1024, {}, {}, &operation);
    // A lost connection, which the session retries; the body went out once.
    QCOMPARE(reports.failureCode(), -1005);
    QCOMPARE(reports.failures.first().localizedDescription(), QStringLiteral("The network connection was lost."));
    QVERIFY(!operation->didWriteFooter());
    QCOMPARE(uploadRequests() - before, 1);
}

void TestUploadOperation::missingFileFailsWithoutARequest()
{
    const int before = uploadRequests();
    LogWatch log;
    const Reports reports = upload(QStringLiteral("gone.mp3"), 0);
    QCOMPARE(reports.failureCode(), 200);
    QCOMPARE(reports.failures.first().localizedDescription(), QStringLiteral("File does not exist"));
    QCOMPARE(uploadRequests(), before);
    QCOMPARE(log.linesOf(QStringLiteral("gone.mp3")), QStringList{QStringLiteral("Task Started")});
}

void TestUploadOperation::cancelledOperationsNeverSucceed()
{
    const QString path = m_dir.filePath(QStringLiteral("cancel.mp3"));
    QVERIFY(writePatternFile(path, 50 * 1024 * 1024, 15));
    {
        // Before it starts: cancelled, without a request.
        OperationQueue queue;
        queue.setSuspended(true);
        Reports reports;
        auto operation = makeOperation(config(path), &reports);
        queue.addOperation(operation);
        queue.cancelAllOperations();
        queue.setSuspended(false);
        QVERIFY(settle(queue, operation, reports));
        QCOMPARE(reports.failureCode(), -999);
        QVERIFY(!reports.failures.first().hasUserInfo());
    }
    {
        // While the body goes out (the server stops reading part-way).
        ScriptedHttpServer server;
        QVERIFY(server.listen());
        server.mode = ScriptedHttpServer::Mode::StallAfter;
        server.stallAfterBytes = 1024 * 1024;
        LogWatch log;
        Reports reports;
        auto operation = makeOperation(config(path, server.url()), &reports);
        m_queue.addOperation(operation);
        QTRY_VERIFY_WITH_TIMEOUT(server.bodyBytesReceived() >= 1024 * 1024, kWaitMs);
        operation->cancel();
        QVERIFY(settle(m_queue, operation, reports));
        QCOMPARE(reports.failureCode(), -999);
        QVERIFY(log.linesOf(QStringLiteral("cancel.mp3"))
                    .contains(QStringLiteral("Response: StatusCode: 0, Result: False, Canceled: True, "
                                             "Message: cancelled")));
    }
    {
        // While waiting for the answer: a cancel still wins over a late success.
        ScriptedHttpServer server;
        QVERIFY(server.listen());
        server.mode = ScriptedHttpServer::Mode::Silent;
        const QString small = m_dir.filePath(QStringLiteral("cancel-small.mp3"));
        QVERIFY(writePatternFile(small, 100000, 16));
        Reports reports;
        auto operation = makeOperation(config(small, server.url()), &reports);
        m_queue.addOperation(operation);
        QTRY_VERIFY_WITH_TIMEOUT(server.bodyComplete() && operation->didWriteFooter(), kWaitMs);
        operation->cancel();
        server.resume();
        QVERIFY(settle(m_queue, operation, reports));
        QCOMPARE(reports.failureCode(), -999);
    }
}

void TestUploadOperation::retryWaitsBeforeItStarts()
{
    const QString path = m_dir.filePath(QStringLiteral("retry.mp3"));
    QVERIFY(writePatternFile(path, 10000, 17));
    AsyncUploadRequestConfiguration c = config(path);
    c.isRetry = true;
    {
        // Five seconds between "Task Started" and the request.
        LogWatch log;
        Reports reports;
        auto operation = makeOperation(c, &reports);
        QElapsedTimer timer;
        timer.start();
        m_queue.addOperation(operation);
        QVERIFY(settle(m_queue, operation, reports));
        QCOMPARE(reports.successes, 1);
        QVERIFY2(timer.elapsed() >= 5000, qPrintable(QString::number(timer.elapsed())));
        QCOMPARE(log.linesOf(QStringLiteral("retry.mp3")).mid(0, 3),
                 (QStringList{"Task Started", "Waiting 5 seconds to retry...", "Retrying"}));
    }
    {
        // A cancel during the wait ends it at once.
        const int before = uploadRequests();
        Reports reports;
        auto operation = makeOperation(c, &reports);
        QElapsedTimer timer;
        timer.start();
        m_queue.addOperation(operation);
        QTRY_VERIFY_WITH_TIMEOUT(operation->isExecuting(), kWaitMs);
        operation->cancel();
        QVERIFY(settle(m_queue, operation, reports));
        QVERIFY(timer.elapsed() < 4500);
        QCOMPARE(reports.failureCode(), -999);
        QCOMPARE(uploadRequests(), before);
    }
}

void TestUploadOperation::unansweredUploads_data()
{
    QTest::addColumn<qint64>("stallAfter"); // body bytes read before the server stalls; -1: all, never answered
    QTest::addColumn<bool>("stuckGuard");   // the short limit is the stuck guard's, else the request time-out's
    QTest::addColumn<int>("code");          // 0: success
    QTest::addColumn<QString>("logged");
    QTest::newRow("time-out after 100%") << qint64(-1) << false << 0
                                         << "Response: StatusCode: 200, Result: True, Canceled: False, Message: "
                                            "Timed out, but progress == 100%; assuming success";
    QTest::newRow("time-out before 100%")
        << qint64(512 * 1024) << false << -1001 << "Message: The operation timed out.";
    QTest::newRow("stuck guard after the footer")
        << qint64(-1) << true << -1001 << "Stuck runloop state detected. Forcing operation to end.";
}

void TestUploadOperation::unansweredUploads()
{
    QFETCH(qint64, stallAfter);
    QFETCH(bool, stuckGuard);
    QFETCH(int, code);
    QFETCH(QString, logged);
    QCOMPARE(AsyncUploadRequestOperation::Timeouts().stuckGuardMs, 120000);
    ScriptedHttpServer server;
    QVERIFY(server.listen());
    server.mode = stallAfter < 0 ? ScriptedHttpServer::Mode::Silent : ScriptedHttpServer::Mode::StallAfter;
    server.stallAfterBytes = stallAfter;
    AsyncUploadRequestOperation::Timeouts timeouts;
    (stuckGuard ? timeouts.stuckGuardMs : timeouts.requestTimeoutMs) = 1500;
    LogWatch log;
    QElapsedTimer timer;
    timer.start();
    std::shared_ptr<AsyncUploadRequestOperation> operation;
    const Reports reports = upload(QStringLiteral("unanswered.mp3"), stallAfter < 0 ? 300000 : 64 * 1024 * 1024,
                                   server.url(), timeouts, &operation);
    QVERIFY(timer.elapsed() >= 1500);
    QCOMPARE(server.bodyComplete(), stallAfter < 0);
    QCOMPARE(reports.successes == 1 ? 0 : reports.failureCode(), code);
    if (code != 0) {
        QCOMPARE(reports.failures.first().localizedDescription(), QStringLiteral("The operation timed out."));
    }
    QCOMPARE(operation->lastKnownProgress() >= 100.0, stallAfter < 0);
    const QStringList lines = log.linesOf(QStringLiteral("unanswered.mp3"));
    const auto at = std::find_if(lines.cbegin(), lines.cend(), [&](const QString &l) { return l.contains(logged); });
    QVERIFY2(at != lines.cend(), qPrintable(lines.join(u'\n')));
    // The guard starts once the footer is out.
    QCOMPARE(lines.indexOf(QStringLiteral("Footer written")) >= 0, stallAfter < 0);
    QVERIFY(lines.indexOf(QStringLiteral("Footer written")) < at - lines.cbegin());
}

void TestUploadOperation::fileShrinkingWhileSendingFails()
{
    ScriptedHttpServer server;
    QVERIFY(server.listen());
    server.mode = ScriptedHttpServer::Mode::StallAfter;
    server.stallAfterBytes = 256 * 1024;
    const QString path = m_dir.filePath(QStringLiteral("shrinks.mp3"));
    QVERIFY(writePatternFile(path, 64 * 1024 * 1024, 21));
    Reports reports;
    auto operation = makeOperation(config(path, server.url()), &reports);
    m_queue.addOperation(operation);
    QTRY_VERIFY_WITH_TIMEOUT(server.bodyBytesReceived() >= 256 * 1024, kWaitMs);
    QTest::qWait(200);
    QVERIFY(QFile::resize(path, 20 * 1024 * 1024));
    server.resume();
    QVERIFY(settle(m_queue, operation, reports));
    QCOMPARE(reports.failureCode(), 200);
    QVERIFY2(reports.failures.first().localizedDescription().startsWith(QStringLiteral("File Load Error: ")),
             qPrintable(reports.failures.first().localizedDescription()));
    QVERIFY(!server.bodyComplete());
}

void TestUploadOperation::memoryStaysFlatForALargeFile()
{
    const QString path = m_dir.filePath(QStringLiteral("large.flac"));
    const qint64 size = qint64(512) * 1024 * 1024;
    QVERIFY(writePatternFile(path, size, 22));
    const qint64 idle = residentKiB();
    qint64 peak = idle;
    QTimer sampler;
    connect(&sampler, &QTimer::timeout, this, [&] { peak = std::max(peak, residentKiB()); });
    sampler.start(20);
    const Reports reports = upload(QStringLiteral("large.flac"), 0);
    sampler.stop();
    QFile::remove(path);
    QCOMPARE(reports.successes, 1);
    const qint64 growthMiB = (peak - idle) / 1024;
    qInfo("peak resident growth while sending %lld MiB: %lld MiB", size >> 20, growthMiB);
    QVERIFY2(growthMiB < 64, qPrintable(QString::number(growthMiB)));
}

QTEST_GUILESS_MAIN(TestUploadOperation)
#include "tst_uploadoperation.moc"
