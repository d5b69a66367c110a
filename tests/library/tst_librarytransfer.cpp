// The segment request on an operation queue, as the model runs it: its query on the wire,
// and against the local service its single outcome for every failure and its cancellation.
#include "librarytestsupport.h"

#include "core/appinfo.h"
#include "library/downloadlibraryoperation.h"
#include "protocol/endpoints.h"

#include <QElapsedTimer>
#include <QJsonObject>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

namespace {

constexpr int kTimeout = 60000;

using OperationRef = std::shared_ptr<DownloadLibraryOperation>;

} // namespace

class TestLibraryTransfer : public QObject
{
    Q_OBJECT

    DevServerProcess m_server;
    LibraryTest::Identity m_identity;

    // Queues a chunk of 50 tracks from `offset` into `folder`; `completions` counts its ends.
    OperationRef startChunk(OperationQueue &queue, int &completions, const QString &folder, qint64 offset = 0,
                            const QString &token = QString())
    {
        auto chunk = std::make_shared<DownloadLibraryOperation>();
        chunk->setCompletionHandler([&completions] { ++completions; });
        chunk->setUserId(m_identity.userId);
        chunk->setToken(token.isNull() ? m_identity.token : token);
        chunk->setOffset(offset);
        chunk->setLength(50);
        chunk->setDownloadToURL(QUrl::fromLocalFile(folder));
        queue.addOperation(chunk);
        return chunk;
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
        m_identity = m_server.signInDemo();
        QVERIFY(!m_identity.token.isEmpty());
        QCOMPARE(LibraryTest::seedTracks(m_server, 60, 20000).size(), 60);
    }

    void cleanup() { QVERIFY(m_server.clearFaults()); }

    void headerRequestOnTheWire()
    {
        QTcpServer server;
        QVERIFY(server.listen(QHostAddress::LocalHost));
        QByteArray request;
        connect(&server, &QTcpServer::newConnection, this, [&] {
            QTcpSocket *socket = server.nextPendingConnection();
            connect(socket, &QTcpSocket::readyRead, socket, [&request, socket] {
                request += socket->readAll();
                if (request.contains("\r\n\r\n")) {
                    socket->write("HTTP/1.1 200 OK\r\nTotal-Tracks: 120\r\nContent-Length: 0\r\n\r\n");
                }
            });
        });
        qputenv("PELICANE_DOWNLOAD_URL",
                QByteArray("http://127.0.0.1:") + QByteArray::number(server.serverPort()) + "/library");
        OperationQueue queue;
        auto operation = std::make_shared<DownloadLibraryOperation>();
        operation->setUserId(QStringLiteral("1001"));
        operation->setToken(QStringLiteral("abc+def/="));
        operation->setHeaderRequest(true);
        queue.addOperation(operation);
        QTRY_VERIFY_WITH_TIMEOUT(operation->isFinished(), kTimeout);
        qputenv("PELICANE_DOWNLOAD_URL", m_server.downloadUrl().toUtf8());
        QCOMPARE(operation->trackCount(), std::optional<qint64>(120));

        // The client's blank is encoded twice inside the user agent; "(", ")" stay as they
        // are; user id, token and version go in unencoded.
        const QString s = AppInfo::shortVersion();
        const QString b = AppInfo::buildNumber();
        const QString query = QStringLiteral("_user_id=1001&_token=abc+def/=&client=pelicane%20mac&device_name="
                                             "Pelicane%20for%20Mac%20%1&user_agent=Lyrabox%20pelicane%2520mac%20%1%20("
                                             "%2)&version=%1&mode=downloadlibrary&container_type=library")
                                  .arg(s, b);
        QCOMPARE(QString::fromLatin1(request.left(request.indexOf("\r\n"))),
                 QStringLiteral("GET /library?%1&offset=0&length=0&end_marker=1 HTTP/1.1").arg(query));
        QVERIFY(
            request.contains(QStringLiteral("\r\nUser-Agent: Lyrabox pelicane mac %1 (%2)\r\n").arg(s, b).toUtf8()));
        QVERIFY(LibraryTest::logText().contains(QStringLiteral("DownloadLibrary(0, 0, header)")));
        // The service's single-request download asks the same without a segment.
        QCOMPARE(Endpoints::libraryDownloadURL(QStringLiteral("1001"), QStringLiteral("abc+def/="))
                     .query(QUrl::FullyEncoded),
                 query);
    }

