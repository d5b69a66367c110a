// The segment request against the local service: its query, headers, speed figures, the
// end-marker check and its single outcome; and the service client's single-request download
// of the whole library as one zip.
#include "librarytestsupport.h"

#include "library/downloadlibraryoperation.h"
#include "library/downloadspeedmeter.h"
#include "platform/appinfo.h"
#include "service/lyraboxservice.h"

#include <QDir>
#include <QFile>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

#include <zip.h>

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
    int progressReports = 0;
    qint64 lastBytes = 0;
    std::optional<QUrl> file;
    OptionalError error;
    QList<double> fractions; // the service's download
    QList<qint64> speeds;
};

void serviceDownload(LyraboxService &service, const QString &folder, Outcome &outcome)
{
    service.downloadLibraryWithURL(
        QUrl::fromLocalFile(folder),
        [&outcome](double fraction, qint64 speed) {
            outcome.fractions.append(fraction);
            outcome.speeds.append(speed);
        },
        [&outcome](const std::optional<QUrl> &file, const OptionalError &error) {
            ++outcome.completions;
            outcome.file = file;
            outcome.error = error;
        });
}

} // namespace

class TestLibraryTransfer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup() { QVERIFY(m_server.clearFaults()); }
    void speedIsTheMeanOfTheLastFiveSeconds();
    void endMarkerIsCheckedAndCut_data();
    void endMarkerIsCheckedAndCut();
    void headerRequest();
    void chunkFromTheService();
    void failuresAreReportedOnce_data();
    void failuresAreReportedOnce();
    void fileInTheWayOfTheFolder();
    void cancelAndDestroy();
    void serviceDownloadsTheWholeLibrary();
    void serviceDownloadFailuresAndCancellation();

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
    chunk.setProgress([&outcome](DownloadLibraryOperation *, qint64 bytes, qint64) {
        ++outcome.progressReports;
        outcome.lastBytes = bytes;
    });
    chunk.setUserId(m_identity.userId);
    chunk.setToken(token.isNull() ? m_identity.token : token);
    chunk.setOffset(offset);
    chunk.setLength(50);
    chunk.setDownloadToURL(QUrl::fromLocalFile(folder));
    chunk.start();
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
    // Samples 2500, 4000, ..., 14000: the last five remain, their mean rounded down.
    QCOMPARE(meter.downloadSpeeds(), (QList<qint64>{6000, 8000, 10000, 12000, 14000}));
    QCOMPARE(speed, 10000);
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
    QTest::newRow("carriage return") << QByteArray("PK archive EOF\r\n") << false;
    QTest::newRow("cut short") << QByteArray("PK archive E") << false;
    QTest::newRow("empty") << QByteArray() << false;
}

void TestLibraryTransfer::endMarkerIsCheckedAndCut()
{
    QFETCH(QByteArray, content);
    QFETCH(bool, valid);
    QTemporaryDir folder;
    QFile file(folder.filePath(QStringLiteral(".temp-0.zip")));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(content);
    file.close();

    const OptionalError error = DownloadLibraryOperation::validateEndMarker(file.fileName());
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), valid ? content.chopped(4) : content);
    QCOMPARE(bool(error), !valid);
    if (!valid) {
        QCOMPARE(error->localizedDescription(), QStringLiteral("Incomplete download."));
        QVERIFY(LibraryTest::logText().contains(QStringLiteral("Unable to validate data, no end marker found")));
    }
    const OptionalError missing = DownloadLibraryOperation::validateEndMarker(folder.filePath("absent.zip"));
    QCOMPARE(missing.value_or(Error::errorWithMessage()).localizedDescription(),
             QStringLiteral("Incomplete download."));
    QVERIFY(LibraryTest::logText().contains(QStringLiteral("Could not open file to validate end marker")));
}

