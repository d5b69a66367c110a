// The service client against a capturing server (exact bytes on the wire, canned answers)
// and against the local service.
#include "captureserver.h"
#include "support/devserverprocess.h"

#include "core/appinfo.h"
#include "core/logger.h"
#include "platform/operationqueue.h"
#include "protocol/clientfields.h"
#include "protocol/transporterror.h"
#include "service/lyraboxservice.h"

#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QRegularExpression>
#include <QSslCertificate>
#include <QSslKey>
#include <QSslServer>
#include <QSslSocket>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

namespace {

struct Call
{
    QString name;
    OptionalError error;
};

QStringList logMessages(qint64 from)
{
    QFile file(Logger::logFileURL().toLocalFile());
    if (!file.open(QIODevice::ReadOnly))
        return {};
    file.seek(from);
    QStringList messages;
    for (const QString &line : QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        const qsizetype separator = line.indexOf(QLatin1String(": "));
        messages << (separator < 0 ? line : line.mid(separator + 2));
    }
    return messages;
}

// Records every callback; implements them all.
class RecordingDelegate : public LyraboxServiceDelegate
{
public:
    bool respondsToOperation(Operation operation) const override { return implements<RecordingDelegate>(operation); }
    void lyraboxDidLogin(LyraboxService *, const OptionalError &error) override { record("login", error); }
    void lyraboxDidVerifyLogin(LyraboxService *, const OptionalError &error) override { record("verify", error); }
    void lyraboxDidReceiveAuthorizationError(LyraboxService *) override { record("authorization", std::nullopt); }
    void lyraboxDidReadMd5List(LyraboxService *, const OptionalError &error) override { record("md5", error); }

    QList<Call> calls;

private:
    void record(const QString &name, const OptionalError &error)
    {
        QVERIFY(QThread::currentThread() == qApp->thread());
        calls.append({name, error});
    }
};

// A service whose callbacks are recorded.
struct Client
{
    LyraboxService service;
    RecordingDelegate delegate;
    Client() { service.setDelegate(&delegate); }
    // Waits until `count` callbacks have arrived.
    bool waitFor(int count)
    {
        return QTest::qWaitFor([&] { return delegate.calls.size() >= count; }, 30000) && delegate.calls.size() == count;
    }
};

QString expectedAuthToken()
{
    const QString text = ClientFields::deviceName() + ":" + ClientFields::version() + ":" + ClientFields::client() +
                         ":" + ClientFields::userAgent();
    return QString::fromLatin1(QCryptographicHash::hash(text.toUtf8(), QCryptographicHash::Sha256).toHex());
}

QByteArray json(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

} // namespace

class TestLyraboxService : public QObject
{
    Q_OBJECT

private:
    CaptureServer *m_capture = nullptr;
    std::unique_ptr<Client> m_client; // a fresh one per test
    qint64 m_logStart = 0;

    QStringList newLog() const { return logMessages(m_logStart); }
    bool waitFor(int callbacks) { return m_client->waitFor(callbacks); }
    QString responseLine(const QString &path, int status, bool result, bool cancelled, const QString &message) const
    {
        return QStringLiteral("Response: %1 - StatusCode: %2, Result: %3, Canceled: %4, Message: %5")
            .arg(m_capture->url(path), QString::number(status), result ? "True" : "False", cancelled ? "True" : "False",
                 message);
    }
    // Waits until the answer was handled: its log line is written right after the callback
    // was queued, so two turns of the event loop later every callback has arrived.
    void settle(int responses)
    {
        QTRY_COMPARE_WITH_TIMEOUT(newLog().filter(QRegularExpression("^Response: ")).size(), responses, 30000);
        QCoreApplication::processEvents();
        QCoreApplication::processEvents();
    }

private slots:
    void init()
    {
        m_capture = new CaptureServer(this);
        QVERIFY(m_capture->listen());
        qputenv("PELICANE_API_URL", m_capture->url("/s/JSON/").toUtf8());
        qputenv("PELICANE_UPLOAD_URL", m_capture->url("/upload/").toUtf8());
        m_logStart = QFileInfo(Logger::logFileURL().toLocalFile()).size();
        m_client = std::make_unique<Client>();
    }

    void cleanup()
    {
        m_client.reset();
        delete m_capture;
        m_capture = nullptr;
    }

