// The faults the program's tests plant in the local service. Each must take
// effect on the requests it names, as often as asked and no more: a fault
// that never fired would let a test of the program's failure handling pass
// without the failure ever happening.
#include "support/devserverprocess.h"

#include "protocol/clientfields.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTest>
#include <QUrlQuery>

class TestDevServer : public QObject
{
    Q_OBJECT

    DevServerProcess m_server;
    DevServerProcess::Session m_session;
    QUrlQuery m_fields;
    QByteArray m_download;

    // One request of the kind. Only the downloads are well formed: a fault
    // answers before a request is looked at.
    LoopbackHttpResult request(const QByteArray &kind) const
    {
        const quint16 port = m_server.port();
        if (kind == "json") {
            return loopbackHttp(port, "POST", "/s/JSON/", {{"Content-Type", "application/json"}}, "{}");
        }
        if (kind == "list") {
            return loopbackHttp(port, "POST", "/upload/", {{"Content-Type", "application/x-www-form-urlencoded"}},
                                "a=b");
        }
        if (kind == "upload") {
            return loopbackHttp(port, "POST", "/upload/", {{"Content-Type", "multipart/form-data; boundary=b"}},
                                QByteArray(8192, 'u'));
        }
        return loopbackHttp(port, "GET", m_download + (kind == "header" ? "&offset=0&length=0" : "&offset=0&length=9"));
    }

    static bool shows(const QString &effect, const LoopbackHttpResult &answer, qint64 elapsedMs)
    {
        if (effect == QLatin1String("dropped")) {
            return answer.connectionDropped;
        }
        if (effect == QLatin1String("slow")) {
            return elapsedMs >= 750;
        }
        if (effect == QLatin1String("unmarked")) {
            return answer.status == 200 && !answer.body.isEmpty() && !answer.body.endsWith("EOF\n");
        }
        if (effect == QLatin1String("body")) {
            return answer.body == "not json";
        }
        return answer.status == effect.toInt();
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
        m_session = m_server.signInDemo();
        QCOMPARE(m_server.seed({QJsonObject{{"name", "a.flac"}, {"size", 200000}}}).size(), 1);
        m_fields = QUrlQuery{{"client", ClientFields::client()},
                             {"device_name", ClientFields::deviceName()},
                             {"user_agent", ClientFields::userAgent()},
                             {"version", ClientFields::version()}};
        QUrlQuery query = m_fields;
        query.setQueryItems(query.queryItems() + QList<QPair<QString, QString>>{{"_user_id", m_session.userId},
                                                                                {"_token", m_session.token},
                                                                                {"mode", "downloadlibrary"},
                                                                                {"container_type", "library"},
                                                                                {"end_marker", "1"}});
        m_download = "/download/?" + query.toString(QUrl::FullyEncoded).toUtf8();
        // A rule with a typo fails the test that sets it instead of doing nothing.
        QVERIFY(!m_server.addFault({{"endpoint", "everything"}}));
    }

    // As strict as the real service where the program's tests rely on it to
    // catch a client's mistake.
    void refusesWhatTheRealServiceRefuses()
    {
        const auto json = [&](QJsonObject request) {
            for (const auto &[name, value] : m_fields.queryItems(QUrl::FullyDecoded)) {
                request.insert(name, value);
            }
            return loopbackHttp(
                m_server.port(), "POST", "/s/JSON/",
                {{"Content-Type", "application/json"}, {"User-Agent", ClientFields::userAgent().toUtf8()}},
                QJsonDocument(request).toJson(QJsonDocument::Compact));
        };
        // The user id goes back as the number it was handed out as.
        QJsonObject status{{"mode", "status"}, {"token", m_session.token}, {"user_id", m_session.userId.toLongLong()}};
        QVERIFY(json(status).json().value("authenticated").toBool());
        status.insert("user_id", m_session.userId);
        QCOMPARE(json(status).status, 400);
        // A client whose auth_token does not fit its fields is refused.
        const LoopbackHttpResult forged = json({{"mode", "status"},
                                                {"email_address", DevServerProcess::kDemoEmail},
                                                {"password", DevServerProcess::kDemoPassword},
                                                {"auth_token", QString(64, u'0')}});
        QCOMPARE(forged.json().value("result").toBool(true), false);
        // The digest list takes its fields and no others.
        const QByteArray form = "user_id=" + m_session.userId.toUtf8() + "&token=" + m_session.token.toUtf8() + '&' +
                                m_fields.toString(QUrl::FullyEncoded).toUtf8();
        const LoopbackHeaders type{{"Content-Type", "application/x-www-form-urlencoded"}};
        QVERIFY(loopbackHttp(m_server.port(), "POST", "/upload/", type, form).json().value("result").toBool());
        QCOMPARE(loopbackHttp(m_server.port(), "POST", "/upload/", type, form + "&extra=1").status, 400);
    }

