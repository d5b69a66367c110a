// The segment request against the local service, run on an operation queue as the model runs
// it: its query, the end-marker check, its single outcome and its cancellation.
#include "librarytestsupport.h"

#include "core/appinfo.h"
#include "library/downloadlibraryoperation.h"
#include "protocol/endpoints.h"

#include <QDir>
#include <QElapsedTimer>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

namespace {

constexpr int kTimeout = 60000;

// Answers one request with a fixed answer and keeps the request's head.
class RecordingServer : public QObject
{
public:
    explicit RecordingServer(QByteArray answer) : m_answer(std::move(answer))
    {
        m_server.listen(QHostAddress::LocalHost);
        connect(&m_server, &QTcpServer::newConnection, this, [this] {
            QTcpSocket *socket = m_server.nextPendingConnection();
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] {
                m_request += socket->readAll();
                if (m_request.contains("\r\n\r\n")) {
                    socket->write(m_answer);
                    socket->disconnectFromHost();
                }
            });
        });
        qputenv("PELICANE_DOWNLOAD_URL", url().toUtf8());
    }
    QString url() const { return QStringLiteral("http://127.0.0.1:%1/library").arg(m_server.serverPort()); }
    QByteArray requestLine() const { return m_request.left(m_request.indexOf("\r\n")); }

private:
    QTcpServer m_server;
    QByteArray m_answer;
    QByteArray m_request;
};

// Written on the queue's thread, read once the operation has finished.
struct Outcome
{
    int completions = 0;
    qint64 lastBytes = 0;
};

using OperationRef = std::shared_ptr<DownloadLibraryOperation>;

} // namespace

class TestLibraryTransfer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup() { QVERIFY(m_server.clearFaults()); }
    void headerRequest();
    void failuresAreReportedOnce_data();
    void failuresAreReportedOnce();
    void cancelAndDestroy();

private:
    // Queues a chunk of 50 tracks from `offset` into `folder`, reporting into `outcome`.
    OperationRef startChunk(OperationQueue &queue, Outcome &outcome, const QString &folder, qint64 offset = 0,
                            const QString &token = QString());

    DevServerProcess m_server;
    LibraryTest::Identity m_identity;
};

void TestLibraryTransfer::initTestCase()
{
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    m_identity = m_server.signInDemo();
    QVERIFY(!m_identity.token.isEmpty());
    QCOMPARE(LibraryTest::seedTracks(m_server, 60, 20000).size(), 60);
}

OperationRef TestLibraryTransfer::startChunk(OperationQueue &queue, Outcome &outcome, const QString &folder,
                                             qint64 offset, const QString &token)
{
    auto chunk = std::make_shared<DownloadLibraryOperation>();
    chunk->setCompletionHandler([&outcome] { ++outcome.completions; });
    chunk->setProgress([&outcome](DownloadLibraryOperation *, qint64 bytes, qint64) { outcome.lastBytes = bytes; });
    chunk->setUserId(m_identity.userId);
    chunk->setToken(token.isNull() ? m_identity.token : token);
    chunk->setOffset(offset);
    chunk->setLength(50);
    chunk->setDownloadToURL(QUrl::fromLocalFile(folder));
    queue.addOperation(chunk);
    return chunk;
}

void TestLibraryTransfer::headerRequest()
{
    std::optional<qint64> count;
    const auto run = [&](const QString &token) {
        OperationQueue queue;
        auto operation = std::make_shared<DownloadLibraryOperation>();
        operation->setUserId(QStringLiteral("1001"));
        operation->setToken(token);
        operation->setOffset(0);
        operation->setLength(0);
        operation->setHeaderRequest(true);
        queue.addOperation(operation);
        QTRY_VERIFY_WITH_TIMEOUT(operation->isFinished(), kTimeout);
        count = operation->trackCount();
        qputenv("PELICANE_DOWNLOAD_URL", m_server.downloadUrl().toUtf8());
    };
    RecordingServer counted("HTTP/1.1 200 OK\r\nTotal-Tracks: 120\r\nContent-Length: 0\r\n\r\n");
    run(QStringLiteral("abc+def/="));
    QCOMPARE(count, std::optional<qint64>(120));
    const QString s = AppInfo::shortVersion();
    const QString b = AppInfo::buildNumber();
    // The client's blank is encoded twice inside the user agent; "(", ")" stay as they are;
    // user id, token and version go in unencoded.
    const QString wholeLibraryQuery = QStringLiteral("_user_id=1001&_token=abc+def/=&client=pelicane%20mac"
                                                     "&device_name=Pelicane%20for%20Mac%20") +
                                      s + QStringLiteral("&user_agent=Lyrabox%20pelicane%2520mac%20") + s +
                                      QStringLiteral("%20(") + b + QStringLiteral(")&version=") + s +
                                      QStringLiteral("&mode=downloadlibrary&container_type=library");
    QCOMPARE(QString::fromLatin1(counted.requestLine()),
             QStringLiteral("GET /library?") + wholeLibraryQuery +
                 QStringLiteral("&offset=0&length=0&end_marker=1 HTTP/1.1"));
    QVERIFY(LibraryTest::logText().contains(QStringLiteral("DownloadLibrary(0, 0, header)")));
    // The service's single-request download asks the same without a segment.
    QCOMPARE(
        Endpoints::libraryDownloadURL(QStringLiteral("1001"), QStringLiteral("abc+def/=")).query(QUrl::FullyEncoded),
        wholeLibraryQuery);
}

