// Transport failures as the rest of the program sees them, and the bounded GET of the
// lookups against a server on the loopback (its refusals and time-out go through the
// same mapping).
#include "protocol/blockingget.h"
#include "protocol/transporterror.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QNetworkAccessManager>
#include <QProcess>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <QTimer>

#include <cstdio>

namespace {

// Answers each GET with the answer filed under its path, `delayMs` later, and keeps what
// was asked.
class LoopbackServer : public QObject
{
public:
    QHash<QByteArray, QByteArray> answers;
    int delayMs = 0;
    QByteArray requests;

    LoopbackServer()
    {
        m_server.listen(QHostAddress::LocalHost);
        connect(&m_server, &QTcpServer::newConnection, this, [this] {
            QTcpSocket *socket = m_server.nextPendingConnection();
            connect(socket, &QTcpSocket::readyRead, socket, [this, socket] {
                const QByteArray head = socket->readAll();
                requests += head;
                const QByteArray answer = answers.value(head.split(' ').value(1));
                QTimer::singleShot(delayMs, socket, [socket, answer] {
                    socket->write(answer);
                    socket->disconnectFromHost();
                });
            });
        });
    }
    QUrl url(const QString &path) const
    {
        return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(m_server.serverPort()).arg(path));
    }

private:
    QTcpServer m_server;
};

QByteArray answer(const QByteArray &status, const QByteArray &body, const QByteArray &headers = {})
{
    return "HTTP/1.1 " + status + "\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\n" + headers + "\r\n" +
           body;
}

int failedCode(QNetworkAccessManager &manager, const QString &url)
{
    QNetworkReply *reply = manager.get(QNetworkRequest(QUrl(url)));
    QSignalSpy finished(reply, &QNetworkReply::finished);
    finished.wait(10000);
    const OptionalError error = TransportError::errorForReply(reply);
    reply->deleteLater();
    return error ? error->code() : 0;
}

} // namespace

class TestProtocol : public QObject
{
    Q_OBJECT

private slots:
    void transportErrorsMapToCodes_data()
    {
        QTest::addColumn<int>("qtError");
        QTest::addColumn<bool>("bodyStarted");
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("message");
        const QString lost = QStringLiteral("The network connection was lost.");
        const QString offline = QStringLiteral("The Internet connection appears to be offline.");
        const int unknown = QNetworkReply::UnknownNetworkError;
        QTest::newRow("cancel") << int(QNetworkReply::OperationCanceledError) << false << "Network unreachable" << -999
                                << "cancelled";
        QTest::newRow("offline") << int(QNetworkReply::TemporaryNetworkFailureError) << false << "" << -1009 << offline;
        QTest::newRow("unknown before body") << unknown << false << "Qt text" << -1 << "Qt text";
        QTest::newRow("unknown after body") << unknown << true << "Qt text" << -1005 << lost;
        // No route out is offline, whatever Qt's code around the socket's words.
        QTest::newRow("no network") << unknown << false << "Network unreachable" << -1009 << offline;
        QTest::newRow("no host route") << unknown << true << "Host unreachable" << -1009 << offline;
        QTest::newRow("no route") << unknown << false << "Error: No route to host" << -1009 << offline;
    }

    void transportErrorsMapToCodes()
    {
        QFETCH(int, qtError);
        QFETCH(bool, bodyStarted);
        QFETCH(QString, text);
        const Error e = TransportError::errorForNetworkError(QNetworkReply::NetworkError(qtError), text, bodyStarted);
        QTEST(e.code(), "code");
        QTEST(e.localizedDescription(), "message");
    }

