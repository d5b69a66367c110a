// The upload operation against the local service and, for time-outs, stalls
// and the stuck guard, against a bare scripted server.

#include "app/logger.h"
#include "platform/operationqueue.h"
#include "upload/asyncuploadrequestoperation.h"
#include "uploadtestsupport.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
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
};

std::shared_ptr<AsyncUploadRequestOperation> makeOperation(const AsyncUploadRequestConfiguration &configuration,
                                                           Reports *reports,
                                                           const AsyncUploadRequestOperation::Timeouts &timeouts = {})
{
    auto operation = std::make_shared<AsyncUploadRequestOperation>(configuration, timeouts);
    auto onMain = [reports] {
        if (QThread::currentThread() != qApp->thread()) {
            reports->offMainThread = true;
        }
    };
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

// Waits for the one final report and the end of the operation, then a while
// longer for a second report that must not come.
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
    return reports.finals() > 0;
}

} // namespace

class TestUploadOperation : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();

    void uploadsTheFileAndReportsSuccessOnce();
    void progressStartsAtOnePercentAndNeverRepeatsAPercent();
    void serverErrorsCarryTheirMessageAndStatus();
    void droppedConnectionFailsOnceWithoutResending();
    void missingFileFailsWithoutARequest();
    void cancelledOperationsReportCancellationNeverSuccess();
    void retryWaitsBeforeItStarts();
    void timeOutAfterTheWholeBodyCountsAsSuccess();
    void timeOutBeforeTheWholeBodyFails();
    void stuckGuardEndsAnUnansweredUpload();
    void fileChangingSizeWhileSendingFails();
    void memoryStaysFlatForALargeFile();

private:
    QTemporaryDir m_dir;
    DevServerProcess m_server;
    Credentials m_credentials;
    OperationQueue m_queue;
};

void TestUploadOperation::initTestCase()
{
    QVERIFY(m_dir.isValid());
    Logger::log(QStringLiteral("tst_uploadoperation"));
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    m_credentials = signInDemo(m_server);
    QVERIFY(!m_credentials.userId.isEmpty());
    QVERIFY(!m_credentials.token.isEmpty());
}

void TestUploadOperation::cleanup()
{
    m_server.clearFaults();
}

void TestUploadOperation::uploadsTheFileAndReportsSuccessOnce()
{
    const QString path = m_dir.filePath(QStringLiteral("Good Song.mp3"));
    QVERIFY(writePatternFile(path, 3 * 1024 * 1024 + 17, 11));
    AsyncUploadRequestConfiguration config = uploadConfiguration(m_server.uploadUrl(), path, m_credentials);
    config.createPlaylistName = QStringLiteral("Trip");
    config.playlistOrder = QStringLiteral("4711");
    config.createTagName = QStringLiteral("tagged");

    LogWatch log;
    Reports reports;
    auto operation = makeOperation(config, &reports);
    QVERIFY(!operation->isExecuting());
    m_queue.addOperation(operation);
    QVERIFY(settle(m_queue, operation, reports));

    QCOMPARE(reports.successes, 1);
    QVERIFY(reports.failures.isEmpty());
    QVERIFY(!reports.offMainThread);
    QVERIFY(operation->isFinished());
    QVERIFY(!operation->isExecuting());
    QVERIFY(operation->didWriteHeader());
    QVERIFY(operation->didWriteFooter());
    QCOMPARE(operation->fileSize(), qint64(3 * 1024 * 1024 + 17));
    QVERIFY(operation->operationStartTime() > 0);
    QVERIFY(operation->lastKnownProgress() >= 100.0);

    // The service holds the same bytes and every field as sent.
    const QJsonArray files = m_server.library().value("files").toArray();
    QJsonObject stored;
    for (const QJsonValue &file : files) {
        if (file.toObject().value("file_name").toString() == QStringLiteral("Good Song.mp3")) {
            stored = file.toObject();
        }
    }
    QVERIFY2(!stored.isEmpty(), QJsonDocument(files).toJson().constData());
    QCOMPARE(stored.value("md5").toString().toLatin1(), md5OfFile(path));
    QCOMPARE(stored.value("file_path").toString(), path);
    QCOMPARE(stored.value("playlist_name").toString(), QStringLiteral("Trip"));
    QCOMPARE(stored.value("playlist_order").toVariant().toString(), QStringLiteral("4711"));
    QCOMPARE(stored.value("tag_name").toString(), QStringLiteral("tagged"));
    QCOMPARE(stored.value("content_type").toString(), QStringLiteral("audio/mpeg"));
    QCOMPARE(stored.value("user_agent").toString(), config.userAgent);

    const QStringList lines = log.linesOf(QStringLiteral("Good Song.mp3"));
    QCOMPARE(lines.first(), QStringLiteral("Task Started"));
    QCOMPARE(lines.last(),
             QStringLiteral("Response: StatusCode: 200, Result: True, Canceled: False, Message: File uploaded."));
    const QStringList pushLines{"Writing header", "Header written", "Writing footer", "Footer written"};
    qsizetype at = 0;
    for (const QString &line : pushLines) {
        const qsizetype found = lines.indexOf(line, at);
        QVERIFY2(found >= at, qPrintable(line));
        at = found;
    }
    QVERIFY(lines.contains(QRegularExpression(QStringLiteral("^ - Footer bytes written: \\d+$"))));
}