    void signInRequestOnTheWire()
    {
        auto &[service, delegate] = *m_client;
        service.setUserId("old");
        service.setUserToken("old");
        m_capture->respond(
            200,
            json({{"result", true},
                  {"user", QJsonObject{{"id", 77}, {"token", "tok"}}},
                  {"supported", QJsonArray{QJsonObject{{"extension", ".FLAC"}}, QJsonObject{{"extension", ".Mp3"}}}}}));
        service.loginWithEmail("user@example.com", QString::fromUtf8("p&ss wörd"));
        // Cleared before anything was sent.
        QCOMPARE(service.userId(), QString(""));
        QCOMPARE(service.userToken(), QString(""));
        QVERIFY(waitFor(1));

        QCOMPARE(m_capture->requests().size(), 1);
        const CaptureServer::Request request = m_capture->requests().first();
        QCOMPARE(request.method, "POST");
        QCOMPARE(request.target, "/s/JSON/");
        QCOMPARE(request.header("Content-Type"), "application/json");
        QCOMPARE(request.header("User-Agent"), ClientFields::userAgent().toUtf8());
        QVERIFY(!request.body.contains('\n')); // compact
        const QString version = AppInfo::shortVersion() + " (" + AppInfo::buildNumber() + ")";
        QCOMPARE(QJsonDocument::fromJson(request.body).object(),
                 (QJsonObject{{"mode", "status"},
                              {"email_address", "user@example.com"},
                              {"password", QString::fromUtf8("p&ss wörd")},
                              {"supported_types", true},
                              {"client", "pelicane mac"},
                              {"device_name", QString("Pelicane for Mac " + AppInfo::shortVersion())},
                              {"user_agent", QString("Lyrabox pelicane mac " + version)},
                              {"version", version},
                              {"auth_token", expectedAuthToken()}}));

        const Call call = delegate.calls.first();
        QCOMPARE(call.name, "login");
        QVERIFY(!call.error);
        QCOMPARE(service.userId(), "77");
        QCOMPARE(service.userToken(), "tok");
        QCOMPARE(service.getSupportedFormatList(), QStringList({"flac", "mp3"}));
        QCOMPARE(newLog(), QStringList({"Login (user@example.com)", "POST: " + m_capture->url("/s/JSON/"),
                                        " - Logged in: user@example.com (77)",
                                        responseLine("/s/JSON/", 200, true, false, "(null)")}));
    }

    void verificationRequestOnTheWire()
    {
        auto &[service, delegate] = *m_client;
        service.setUserId("42");
        service.setUserToken("t0");
        m_capture->respond(200, json({{"result", true},
                                      {"authenticated", true},
                                      {"user", QJsonObject{{"id", "42"}, {"token", "t1"}}},
                                      {"supported", QJsonArray{QJsonObject{{"extension", ".FLAC"}}}}}));
        service.verifyLogin();
        QCOMPARE(service.userId(), "42"); // nothing is cleared
        QVERIFY(waitFor(1));
        service.verifyLogin();
        QVERIFY(waitFor(2));

        QCOMPARE(QJsonDocument::fromJson(m_capture->requests().first().body).object(),
                 (QJsonObject{{"mode", "status"},
                              {"user_id", "42"},
                              {"token", "t0"},
                              {"client", ClientFields::client()},
                              {"device_name", ClientFields::deviceName()},
                              {"user_agent", ClientFields::userAgent()},
                              {"version", ClientFields::version()}}));
        QCOMPARE(QJsonDocument::fromJson(m_capture->requests().at(1).body).object().value("token"), QJsonValue("t1"));
        QCOMPARE(delegate.calls.at(0).name, "verify");
        QVERIFY(!delegate.calls.at(0).error);
        QCOMPARE(service.userToken(), "t1");
        // Appended to, never emptied: two verifications keep ".FLAC" twice, as "flac".
        QCOMPARE(service.getSupportedFormatList(), QStringList({"flac", "flac"}));
        QCOMPARE(newLog().first(), "VerifyLogin");
    }

