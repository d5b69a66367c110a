// The segment request: its query, the headers it reads, its speed figures,
// the end-marker check and its single outcome, against the local service.
#include "librarytestsupport.h"

#include "library/downloadlibraryoperation.h"
#include "library/downloadspeedmeter.h"
#include "platform/appinfo.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

#include <zip.h>

namespace {

constexpr int kTimeout = 60000;

// Answers one request with a fixed head and keeps the request's head.
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
    int progressReports = 0;
    qint64 lastBytes = 0;
    std::optional<QUrl> file;
    OptionalError error;
};

void watch(DownloadLibraryOperation &operation, Outcome &outcome)
{
    operation.setCompletion(
        [&outcome](DownloadLibraryOperation *, const std::optional<QUrl> &file, const OptionalError &error) {
            ++outcome.completions;
            outcome.file = file;
            outcome.error = error;
        });
    operation.setProgress([&outcome](DownloadLibraryOperation *, qint64 bytes, qint64) {
        ++outcome.progressReports;
        outcome.lastBytes = bytes;
    });
}

QStringList zipEntryNames(const QString &path)
{
    QStringList names;
    int code = 0;
    zip_t *archive = zip_open(QFile::encodeName(path).constData(), ZIP_RDONLY | ZIP_CHECKCONS, &code);
    if (!archive) {
        return names;
    }
    for (zip_int64_t i = 0; i < zip_get_num_entries(archive, 0); ++i) {
        names.append(QString::fromUtf8(zip_get_name(archive, zip_uint64_t(i), 0)));
    }
    zip_discard(archive);
    return names;
}

} // namespace

class TestLibraryTransfer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void speedIsTheMeanOfTheLastFiveSeconds();
    void endMarkerIsCheckedAndCut_data();
    void endMarkerIsCheckedAndCut();
    void responseHeadersAreRead();
    void chunkFilesAreNamedByIndex();
    void queryIsSentAsTheServiceExpects();
    void headerWithoutTrackCountGivesZero();
    void headerAndChunkFromTheService();
    void failuresAreReportedOnce_data();
    void failuresAreReportedOnce();
    void fileInTheWayOfTheFolder();
    void cancelAndDestroy();

private:
    DevServerProcess m_server;
    LibraryTest::Identity m_identity;
};

void TestLibraryTransfer::initTestCase()
{
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    m_identity = LibraryTest::signIn(m_server);
    QVERIFY(!m_identity.token.isEmpty());
    QCOMPARE(LibraryTest::seedTracks(m_server, 60, 20000).size(), 60);
}

void TestLibraryTransfer::speedIsTheMeanOfTheLastFiveSeconds()
{
    // Writes every half second; writes in second j are 1000 * j bytes each.
    DownloadSpeedMeter meter;
    QCOMPARE(meter.addWrite(500, 500, 0.0), -1);
    QCOMPARE(meter.addWrite(1000, 1500, 0.5), -1); // still the first second
    QCOMPARE(meter.addWrite(1000, 2500, 1.0), 2500);
    qint64 total = 2500;
    qint64 speed = 0;
    for (int half = 3; half <= 14; ++half) {
        const qint64 bytes = 1000 * ((half + 1) / 2);
        total += bytes;
        speed = meter.addWrite(bytes, total, half * 0.5);
    }
    // Samples 2500, 4000, 6000, 8000, 10000, 12000, 14000: the last five remain.
    QCOMPARE(meter.downloadSpeeds(), (QList<qint64>{6000, 8000, 10000, 12000, 14000}));
    QCOMPARE(speed, 10000);

    // The mean is rounded towards zero.
    DownloadSpeedMeter rounding;
    rounding.addWrite(1, 1, 10.0);
    QCOMPARE(rounding.addWrite(0, 1, 11.0), 1);
    QCOMPARE(rounding.addWrite(2, 3, 12.0), 1);
}

