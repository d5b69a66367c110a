// The segment request against the local service: its query, the end-marker check and its
// single outcome.
#include "librarytestsupport.h"

#include "library/downloadlibraryoperation.h"
#include "core/appinfo.h"

#include <QDir>
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

struct Outcome
{
    int completions = 0;
    qint64 lastBytes = 0;
    std::optional<QUrl> file;
    OptionalError error;
};

} // namespace

class TestLibraryTransfer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup() { QVERIFY(m_server.clearFaults()); }
    void headerRequest();
    void chunkFromTheService();
    void failuresAreReportedOnce_data();
    void failuresAreReportedOnce();
    void cancelAndDestroy();

private:
    // A chunk of 50 tracks from `offset` into `folder`, reporting into `outcome`.
    void startChunk(DownloadLibraryOperation &chunk, Outcome &outcome, const QString &folder, qint64 offset = 0,
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

void TestLibraryTransfer::startChunk(DownloadLibraryOperation &chunk, Outcome &outcome, const QString &folder,
                                     qint64 offset, const QString &token)
{
    chunk.setCompletion(
        [&outcome](DownloadLibraryOperation *, const std::optional<QUrl> &file, const OptionalError &error) {
            ++outcome.completions;
            outcome.file = file;
            outcome.error = error;
        });
    chunk.setProgress([&outcome](DownloadLibraryOperation *, qint64 bytes, qint64) { outcome.lastBytes = bytes; });
    chunk.setUserId(m_identity.userId);
    chunk.setToken(token.isNull() ? m_identity.token : token);
    chunk.setOffset(offset);
    chunk.setLength(50);
    chunk.setDownloadToURL(QUrl::fromLocalFile(folder));
    chunk.start();
}

void TestLibraryTransfer::headerRequest()
{
    qint64 count = -1;
    const auto run = [&](const QString &token) {
        DownloadLibraryOperation operation;
        operation.setUserId(QStringLiteral("1001"));
        operation.setToken(token);
        operation.setOffset(0);
        operation.setLength(0);
        operation.setTotalTrackCount([&](qint64 n) { count = n; });
        operation.start();
        QTRY_VERIFY_WITH_TIMEOUT(operation.isFinished(), kTimeout);
        qputenv("PELICANE_DOWNLOAD_URL", m_server.downloadUrl().toUtf8());
    };
    RecordingServer counted("HTTP/1.1 200 OK\r\nTotal-Tracks: 120\r\nContent-Length: 0\r\n\r\n");
    run(QStringLiteral("abc+def/="));
    QCOMPARE(count, 120);
    const QString s = AppInfo::shortVersion();
    const QString b = AppInfo::buildNumber();
    // The client's blank is encoded twice inside the user agent; "(", ")" stay as they are;
    // user id, token and version go in unencoded.
    QCOMPARE(
        QString::fromLatin1(counted.requestLine()),
        QStringLiteral("GET /library?_user_id=1001&_token=abc+def/=&client=pelicane%20mac"
                       "&device_name=Pelicane%20for%20Mac%20") +
            s + QStringLiteral("&user_agent=Lyrabox%20pelicane%2520mac%20") + s + QStringLiteral("%20(") + b +
            QStringLiteral(")&version=") + s +
            QStringLiteral("&mode=downloadlibrary&container_type=library&offset=0&length=0&end_marker=1 HTTP/1.1"));
    QVERIFY(LibraryTest::logText().contains(QStringLiteral("DownloadLibrary(0, 0, header)")));
}

void TestLibraryTransfer::chunkFromTheService()
{
    QTemporaryDir folder;
    const QString destination = folder.filePath(QStringLiteral("My Lyrabox Library"));
    DownloadLibraryOperation chunk;
    Outcome outcome;
    QSignalSpy executing(&chunk, &DownloadLibraryOperation::executingChanged);
    startChunk(chunk, outcome, destination, 50);
    QVERIFY(chunk.isExecuting());
    QTRY_VERIFY_WITH_TIMEOUT(chunk.isFinished(), kTimeout);
    QTest::qWait(100);

    QCOMPARE(outcome.completions, 1);
    QVERIFY2(!outcome.error, qPrintable(outcome.error ? outcome.error->localizedDescription() : QString()));
    const QString path = QDir(destination).filePath(QStringLiteral(".temp-1.zip"));
    QCOMPARE(outcome.file, std::optional<QUrl>(QUrl::fromLocalFile(path)));
    QCOMPARE(executing.size(), 2);
    // The marker is cut off the archive.
    QVERIFY(chunk.estimatedBytes().has_value());
    QCOMPARE(QFileInfo(path).size(), *chunk.estimatedBytes() - 4);
    QCOMPARE(outcome.lastBytes, *chunk.estimatedBytes());
    QCOMPARE(LibraryTest::filesUnder(destination), QStringList{QStringLiteral(".temp-1.zip")});
    const QString log = LibraryTest::logText();
    QVERIFY(log.contains(QStringLiteral("DownloadLibrary(50, 50, chunk)")));
    QVERIFY(log.contains(QStringLiteral("&offset=50&length=50&end_marker=1 - StatusCode: 200, Result: True, "
                                        "Canceled: False, Message: nil")));
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
    DownloadLibraryOperation chunk;
    Outcome outcome;
    startChunk(chunk, outcome, folder.path(), 0, token);
    QTRY_VERIFY_WITH_TIMEOUT(chunk.isFinished(), kTimeout);
    QTest::qWait(100);

    QCOMPARE(outcome.completions, 1);
    QVERIFY(outcome.error);
    QCOMPARE(outcome.error->localizedDescription(), message);
    QCOMPARE(outcome.error->code(), code);
    // An answer is kept for the caller; a broken transfer leaves no partial file behind.
    const bool answered = code == 0;
    QCOMPARE(outcome.file.has_value(), answered);
    QCOMPARE(LibraryTest::filesUnder(folder.path()),
             answered ? QStringList{QStringLiteral(".temp-0.zip")} : QStringList());
    QVERIFY2(LibraryTest::logText().contains(logged), qPrintable(logged));
}

void TestLibraryTransfer::cancelAndDestroy()
{
    QVERIFY(m_server.addFault(QJsonObject{{"endpoint", "segment"}, {"latency_ms", 2000}, {"count", 2}}));
    QTemporaryDir folder;
    {
        // Cancelled (twice) while the slow answer is on its way: one report, -999.
        DownloadLibraryOperation chunk;
        Outcome outcome;
        startChunk(chunk, outcome, folder.path());
        QTest::qWait(300);
        chunk.cancel();
        chunk.cancel();
        QTRY_VERIFY_WITH_TIMEOUT(chunk.isFinished(), kTimeout);
        QTest::qWait(100);
        QCOMPARE(outcome.completions, 1);
        QCOMPARE(outcome.error.value_or(Error::errorWithMessage()).code(), -999);
        QVERIFY(LibraryTest::logText().contains(QStringLiteral("Canceled: True")));
    }
    Outcome destroyed;
    {
        // Destroyed while running: nothing is reported afterwards.
        DownloadLibraryOperation chunk;
        startChunk(chunk, destroyed, folder.path());
        QTest::qWait(300);
    }
    QTest::qWait(500);
    QCOMPARE(destroyed.completions, 0);
}

QTEST_GUILESS_MAIN(TestLibraryTransfer)
#include "tst_librarytransfer.moc"