void TestLibraryTransfer::failuresAreReportedOnce_data()
{
    QTest::addColumn<QJsonObject>("fault");
    QTest::addColumn<QString>("token");
    QTest::addColumn<QString>("message");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("logged");
    const QJsonObject segment{{"endpoint", "segment"}};
    auto with = [&](const char *key, const QJsonValue &value) {
        QJsonObject fault = segment;
        fault.insert(QLatin1String(key), value);
        return fault;
    };
    QTest::newRow("status 500")
        << with("status", 500) << QString() << "Internal Server Error (500)" << 0
        << "StatusCode: 500, Result: True, Canceled: False, Message: Internal Server Error (500)";
    QTest::newRow("bad token") << QJsonObject() << "wrong"
                               << "Unauthorized (401)" << 0 << "StatusCode: 401, Result: True";
    QTest::newRow("no end marker") << with("omit_end_marker", true) << QString() << "Incomplete download." << 0
                                   << "StatusCode: 200, Result: True, Canceled: False, Message: Incomplete download.";
    QTest::newRow("connection dropped") << with("drop_after_bytes", 30000) << QString()
                                        << "The network connection was lost." << -1005
                                        << "StatusCode: 0, Result: False, Canceled: False";
}

void TestLibraryTransfer::failuresAreReportedOnce()
{
    QFETCH(QJsonObject, fault);
    QFETCH(QString, token);
    QFETCH(QString, message);
    QFETCH(int, code);
    QFETCH(QString, logged);
    if (!fault.isEmpty()) {
        QVERIFY(m_server.addFault(fault));
    }
    QTemporaryDir folder;
    OperationQueue queue;
    Outcome outcome;
    const OperationRef chunk = startChunk(queue, outcome, folder.path(), 0, token);
    QTRY_VERIFY_WITH_TIMEOUT(chunk->isFinished(), kTimeout);

    QCOMPARE(outcome.completions, 1);
    const OptionalError error = chunk->error();
    QVERIFY(error);
    QCOMPARE(error->localizedDescription(), message);
    QCOMPARE(error->code(), code);
    // An answer is kept for the caller; a broken transfer leaves no partial file behind.
    const bool answered = code == 0;
    QCOMPARE(chunk->downloadedFileURL().has_value(), answered);
    QCOMPARE(LibraryTest::filesUnder(folder.path()),
             answered ? QStringList{QStringLiteral(".temp-0.zip")} : QStringList());
    QVERIFY2(LibraryTest::logText().contains(logged), qPrintable(logged));
}

void TestLibraryTransfer::cancelAndDestroy()
{
    QVERIFY(m_server.addFault(QJsonObject{{"endpoint", "segment"}, {"latency_ms", 2000}, {"count", 2}}));
    QTemporaryDir folder;
    {
        // Cancelled (twice) while the slow answer is on its way: it ends at once, with one
        // report, -999. The chunk waiting behind it, cancelled too, ends without a request.
        const qint64 segmentsBefore = m_server.requestCounts().value("segment").toInteger();
        OperationQueue queue;
        queue.setMaxConcurrentOperationCount(1);
        Outcome outcome;
        Outcome waitingOutcome;
        const OperationRef chunk = startChunk(queue, outcome, folder.path());
        const OperationRef waiting = startChunk(queue, waitingOutcome, folder.path(), 50);
        QTRY_VERIFY_WITH_TIMEOUT(chunk->isExecuting(), kTimeout);
        QTest::qWait(300);
        QElapsedTimer clock;
        clock.start();
        chunk->cancel();
        chunk->cancel();
        waiting->cancel();
        QTRY_VERIFY_WITH_TIMEOUT(chunk->isFinished() && waiting->isFinished(), kTimeout);
        QVERIFY2(clock.elapsed() < 1000, qPrintable(QString::number(clock.elapsed())));
        QCOMPARE(outcome.completions, 1);
        QCOMPARE(chunk->error().value_or(Error::errorWithMessage()).code(), -999);
        QVERIFY(LibraryTest::logText().contains(QStringLiteral("Canceled: True")));
        QVERIFY(!waiting->completionHandled());
        QCOMPARE(m_server.requestCounts().value("segment").toInteger() - segmentsBefore, 1);
    }
    Outcome destroyed;
    OperationRef chunk;
    QElapsedTimer clock;
    {
        // The queue destroyed while the transfer runs: it ends the transfer and returns at once.
        OperationQueue queue;
        chunk = startChunk(queue, destroyed, folder.path());
        QTRY_VERIFY_WITH_TIMEOUT(chunk->isExecuting(), kTimeout);
        QTest::qWait(300);
        clock.start();
    }
    QVERIFY2(clock.elapsed() < 1000, qPrintable(QString::number(clock.elapsed())));
    QVERIFY(chunk->isFinished());
    QCOMPARE(chunk->error().value_or(Error::errorWithMessage()).code(), -999);
    QCOMPARE(LibraryTest::filesUnder(folder.path()), QStringList());
}

QTEST_GUILESS_MAIN(TestLibraryTransfer)
#include "tst_librarytransfer.moc"
