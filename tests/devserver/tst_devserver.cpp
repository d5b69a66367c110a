// The local service, exercised over raw loopback HTTP so every byte sent is the test's own.
#include "support/devserverprocess.h"

#include "multipartparser.h"

#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTest>

#include <zip.h>

namespace {

const QByteArray kClient = "pelicane mac";
const QByteArray kDevice = "Pelicane for Mac 2.1";
const QByteArray kAgent = "Lyrabox pelicane mac 2.1 (57)";
const QByteArray kVersion = "2.1 (57)";
const QByteArray kBoundary = "---------------------------14737809831466499882746641449";

QJsonObject clientFields()
{
    return {{"client", QString::fromUtf8(kClient)},
            {"device_name", QString::fromUtf8(kDevice)},
            {"user_agent", QString::fromUtf8(kAgent)},
            {"version", QString::fromUtf8(kVersion)}};
}

QString authToken()
{
    return QString::fromLatin1(
        QCryptographicHash::hash(QByteArray(kDevice + ':' + kVersion + ':' + kClient + ':' + kAgent),
                                 QCryptographicHash::Sha256)
            .toHex());
}

QString md5Hex(const QByteArray &data)
{
    return QString::fromLatin1(QCryptographicHash::hash(data, QCryptographicHash::Md5).toHex());
}

// A multipart body in the layout of the client: fields, the file, then the owner.
struct Upload
{
    QList<QPair<QByteArray, QByteArray>> before{{"client", kClient},
                                                {"device_name", kDevice},
                                                {"user_agent", kAgent},
                                                {"version", kVersion},
                                                {"file_path", "/Music/Song.mp3"}};
    QByteArray fileName = "Song.mp3";
    QByteArray fileType = "audio/mpeg";
    QByteArray content = "ID3 some audio";
    QList<QPair<QByteArray, QByteArray>> after;
    QByteArray closing = "--" + kBoundary + "--\r\n";