    // Certificate checks are never turned off: a server with a self-signed certificate is
    // refused before anything is sent, with a message that says why.
    void selfSignedCertificateIsRefused()
    {
        QTemporaryDir keys;
        const QString key = keys.filePath(QStringLiteral("key.pem"));
        const QString certificate = keys.filePath(QStringLiteral("cert.pem"));
        const int made =
            QProcess::execute(QStringLiteral("openssl"),
                              {"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "1", "-subj", "/CN=127.0.0.1",
                               "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", key, "-out", certificate});
        if (made != 0) {
            QSKIP("openssl could not make a certificate");
        }
        QFile keyFile(key);
        QFile certificateFile(certificate);
        QVERIFY(keyFile.open(QIODevice::ReadOnly) && certificateFile.open(QIODevice::ReadOnly));
        QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
        configuration.setPrivateKey(QSslKey(keyFile.readAll(), QSsl::Rsa));
        configuration.setLocalCertificate(QSslCertificate(certificateFile.readAll()));
        configuration.setPeerVerifyMode(QSslSocket::VerifyNone);
        QSslServer server;
        server.setSslConfiguration(configuration);
        int handshakes = 0;
        int requests = 0;
        connect(&server, &QSslServer::startedEncryptionHandshake, this, [&] { ++handshakes; });
        connect(&server, &QSslServer::pendingConnectionAvailable, this, [&] {
            while (QTcpSocket *socket = server.nextPendingConnection()) {
                connect(socket, &QIODevice::readyRead, this, [&requests] { ++requests; });
            }
        });
        QVERIFY(server.listen(QHostAddress::LocalHost));
        qputenv("PELICANE_API_URL", QStringLiteral("https://127.0.0.1:%1/s/JSON/").arg(server.serverPort()).toUtf8());

        auto &[service, delegate] = *m_client;
        service.loginWithEmail("a@b.c", "pw");
        QVERIFY(waitFor(1));
        const OptionalError error = delegate.calls.first().error;
        QVERIFY(error);
        QCOMPARE(error->code(), TransportError::SecureConnectionFailed);
        QCOMPARE(error->localizedDescription(),
                 QStringLiteral("An SSL error has occurred and a secure connection to the server cannot be made."));
        QVERIFY(handshakes >= 1);
        QCOMPARE(requests, 0);
    }

    // The id goes back as it was received, a number or text; as text (in the digest list
    // request) a number keeps every digit: not cut to six, and no overflow past 64 bits.
    void userIdGoesBackAsReceived_data()
    {
        QTest::addColumn<QJsonValue>("id");
        QTest::addColumn<QString>("text");
        QTest::newRow("text") << QJsonValue("10002") << "10002";
        QTest::newRow("fraction") << QJsonValue(905437.497) << "905437.497";
        QTest::newRow("past 64 bits") << QJsonValue(1e20) << "100000000000000000000";
        QTest::newRow("eleven digits") << QJsonValue(12345678901.0) << "12345678901";
    }

    void userIdGoesBackAsReceived()
    {
        QFETCH(QJsonValue, id);
        QFETCH(QString, text);
        auto &[service, delegate] = *m_client;
        m_capture->respond(200, json({{"result", true}, {"user", QJsonObject{{"id", id}, {"token", "t1"}}}}));
        service.loginWithEmail("a@b.c", "pw");
        QVERIFY(waitFor(1));
        QCOMPARE(service.userId(), text);

        m_capture->respond(200, json({{"result", true}, {"md5", QJsonArray{}}}));
        service.readMd5List();
        QVERIFY(waitFor(2));
        QVERIFY(QString::fromUtf8(m_capture->requests().last().body).startsWith("user_id=" + text + "&token=t1&"));
        service.verifyLogin();
        QVERIFY(waitFor(3));
        QCOMPARE(QJsonDocument::fromJson(m_capture->requests().last().body).object().value("user_id"), id);
    }