    void faultsHitTheirRequestsOnly_data()
    {
        QTest::addColumn<QJsonObject>("rule");
        QTest::addColumn<QByteArray>("kind");
        QTest::addColumn<QString>("effect");
        QTest::newRow("status, twice") << QJsonObject{{"endpoint", "json"}, {"status", 520}, {"count", 2}}
                                       << QByteArray("json") << "520";
        QTest::newRow("status until cleared")
            << QJsonObject{{"endpoint", "upload"}, {"status", 503}, {"count", 0}} << QByteArray("upload") << "503";
        QTest::newRow("download means the header too")
            << QJsonObject{{"endpoint", "download"}, {"status", 500}} << QByteArray("header") << "500";
        QTest::newRow("body") << QJsonObject{{"endpoint", "json"}, {"body", "not json"}} << QByteArray("json")
                              << "body";
        QTest::newRow("drop while receiving")
            << QJsonObject{{"endpoint", "upload"}, {"drop_after_bytes", 1000}} << QByteArray("upload") << "dropped";
        QTest::newRow("drop while sending")
            << QJsonObject{{"endpoint", "segment"}, {"drop_after_bytes", 5000}} << QByteArray("segment") << "dropped";
        QTest::newRow("drop a header") << QJsonObject{{"endpoint", "header"}, {"drop_after_bytes", 0}}
                                       << QByteArray("header") << "dropped";
        QTest::newRow("latency") << QJsonObject{{"endpoint", "list"}, {"latency_ms", 800}} << QByteArray("list")
                                 << "slow";
        // 200 kB at 250 kB/s.
        QTest::newRow("slow link") << QJsonObject{{"endpoint", "segment"}, {"bytes_per_second", 250000}}
                                   << QByteArray("segment") << "slow";
        QTest::newRow("no end marker") << QJsonObject{{"endpoint", "segment"}, {"omit_end_marker", true}}
                                       << QByteArray("segment") << "unmarked";
    }
    void faultsHitTheirRequestsOnly()
    {
        QFETCH(QJsonObject, rule);
        QFETCH(QByteArray, kind);
        QFETCH(QString, effect);
        const qint64 before = m_server.requestCounts().value(QString::fromLatin1(kind)).toInteger();
        const int count = rule.value("count").toInt(1);
        const int times = count == 0 ? 3 : count;
        QVERIFY(m_server.addFault(rule));
        // Every other kind of request is answered as usual meanwhile.
        for (const QByteArray &other : {"json", "list", "upload", "header", "segment"}) {
            if (other != kind && !rule.value("endpoint").toString().startsWith(QLatin1String("down"))) {
                QVERIFY2(!shows(effect, request(other), 0), other.constData());
            }
        }
        QElapsedTimer timer;
        for (int i = 0; i < times; ++i) {
            timer.start();
            const LoopbackHttpResult answer = request(kind);
            QVERIFY2(shows(effect, answer, timer.elapsed()), qPrintable(QString::number(answer.status)));
        }
        if (count == 0) {
            QVERIFY(m_server.clearFaults());
        }
        timer.start();
        const LoopbackHttpResult after = request(kind);
        QVERIFY2(!shows(effect, after, timer.elapsed()), qPrintable(QString::number(after.status)));
        // Tests count requests to tell that none was made.
        QCOMPARE(m_server.requestCounts().value(QString::fromLatin1(kind)).toInteger(), before + times + 1);
    }
};

QTEST_GUILESS_MAIN(TestDevServer)
#include "tst_devserver.moc"
