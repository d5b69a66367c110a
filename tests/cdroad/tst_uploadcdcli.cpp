// pelicane-cli upload-cd against the local service: the sample disc that
// scripts/make-samples.sh writes, a disc known only by its CD-TEXT, and the
// ways the command refuses or fails to start.
#include "cdroadsupport.h"

#include "support/clitesting.h"
#include "support/discimage.h"
#include "support/discservicesdata.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

class TestUploadCDCli : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    DevServerProcess m_server;
    QString m_sample;
    QProcessEnvironment m_environment;

    ProgramRun uploadCd(const QStringList &arguments) const
    {
        return runCli(QStringList{QStringLiteral("upload-cd")} + arguments, m_environment);
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
        m_sample = makeSamples(m_server, m_dir.filePath(QStringLiteral("music")));
        QVERIFY(!m_sample.isEmpty());
        DiscServicesData::pointAt(m_server);
        m_environment = accountEnvironment(QString::fromLatin1(DevServerProcess::kDemoEmail),
                                           QString::fromLatin1(DevServerProcess::kDemoPassword));
    }

    // Every track of the sample disc arrives as a FLAC file of the image's
    // audio, with the release's titles and the album data of the options.
    void sampleDiscWithAlbumOptions()
    {
        const auto before = storedFilesByName(m_server);
        const ProgramRun run =
            uploadCd({QStringLiteral("--yes"), QStringLiteral("--album"), QStringLiteral("Given Album"),
                      QStringLiteral("--artist=Given Artist"), QStringLiteral("--disc"), QStringLiteral("2"),
                      QStringLiteral("--playlist"), QStringLiteral("Harbour"), m_sample});
        QVERIFY2(run.exitCode == 0, qPrintable(run.standardError));
        // The metadata found and the candidate releases, then the summary.
        QVERIFY(run.standardOutput.contains(QStringLiteral("* 5a1e7c1d-0c7b-4c8e-9c61-0d1f2a3b4c5d")));
        QVERIFY(run.standardOutput.contains(QStringLiteral("8f3d2b6e-7a4c-4f1e-a2b9-3c4d5e6f7a8b")));
        QVERIFY(run.standardOutput.contains(QStringLiteral("2. Gull Song")));
        QVERIFY(run.standardOutput.contains(QStringLiteral("Uploaded: \t3 tracks")));
        QVERIFY(run.standardError.contains(QStringLiteral("Uploaded: Lantern Walk")));
        // Every track was checked against the disc's AccurateRip entry.
        QVERIFY2(run.standardOutput.contains(QStringLiteral("02 Gull Song: accurately ripped (confidence ")),
                 qPrintable(run.standardOutput));
        // The rip log names every track with its file and its verdict.
        const qsizetype at = run.standardOutput.indexOf(QStringLiteral("Rip log: "));
        QVERIFY(at >= 0);
        QFile ripLog(run.standardOutput.mid(at + 9).section(QLatin1Char('\n'), 0, 0));
        QVERIFY2(ripLog.open(QIODevice::ReadOnly), qPrintable(ripLog.fileName()));
        const QString logText = QString::fromUtf8(ripLog.readAll());
        QVERIFY(logText.contains(QStringLiteral("Lantern Walk.flac")));
        QVERIFY(logText.contains(QStringLiteral("Morning Tide.flac")));
        QCOMPARE(logText.count(QStringLiteral("accurately ripped (confidence ")), 3);

        QFile bin(m_dir.filePath(QStringLiteral("music/Sample CD/sample-cd.bin")));
        QVERIFY(bin.open(QIODevice::ReadOnly));
        const QByteArray audio = bin.readAll();
        const auto added = storedSince(m_server, before);
        QCOMPARE(added.size(), 3);
        const QStringList titles{QStringLiteral("Morning Tide"), QStringLiteral("Gull Song"),
                                 QStringLiteral("Lantern Walk")};
        const qsizetype trackBytes = audio.size() / 3;
        for (int i = 0; i < 3; ++i) {
            const QJsonObject stored = added.value(titles[i] + QStringLiteral(".flac"));
            QVERIFY2(!stored.isEmpty(), qPrintable(titles[i]));
            QCOMPARE(stored.value("playlist_name").toString(), QStringLiteral("Harbour"));
            const QString path = stored.value("stored_path").toString();
            QCOMPARE(decodedFlacAudio(path), audio.mid(i * trackBytes, trackBytes));
            const QHash<QString, QString> tags = flacTags(path);
            QCOMPARE(tags.value("title"), titles[i]);
            QCOMPARE(tags.value("album"), QStringLiteral("Given Album"));
            QCOMPARE(tags.value("albumartist"), QStringLiteral("Given Artist"));
            QCOMPARE(tags.value("discnumber"), QStringLiteral("2"));
            QVERIFY(flacHasPicture(path));
        }
    }

    // On a terminal, album data the options leave out is asked for; Enter
    // keeps what was found. The terminal is a pseudo-terminal of script(1).
    void asksOnTheTerminal()
    {
        const auto before = storedFilesByName(m_server);
        QProcess process;
        process.setProcessEnvironment(m_environment);
        const QString command = QStringLiteral("'%1' upload-cd --tag 'Typed' '%2'").arg(cliPath(), m_sample);
        process.start(QStringLiteral("script"), {QStringLiteral("-qec"), command, QStringLiteral("/dev/null")});
        QVERIFY(process.waitForStarted());
        process.write("Typed Album\n\n7\n");
        QVERIFY(process.waitForFinished(120000));
        const QString output = QString::fromUtf8(process.readAll());
        QVERIFY2(process.exitCode() == 0, qPrintable(output));
        QVERIFY(output.contains(QStringLiteral("Album [Harbour Lights]: ")));
        QVERIFY(output.contains(QStringLiteral("Album artist [Pelican Brass]: ")));
        const QString path =
            storedSince(m_server, before).value(QStringLiteral("Gull Song.flac")).value("stored_path").toString();
        const QHash<QString, QString> tags = flacTags(path);
        QCOMPARE(tags.value("album"), QStringLiteral("Typed Album"));
        QCOMPARE(tags.value("albumartist"), QStringLiteral("Pelican Brass"));
        QCOMPARE(tags.value("discnumber"), QStringLiteral("7"));
    }

    // A disc the stand-in does not know: "Metadata Not Found", and with no
    // terminal the CD-TEXT's album data stands.
    void discKnownByItsCDText()
    {
        DiscImage::Options options = DiscImage::audioOptions({150, 160});
        options.title = QStringLiteral("TEXT ALBUM");
        options.performer = QStringLiteral("TEXT BAND");
        options.tracks[0].title = QStringLiteral("FIRST");
        options.tracks[1].title = QStringLiteral("SECOND");
        options.seed = 77;
        const DiscImage image = DiscImage::create(m_dir.path(), QStringLiteral("cdtext"), options);
        QVERIFY(image.isValid());
        const auto before = storedFilesByName(m_server);
        const ProgramRun run = uploadCd({image.cuePath()});
        QVERIFY2(run.exitCode == 0, qPrintable(run.standardError));
        QVERIFY(
            run.standardError.contains(QStringLiteral("Metadata Not Found: This CD meta information was not found.")));
        const auto added = storedSince(m_server, before);
        QCOMPARE(added.size(), 2);
        const QString path = added.value(QStringLiteral("SECOND.flac")).value("stored_path").toString();
        QCOMPARE(flacTags(path).value("album"), QStringLiteral("TEXT ALBUM"));
        QCOMPARE(flacTags(path).value("albumartist"), QStringLiteral("TEXT BAND"));
    }

    // Discs without metadata, uploaded track by track: a toc image whose
    // third track lies partly past the end of its data (that track is
    // reported and skipped), and a disc whose first track is data.
    void discsTrackByTrack_data()
    {
        QTest::addColumn<int>("dataIndex");
        QTest::addColumn<bool>("toc");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QList<int>>("uploaded"); // the tracks' indexes on the disc
        QTest::newRow("toc, third track cut") << -1 << true << 1 << QList<int>{0, 1};
        QTest::newRow("data track first") << 0 << false << 0 << QList<int>{1, 2};
    }
    void discsTrackByTrack()
    {
        QFETCH(int, dataIndex);
        QFETCH(bool, toc);
        QFETCH(int, exitCode);
        QFETCH(QList<int>, uploaded);
        DiscImage::Options options = DiscImage::audioOptions({200, 210, 220});
        options.bigEndian = toc; // a toc's raw audio is big-endian
        options.seed = 91 + dataIndex;
        if (dataIndex >= 0) {
            options.tracks[dataIndex].data = true;
        }
        const DiscImage image = DiscImage::create(m_dir.path(), QString::fromUtf8(QTest::currentDataTag()), options);
        const QString path = toc ? image.writeToc() : image.cuePath();
        QVERIFY(image.isValid() && !path.isEmpty());
        if (toc) {
            QVERIFY(QFile::resize(image.binPath(), qint64(image.trackFirstSector(2) + 100) * 2352));
        }
        const auto before = storedFilesByName(m_server);
        const ProgramRun run = uploadCd({QStringLiteral("--yes"), path});
        QVERIFY2(run.exitCode == exitCode, qPrintable(run.standardError));
        QVERIFY(run.standardOutput.contains(QStringLiteral("Uploaded: \t2 tracks")));
        QVERIFY2(toc == run.standardOutput.contains(QStringLiteral("03 Track 3: failed: ")),
                 qPrintable(run.standardOutput));
        QCOMPARE(toc, run.standardError.contains(QStringLiteral("Failed: Track 3: ")));
        const auto added = storedSince(m_server, before);
        QCOMPARE(added.size(), uploaded.size());
        for (const int index : uploaded) {
            const QString name = QStringLiteral("Track %1.flac").arg(index + 1);
            QCOMPARE(decodedFlacAudio(added.value(name).value("stored_path").toString()), image.trackAudio(index));
        }
    }

    // Wrong arguments, something that is no disc, and a disc whose table of
    // contents cannot be read (its tracks lie past the end of its data).
    void refusalsAndUnreadableDisc()
    {
        QCOMPARE(uploadCd({}).exitCode, 2);
        QCOMPARE(uploadCd({QStringLiteral("--bogus"), m_sample}).exitCode, 2);
        QCOMPARE(uploadCd({m_dir.filePath(QStringLiteral("nothing.cue"))}).exitCode, 2);
        const ProgramRun notADisc = uploadCd({m_dir.path()});
        QCOMPARE(notADisc.exitCode, 2);
        QVERIFY(notADisc.standardError.contains(QStringLiteral("neither a drive holding a CD nor")));

        const DiscImage image =
            DiscImage::create(m_dir.path(), QStringLiteral("cut"), DiscImage::audioOptions({100, 100, 100}));
        QVERIFY(image.isValid());
        QVERIFY(QFile::resize(image.binPath(), qint64(150) * 2352));
        const auto before = storedFilesByName(m_server);
        const ProgramRun cut = uploadCd({QStringLiteral("--yes"), image.cuePath()});
        QCOMPARE(cut.exitCode, 3);
        QVERIFY(cut.standardError.contains(QStringLiteral("Could not rip from CD: ")));
        QVERIFY(storedSince(m_server, before).isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestUploadCDCli)
#include "tst_uploadcdcli.moc"