void TestUploadOperation::progressStartsAtOnePercentAndNeverRepeatsAPercent()
{
    const QString path = m_dir.filePath(QStringLiteral("progress.flac"));
    QVERIFY(writePatternFile(path, 20 * 1024 * 1024, 12));
    Reports reports;
    auto operation = makeOperation(uploadConfiguration(m_server.uploadUrl(), path, m_credentials), &reports);
    m_queue.addOperation(operation);
    QVERIFY(settle(m_queue, operation, reports));
    QCOMPARE(reports.successes, 1);

    QVERIFY(reports.progress.size() >= 10);
    QCOMPARE(int(reports.progress.first() * 100), 1);
    int last = 0;
    for (double fraction : reports.progress) {
        const int percent = int(fraction * 100);
        QVERIFY2(percent > last, qPrintable(QStringLiteral("%1 after %2").arg(percent).arg(last)));
        last = percent;
    }
    QCOMPARE(last, 100);
}

void TestUploadOperation::serverErrorsCarryTheirMessageAndStatus()
{
    const QString path = m_dir.filePath(QStringLiteral("refused.ogg"));
    QVERIFY(writePatternFile(path, 200000, 13));

    // A JSON answer: its message.
    QVERIFY(m_server.addFault({{"endpoint", "upload"}, {"status", 500}, {"message", "Disk full"}}));
    {
        LogWatch log;
        Reports reports;
        auto operation = makeOperation(uploadConfiguration(m_server.uploadUrl(), path, m_credentials), &reports);
        m_queue.addOperation(operation);
        QVERIFY(settle(m_queue, operation, reports));
        QCOMPARE(reports.successes, 0);
        QCOMPARE(reports.failures.size(), 1);
        QCOMPARE(reports.failures.first().code(), 500);
        QCOMPARE(reports.failures.first().localizedDescription(), QStringLiteral("Disk full"));
        QVERIFY(log.linesOf(QStringLiteral("refused.ogg"))
                    .contains(QStringLiteral(
                        "Response: StatusCode: 500, Result: False, Canceled: False, Message: Disk full")));
    }
    // Not JSON: the reason phrase.
    QVERIFY(
        m_server.addFault({{"endpoint", "upload"}, {"status", 503}, {"body", "down"}, {"content_type", "text/plain"}}));
    {
        Reports reports;
        auto operation = makeOperation(uploadConfiguration(m_server.uploadUrl(), path, m_credentials), &reports);
        m_queue.addOperation(operation);
        QVERIFY(settle(m_queue, operation, reports));
        QCOMPARE(reports.failures.size(), 1);
        QCOMPARE(reports.failures.first().code(), 503);
        QCOMPARE(reports.failures.first().localizedDescription(), QStringLiteral("Service Unavailable"));
    }
    // A 200 whose JSON says something else is still a success, with its message.
    QVERIFY(m_server.addFault({{"endpoint", "upload"}, {"body", R"({"result": false, "message": "Hmm"})"}}));
    {
        LogWatch log;
        Reports reports;
        auto operation = makeOperation(uploadConfiguration(m_server.uploadUrl(), path, m_credentials), &reports);
        m_queue.addOperation(operation);
        QVERIFY(settle(m_queue, operation, reports));
        QCOMPARE(reports.successes, 1);
        QVERIFY(
            log.linesOf(QStringLiteral("refused.ogg"))
                .contains(QStringLiteral("Response: StatusCode: 200, Result: True, Canceled: False, Message: Hmm")));
    }
}