void TestLibraryTransfer::headerRequest()
{
    qint64 count = -1;
    int counts = 0;
    const auto run = [&](const QString &token) {
        DownloadLibraryOperation operation;
        operation.setUserId(QStringLiteral("1001"));
        operation.setToken(token);
        operation.setOffset(0);
        operation.setLength(0);
        operation.setTotalTrackCount([&](qint64 n) {
            count = n;
            ++counts;
        });
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

    // An answer without the count gives 0, once.
    RecordingServer failing("HTTP/1.1 500 Internal Server Error\r\nContent-Length: 0\r\n\r\n");
    run(QStringLiteral("t"));
    QTest::qWait(200);
    QCOMPARE(count, 0);
    QCOMPARE(counts, 2);
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
    // The marker is gone: the file is a plain archive of tracks 51 to 60.
    QVERIFY(chunk.estimatedBytes().has_value());
    QCOMPARE(QFileInfo(path).size(), *chunk.estimatedBytes() - 4);
    QCOMPARE(outcome.lastBytes, *chunk.estimatedBytes());
    QStringList expected;
    for (int i = 51; i <= 60; ++i) {
        expected.append(LibraryTest::trackName(i));
    }
    QStringList names;
    zip_t *archive = zip_open(QFile::encodeName(path).constData(), ZIP_RDONLY | ZIP_CHECKCONS, nullptr);
    QVERIFY(archive);
    for (zip_int64_t i = 0; i < zip_get_num_entries(archive, 0); ++i) {
        names.append(QString::fromUtf8(zip_get_name(archive, zip_uint64_t(i), 0)));
    }
    zip_discard(archive);
    QCOMPARE(names, expected);
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
    QTest::newRow("status without a name")
        << with("status", 520) << QString() << "(null) (520)" << 0 << "StatusCode: 520, Result: True";
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

void TestLibraryTransfer::fileInTheWayOfTheFolder()
{
    QTemporaryDir folder;
    const QString blocked = folder.filePath(QStringLiteral("My Lyrabox Library"));
    QFile file(blocked);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.close();
    DownloadLibraryOperation chunk;
    Outcome outcome;
    startChunk(chunk, outcome, blocked);
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

    // Cancelled before it started: finished at once, never sent.
    const qint64 before = m_server.requestCounts().value("segment").toInteger();
    DownloadLibraryOperation chunk;
    Outcome outcome;
    chunk.cancel();
    QVERIFY(chunk.isFinished());
    startChunk(chunk, outcome, folder.path());
    QTest::qWait(200);
    QCOMPARE(outcome.completions, 0);
    QCOMPARE(m_server.requestCounts().value("segment").toInteger(), before);
}

void TestLibraryTransfer::serviceDownloadsTheWholeLibrary()
{
    LyraboxService service;
    service.setUserId(m_identity.userId);
    service.setUserToken(m_identity.token);
    QTemporaryDir folder;
    Outcome outcome;
    serviceDownload(service, folder.path(), outcome);
    QTRY_COMPARE_WITH_TIMEOUT(outcome.completions, 1, kTimeout);
    QVERIFY(!outcome.error);
    QVERIFY(outcome.file);

    const QString path = outcome.file->toLocalFile();
    QCOMPARE(QFileInfo(path).fileName(), QStringLiteral("Library.zip"));
    QVERIFY(QFileInfo(path).dir().dirName().startsWith(QStringLiteral("LyraboxLibrary-")));
    QCOMPARE(QFileInfo(path).size(), service.downloadLibraryEstimatedBytes());
    QCOMPARE(LibraryTest::filesUnder(folder.path()).size(), 1); // no temporary file left
    zip_t *archive = zip_open(QFile::encodeName(path).constData(), ZIP_RDONLY | ZIP_CHECKCONS, nullptr);
    QVERIFY(archive);
    QCOMPARE(zip_get_num_entries(archive, 0), 60);
    zip_discard(archive);

    QVERIFY(!outcome.fractions.isEmpty());
    QCOMPARE(outcome.fractions.last(), 1.0);
    QCOMPARE(outcome.speeds.first(), -1); // the first second has no sample yet
    QVERIFY(std::is_sorted(outcome.fractions.cbegin(), outcome.fractions.cend()));
    QVERIFY(LibraryTest::logText().contains(QStringLiteral("&mode=downloadlibrary&container_type=library\n")));
}

void TestLibraryTransfer::serviceDownloadFailuresAndCancellation()
{
    LyraboxService service;
    service.setUserId(m_identity.userId);
    service.setUserToken(QStringLiteral("wrong"));
    QTemporaryDir folder;
    {
        Outcome outcome;
        serviceDownload(service, folder.path(), outcome);
        QTRY_COMPARE_WITH_TIMEOUT(outcome.completions, 1, kTimeout);
        QCOMPARE(outcome.error->localizedDescription(), QStringLiteral("Unauthorized (401)"));
        QVERIFY(!outcome.file);
    }

    // Cancelled, or replaced by a second download: one report each.
    service.setUserToken(m_identity.token);
    QVERIFY(m_server.addFault(QJsonObject{{"endpoint", "segment"}, {"latency_ms", 1500}, {"count", 2}}));
    Outcome first;
    Outcome second;
    serviceDownload(service, folder.path(), first);
    QTest::qWait(200);
    serviceDownload(service, folder.path(), second);
    QCOMPARE(first.completions, 1);
    QCOMPARE(first.error->code(), -999);
    QTest::qWait(200);
    service.cancelDownloadLibrary();
    service.cancelDownloadLibrary();
    QCOMPARE(second.completions, 1);
    QCOMPARE(second.error->code(), -999);
    QTest::qWait(2500);
    QCOMPARE(first.completions, 1);
    QCOMPARE(second.completions, 1);
    QVERIFY(LibraryTest::filesUnder(folder.path()).isEmpty());
}

QTEST_GUILESS_MAIN(TestLibraryTransfer)
#include "tst_librarytransfer.moc"
