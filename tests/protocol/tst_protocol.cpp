#include "core/error.h"
#include "protocol/transporterror.h"
#include "protocol/urlencoding.h"

#include <QCoreApplication>
#include <QNetworkAccessManager>
#include <QProcess>
#include <QSignalSpy>
#include <QTest>

#include <cstdio>

class TestProtocol : public QObject
{
    Q_OBJECT

private slots:
    void cancelledErrorNamesDomainAndCode()
    {
        const Error cancelled = Error::cancelledError();
        QCOMPARE(cancelled.code(), -999);
        QVERIFY(cancelled.isCancelled());
        QVERIFY(!cancelled.hasUserInfo());
        QCOMPARE(cancelled.localizedDescription(),
                 QStringLiteral("The operation couldn’t be completed. (com.lyrabox.pelicane error -999.)"));
    }

    void transportErrorsMapToCodes_data()
    {
        QTest::addColumn<int>("qtError");
        QTest::addColumn<bool>("bodyStarted");
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("message");
        QTest::newRow("cancel") << int(QNetworkReply::OperationCanceledError) << false << -999 << "cancelled";
        QTest::newRow("timeout") << int(QNetworkReply::TimeoutError) << false << -1001 << "The operation timed out.";
        QTest::newRow("closed") << int(QNetworkReply::RemoteHostClosedError) << false << -1005
                                << "The network connection was lost.";
        QTest::newRow("offline") << int(QNetworkReply::TemporaryNetworkFailureError) << false << -1009
                                 << "The Internet connection appears to be offline.";
        QTest::newRow("refused") << int(QNetworkReply::ConnectionRefusedError) << false << -1004
                                 << "Could not connect to the server.";
        QTest::newRow("unknown before body") << int(QNetworkReply::UnknownNetworkError) << false << -1 << "Qt text";
        QTest::newRow("unknown after body")
            << int(QNetworkReply::UnknownNetworkError) << true << -1005 << "The network connection was lost.";
    }

    // No route out is the offline case, whatever Qt's code around the socket's
    // words, before or after the body began; and a failure to reach a server
    // while the system reports no network is offline too, but never for this
    // machine's own loopback.
    void unreachableNetworksAreOffline()
    {
        for (const char *text : {"Network unreachable", "Host unreachable", "Error: No route to host"}) {
            for (bool bodyStarted : {false, true}) {
                const Error e = TransportError::errorForNetworkError(QNetworkReply::UnknownNetworkError,
                                                                     QString::fromLatin1(text), bodyStarted);
                QCOMPARE(e.code(), -1009);
                QCOMPARE(e.localizedDescription(), QStringLiteral("The Internet connection appears to be offline."));
            }
        }
        QCOMPARE(TransportError::errorForNetworkError(QNetworkReply::OperationCanceledError,
                                                      QStringLiteral("Network unreachable"))
                     .code(),
                 -999);

        QNetworkAccessManager manager;
        auto failedCode = [&](const QString &url) {
            QNetworkReply *reply = manager.get(QNetworkRequest(QUrl(url)));
            QSignalSpy finished(reply, &QNetworkReply::finished);
            finished.wait(10000);
            const OptionalError error = TransportError::errorForReply(reply);
            reply->deleteLater();
            return error ? error->code() : 0;
        };
        TransportError::setOfflineProbe([] { return true; });
        // A name that cannot resolve here, and a refused port of this machine.
        QCOMPARE(failedCode(QStringLiteral("http://no-such-host.invalid/")), -1009);
        QCOMPARE(failedCode(QStringLiteral("http://127.0.0.1:1/")), -1004);
        TransportError::setOfflineProbe([] { return false; });
        QCOMPARE(failedCode(QStringLiteral("http://no-such-host.invalid/")), -1003);
        TransportError::setOfflineProbe({});
    }

    // With no network at all (a namespace of its own, loopback down), a real
    // connection attempt fails as offline. Needs unshare; the cases above
    // cover the mapping without it.
    void noNetworkNamespaceIsOffline()
    {
        if (qEnvironmentVariableIsSet("PELICANE_PROBE_OFFLINE")) {
            QSKIP("inside the probe");
        }
        QProcess probe;
        probe.setProgram(QStringLiteral("unshare"));
        probe.setArguments(
            {QStringLiteral("-n"), QCoreApplication::applicationFilePath(), QStringLiteral("probeOffline")});
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("PELICANE_PROBE_OFFLINE"), QStringLiteral("1"));
        probe.setProcessEnvironment(environment);
        probe.start();
        if (!probe.waitForFinished(30000) || probe.exitStatus() != QProcess::NormalExit) {
            QSKIP("unshare is not available");
        }
        const QByteArray output = probe.readAllStandardOutput() + probe.readAllStandardError();
        if (output.contains("unshare:")) {
            QSKIP(qPrintable(QStringLiteral("no network namespace here: ") + QString::fromLocal8Bit(output.trimmed())));
        }
        QVERIFY2(probe.exitCode() == 0, output.constData());
        QVERIFY2(output.contains("offline -1009"), output.constData());
    }

    void probeOffline()
    {
        if (!qEnvironmentVariableIsSet("PELICANE_PROBE_OFFLINE")) {
            QSKIP("run by noNetworkNamespaceIsOffline");
        }
        QNetworkAccessManager manager;
        QNetworkReply *reply = manager.get(QNetworkRequest(QUrl(QStringLiteral("http://10.9.9.9:8080/"))));
        QSignalSpy finished(reply, &QNetworkReply::finished);
        QVERIFY(finished.wait(10000));
        const OptionalError error = TransportError::errorForReply(reply);
        QVERIFY(error);
        std::printf("offline %d (%s)\n", error->code(), qPrintable(reply->errorString()));
        QCOMPARE(error->code(), -1009);
    }

    void transportErrorsMapToCodes()
    {
        QFETCH(int, qtError);
        QFETCH(bool, bodyStarted);
        QFETCH(int, code);
        QFETCH(QString, message);
        const Error e = TransportError::errorForNetworkError(QNetworkReply::NetworkError(qtError),
                                                             QStringLiteral("Qt text"), bodyStarted);
        QCOMPARE(e.code(), code);
        QCOMPARE(e.localizedDescription(), message);
    }

    void encodings()
    {
        // Every reserved character is escaped by the hand-built query encoding.
        QCOMPARE(URLEncodedString(QStringLiteral("a b!*'();:@&=+$,/?%#[]~._-")),
                 QStringLiteral("a%20b%21%2A%27%28%29%3B%3A%40%26%3D%2B%24%2C%2F%3F%25%23%5B%5D~._-"));
        // The form escaping leaves reserved characters alone (blanks and parentheses are in
        // the service's wire tests).
        QCOMPARE(legacyEscape(QStringLiteral("a&b=c\"<é>")), QStringLiteral("a&b=c%22%3C%C3%A9%3E"));
    }
};

QTEST_GUILESS_MAIN(TestProtocol)
#include "tst_protocol.moc"