void TestUploadOperation::droppedConnectionFailsOnceWithoutResending()
{
    const QString path = m_dir.filePath(QStringLiteral("dropped.wav"));
    QVERIFY(writePatternFile(path, 4 * 1024 * 1024, 14));
    const int uploadsBefore = m_server.requestCounts().value("upload").toInt();
    QVERIFY(m_server.addFault({{"endpoint", "upload"}, {"drop_after_bytes", 300000}, {"count", 0}}));
    LogWatch log;
    Reports reports;
    auto operation = makeOperation(uploadConfiguration(m_server.uploadUrl(), path, m_credentials), &reports);
    m_queue.addOperation(operation);
    QVERIFY(settle(m_queue, operation, reports));
    QCOMPARE(reports.successes, 0);
    QCOMPARE(reports.failures.size(), 1);
    // A lost connection, which the session retries.
    QCOMPARE(reports.failures.first().code(), -1005);
    QCOMPARE(reports.failures.first().localizedDescription(), QStringLiteral("The network connection was lost."));
    QVERIFY(!operation->didWriteFooter());
    QVERIFY(operation->lastKnownProgress() < 100.0);
    // The body went out once: the service saw one upload request.
    QCOMPARE(m_server.requestCounts().value("upload").toInt() - uploadsBefore, 1);
    QVERIFY(log.linesOf(QStringLiteral("dropped.wav"))
                .contains(QRegularExpression(QStringLiteral("^Response: StatusCode: 0, Result: False, Canceled: False, "
                                                            "Message: The network connection was lost\\.$"))));
}

void TestUploadOperation::missingFileFailsWithoutARequest()
{
    const QString path = m_dir.filePath(QStringLiteral("gone.mp3"));
    QVERIFY(writePatternFile(path, 1000));
    Reports reports;
    auto operation = makeOperation(uploadConfiguration(m_server.uploadUrl(), path, m_credentials), &reports);
    QVERIFY(QFile::remove(path));
    const int uploadsBefore = m_server.requestCounts().value("upload").toInt();
    LogWatch log;
    m_queue.addOperation(operation);
    QVERIFY(settle(m_queue, operation, reports));
    QCOMPARE(reports.failures.size(), 1);
    QCOMPARE(reports.successes, 0);
    QCOMPARE(reports.failures.first().code(), 200);
    QCOMPARE(reports.failures.first().localizedDescription(), QStringLiteral("File does not exist"));
    QCOMPARE(m_server.requestCounts().value("upload").toInt(), uploadsBefore);
    QCOMPARE(log.linesOf(QStringLiteral("gone.mp3")), QStringList{QStringLiteral("Task Started")});
    QVERIFY(operation->isFinished());
}

void TestUploadOperation::cancelledOperationsReportCancellationNeverSuccess()
{
    const QString path = m_dir.filePath(QStringLiteral("cancel.mp3"));
    QVERIFY(writePatternFile(path, 50 * 1024 * 1024, 15));

    // Before it starts: cancelled, without a request.
    {
        OperationQueue queue;
        queue.setSuspended(true);
        Reports reports;
        auto operation = makeOperation(uploadConfiguration(m_server.uploadUrl(), path, m_credentials), &reports);
        queue.addOperation(operation);
        queue.cancelAllOperations();
        queue.setSuspended(false);
        QVERIFY(settle(queue, operation, reports));
        QCOMPARE(reports.successes, 0);
        QCOMPARE(reports.failures.size(), 1);
        QCOMPARE(reports.failures.first().code(), -999);
        QVERIFY(!reports.failures.first().hasUserInfo());
    }
    // While the body goes out (the server stops reading part-way).
    {
        ScriptedHttpServer server;
        QVERIFY(server.listen());
        server.mode = ScriptedHttpServer::Mode::StallAfter;
        server.stallAfterBytes = 1024 * 1024;
        LogWatch log;
        Reports reports;
        auto operation = makeOperation(uploadConfiguration(server.url(), path, m_credentials), &reports);
        m_queue.addOperation(operation);
        QTRY_VERIFY_WITH_TIMEOUT(server.bodyBytesReceived() >= 1024 * 1024, kWaitMs);
        QVERIFY(operation->isExecuting());
        operation->cancel();
        QVERIFY(settle(m_queue, operation, reports));
        QCOMPARE(reports.successes, 0);
        QCOMPARE(reports.failures.size(), 1);
        QCOMPARE(reports.failures.first().code(), -999);
        QVERIFY(operation->isCancelled());
        QVERIFY(log.linesOf(QStringLiteral("cancel.mp3"))
                    .contains(
                        QStringLiteral("Response: StatusCode: 0, Result: False, Canceled: True, Message: cancelled")));
    }
    // While waiting for the answer: a cancel still wins over a late success.
    {
        ScriptedHttpServer server;
        QVERIFY(server.listen());
        server.mode = ScriptedHttpServer::Mode::Silent;
        const QString small = m_dir.filePath(QStringLiteral("cancel-small.mp3"));
        QVERIFY(writePatternFile(small, 100000, 16));
        Reports reports;
        auto operation = makeOperation(uploadConfiguration(server.url(), small, m_credentials), &reports);
        m_queue.addOperation(operation);
        QTRY_VERIFY_WITH_TIMEOUT(server.bodyComplete(), kWaitMs);
        QTRY_VERIFY_WITH_TIMEOUT(operation->didWriteFooter(), kWaitMs);
        operation->cancel();
        server.resume();
        QVERIFY(settle(m_queue, operation, reports));
        QCOMPARE(reports.successes, 0);
        QCOMPARE(reports.failures.size(), 1);
        QCOMPARE(reports.failures.first().code(), -999);
    }
}