void TestLibraryTransfer::endMarkerIsCheckedAndCut_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<bool>("valid");
    QTest::newRow("marker") << QByteArray("PK\x03\x04 archive bytes EOF\n") << true;
    QTest::newRow("only the marker") << QByteArray("EOF\n") << true;
    QTest::newRow("no line feed") << QByteArray("PK archive EOF") << false;
    QTest::newRow("carriage return") << QByteArray("PK archive EOF\r\n") << false;
    QTest::newRow("cut short") << QByteArray("PK archive E") << false;
    QTest::newRow("shorter than the marker") << QByteArray("OF\n") << false;
    QTest::newRow("empty") << QByteArray() << false;
}

void TestLibraryTransfer::endMarkerIsCheckedAndCut()
{
    QFETCH(QByteArray, content);
    QFETCH(bool, valid);
    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral(".temp-0.zip"));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(content);
    file.close();

    const OptionalError error = DownloadLibraryOperation::validateEndMarker(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QByteArray after = file.readAll();
    if (valid) {
        QVERIFY(!error);
        QCOMPARE(after, content.chopped(4));
    } else {
        QVERIFY(error);
        QCOMPARE(error->localizedDescription(), QStringLiteral("Incomplete download."));
        QCOMPARE(after, content);
        QVERIFY(LibraryTest::logText().contains(QStringLiteral("Unable to validate data, no end marker found")));
    }

    const OptionalError missing = DownloadLibraryOperation::validateEndMarker(folder.filePath("absent.zip"));
    QVERIFY(missing);
    QCOMPARE(missing->localizedDescription(), QStringLiteral("Incomplete download."));
    QVERIFY(LibraryTest::logText().contains(QStringLiteral("Could not open file to validate end marker")));
}

void TestLibraryTransfer::responseHeadersAreRead()
{
    using Op = DownloadLibraryOperation;
    QCOMPARE(Op::parseEstimatedLength("12345"), std::optional<qint64>(12345));
    QCOMPARE(Op::parseEstimatedLength("+7"), std::optional<qint64>(7));
    QCOMPARE(Op::parseEstimatedLength("-7"), std::optional<qint64>(-7));
    QCOMPARE(Op::parseEstimatedLength(""), std::optional<qint64>(0));
    QCOMPARE(Op::parseEstimatedLength("12 MB"), std::nullopt);
    QCOMPARE(Op::parseEstimatedLength("0x10"), std::nullopt);
    QCOMPARE(Op::parseEstimatedLength("-"), std::nullopt);
    QCOMPARE(Op::parseTrackCount("120"), 120);
    QCOMPARE(Op::parseTrackCount(""), 0);
    QCOMPARE(Op::parseTrackCount("many"), 0);
    QCOMPARE(Op::parseTrackCount("42 tracks"), 42);
}

void TestLibraryTransfer::chunkFilesAreNamedByIndex()
{
    QCOMPARE(DownloadLibraryOperation::chunkFileName(0, 50), QStringLiteral(".temp-0.zip"));
    QCOMPARE(DownloadLibraryOperation::chunkFileName(100, 50), QStringLiteral(".temp-2.zip"));
    // The last, shorter chunk of 120 tracks: 100 / 20.
    QCOMPARE(DownloadLibraryOperation::chunkFileName(100, 20), QStringLiteral(".temp-5.zip"));
}