    void digestListRequestOnTheWire()
    {
        auto &[service, delegate] = *m_client;
        service.setUserId("42");
        service.setUserToken("t0");
        const QSet<QString> &live = service.getMd5List();
        m_capture->respond(200, json({{"result", 1}, {"md5", QJsonArray{"aa", "bb", "aa"}}}));
        service.readMd5List();
        QVERIFY(waitFor(1));
        QCOMPARE(live, QSet<QString>({"aa", "bb"}));

        const CaptureServer::Request request = m_capture->requests().first();
        QCOMPARE(request.target, "/upload/");
        QCOMPARE(request.header("Content-Type"), "application/x-www-form-urlencoded");
        // Our own User-Agent is not set; Qt's stand-in may be.
        QVERIFY(!request.header("User-Agent").startsWith("Lyrabox"));
        const QString s = AppInfo::shortVersion();
        const QString b = AppInfo::buildNumber();
        QCOMPARE(QString::fromUtf8(request.body),
                 QStringLiteral("user_id=42&token=t0&client=pelicane%20mac&device_name=Pelicane%20for%20Mac%20%1"
                                "&user_agent=Lyrabox%20pelicane%20mac%20%1%20(%2)&version=%1%20(%2)")
                     .arg(s, b));
        QCOMPARE(delegate.calls.first().name, "md5");
        QCOMPARE(newLog(), QStringList({"ReadMD5List", "POST: " + m_capture->url("/upload/"),
                                        responseLine("/upload/", 200, true, false, "(null)")}));
    }

    void responseClassification_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<bool>("success");
        QTest::addColumn<QString>("message"); // the error's, or the envelope's for a success
        QTest::newRow("status without a name") << 520 << QByteArray("{\"result\":true}") << false << "(null) (520)";
        QTest::newRow("named status, body unread")
            << 503 << QByteArray("{\"result\":true}") << false << "Service Unavailable (503)";
        QTest::newRow("result \"1\"") << 200 << QByteArray("{\"result\":\"1\",\"message\":\"Hi\"}") << true << "Hi";
        QTest::newRow("result 1") << 200 << QByteArray("{\"result\":1}") << true << "(null)";
        QTest::newRow("result missing") << 200 << QByteArray("{\"message\":\"Nope\"}") << false << "Nope";
        QTest::newRow("result 0, no message")
            << 200 << QByteArray("{\"result\":0}") << false << "Error occurred but message was unspecified.";
        QTest::newRow("not JSON") << 200 << QByteArray("<html>") << false
                                  << QString::fromUtf8("The data couldn’t be read because it isn’t in the correct "
                                                       "format.");
    }