    void failuresAreReportedOnce_data()
    {
        QTest::addColumn<QJsonObject>("fault");
        QTest::addColumn<QString>("token");
        QTest::addColumn<QString>("message");
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("logged");
        auto segment = [](const char *key, const QJsonValue &value) {
            return QJsonObject{{"endpoint", "segment"}, {QLatin1String(key), value}};
        };
        QTest::newRow("status 500") << segment("status", 500) << QString() << "Internal Server Error (500)" << 0
                                    << "StatusCode: 500, Result: True, Canceled: False, Message: Internal Server "
                                       "Error (500)";
        QTest::newRow("bad token") << QJsonObject() << "wrong"
                                   << "Unauthorized (401)" << 0 << "StatusCode: 401, Result: True";
        QTest::newRow("no end marker") << segment("omit_end_marker", true) << QString() << "Incomplete download." << 0
                                       << "StatusCode: 200, Result: True, Canceled: False, Message: Incomplete "
                                          "download.";
        QTest::newRow("connection dropped")
            << segment("drop_after_bytes", 30000) << QString() << "The network connection was lost." << -1005
            << "StatusCode: 0, Result: False, Canceled: False";
    }

    void failuresAreReportedOnce()
    {
        QFETCH(QJsonObject, fault);
        QFETCH(QString, token);
        QFETCH(int, code);
        QFETCH(QString, logged);
        QVERIFY(fault.isEmpty() || m_server.addFault(fault));
        QTemporaryDir folder;
        OperationQueue queue;
        int completions = 0;
        const OperationRef chunk = startChunk(queue, completions, folder.path(), 0, token);
        QTRY_VERIFY_WITH_TIMEOUT(chunk->isFinished(), kTimeout);

        QCOMPARE(completions, 1);
        QTEST(chunk->error().value_or(Error::errorWithMessage()).localizedDescription(), "message");
        QCOMPARE(chunk->error()->code(), code);
        // An answer is kept for the caller; a broken transfer leaves no partial file behind.
        const bool answered = code == 0;
        QCOMPARE(chunk->downloadedFileURL().has_value(), answered);
        QCOMPARE(LibraryTest::filesUnder(folder.path()),
                 answered ? QStringList{QStringLiteral(".temp-0.zip")} : QStringList());
        QVERIFY2(LibraryTest::logText().contains(logged), qPrintable(logged));
    }

    void cancelAndDestroy()
    {
        QVERIFY(m_server.addFault(QJsonObject{{"endpoint", "segment"}, {"latency_ms", 2000}, {"count", 2}}));
        QTemporaryDir folder;
        const qint64 segmentsBefore = m_server.requestCounts().value("segment").toInteger();
        {
            // Cancelled (twice) while the slow answer is on its way: it ends at once, with one
            // report, -999. The chunk waiting behind it, cancelled too, ends without a request.
            OperationQueue queue;
            queue.setMaxConcurrentOperationCount(1);
            int completions = 0;
            int waitingCompletions = 0;
            const OperationRef chunk = startChunk(queue, completions, folder.path());
            const OperationRef waiting = startChunk(queue, waitingCompletions, folder.path(), 50);
            QTRY_VERIFY_WITH_TIMEOUT(chunk->isExecuting(), kTimeout);
            QTest::qWait(300);
            QElapsedTimer clock;
            clock.start();
            chunk->cancel();
            chunk->cancel();
            waiting->cancel();
            QTRY_VERIFY_WITH_TIMEOUT(chunk->isFinished() && waiting->isFinished(), kTimeout);
            QVERIFY2(clock.elapsed() < 1000, qPrintable(QString::number(clock.elapsed())));
            QCOMPARE(completions, 1);
            QCOMPARE(chunk->error().value_or(Error::errorWithMessage()).code(), -999);
            QVERIFY(LibraryTest::logText().contains(QStringLiteral("Canceled: True")));
            QVERIFY(!waiting->completionHandled());
            QCOMPARE(m_server.requestCounts().value("segment").toInteger() - segmentsBefore, 1);
        }
        // The queue destroyed while the transfer runs: it ends the transfer and returns at once.
        int completions = 0;
        OperationRef chunk;
        QElapsedTimer clock;
        {
            OperationQueue queue;
            chunk = startChunk(queue, completions, folder.path());
            QTRY_VERIFY_WITH_TIMEOUT(chunk->isExecuting(), kTimeout);
            QTest::qWait(300);
            clock.start();
        }
        QVERIFY2(clock.elapsed() < 1000, qPrintable(QString::number(clock.elapsed())));
        QCOMPARE(chunk->error().value_or(Error::errorWithMessage()).code(), -999);
        QCOMPARE(LibraryTest::filesUnder(folder.path()), QStringList());
    }
};

QTEST_GUILESS_MAIN(TestLibraryTransfer)
#include "tst_librarytransfer.moc"