void TestLibraryTransfer::queryIsSentAsTheServiceExpects()
{
    RecordingServer server("HTTP/1.1 200 OK\r\nTotal-Tracks: 120\r\nContent-Length: 0\r\n\r\n");
    qputenv("PELICANE_DOWNLOAD_URL", server.url().toUtf8());
    qint64 count = -1;
    DownloadLibraryOperation operation;
    operation.setUserId(QStringLiteral("1001"));
    operation.setToken(QStringLiteral("abc+def/="));
    operation.setOffset(0);
    operation.setLength(0);
    operation.setTotalTrackCount([&count](qint64 n) { count = n; });
    operation.start();
    QTRY_VERIFY_WITH_TIMEOUT(operation.isFinished(), kTimeout);
    qputenv("PELICANE_DOWNLOAD_URL", m_server.downloadUrl().toUtf8());

    QCOMPARE(count, 120);
    const QString s = AppInfo::shortVersion();
    const QString b = AppInfo::buildNumber();
    // The client's blank is encoded twice inside the user agent; "(", ")" stay
    // as they are; user id, token and version go in unencoded.
    const QString expected = QStringLiteral("GET /library?_user_id=1001&_token=abc+def/=&client=pelicane%20mac"
                                            "&device_name=Pelicane%20for%20Mac%20") +
                             s + QStringLiteral("&user_agent=Lyrabox%20pelicane%2520mac%20") + s +
                             QStringLiteral("%20(") + b + QStringLiteral(")&version=") + s +
                             QStringLiteral("&mode=downloadlibrary&container_type=library&offset=0&length=0"
                                            "&end_marker=1 HTTP/1.1");
    QCOMPARE(QString::fromLatin1(server.requestLine()), expected);
    QVERIFY(LibraryTest::logText().contains(QStringLiteral("DownloadLibrary(0, 0, header)")));
}

void TestLibraryTransfer::headerWithoutTrackCountGivesZero()
{
    RecordingServer server("HTTP/1.1 500 Internal Server Error\r\nContent-Length: 0\r\n\r\n");
    qputenv("PELICANE_DOWNLOAD_URL", server.url().toUtf8());
    qint64 count = -1;
    int counts = 0;
    DownloadLibraryOperation operation;
    operation.setTotalTrackCount([&](qint64 n) {
        count = n;
        ++counts;
    });
    operation.start();
    QTRY_VERIFY_WITH_TIMEOUT(operation.isFinished(), kTimeout);
    qputenv("PELICANE_DOWNLOAD_URL", m_server.downloadUrl().toUtf8());
    QCOMPARE(count, 0);
    QTest::qWait(200);
    QCOMPARE(counts, 1);
    QVERIFY(!operation.isExecuting());
}

void TestLibraryTransfer::headerAndChunkFromTheService()
{
    qint64 count = -1;
    DownloadLibraryOperation header;
    header.setUserId(m_identity.userId);
    header.setToken(m_identity.token);
    header.setTotalTrackCount([&count](qint64 n) { count = n; });
    header.start();
    QTRY_VERIFY_WITH_TIMEOUT(header.isFinished(), kTimeout);
    QCOMPARE(count, 60);

    QTemporaryDir folder;
    const QString destination = folder.filePath(QStringLiteral("My Lyrabox Library"));
    DownloadLibraryOperation chunk;
    Outcome outcome;
    watch(chunk, outcome);
    QSignalSpy executing(&chunk, &DownloadLibraryOperation::executingChanged);
    chunk.setUserId(m_identity.userId);
    chunk.setToken(m_identity.token);
    chunk.setOffset(50);
    chunk.setLength(50);
    chunk.setDownloadToURL(QUrl::fromLocalFile(destination));
    chunk.start();
    QVERIFY(chunk.isExecuting());
    QTRY_VERIFY_WITH_TIMEOUT(chunk.isFinished(), kTimeout);
    QTest::qWait(100);

    QCOMPARE(outcome.completions, 1);
    QVERIFY2(!outcome.error, qPrintable(outcome.error ? outcome.error->localizedDescription() : QString()));
    const QString path = QDir(destination).filePath(QStringLiteral(".temp-1.zip"));
    QCOMPARE(outcome.file, std::optional<QUrl>(QUrl::fromLocalFile(path)));
    QCOMPARE(executing.size(), 2);
    QVERIFY(!chunk.isExecuting());
    // The marker is gone: the file is a plain archive of tracks 51 to 60.
    QVERIFY(chunk.estimatedBytes().has_value());
    QCOMPARE(QFileInfo(path).size(), *chunk.estimatedBytes() - 4);
    QVERIFY(outcome.progressReports >= 1);
    QCOMPARE(outcome.lastBytes, *chunk.estimatedBytes());
    QStringList expected;
    for (int i = 51; i <= 60; ++i) {
        expected.append(QStringLiteral("Track %1.mp3").arg(i, 3, 10, QLatin1Char('0')));
    }
    QCOMPARE(zipEntryNames(path), expected);
    QCOMPARE(LibraryTest::filesUnder(destination), QStringList{QStringLiteral(".temp-1.zip")});
    const QString log = LibraryTest::logText();
    QVERIFY(log.contains(QStringLiteral("DownloadLibrary(50, 50, chunk)")));
    QVERIFY(log.contains(QStringLiteral("&offset=50&length=50&end_marker=1 - StatusCode: 200, Result: True, "
                                        "Canceled: False, Message: nil")));
}