    void responseClassification()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(bool, success);
        QFETCH(QString, message);
        auto &[service, delegate] = *m_client;
        m_capture->respond(status, body);
        service.loginWithEmail("a@b.c", "pw");
        QVERIFY(waitFor(1));
        const OptionalError error = delegate.calls.first().error;
        QCOMPARE(bool(error), !success);
        if (error) {
            QCOMPARE(error->localizedDescription(), message);
            QVERIFY(!error->isMaintenance());
            QCOMPARE(service.userId(), QString(""));
        }
        QCOMPARE(newLog().last(), responseLine("/s/JSON/", status, success, false, message));
    }

    void maintenanceAndFailedSignIn()
    {
        auto &[service, delegate] = *m_client;
        m_capture->respond(200, json({{"result", false}, {"maintenance", true}, {"message", "Back soon"}}));
        service.loginWithEmail("a@b.c", "pw");
        QVERIFY(waitFor(1));
        QVERIFY(delegate.calls.at(0).error->isMaintenance());
        QCOMPARE(delegate.calls.at(0).error->localizedDescription(), "Back soon");

        // Verification never makes a maintenance error.
        m_capture->respond(
            200, json({{"result", false}, {"maintenance", true}, {"authenticated", true}, {"message", "Back soon"}}));
        service.verifyLogin();
        QVERIFY(waitFor(2));
        QCOMPARE(delegate.calls.at(1).name, "verify");
        QVERIFY(!delegate.calls.at(1).error->isMaintenance());
    }

    void verificationThatIsNoLongerAuthenticated()
    {
        auto &[service, delegate] = *m_client;
        service.setUserId("1");
        service.setUserToken("old");
        m_capture->respond(
            200,
            json({{"result", true}, {"authenticated", false}, {"user", QJsonObject{{"id", 9}, {"token", "new"}}}}));
        service.verifyLogin();
        settle(1);
        QCOMPARE(delegate.calls.size(), 1);
        QCOMPARE(delegate.calls.first().name, "authorization");
        QCOMPARE(service.userId(), "9"); // stored all the same
        QCOMPARE(service.userToken(), "new");
    }

    void networkFailureIsNeverALostSession()
    {
        auto &[service, delegate] = *m_client;
        // A port nobody listens on.
        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost, 0));
        const quint16 port = closed.serverPort();
        closed.close();
        qputenv("PELICANE_API_URL", QByteArray("http://127.0.0.1:" + QByteArray::number(port) + "/s/JSON/"));
        service.verifyLogin();
        QVERIFY(waitFor(1));
        QCOMPARE(delegate.calls.first().name, "verify");
        QCOMPARE(delegate.calls.first().error->code(), -1004);

        // Nor does a failing status.
        qputenv("PELICANE_API_URL", m_capture->url("/s/JSON/").toUtf8());
        m_capture->respond(500, "{}");
        service.verifyLogin();
        QVERIFY(waitFor(2));
        QCOMPARE(delegate.calls.at(1).name, "verify");
        QCOMPARE(delegate.calls.at(1).error->localizedDescription(), "Internal Server Error (500)");
    }

    void cancelledAndTimedOutRequests()
    {
        auto &[service, delegate] = *m_client;
        m_capture->setHold(true);
        service.loginWithEmail("a@b.c", "pw");
        QTRY_COMPARE_WITH_TIMEOUT(m_capture->requests().size(), 1, 30000);
        service.stopService();
        QVERIFY(waitFor(1));
        QCOMPARE(delegate.calls.first().error->code(), -999);
        QCOMPARE(newLog().last(), responseLine("/s/JSON/", 0, false, true, "cancelled"));

        service.setRequestTimeoutMs(300);
        service.readMd5List();
        settle(2);
        QCOMPARE(delegate.calls.size(), 2);
        QCOMPARE(delegate.calls.at(1).error->code(), -1001);
        QCOMPARE(newLog().last(), responseLine("/upload/", 0, false, false, "The operation timed out."));
    }

    void stopUploadsThenVerifyLogin()
    {
        // stopUploads cancels the queue and every request, and forgets the progress records.
        auto &[service, delegate] = *m_client;
        m_capture->setHold(true);
        service.readMd5List();
        QTRY_COMPARE_WITH_TIMEOUT(m_capture->requests().size(), 1, 30000);
        std::atomic<bool> release{false};
        const OperationPtr upload = service.fileLoadOperationQueue()->addOperation([&] {
            while (!release)
                QThread::msleep(5);
        });
        service.uploadProgresses().insert("/a.mp3", LyraboxUploadProgress{});
        service.stopUploads();
        QVERIFY(upload->isCancelled());
        release = true;
        QVERIFY(service.uploadProgresses().isEmpty());
        QVERIFY(waitFor(1));
        QCOMPARE(delegate.calls.first().error->code(), -999);

        // A resume verifies the session right after the pause: the pause
        // must not cancel that request too.
        m_capture->setHold(false);
        m_capture->respond(200, json({{"result", true}, {"authenticated", true}}));
        service.stopUploads();
        service.verifyLogin();
        QVERIFY(waitFor(2));
        QCOMPARE(delegate.calls.at(1).name, "verify");
        QCOMPARE(delegate.calls.at(1).error.value_or(Error::errorWithMessage("none")).localizedDescription(), "none");
    }

    void againstTheLocalService()
    {
        DevServerProcess server;
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        auto &[service, delegate] = *m_client;

        service.loginWithEmail(DevServerProcess::kDemoEmail, "wrong");
        QVERIFY(waitFor(1));
        QCOMPARE(delegate.calls.at(0).error->localizedDescription(), "Invalid e-mail address or password.");

        service.loginWithEmail(DevServerProcess::kDemoEmail, DevServerProcess::kDemoPassword);
        QVERIFY(waitFor(2));
        QCOMPARE(delegate.calls.at(1).error.value_or(Error::errorWithMessage("none")).localizedDescription(), "none");
        const QJsonObject library = server.library();
        QCOMPARE(service.userId(), QString::number(library.value("user_id").toInteger()));
        QCOMPARE(service.userToken(), library.value("token").toString());
        QCOMPARE(service.getSupportedFormatList(),
                 QStringList({"mp3", "m4a", "aac", "flac", "ogg", "wav", "aiff", "aif", "wma"}));

        QVERIFY(server.revokeToken());
        service.verifyLogin();
        QVERIFY(waitFor(3));
        QCOMPARE(delegate.calls.at(2).name, "authorization");
    }
};

QTEST_GUILESS_MAIN(TestLyraboxService)
#include "tst_lyraboxservice.moc"
