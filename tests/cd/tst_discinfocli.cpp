#include "support/devserverprocess.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QtTest>

namespace {

struct Run
{
    int exitCode = -1;
    QByteArray standardOutput;
    QByteArray standardError;
    qint64 elapsedMs = 0;

    QJsonObject json() const { return QJsonDocument::fromJson(standardOutput).object(); }
};

Run runCli(const QStringList &arguments, const QProcessEnvironment &environment)
{
    QProcess process;
    process.setProcessEnvironment(environment);
    QElapsedTimer timer;
    timer.start();
    process.start(QStringLiteral(PELICANE_CLI_PATH), arguments);
    Run run;
    if (process.waitForFinished(60000) && process.exitStatus() == QProcess::NormalExit) {
        run.exitCode = process.exitCode();
    }
    run.elapsedMs = timer.elapsed();
    run.standardOutput = process.readAllStandardOutput();
    run.standardError = process.readAllStandardError();
    return run;
}

} // namespace

// pelicane-cli disc-info on the sample disc that scripts/make-samples.sh
// writes, with the release and cover it writes for the local service.
class TestDiscInfoCli : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    DevServerProcess m_server;
    QString m_image;
    QProcessEnvironment m_environment;

private slots:
    void initTestCase()
    {
        QVERIFY(m_server.start());
        QProcess samples;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("PELICANE_SAMPLE_SECONDS"), QStringLiteral("1"));
        samples.setProcessEnvironment(environment);
        samples.start(QStringLiteral(PELICANE_SOURCE_DIR "/scripts/make-samples.sh"),
                      {m_dir.filePath(QStringLiteral("music")), m_server.dataDirectory()});
        QVERIFY(samples.waitForFinished(60000));
        QCOMPARE(samples.exitCode(), 0);
        m_image = m_dir.filePath(QStringLiteral("music/Sample CD/sample-cd.cue"));
        QVERIFY(QFile::exists(m_image));

        m_environment = QProcessEnvironment::systemEnvironment();
        m_environment.insert(QStringLiteral("PELICANE_MUSICBRAINZ_SERVER"),
                             QStringLiteral("127.0.0.1:%1").arg(m_server.port()));
        m_environment.insert(QStringLiteral("PELICANE_COVERART_URL"), m_server.baseUrl());
        m_environment.insert(QStringLiteral("PELICANE_DISCOGS_URL"), m_server.baseUrl());
    }

    void sampleDiscWithItsRelease()
    {
        const Run run = runCli({QStringLiteral("disc-info"), m_image, QStringLiteral("--json")}, m_environment);
        QCOMPARE(run.exitCode, 0);
        const QJsonObject json = run.json();
        QVERIFY2(!json.isEmpty(), run.standardOutput.constData());
        QCOMPARE(json.value("releaseId").toString(), QStringLiteral("5a1e7c1d-0c7b-4c8e-9c61-0d1f2a3b4c5d"));
        QCOMPARE(json.value("releases").toArray().size(), 2);
        QCOMPARE(json.value("error").type(), QJsonValue::Null);
        const QJsonArray tracks = json.value("tracks").toArray();
        QCOMPARE(tracks.size(), 3);
        QCOMPARE(tracks[0].toObject().value("title").toString(), QStringLiteral("Morning Tide"));
        QCOMPARE(tracks[2].toObject().value("year").toInt(), 2019);
        QVERIFY(tracks[1].toObject().value("path").toString().endsWith(QStringLiteral("/2 Audio Track.aiff")));
        QCOMPARE(json.value("artwork").toObject().value("format").toString(), QStringLiteral("image/jpeg"));
        QVERIFY(json.value("artwork").toObject().value("bytes").toInt() > 100);

        // The other pressing, chosen.
        const Run chosen = runCli({QStringLiteral("disc-info"), QStringLiteral("--release"),
                                   QStringLiteral("8f3d2b6e-7a4c-4f1e-a2b9-3c4d5e6f7a8b"), m_image},
                                  m_environment);
        QCOMPARE(chosen.exitCode, 0);
        QVERIFY(chosen.standardOutput.contains("Release: 8f3d2b6e-7a4c-4f1e-a2b9-3c4d5e6f7a8b"));
        QVERIFY(chosen.standardOutput.contains("year 2021"));
    }

    // Without MusicBrainz the disc still reads: CD-TEXT, and the failure
    // report kept off the JSON.
    void musicBrainzUnreachable()
    {
        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost));
        QProcessEnvironment environment = m_environment;
        environment.insert(QStringLiteral("PELICANE_MUSICBRAINZ_SERVER"),
                           QStringLiteral("127.0.0.1:%1").arg(closed.serverPort()));
        closed.close();
        const Run run = runCli({QStringLiteral("disc-info"), QStringLiteral("--json"), m_image}, environment);
        QCOMPARE(run.exitCode, 0);
        const QJsonObject json = run.json();
        QVERIFY2(!json.isEmpty(), run.standardOutput.constData());
        QCOMPARE(json.value("tracks").toArray()[1].toObject().value("title").toString(), QStringLiteral("GULL SONG"));
        QCOMPARE(json.value("error").toObject().value("code").toInt(), 1001);
        QCOMPARE(json.value("releaseId").type(), QJsonValue::Null);
        QVERIFY(run.standardError.contains("Connection Exception: '"));
        QVERIFY(run.elapsedMs < 30000);
    }

    void unreadableDiscAndWrongArguments()
    {
        const Run missing = runCli(
            {QStringLiteral("disc-info"), QStringLiteral("--json"), m_dir.filePath(QStringLiteral("missing.cue"))},
            m_environment);
        QCOMPARE(missing.exitCode, 1);
        QCOMPARE(missing.json().value("error").toObject().value("code").toInt(), 1000);
        QCOMPARE(missing.json().value("tracks").toArray().size(), 0);

        QCOMPARE(runCli({QStringLiteral("disc-info")}, m_environment).exitCode, 2);
        QCOMPARE(runCli({QStringLiteral("disc-info"), m_image, QStringLiteral("--release")}, m_environment).exitCode,
                 2);
        QCOMPARE(runCli({QStringLiteral("disc-info"), m_image, QStringLiteral("--bogus")}, m_environment).exitCode, 2);
    }
};

QTEST_MAIN(TestDiscInfoCli)
#include "tst_discinfocli.moc"
