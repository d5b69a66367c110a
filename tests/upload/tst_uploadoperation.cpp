// The upload operation against the local service: the bytes, progress and log of a whole
// upload, every way it can fail, cancels, retries and the guards against a silent service;
// then the service client's dispatch: the configuration it fills, playlist positions, the
// delegate's reports and stopping everything in the middle.
#include "service/lyraboxservice.h"
#include "uploadtestsupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <cerrno>
#include <cstring>

namespace {

constexpr int kWaitMs = 60000;

// A service client signed in as the demo account, its delegate recording what it hears.
class Client : public LyraboxServiceDelegate
{
public:
    explicit Client(const Credentials &credentials)
    {
        service.setUserId(credentials.userId);
        service.setUserToken(credentials.token);
        service.setDelegate(this);
    }
    LyraboxService service;
    QList<std::pair<QString, OptionalError>> finishes;
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
        progress[filePath].append(percent);
    }
};

} // namespace

class TestUploadOperation : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    DevServerProcess m_server;
    Credentials m_credentials;
    OperationQueue m_queue;

    int uploadRequests() const { return m_server.requestCounts().value("upload").toInt(); }
    QJsonObject storedFile(const QString &fileName) const
    {
        QJsonObject found;
        for (const QJsonValue &file : m_server.library().value("files").toArray()) {
            if (file.toObject().value("file_name").toString() == fileName) {
                found = file.toObject(); // the latest
            }
        }
        return found;
    }

    // Writes `name` with `size` bytes (unless 0), uploads it and waits for exactly one
    // final report, or the case fails.
    UploadReports upload(const QString &name, qint64 size, const AsyncUploadRequestOperation::Timeouts &timeouts = {},
                         std::shared_ptr<AsyncUploadRequestOperation> *keep = nullptr, bool isRetry = false)
    {
        const QString path = m_dir.filePath(name);
        if (size > 0 && !writePatternFile(path, size, quint32(size))) {
            QTest::qFail(qPrintable(QStringLiteral("cannot write ") + path), __FILE__, __LINE__);
        }
        AsyncUploadRequestConfiguration c = uploadConfiguration(m_server.uploadUrl(), path, m_credentials);
        c.isRetry = isRetry;
        UploadReports reports;
        auto operation = makeReportingOperation(c, &reports, timeouts);
        m_queue.addOperation(operation);
        if (!settle(m_queue, operation, reports)) {
            QTest::qFail(qPrintable(QStringLiteral("%1: %2 final reports").arg(name).arg(reports.finals())), __FILE__,
                         __LINE__);
        }
        if (keep) {
            *keep = operation;
        }
        return reports;
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
        m_credentials = m_server.signInDemo();
        QVERIFY(!m_credentials.token.isEmpty());
    }

    void cleanup() { QVERIFY(m_server.clearFaults()); }

    void uploadsTheFileWithProgressAndOneSuccess()
    {
        LogWatch log;
        std::shared_ptr<AsyncUploadRequestOperation> operation;
        const UploadReports reports = upload(QStringLiteral("Good Song.mp3"), 20 * 1024 * 1024 + 17, {}, &operation);
        QCOMPARE(reports.successes, 1);
        QVERIFY(!reports.offMainThread);
        QVERIFY(operation->isFinished() && !operation->isExecuting() && operation->didWriteFooter());

        // Once per whole percent of the whole body, the first at 1%, the last at 100%.
        QVERIFY(reports.progress.size() >= 10);
        QCOMPARE(int(reports.progress.first() * 100), 1);
        for (qsizetype i = 1; i < reports.progress.size(); ++i) {
            QVERIFY(int(reports.progress[i] * 100) > int(reports.progress[i - 1] * 100));
        }
        QCOMPARE(reports.progress.last(), 1.0);
        QCOMPARE(operation->lastKnownProgress(), 100.0);

        // The service holds the same bytes.
        const QJsonObject stored = storedFile(QStringLiteral("Good Song.mp3"));
        QCOMPARE(stored.value("md5").toString().toLatin1(), md5OfFile(m_dir.filePath(QStringLiteral("Good Song.mp3"))));
        QCOMPARE(stored.value("content_type").toString(), QStringLiteral("audio/mpeg"));

        const QStringList lines = log.linesOf(QStringLiteral("Good Song.mp3"));
        QCOMPARE(lines.first(), QStringLiteral("Task Started"));
        QCOMPARE(lines.last(),
                 QStringLiteral("Response: StatusCode: 200, Result: True, Canceled: False, Message: File uploaded."));
        QVERIFY(lines.indexOf(QStringLiteral("Header written")) < lines.indexOf(QStringLiteral("Footer written")));
    }

    void failuresAreReportedOnce_data()
    {
        QTest::addColumn<QJsonObject>("fault");
        QTest::addColumn<int>("size"); // 0: no file
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("message");
        QTest::addColumn<QString>("logged"); // after "Response: "
        QTest::newRow("server error") << QJsonObject{{"endpoint", "upload"}, {"status", 500}, {"message", "Disk full"}}
                                      << 200000 << 500 << "Disk full"
                                      << "StatusCode: 500, Result: False, Canceled: False, Message: Disk full";
        QTest::newRow("connection dropped")
            << QJsonObject{{"endpoint", "upload"}, {"drop_after_bytes", 100000}} << 300000 << -1005
            << "The network connection was lost."
            << "StatusCode: 0, Result: False, Canceled: False, Message: The network connection was lost.";
        QTest::newRow("missing file") << QJsonObject() << 0 << 200 << "File does not exist"
                                      << "";
        // A file that is there but cannot be reached is not "missing".
        QTest::newRow("symbolic link loop")
            << QJsonObject() << -1 << ELOOP << QString::fromLocal8Bit(strerror(ELOOP)) << "";
    }

    void failuresAreReportedOnce()
    {
        QFETCH(QJsonObject, fault);
        QFETCH(int, size);
        QFETCH(QString, logged);
        if (!fault.isEmpty()) {
            QVERIFY(m_server.addFault(fault));
        }
        const QString name = QStringLiteral("%1.ogg").arg(QTest::currentDataTag());
        if (size < 0) {
            QVERIFY(QFile::link(m_dir.filePath(name), m_dir.filePath(name)));
        }
        const int before = uploadRequests();
        LogWatch log;
        const UploadReports reports = upload(name, size);
        QTEST(reports.failureCode(), "code");
        QTEST(reports.failures.first().localizedDescription(), "message");
        QCOMPARE(uploadRequests() - before, size > 0 ? 1 : 0);
        const QStringList lines = log.linesOf(name);
        QCOMPARE(lines.last(),
                 logged.isEmpty() ? QStringLiteral("Task Started") : QStringLiteral("Response: ") + logged);
    }

    void cancelledOperationsNeverSucceed()
    {
        const QString path = m_dir.filePath(QStringLiteral("cancel.mp3"));
        QVERIFY(writePatternFile(path, 100000, 15));
        const AsyncUploadRequestConfiguration c = uploadConfiguration(m_server.uploadUrl(), path, m_credentials);
        {
            // Before it starts: cancelled, without a request.
            OperationQueue queue;
            queue.setSuspended(true);
            UploadReports reports;
            auto operation = makeReportingOperation(c, &reports);
            queue.addOperation(operation);
            queue.cancelAllOperations();
            queue.setSuspended(false);
            QVERIFY(settle(queue, operation, reports));
            QCOMPARE(reports.failureCode(), -999);
            QCOMPARE(reports.failures.first().localizedDescription(),
                     QStringLiteral("The operation couldn’t be completed. (com.lyrabox.pelicane error -999.)"));
        }
        // While waiting for the answer, the whole body sent: a cancel wins over the success
        // that would come.
        QVERIFY(m_server.addFault({{"endpoint", "upload"}, {"latency_ms", 3000}}));
        UploadReports reports;
        auto operation = makeReportingOperation(c, &reports);
        m_queue.addOperation(operation);
        QTRY_VERIFY_WITH_TIMEOUT(operation->lastKnownProgress() >= 100.0 && operation->didWriteFooter(), kWaitMs);
        operation->cancel();
        QVERIFY(settle(m_queue, operation, reports));
        QCOMPARE(reports.failureCode(), -999);
    }

    void retryWaitsBeforeItStarts()
    {
        LogWatch log;
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(upload(QStringLiteral("retry.mp3"), 10000, {}, nullptr, true).successes, 1);
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
        QVERIFY(m_server.addFault({{"endpoint", "upload"}, {"latency_ms", 8000}}));
        AsyncUploadRequestOperation::Timeouts timeouts;
        (stuckGuard ? timeouts.stuckGuardMs : timeouts.requestTimeoutMs) = 1500;
        LogWatch log;
        QElapsedTimer timer;
        timer.start();
        std::shared_ptr<AsyncUploadRequestOperation> operation;
        const UploadReports reports = upload(QStringLiteral("unanswered.mp3"), 300000, timeouts, &operation);
        QVERIFY(timer.elapsed() >= 1500 && timer.elapsed() < 7000);
        QCOMPARE(reports.successes == 1 ? 0 : reports.failureCode(), code);
        if (code != 0) {
            QCOMPARE(reports.failures.first().localizedDescription(), QStringLiteral("The operation timed out."));
        }
        QVERIFY(operation->lastKnownProgress() >= 100.0);
        // The guard starts once the footer is out.
        const QStringList lines = log.linesOf(QStringLiteral("unanswered.mp3"));
        const qsizetype footer = lines.indexOf(QStringLiteral("Footer written"));
        QVERIFY2(footer >= 0 && footer < lines.indexOf(logged), qPrintable(lines.join(u'\n')));
    }

    void dispatchFillsTheConfigurationAndReportsToTheDelegate()
    {
        Client client(m_credentials);
        LyraboxService &service = client.service;
        const QString first = m_dir.filePath(QStringLiteral("first.mp3"));
        const QString second = m_dir.filePath(QStringLiteral("second.mp3"));
        QVERIFY(writePatternFile(first, 1000, 32) && writePatternFile(second, 2 * 1024 * 1024, 33));
        service.fileLoadOperationQueue()->setSuspended(true);

        // A position per file while a playlist is named, and a retry keeps its position.
        service.setCreateTagName(QStringLiteral("Tagged"));
        service.setCreatePlaylistName(QStringLiteral("Trip"));
        LogWatch log;
        service.uploadFile(first);
        service.uploadFile(second);
        service.uploadFile(first, std::nullopt, true);
        QCOMPARE(service.playlistOrderIndex(), 2u);
        const QString firstPosition = service.playlistOrder().value(first);
        const QString secondPosition = service.playlistOrder().value(second);
        QVERIFY(secondPosition.toULongLong() > firstPosition.toULongLong());
        QList<AsyncUploadRequestConfiguration> configs;
        for (const OperationPtr &operation : service.fileLoadOperationQueue()->operations()) {
            configs << std::dynamic_pointer_cast<AsyncUploadRequestOperation>(operation)->config();
        }
        QCOMPARE(configs.at(1).playlistOrder, secondPosition);
        QCOMPARE(configs.at(2).playlistOrder, firstPosition);
        QVERIFY(configs.at(2).isRetry && !configs.at(1).isRetry);

        service.fileLoadOperationQueue()->setSuspended(false);
        QTRY_COMPARE_WITH_TIMEOUT(client.finishes.size(), 3, kWaitMs);
        QVERIFY(!client.offMainThread);
        for (const auto &[path, error] : std::as_const(client.finishes)) {
            QVERIFY2(!error, qPrintable(path));
        }
        QVERIFY(client.progress.value(second).endsWith(100));
        const QJsonObject stored = storedFile(QStringLiteral("second.mp3"));
        QCOMPARE(stored.value("playlist_order").toVariant().toString(), secondPosition);
        QCOMPARE(stored.value("tag_name").toString(), QStringLiteral("Tagged"));

        // Failures reach it with their code, and the log says how far the upload got.
        QVERIFY(m_server.addFault({{"endpoint", "upload"}, {"status", 500}, {"message", "Broken"}}));
        service.uploadFile(first);
        QTRY_COMPARE_WITH_TIMEOUT(client.finishes.size(), 4, kWaitMs);
        QCOMPARE(client.finishes.last().second.value_or(Error::errorWithMessage()).code(), 500);
        QVERIFY(
            log.lines().contains(QRegularExpression(QStringLiteral("^first\\.mp3 - errored \\(\\d+\\.\\d{6}\\)$"))));
    }

    void stopUploadsCancelsEverythingInTheMiddle()
    {
        Client client(m_credentials);
        LyraboxService &service = client.service;
        // Every upload body is sent and then waits for its answer.
        QVERIFY(m_server.addFault({{"endpoint", "upload"}, {"latency_ms", 8000}, {"count", 0}}));
        QStringList paths;
        for (int i = 0; i < 3; ++i) {
            paths << m_dir.filePath(QStringLiteral("queued-%1.mp3").arg(i));
            QVERIFY(writePatternFile(paths.last(), 50000, quint32(40 + i)));
            service.uploadFile(paths.last());
        }
        QTRY_VERIFY_WITH_TIMEOUT(client.progress.value(paths.last()).value(0) > 0, kWaitMs);
        QCOMPARE(service.uploadProgresses().size(), 3);
        service.stopUploads();
        QTRY_COMPARE_WITH_TIMEOUT(client.finishes.size(), 3, kWaitMs);
        QTest::qWait(300);
        QCOMPARE(client.finishes.size(), 3);
        for (const auto &[path, error] : std::as_const(client.finishes)) {
            QVERIFY2(error && error->code() == -999, qPrintable(path));
        }
        QVERIFY(service.uploadProgresses().isEmpty());
        QTRY_COMPARE(service.fileLoadOperationQueue()->operationCount(), 0);
    }
};

QTEST_GUILESS_MAIN(TestUploadOperation)
#include "tst_uploadoperation.moc"