void TestUploadOperation::retryWaitsBeforeItStarts()
{
    const QString path = m_dir.filePath(QStringLiteral("retry.mp3"));
    QVERIFY(writePatternFile(path, 10000, 17));
    AsyncUploadRequestConfiguration config = uploadConfiguration(m_server.uploadUrl(), path, m_credentials);
    config.isRetry = true;

    // The real wait: five seconds between "Task Started" and the request.
    {
        LogWatch log;
        Reports reports;
        auto operation = makeOperation(config, &reports);
        QElapsedTimer timer;
        timer.start();
        m_queue.addOperation(operation);
        QVERIFY(settle(m_queue, operation, reports));
        QCOMPARE(reports.successes, 1);
        QVERIFY2(timer.elapsed() >= 5000, qPrintable(QString::number(timer.elapsed())));
        const QStringList lines = log.linesOf(QStringLiteral("retry.mp3"));
        QCOMPARE(lines.mid(0, 3), (QStringList{"Task Started", "Waiting 5 seconds to retry...", "Retrying"}));
    }
    // A cancel during the wait ends it at once.
    {
        Reports reports;
        auto operation = makeOperation(config, &reports);
        const int uploadsBefore = m_server.requestCounts().value("upload").toInt();
        QElapsedTimer timer;
        timer.start();
        m_queue.addOperation(operation);
        QTRY_VERIFY_WITH_TIMEOUT(operation->isExecuting(), kWaitMs);
        operation->cancel();
        QVERIFY(settle(m_queue, operation, reports));
        QVERIFY(timer.elapsed() < 4500);
        QCOMPARE(reports.failures.size(), 1);
        QCOMPARE(reports.failures.first().code(), -999);
        QCOMPARE(m_server.requestCounts().value("upload").toInt(), uploadsBefore);
    }
}

void TestUploadOperation::timeOutAfterTheWholeBodyCountsAsSuccess()
{
    ScriptedHttpServer server;
    QVERIFY(server.listen());
    server.mode = ScriptedHttpServer::Mode::Silent;
    const QString path = m_dir.filePath(QStringLiteral("silent.mp3"));
    QVERIFY(writePatternFile(path, 300000, 18));
    AsyncUploadRequestOperation::Timeouts timeouts;
    timeouts.requestTimeoutMs = 1500;
    LogWatch log;
    Reports reports;
    auto operation = makeOperation(uploadConfiguration(server.url(), path, m_credentials), &reports, timeouts);
    m_queue.addOperation(operation);
    QVERIFY(settle(m_queue, operation, reports));
    QVERIFY(server.bodyComplete());
    QCOMPARE(reports.successes, 1);
    QVERIFY(reports.failures.isEmpty());
    QVERIFY(
        log.linesOf(QStringLiteral("silent.mp3"))
            .contains(QStringLiteral("Response: StatusCode: 200, Result: True, Canceled: False, Message: Timed out, "
                                     "but progress == 100%; assuming success")));
}

void TestUploadOperation::timeOutBeforeTheWholeBodyFails()
{
    ScriptedHttpServer server;
    QVERIFY(server.listen());
    server.mode = ScriptedHttpServer::Mode::StallAfter;
    server.stallAfterBytes = 512 * 1024;
    const QString path = m_dir.filePath(QStringLiteral("stalled.mp3"));
    QVERIFY(writePatternFile(path, 64 * 1024 * 1024, 19));
    AsyncUploadRequestOperation::Timeouts timeouts;
    timeouts.requestTimeoutMs = 1500;
    Reports reports;
    auto operation = makeOperation(uploadConfiguration(server.url(), path, m_credentials), &reports, timeouts);
    m_queue.addOperation(operation);
    QVERIFY(settle(m_queue, operation, reports));
    QCOMPARE(reports.successes, 0);
    QCOMPARE(reports.failures.size(), 1);
    QCOMPARE(reports.failures.first().code(), -1001);
    QCOMPARE(reports.failures.first().localizedDescription(), QStringLiteral("The operation timed out."));
    QVERIFY(operation->lastKnownProgress() < 100.0);
}