void TestLibraryTransfer::failuresAreReportedOnce_data()
{
    QTest::addColumn<QJsonObject>("fault");
    QTest::addColumn<bool>("badToken");
    QTest::addColumn<QString>("message");
    QTest::addColumn<int>("code");
    QTest::addColumn<bool>("fileKept");
    QTest::addColumn<QString>("logged");

    QTest::newRow("status 500")
        << QJsonObject{{"endpoint", "segment"}, {"status", 500}} << false << "Internal Server Error (500)" << 0 << true
        << "StatusCode: 500, Result: True, Canceled: False, Message: Internal Server Error (500)";
    QTest::newRow("status without a name") << QJsonObject{{"endpoint", "segment"}, {"status", 520}} << false
                                           << "(null) (520)" << 0 << true << "StatusCode: 520, Result: True";
    QTest::newRow("bad token") << QJsonObject() << true << "Unauthorized (401)" << 0 << true
                               << "StatusCode: 401, Result: True";
    QTest::newRow("no end marker") << QJsonObject{{"endpoint", "segment"}, {"omit_end_marker", true}} << false
                                   << "Incomplete download." << 0 << true
                                   << "StatusCode: 200, Result: True, Canceled: False, Message: Incomplete download.";
    QTest::newRow("connection dropped") << QJsonObject{{"endpoint", "segment"}, {"drop_after_bytes", 30000}} << false
                                        << "The network connection was lost." << -1005 << false
                                        << "StatusCode: 0, Result: False, Canceled: False";
}

void TestLibraryTransfer::failuresAreReportedOnce()
{
    QFETCH(QJsonObject, fault);
    QFETCH(bool, badToken);
    QFETCH(QString, message);
    QFETCH(int, code);
    QFETCH(bool, fileKept);
    QFETCH(QString, logged);

    QVERIFY(m_server.clearFaults());
    if (!fault.isEmpty()) {
        QVERIFY(m_server.addFault(fault));
    }
    QTemporaryDir folder;
    DownloadLibraryOperation chunk;
    Outcome outcome;
    watch(chunk, outcome);
    chunk.setUserId(m_identity.userId);
    chunk.setToken(badToken ? QStringLiteral("wrong") : m_identity.token);
    chunk.setOffset(0);
    chunk.setLength(50);
    chunk.setDownloadToURL(QUrl::fromLocalFile(folder.path()));
    chunk.start();
    QTRY_VERIFY_WITH_TIMEOUT(chunk.isFinished(), kTimeout);
    QTest::qWait(100);

    QCOMPARE(outcome.completions, 1);
    QVERIFY(outcome.error);
    QCOMPARE(outcome.error->localizedDescription(), message);
    QCOMPARE(outcome.error->code(), code);
    QCOMPARE(outcome.file.has_value(), fileKept);
    // A failed transfer leaves no partial file behind.
    QCOMPARE(LibraryTest::filesUnder(folder.path()),
             fileKept ? QStringList{QStringLiteral(".temp-0.zip")} : QStringList());
    QVERIFY2(LibraryTest::logText().contains(logged), qPrintable(logged));
    QVERIFY(m_server.clearFaults());
}