    static QByteArray field(const QByteArray &name, const QByteArray &value)
    {
        return "--" + kBoundary + "\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" + value + "\r\n";
    }
    QByteArray head() const
    {
        QByteArray out;
        for (const auto &[name, value] : before)
            out += field(name, value);
        out += "--" + kBoundary + "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"" + fileName +
               "\"\r\nContent-Type: " + fileType + "\r\n\r\n";
        return out;
    }
    QByteArray tail() const
    {
        QByteArray out = "\r\n";
        for (const auto &[name, value] : after)
            out += field(name, value);
        return out + closing;
    }
    QByteArray body() const { return head() + content + tail(); }
};

QList<QPair<QString, QByteArray>> zipEntries(const QByteArray &archive, QString *error)
{
    QList<QPair<QString, QByteArray>> entries;
    zip_error_t zipError;
    zip_error_init(&zipError);
    zip_source_t *source = zip_source_buffer_create(archive.constData(), zip_uint64_t(archive.size()), 0, &zipError);
    zip_t *zip = source ? zip_open_from_source(source, ZIP_CHECKCONS | ZIP_RDONLY, &zipError) : nullptr;
    if (!zip) {
        *error = QString::fromUtf8(zip_error_strerror(&zipError));
        if (source)
            zip_source_free(source);
        zip_error_fini(&zipError);
        return entries;
    }
    for (zip_int64_t i = 0; i < zip_get_num_entries(zip, 0); ++i) {
        zip_stat_t stat;
        zip_stat_index(zip, zip_uint64_t(i), 0, &stat);
        QByteArray data(qsizetype(stat.size), Qt::Uninitialized);
        zip_file_t *file = zip_fopen_index(zip, zip_uint64_t(i), 0);
        const zip_int64_t n = file ? zip_fread(file, data.data(), stat.size) : -1;
        if (file)
            zip_fclose(file); // also checks the CRC of what was read
        if (n != zip_int64_t(stat.size))
            *error = "cannot read entry " + QString::fromUtf8(stat.name);
        entries.append({QString::fromUtf8(stat.name), data});
    }
    zip_close(zip);
    zip_error_fini(&zipError);
    return entries;
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

class TestDevServer : public QObject
{
    Q_OBJECT

private:
    DevServerProcess m_server;
    QString m_userId;
    QString m_token;

    LoopbackHttpResult post(const QByteArray &path, const QByteArray &contentType, const QByteArray &body)
    {
        return loopbackHttp(m_server.port(), "POST", path, {{"Content-Type", contentType}, {"User-Agent", kAgent}},
                            body);
    }
    LoopbackHttpResult json(QJsonObject request)
    {
        const QJsonObject fields = clientFields();
        for (auto it = fields.begin(); it != fields.end(); ++it) {
            if (!request.contains(it.key()))
                request.insert(it.key(), it.value());
        }
        return post("/s/JSON/", "application/json", QJsonDocument(request).toJson(QJsonDocument::Compact));
    }
    QJsonObject signIn(const QString &email, const QString &password, bool supportedTypes = true)
    {
        return json({{"mode", "status"},
                     {"email_address", email},
                     {"password", password},
                     {"supported_types", supportedTypes},
                     {"auth_token", authToken()}})
            .json();
    }
    QJsonObject verify(const QJsonValue &userId, const QString &token) { return status(userId, token).json(); }
    LoopbackHttpResult status(const QJsonValue &userId, const QString &token)
    {
        return json({{"mode", "status"}, {"user_id", userId}, {"token", token}});
    }
    LoopbackHttpResult status() { return status(m_userId.toLongLong(), m_token); }
    // The digest-list form as the client encodes it: blanks escaped, parentheses kept.
    LoopbackHttpResult digestList(const QString &userId, const QString &token, const QByteArray &extra = {})
    {
        auto legacy = [](QByteArray v) { return v.replace(" ", "%20"); };
        const QByteArray body = "user_id=" + userId.toUtf8() + "&token=" + token.toUtf8() +
                                "&client=" + legacy(kClient) + "&device_name=" + legacy(kDevice) +
                                "&user_agent=" + legacy(kAgent) + "&version=" + legacy(kVersion) + extra;
        return post("/upload/", "application/x-www-form-urlencoded", body);
    }
    Upload upload(const QByteArray &content = "ID3 some audio")
    {
        Upload u;
        u.content = content;
        u.after = {{"user_id", m_userId.toUtf8()}, {"token", m_token.toUtf8()}};
        return u;
    }
    LoopbackHttpResult send(const Upload &u)
    {
        return loopbackHttp(m_server.port(), "POST", "/upload/",
                            {{"Content-Type", "multipart/form-data; boundary=" + kBoundary}, {"User-Agent", kAgent}},
                            u.body());
    }
    QByteArray downloadQuery(const QByteArray &range, const QString &token = QString())
    {
        return "/download/?_user_id=" + m_userId.toUtf8() + "&_token=" + (token.isEmpty() ? m_token : token).toUtf8() +
               "&client=pelicane%20mac&device_name=Pelicane%20for%20Mac%202.1&user_agent=Lyrabox%20pelicane%2520mac"
               "%202.1%20(57)&version=2.1%20(57)&mode=downloadlibrary&container_type=library" +
               range;
    }
    LoopbackHttpResult download(const QByteArray &range, const QString &token = QString())
    {
        return loopbackHttp(m_server.port(), "GET", downloadQuery(range, token));
    }
    QJsonArray libraryFiles() { return m_server.library().value("files").toArray(); }
    int incomingCount() const
    {
        return int(QDir(m_server.dataDirectory() + "/incoming").entryList(QDir::Files | QDir::Hidden).size());
    }

private slots:
    void init()
    {
        // A fresh server per test: each starts from an empty library and no faults.
        QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
        const QJsonObject answer = signIn(DevServerProcess::kDemoEmail, DevServerProcess::kDemoPassword);
        QVERIFY(answer.value("result").toBool());
        m_userId = QString::number(answer.value("user").toObject().value("id").toInteger());
        m_token = answer.value("user").toObject().value("token").toString();
    }

    void cleanup() { m_server.stop(); }

    void signInAnswersTheEnvelope()
    {
        const QJsonObject answer = signIn("DEMO@lyrabox.test", "demo");
        QCOMPARE(answer.value("authenticated").toBool(), true);
        const QJsonObject user = answer.value("user").toObject();
        QVERIFY(user.value("id").isDouble());
        QCOMPARE(user.value("token").toString(), m_token); // a token lasts across sign-ins

        QVERIFY(!answer.value("supported").toArray().isEmpty());

        QVERIFY(!signIn(DevServerProcess::kDemoEmail, "demo", false).contains("supported"));

        // A wrong password is met through the client in tst_lyraboxservice and tst_signin.
        // A client whose auth_token does not fit its fields is refused.
        const QJsonObject forged = json({{"mode", "status"},
                                         {"email_address", DevServerProcess::kDemoEmail},
                                         {"password", "demo"},
                                         {"auth_token", QString(64, QLatin1Char('0'))}})
                                       .json();
        QCOMPARE(forged.value("result").toBool(), false);
    }

    void verificationAndRevocation()
    {
        const QJsonObject answer = verify(m_userId.toLongLong(), m_token);
        QCOMPARE(answer.value("result").toBool(), true);
        QCOMPARE(answer.value("authenticated").toBool(), true);
        QCOMPARE(answer.value("user").toObject().value("token").toString(), m_token);
        QVERIFY(!answer.value("supported").toArray().isEmpty()); // sent without being asked
        // The id was handed out as a number and must come back as one.
        const LoopbackHttpResult asText = status(m_userId, m_token);
        QCOMPARE(asText.status, 400);
        QVERIFY(asText.json().value("message").toString().contains("number"));
        QVERIFY(m_server.revokeToken());
        QCOMPARE(verify(m_userId.toLongLong(), m_token).value("authenticated").toBool(), false);
        QCOMPARE(digestList(m_userId, m_token).json().value("result").toBool(), false);

        const QString fresh =
            signIn(DevServerProcess::kDemoEmail, "demo").value("user").toObject().value("token").toString();
        QVERIFY(!fresh.isEmpty() && fresh != m_token);
        QCOMPARE(verify(m_userId.toLongLong(), fresh).value("authenticated").toBool(), true);
    }

    void malformedJsonRequestsGet400()
    {
        auto check = [&](const LoopbackHttpResult &r, const char *what) {
            QVERIFY2(r.status == 400, what);
            QCOMPARE(r.json().value("result").toBool(true), false);
            QVERIFY2(!r.json().value("message").toString().isEmpty(), what);
        };
        check(post("/s/JSON/", "text/plain", "{}"), "content type");
        check(post("/s/JSON/", "application/json", "{\"mode\": "), "truncated JSON");
        check(json({{"mode", "upload"}}), "unknown mode");
        QCOMPARE(loopbackHttp(m_server.port(), "GET", "/nowhere").status, 404);
    }

    void maintenanceRefusesEverything()
    {
        QVERIFY(m_server.setMaintenance(true));
        QCOMPARE(signIn(DevServerProcess::kDemoEmail, "demo").value("maintenance").toBool(), true);
        QCOMPARE(verify(m_userId.toLongLong(), m_token).value("authenticated").toBool(),
                 true); // the session itself is fine
        QCOMPARE(send(upload()).status, 503);
        QCOMPARE(download("&offset=0&length=0").status, 503);
    }

    void digestListReflectsTheLibrary()
    {
        QCOMPARE(digestList(m_userId, m_token).json().value("md5"), QJsonArray());

        const QJsonArray seeded = m_server.seed(
            {QJsonObject{{"name", "a.mp3"}, {"content", "alpha"}}, QJsonObject{{"name", "b.mp3"}, {"size", 5000}}});
        QCOMPARE(seeded.size(), 2);
        QCOMPARE(seeded.at(0).toObject().value("md5").toString(), md5Hex("alpha"));
        const QJsonArray md5 = digestList(m_userId, m_token).json().value("md5").toArray();
        QCOMPARE(md5.size(), 2);
        QVERIFY(md5.contains(md5Hex("alpha")));
        QVERIFY(md5.contains(seeded.at(1).toObject().value("md5")));

        const QJsonObject refused = digestList(m_userId, "0123").json();
        QCOMPARE(refused.value("message").toString(), "Invalid user or token.");
        QCOMPARE(digestList(m_userId, m_token, "&extra=1").status, 400);
    }

    void uploadStoresTheFileAndItsFields()
    {
        Upload u = upload(QByteArray(100000, 'x') + "end");
        u.fileName = "My%20Song%20%C3%A9%28live%29.mp3";
        u.before +=
            {{"playlist-name", "Road Trip"}, {"playlist-order", "123456"}, {"tag-name", "Summer"}, {"reupload", "1"}};
        const LoopbackHttpResult r = send(u);
        QCOMPARE(r.status, 200);
        QCOMPARE(r.json().value("result").toBool(), true);
        QCOMPARE(r.json().value("md5").toString(), md5Hex(u.content));

        const QJsonArray files = libraryFiles();
        QCOMPARE(files.size(), 1);
        const QJsonObject f = files.at(0).toObject();
        QCOMPARE(f.value("file_name").toString(), QString::fromUtf8("My Song é(live).mp3"));
        QCOMPARE(f.value("file_path").toString(), "/Music/Song.mp3");
        QCOMPARE(f.value("content_type").toString(), "audio/mpeg");
        QCOMPARE(f.value("playlist_name").toString(), "Road Trip");
        QCOMPARE(f.value("playlist_order").toString(), "123456");
        QCOMPARE(f.value("tag_name").toString(), "Summer");
        QCOMPARE(readFile(f.value("stored_path").toString()), u.content);
        QCOMPARE(digestList(m_userId, m_token).json().value("md5").toArray(), QJsonArray{md5Hex(u.content)});
        QCOMPARE(incomingCount(), 0);
    }

    void duplicatesAreKeptOnlyWhenAskedFor()
    {
        QCOMPARE(send(upload("same bytes")).json().value("duplicate").toBool(), false);
        const LoopbackHttpResult again = send(upload("same bytes"));
        QCOMPARE(again.status, 200);
        QCOMPARE(again.json().value("result").toBool(), true);
        QCOMPARE(again.json().value("duplicate").toBool(), true);
        QCOMPARE(libraryFiles().size(), 1);

        Upload forced = upload("same bytes");
        forced.before += {{"reupload", "1"}};
        QCOMPARE(send(forced).json().value("duplicate").toBool(), false);
        QCOMPARE(libraryFiles().size(), 2);
        QCOMPARE(incomingCount(), 0);
    }

    void malformedUploadsAreRefused()
    {
        // The token missing is malformed; a wrong one is refused.
        for (const bool missing : {true, false}) {
            Upload u = upload(QByteArray(20000, 'a'));
            if (missing)
                u.after.removeLast();
            else
                u.after[1].second = "wrong";
            const LoopbackHttpResult r = send(u);
            QCOMPARE(r.status, missing ? 400 : 401);
            QCOMPARE(r.json().value("result").toBool(true), false);
            QVERIFY(!r.json().value("message").toString().isEmpty());
            QCOMPARE(libraryFiles().size(), 0);
            QCOMPARE(incomingCount(), 0);
        }
        QCOMPARE(send(upload()).status, 200); // and the next good one still works
    }

    // A body that goes on after its closing delimiter fails, and is not
    // complete, however its pieces arrive.
    void multipartBodyWithDataAfterTheEndIsNeverComplete()
    {
        const std::string body = "--b\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\nv\r\n--b--\r\ntrailing";
        for (const size_t piece : {body.size(), size_t(1), size_t(3)}) {
            int parts = 0;
            MultipartParser parser(
                "b", [&](const MultipartParser::PartHeader &) { return std::string(++parts > 1 ? "twice" : ""); },
                [](const char *, size_t) { return std::string(); }, [] { return std::string(); });
            for (size_t at = 0; at < body.size(); at += piece)
                parser.feed(body.data() + at, std::min(piece, body.size() - at));
            QVERIFY(!parser.finish());
            QCOMPARE(parser.error(), "Unexpected data after the closing boundary");
            QVERIFY(!parser.complete());
            QCOMPARE(parts, 1);
        }
    }

    void libraryDownloadSegments()
    {
        QJsonArray seedFiles;
        for (int i = 0; i < 5; ++i)
            seedFiles.append(QJsonObject{{"name", i == 3 ? "t0.mp3" : QString("t%1.mp3").arg(i)}, {"size", 3000 + i}});
        const QJsonArray stored = m_server.seed(seedFiles);
        QCOMPARE(stored.size(), 5);

        const LoopbackHttpResult header = download("&offset=0&length=0&end_marker=1");
        QCOMPARE(header.status, 200);
        QCOMPARE(header.header("Total-Tracks"), "5");
        QCOMPARE(header.body.size(), 0);

        LoopbackHttpResult segment = download("&offset=1&length=3&end_marker=1");
        QCOMPARE(segment.status, 200);
        QCOMPARE(segment.header("Total-Tracks"), "5");
        QCOMPARE(segment.header("Estimated-Content-Length").toLongLong(), segment.body.size());
        QVERIFY(segment.body.endsWith("EOF\n"));
        QString error;
        auto entries = zipEntries(segment.body.chopped(4), &error);
        QVERIFY2(error.isEmpty(), qPrintable(error));
        QCOMPARE(entries.size(), 3);
        QCOMPARE(entries.at(0).first, "t1.mp3");
        QCOMPARE(entries.at(2).first, "t0 (2).mp3"); // unique across the whole library
        for (int i = 0; i < 3; ++i)
            QCOMPARE(entries.at(i).second, readFile(stored.at(i + 1).toObject().value("stored_path").toString()));

        const LoopbackHttpResult last = download("&offset=4&length=50&end_marker=1");
        QCOMPARE(zipEntries(last.body.chopped(4), &error).size(), 1);
        const LoopbackHttpResult beyond = download("&offset=9&length=50&end_marker=1");
        QCOMPARE(zipEntries(beyond.body.chopped(4), &error).size(), 0);
        QVERIFY2(error.isEmpty(), qPrintable(error));

        QCOMPARE(download("&offset=0&length=0", "bad").status, 401);
        QCOMPARE(download("&offset=x&length=5").status, 400);
    }

    void statusAndBodyFaults()
    {
        QVERIFY(m_server.addFault({{"endpoint", "json"}, {"status", 520}, {"count", 2}, {"message", "Down"}}));
        for (int i = 0; i < 2; ++i) {
            const LoopbackHttpResult r = status();
            QCOMPARE(r.status, 520);
            QCOMPARE(r.json().value("message").toString(), "Down");
        }
        QCOMPARE(status().status, 200);

        QVERIFY(m_server.addFault({{"endpoint", "json"}, {"body", "not json"}}));
        const LoopbackHttpResult raw = status();
        QCOMPARE(raw.status, 200);
        QCOMPARE(raw.body, "not json");

        // Per endpoint: a fault on uploads leaves the list alone; count 0 lasts until cleared.
        QVERIFY(m_server.addFault({{"endpoint", "upload"}, {"status", 503}, {"count", 0}}));
        QCOMPARE(digestList(m_userId, m_token).status, 200);
        for (int i = 0; i < 3; ++i)
            QCOMPARE(send(upload()).status, 503);
        QCOMPARE(libraryFiles().size(), 0);
        QVERIFY(m_server.clearFaults());
        QCOMPARE(send(upload()).status, 200);

        QVERIFY(m_server.addFault({{"endpoint", "header"}, {"status", 500}}));
        QCOMPARE(download("&offset=0&length=0").status, 500);
        QCOMPARE(download("&offset=0&length=0").status, 200);

        QVERIFY(!m_server.addFault({{"endpoint", "everything"}}));

        const QJsonObject counts = m_server.requestCounts();
        QCOMPARE(counts.value("upload").toInteger(), 4);
        QCOMPARE(counts.value("header").toInteger(), 2);
    }

    void latencyAndRateDelayTheAnswer()
    {
        QVERIFY(m_server.addFault({{"endpoint", "list"}, {"latency_ms", 800}}));
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(digestList(m_userId, m_token).status, 200);
        QVERIFY(timer.elapsed() >= 800);

        // A slow link: 200 kB at 250 kB/s take 0.8 s, whole.
        m_server.seed({QJsonObject{{"name", "slow.flac"}, {"size", 200000}}});
        QVERIFY(m_server.addFault({{"endpoint", "segment"}, {"bytes_per_second", 250000}}));
        timer.restart();
        const LoopbackHttpResult slow = download("&offset=0&length=50&end_marker=1");
        const qint64 elapsed = timer.elapsed();
        QCOMPARE(slow.status, 200);
        QCOMPARE(slow.header("Estimated-Content-Length").toLongLong(), slow.body.size());
        QVERIFY2(elapsed >= 750 && elapsed < 5000, qPrintable(QString::number(elapsed)));
        QVERIFY(!m_server.addFault({{"endpoint", "segment"}, {"bytes_per_second", -1}}));
    }

    void droppedConnections()
    {
        // While receiving an upload: nothing is stored and no temporary file is left.
        QVERIFY(m_server.addFault({{"endpoint", "upload"}, {"drop_after_bytes", 64 * 1024}}));
        const LoopbackHttpResult cut = send(upload(QByteArray(4 * 1024 * 1024, 'u')));
        QVERIFY(cut.connectionDropped);
        QCOMPARE(cut.status, 0);
        QCOMPARE(libraryFiles().size(), 0);
        QTRY_COMPARE_WITH_TIMEOUT(incomingCount(), 0, 10000);
        QCOMPARE(send(upload()).status, 200);

        // While sending a segment: fewer bytes than announced arrive.
        m_server.seed({QJsonObject{{"name", "big.flac"}, {"size", 300000}}});
        QVERIFY(m_server.addFault({{"endpoint", "segment"}, {"drop_after_bytes", 5000}}));
        const LoopbackHttpResult partial = download("&offset=0&length=50&end_marker=1");
        QVERIFY(partial.connectionDropped);

        QVERIFY(m_server.addFault({{"endpoint", "json"}, {"drop_after_bytes", 10}}));
        QVERIFY(status().connectionDropped);

        // Without the end marker the segment is a plain zip of the announced length.
        QVERIFY(m_server.addFault({{"endpoint", "segment"}, {"omit_end_marker", true}}));
        const LoopbackHttpResult unmarked = download("&offset=0&length=50&end_marker=1");
        QCOMPARE(unmarked.status, 200);
        QVERIFY(!unmarked.body.endsWith("EOF\n"));
        QCOMPARE(unmarked.header("Estimated-Content-Length").toLongLong(), unmarked.body.size());
        QString error;
        QCOMPARE(zipEntries(unmarked.body, &error).size(), 2);
        QVERIFY(download("&offset=0&length=50&end_marker=1").body.endsWith("EOF\n"));
    }
};

QTEST_GUILESS_MAIN(TestDevServer)
#include "tst_devserver.moc"