    // A server out of reach while the system reports no network is offline, but never
    // this machine's own loopback.
    void unreachableServersWhileOfflineAreOffline()
    {
        QNetworkAccessManager manager;
        TransportError::setOfflineProbe([] { return true; });
        QCOMPARE(failedCode(manager, QStringLiteral("http://no-such-host.invalid/")), -1009);
        QCOMPARE(failedCode(manager, QStringLiteral("http://127.0.0.1:1/")), -1004);
        TransportError::setOfflineProbe([] { return false; });
        QCOMPARE(failedCode(manager, QStringLiteral("http://no-such-host.invalid/")), -1003);
        TransportError::setOfflineProbe({});
    }

    // In a network namespace of its own (loopback down) a real connection fails as
    // offline: Qt's words for it are the ones looked for.
    void noNetworkAtAllIsOffline()
    {
        if (qEnvironmentVariableIsSet("PELICANE_PROBE_OFFLINE")) {
            QNetworkAccessManager manager;
            std::printf("offline %d\n", failedCode(manager, QStringLiteral("http://127.0.0.1:8080/")));
            return;
        }
        QProcess probe;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("PELICANE_PROBE_OFFLINE"), QStringLiteral("1"));
        probe.setProcessEnvironment(environment);
        probe.start(QStringLiteral("unshare"), {QStringLiteral("-n"), QCoreApplication::applicationFilePath(),
                                                QStringLiteral("noNetworkAtAllIsOffline")});
        if (!probe.waitForFinished(30000) || probe.exitStatus() != QProcess::NormalExit) {
            QSKIP("unshare is not available");
        }
        const QByteArray output = probe.readAllStandardOutput() + probe.readAllStandardError();
        if (output.contains("unshare:")) {
            QSKIP(qPrintable(QStringLiteral("no network namespace here: ") + QString::fromLocal8Bit(output)));
        }
        QVERIFY2(output.contains("offline -1009"), output.constData());
    }

    void boundedGet_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<int>("failure");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("error");
        QTest::addColumn<QByteArray>("body");
        using F = BlockingGet::Answer::Failure;
        QTest::newRow("through a redirect") << "/moved" << int(F::None) << 200 << "" << QByteArray("cover");
        QTest::newRow("too large") << "/big" << int(F::TooLarge) << 200 << "The answer is larger than 1000 bytes."
                                   << QByteArray();
        QTest::newRow("status") << "/missing" << int(F::HttpStatus) << 404 << "*" << QByteArray("gone");
        QTest::newRow("silent") << "/slow" << int(F::TimedOut) << 0 << "The operation timed out." << QByteArray();
        QTest::newRow("refused") << "closed" << int(F::Transport) << 0 << "Could not connect to the server."
                                 << QByteArray();
    }

    void boundedGet()
    {
        QFETCH(QString, path);
        LoopbackServer server;
        server.answers = {{"/moved", answer("302 Found", {}, "Location: /cover\r\n")},
                          {"/cover", answer("200 OK", "cover")},
                          {"/big", answer("200 OK", QByteArray(5000, 'x'))},
                          {"/missing", answer("404 Not Found", "gone")}};
        server.delayMs = path == QLatin1String("/slow") ? 5000 : 0;
        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost));
        const QUrl url = path == QLatin1String("closed")
                             ? QUrl(QStringLiteral("http://127.0.0.1:%1/").arg(closed.serverPort()))
                             : server.url(path);
        closed.close();
        QElapsedTimer clock;
        clock.start();
        const BlockingGet::Answer got = BlockingGet::get(url, 800, 1000);
        QVERIFY2(clock.elapsed() < 3000, qPrintable(QString::number(clock.elapsed())));
        QTEST(int(got.failure), "failure");
        QTEST(got.status, "status");
        QFETCH(QString, error);
        QVERIFY2(error == QLatin1String("*") ? !got.error.isEmpty() : got.error == error, qPrintable(got.error));
        QTEST(got.body, "body");
        if (path != QLatin1String("closed")) {
            QVERIFY(server.requests.contains("\r\nUser-Agent: Lyrabox Pelicane\r\n"));
        }
    }
};

QTEST_GUILESS_MAIN(TestProtocol)
#include "tst_protocol.moc"