void TestLibraryTransfer::fileInTheWayOfTheFolder()
{
    QTemporaryDir folder;
    const QString blocked = folder.filePath(QStringLiteral("My Lyrabox Library"));
    QFile file(blocked);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("not a folder");
    file.close();

    DownloadLibraryOperation chunk;
    Outcome outcome;
    watch(chunk, outcome);
    chunk.setUserId(m_identity.userId);
    chunk.setToken(m_identity.token);
    chunk.setOffset(0);
    chunk.setLength(50);
    chunk.setDownloadToURL(QUrl::fromLocalFile(blocked));
    chunk.start();
    QTRY_VERIFY_WITH_TIMEOUT(chunk.isFinished(), kTimeout);
    QTest::qWait(100);
    QCOMPARE(outcome.completions, 1);
    QVERIFY(outcome.error);
    QCOMPARE(outcome.error->localizedDescription(),
             QStringLiteral("Conflicting file exists at download path: ") + blocked);
    QVERIFY(!outcome.file);
    QCOMPARE(LibraryTest::filesUnder(folder.path()), QStringList{QStringLiteral("My Lyrabox Library")});
}

void TestLibraryTransfer::cancelAndDestroy()
{
    // A slow answer, cancelled while it is on its way: one report, -999.
    QVERIFY(m_server.addFault(QJsonObject{{"endpoint", "segment"}, {"latency_ms", 2000}, {"count", 2}}));
    QTemporaryDir folder;
    {
        DownloadLibraryOperation chunk;
        Outcome outcome;
        watch(chunk, outcome);
        chunk.setUserId(m_identity.userId);
        chunk.setToken(m_identity.token);
        chunk.setOffset(0);
        chunk.setLength(50);
        chunk.setDownloadToURL(QUrl::fromLocalFile(folder.path()));
        chunk.start();
        QTest::qWait(300);
        chunk.cancel();
        chunk.cancel();
        QTRY_VERIFY_WITH_TIMEOUT(chunk.isFinished(), kTimeout);
        QTest::qWait(100);
        QCOMPARE(outcome.completions, 1);
        QVERIFY(outcome.error);
        QCOMPARE(outcome.error->code(), -999);
        QVERIFY(chunk.isCancelled());
        QVERIFY(LibraryTest::logText().contains(QStringLiteral("Canceled: True")));
    }
    {
        // Destroyed while running: nothing is reported afterwards.
        Outcome outcome;
        {
            DownloadLibraryOperation chunk;
            watch(chunk, outcome);
            chunk.setUserId(m_identity.userId);
            chunk.setToken(m_identity.token);
            chunk.setOffset(0);
            chunk.setLength(50);
            chunk.setDownloadToURL(QUrl::fromLocalFile(folder.path()));
            chunk.start();
            QTest::qWait(300);
        }
        QTest::qWait(500);
        QCOMPARE(outcome.completions, 0);
    }
    {
        // Cancelled before it started: finished at once, never sent.
        const qint64 before = m_server.requestCounts().value("segment").toInteger();
        DownloadLibraryOperation chunk;
        Outcome outcome;
        watch(chunk, outcome);
        chunk.cancel();
        QVERIFY(chunk.isFinished());
        chunk.start();
        QTest::qWait(200);
        QCOMPARE(outcome.completions, 0);
        QCOMPARE(m_server.requestCounts().value("segment").toInteger(), before);
    }
    QVERIFY(m_server.clearFaults());
}

QTEST_GUILESS_MAIN(TestLibraryTransfer)
#include "tst_librarytransfer.moc"