void TestUploadOperation::stuckGuardEndsAnUnansweredUpload()
{
    ScriptedHttpServer server;
    QVERIFY(server.listen());
    server.mode = ScriptedHttpServer::Mode::Silent;
    const QString path = m_dir.filePath(QStringLiteral("stuck.mp3"));
    QVERIFY(writePatternFile(path, 300000, 20));
    AsyncUploadRequestOperation::Timeouts timeouts;
    timeouts.stuckGuardMs = 1500;
    LogWatch log;
    Reports reports;
    QElapsedTimer timer;
    timer.start();
    auto operation = makeOperation(uploadConfiguration(server.url(), path, m_credentials), &reports, timeouts);
    m_queue.addOperation(operation);
    QVERIFY(settle(m_queue, operation, reports));
    QVERIFY(timer.elapsed() >= 1500);
    QCOMPARE(reports.successes, 0);
    QCOMPARE(reports.failures.size(), 1);
    QCOMPARE(reports.failures.first().code(), -1001);
    QCOMPARE(reports.failures.first().localizedDescription(), QStringLiteral("The operation timed out."));
    const QStringList lines = log.linesOf(QStringLiteral("stuck.mp3"));
    QVERIFY(lines.contains(QStringLiteral("Stuck runloop state detected. Forcing operation to end.")));
    QVERIFY(lines.indexOf(QStringLiteral("Footer written")) <
            lines.indexOf(QStringLiteral("Stuck runloop state detected. Forcing operation to end.")));
}

void TestUploadOperation::fileChangingSizeWhileSendingFails()
{
    for (const bool shrink : {true, false}) {
        ScriptedHttpServer server;
        QVERIFY(server.listen());
        server.mode = ScriptedHttpServer::Mode::StallAfter;
        server.stallAfterBytes = 256 * 1024;
        const QString path = m_dir.filePath(shrink ? QStringLiteral("shrinks.mp3") : QStringLiteral("grows.mp3"));
        QVERIFY(writePatternFile(path, 64 * 1024 * 1024, 21));
        Reports reports;
        auto operation = makeOperation(uploadConfiguration(server.url(), path, m_credentials), &reports);
        m_queue.addOperation(operation);
        QTRY_VERIFY_WITH_TIMEOUT(server.bodyBytesReceived() >= 256 * 1024, kWaitMs);
        QTest::qWait(200);
        if (shrink) {
            QVERIFY(QFile::resize(path, 20 * 1024 * 1024));
        } else {
            QFile file(path);
            QVERIFY(file.open(QIODevice::Append));
            QVERIFY(file.write(QByteArray(1000, 'x')) == 1000);
        }
        server.resume();
        QVERIFY(settle(m_queue, operation, reports));
        QCOMPARE(reports.successes, 0);
        QCOMPARE(reports.failures.size(), 1);
        QCOMPARE(reports.failures.first().code(), 200);
        QVERIFY2(reports.failures.first().localizedDescription().startsWith(QStringLiteral("File Load Error: ")),
                 qPrintable(reports.failures.first().localizedDescription()));
        QVERIFY(!server.bodyComplete());
    }
}

void TestUploadOperation::memoryStaysFlatForALargeFile()
{
    const QString path = m_dir.filePath(QStringLiteral("large.flac"));
    const qint64 size = qint64(768) * 1024 * 1024;
    QVERIFY(writePatternFile(path, size, 22));
    const qint64 idle = residentKiB();
    qint64 peak = idle;
    QTimer sampler;
    connect(&sampler, &QTimer::timeout, this, [&] { peak = std::max(peak, residentKiB()); });
    sampler.start(20);
    Reports reports;
    auto operation = makeOperation(uploadConfiguration(m_server.uploadUrl(), path, m_credentials), &reports);
    m_queue.addOperation(operation);
    QVERIFY(settle(m_queue, operation, reports, 600000));
    sampler.stop();
    QCOMPARE(reports.successes, 1);
    QFile::remove(path);
    const qint64 growthMiB = (peak - idle) / 1024;
    qInfo("peak resident growth while sending %lld MiB: %lld MiB", size >> 20, growthMiB);
    QVERIFY2(growthMiB < 64, qPrintable(QString::number(growthMiB)));
}

QTEST_GUILESS_MAIN(TestUploadOperation)
#include "tst_uploadoperation.moc"
