// pelicane-cli's CD commands, disc-info, rip and upload-cd, against the local
// service: the sample disc of scripts/make-samples.sh (with the release, cover
// and AccurateRip entry, computed from the tones it writes, that the script
// writes for the service), discs the service does not know, damaged discs,
// and the ways the commands refuse or fail.
#include "cdroadsupport.h"

#include "support/clitesting.h"
#include "support/discimage.h"
#include "support/discservicesdata.h"
#include "support/flactools.h"
#include "support/logtesting.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QProcess>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QtTest>

#include <unistd.h>

namespace {

QString readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

} // namespace

class TestCDCli : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    DevServerProcess m_server;
    QString m_image;
    QProcessEnvironment m_environment;

    ProgramRun rip(const QStringList &arguments, const QProcessEnvironment &environment)
    {
        return runCli(QStringList{QStringLiteral("rip")} + arguments, environment);
    }
    ProgramRun rip(const QStringList &arguments) { return rip(arguments, m_environment); }
    ProgramRun uploadCd(const QStringList &arguments) const
    {
        return runCli(QStringList{QStringLiteral("upload-cd")} + arguments, m_environment);
    }

    QString ripLogOf(const ProgramRun &run)
    {
        const QRegularExpressionMatch match =
            QRegularExpression(QStringLiteral("^Rip log: (.+)$"), QRegularExpression::MultilineOption)
                .match(run.standardOutput);
        return match.hasMatch() ? match.captured(1) : QString();
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_server.start());
        m_image = makeSamples(m_server, m_dir.filePath(QStringLiteral("music")));
        QVERIFY(!m_image.isEmpty());
        DiscServicesData::pointAt(m_server);
        m_environment = accountEnvironment(QString::fromLatin1(DevServerProcess::kDemoEmail),
                                           QString::fromLatin1(DevServerProcess::kDemoPassword));
    }

    void discInfoOfTheSampleDisc()
    {
        const ProgramRun run = runCli({QStringLiteral("disc-info"), m_image, QStringLiteral("--json")});
        QCOMPARE(run.exitCode, 0);
        const QJsonObject json = run.json();
        QVERIFY2(!json.isEmpty(), qPrintable(run.standardOutput));
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
        const ProgramRun chosen = runCli({QStringLiteral("disc-info"), QStringLiteral("--release"),
                                          QStringLiteral("8f3d2b6e-7a4c-4f1e-a2b9-3c4d5e6f7a8b"), m_image});
        QCOMPARE(chosen.exitCode, 0);
        QVERIFY(chosen.standardOutput.contains(QStringLiteral("Release: 8f3d2b6e-7a4c-4f1e-a2b9-3c4d5e6f7a8b")));
        QVERIFY(chosen.standardOutput.contains(QStringLiteral("year 2021")));
    }

    // Without MusicBrainz the disc still reads: CD-TEXT. The failure report
    // is kept off the terminal, in the log (on standard error with
    // --verbose), and so is the XML parser's complaint about an answer that
    // is no XML.
    void discInfoWithoutMusicBrainz()
    {
        const LogWatch log;
        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost));
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("PELICANE_MUSICBRAINZ_SERVER"),
                           QStringLiteral("127.0.0.1:%1").arg(closed.serverPort()));
        closed.close();
        const ProgramRun run = runCli({QStringLiteral("disc-info"), QStringLiteral("--json"), m_image}, environment);
        QCOMPARE(run.exitCode, 0);
        const QJsonObject json = run.json();
        QVERIFY2(!json.isEmpty(), qPrintable(run.standardOutput));
        QCOMPARE(json.value("tracks").toArray()[1].toObject().value("title").toString(), QStringLiteral("GULL SONG"));
        QCOMPARE(json.value("error").toObject().value("code").toInt(), 1001);
        QCOMPARE(json.value("releaseId").type(), QJsonValue::Null);
        QVERIFY(run.elapsedMs < 30000);
        const ProgramRun verbose =
            runCli({QStringLiteral("--verbose"), QStringLiteral("disc-info"), m_image}, environment);
        QVERIFY(verbose.standardOutput.startsWith(QStringLiteral("Disc ID: ")));
        for (const QString &line : {QStringLiteral("Connection Exception: '"), QStringLiteral("LastResult: 1")}) {
            QVERIFY2(!run.standardError.contains(line), qPrintable(run.standardError));
            QVERIFY(log.text().contains(line));
            QVERIFY2(verbose.standardError.contains(line), qPrintable(verbose.standardError));
        }

        const DiscImage unknown =
            DiscImage::create(m_dir.path(), QStringLiteral("notxml"), DiscImage::audioOptions({150, 160}));
        QFile answer(m_server.dataDirectory() +
                     QStringLiteral("/musicbrainz/discid/%1.xml").arg(unknown.musicBrainzDiscId()));
        QVERIFY(answer.open(QIODevice::WriteOnly) && answer.write("this is <not xml") > 0);
        answer.close();
        const ProgramRun garbled = runCli({QStringLiteral("disc-info"), unknown.cuePath()});
        QCOMPARE(garbled.exitCode, 0);
        QVERIFY2(garbled.standardError.isEmpty(), qPrintable(garbled.standardError));
        QVERIFY2(garbled.standardOutput.startsWith(QStringLiteral("Disc ID: ")), qPrintable(garbled.standardOutput));
        QVERIFY(log.text().contains(QStringLiteral("libxml2: line 1: Start tag expected")));
    }

    // No disc and wrong arguments: exit 1 with the JSON's error, or 2 with
    // a word why, nothing made. An image whose data ends inside a sector:
    // libcdio's warning goes to the log, not into the JSON.
    void wrongArgumentsAndDamagedDiscs()
    {
        const QString out = m_dir.filePath(QStringLiteral("out-wrong"));
        const QString none = m_dir.filePath(QStringLiteral("nothing.cue"));
        const ProgramRun missing = runCli({QStringLiteral("disc-info"), QStringLiteral("--json"), none});
        QCOMPARE(missing.exitCode, 1);
        QCOMPARE(missing.json().value("error").toObject().value("code").toInt(), 1000);
        QCOMPARE(missing.json().value("tracks").toArray().size(), 0);
        for (const QStringList &arguments : QList<QStringList>{{"disc-info"},
                                                               {"disc-info", m_image, "--release"},
                                                               {"disc-info", m_image, "--bogus"},
                                                               {"rip", m_image},
                                                               {"rip", "--out", out},
                                                               {"rip", m_image, "--out", out, "--tracks", "2-x"},
                                                               {"rip", m_image, "--out", out, "--tracks", "9"},
                                                               {"rip", m_image, "--out", out, "--read-offset", "99999"},
                                                               {"rip", m_image, "--out", out, "--loud"},
                                                               {"rip", none, "--out", out}}) {
            const ProgramRun run = runCli(arguments, m_environment);
            QVERIFY2(run.exitCode == 2 && !run.standardError.isEmpty(), qPrintable(arguments.join(u' ')));
        }
        QVERIFY(!QFileInfo::exists(out));
        QVERIFY(uploadCd({m_dir.path()}).standardError.contains(QStringLiteral("neither a drive holding a CD nor")));

        const LogWatch log;
        const DiscImage cut = DiscImage::create(m_dir.path(), QStringLiteral("cut"), DiscImage::audioOptions({150}));
        QVERIFY(QFile::resize(cut.binPath(), QFileInfo(cut.binPath()).size() - 1000));
        const ProgramRun damaged = runCli({QStringLiteral("disc-info"), QStringLiteral("--json"), cut.cuePath()});
        QVERIFY2(!damaged.json().isEmpty() && damaged.standardError.isEmpty(), qPrintable(damaged.standardError));
        QVERIFY(log.text().contains(QStringLiteral("libcdio: image ")));
    }

    void sampleDiscRipsVerifiedAndTagged()
    {
        const QString out = m_dir.filePath(QStringLiteral("out-sample"));
        const ProgramRun run = rip({m_image, QStringLiteral("--out"), out});
        QCOMPARE(run.exitCode, 0);
        QVERIFY2(run.elapsedMs < 20000, qPrintable(QString::number(run.elapsedMs)));
        const QStringList names{QStringLiteral("01 Morning Tide.flac"), QStringLiteral("02 Gull Song.flac"),
                                QStringLiteral("03 Lantern Walk.flac")};
        for (int i = 0; i < 3; ++i) {
            QVERIFY2(run.standardOutput.contains(
                         QStringLiteral("Track %1: ripped, accurately ripped (confidence 12) -> %2\n")
                             .arg(i + 1, 2, 10, QLatin1Char('0'))
                             .arg(names[i])),
                     qPrintable(run.standardOutput));
        }
        // Bit-exact against the image, and tagged from the release.
        QFile bin(m_dir.filePath(QStringLiteral("music/Sample CD/sample-cd.bin")));
        QVERIFY(bin.open(QIODevice::ReadOnly));
        const QByteArray audio = bin.readAll();
        for (int i = 0; i < 3; ++i) {
            QVERIFY(decodedFlacAudio(QDir(out).filePath(names[i])) == audio.mid(i * 300 * 2352, 300 * 2352));
        }
        const QStringList second = flacComments(QDir(out).filePath(names[1]));
        QVERIFY2(second.contains(QStringLiteral("title=Gull Song")), qPrintable(second.join(u',')));
        QVERIFY(second.contains(QStringLiteral("album=Harbour Lights")));
        QVERIFY(second.contains(QStringLiteral("tracknumber=2/3")));

        // The rip log, beside the application log and named after the album.
        const QString log = ripLogOf(run);
        QVERIFY2(log.contains(QStringLiteral("/rips/Harbour Lights ")), qPrintable(run.standardOutput));
        const QString text = readAll(log);
        QVERIFY(text.contains(QStringLiteral("Image:        ") + QFileInfo(m_image).absoluteFilePath()));
        QVERIFY(text.contains(QStringLiteral("AccurateRip:  003-00000708-00001771-09000c03\n")));
        QVERIFY(text.contains(QStringLiteral("Track 03\n  Sectors:      600-899 (300)\n")));
        QCOMPARE(text.count(QStringLiteral("Verification: accurately ripped (confidence 12)")), 3);
        QVERIFY(text.contains(QStringLiteral("All 3 tracks ripped without error.")));
        const QString applicationLog = readAll(QFileInfo(log).absolutePath() + QStringLiteral("/../Pelicane.log"));
        QVERIFY(applicationLog.contains(QStringLiteral("Rip log written to ") + log));
        // The ripper's own lines are the log's, not the terminal's.
        QVERIFY(applicationLog.contains(QStringLiteral(": Track 3 ripped!\n")));
        QVERIFY2(!run.standardError.contains(QStringLiteral("ripped!")), qPrintable(run.standardError));

        // Chosen tracks only, with an offset: the audio moves by it, so the
        // database no longer vouches for it.
        const QString chosen = m_dir.filePath(QStringLiteral("out-chosen"));
        const ProgramRun some = rip({m_image, QStringLiteral("--out"), chosen, QStringLiteral("--tracks"),
                                     QStringLiteral("2"), QStringLiteral("--read-offset"), QStringLiteral("30")});
        QCOMPARE(some.exitCode, 0);
        QCOMPARE(QDir(chosen).entryList(QDir::Files), QStringList{names[1]});
        QVERIFY2(some.standardOutput.contains(QStringLiteral("Track 02: ripped, no match")),
                 qPrintable(some.standardOutput));
        QVERIFY(decodedFlacAudio(QDir(chosen).filePath(names[1])) == audio.mid(300 * 2352 + 30 * 4, 300 * 2352));
    }

    // A disc cut short: track 1 is kept, tracks 2 and 3 fail, and the exit
    // status says so. The service knows no such disc; an unreachable database
    // is a check not made, never a verdict.
    void failedTracksAndUnknownDiscs()
    {
        const DiscImage image =
            DiscImage::create(m_dir.path(), QStringLiteral("cut"), DiscImage::audioOptions({300, 300, 300}));
        QVERIFY(image.isValid());
        QVERIFY(QFile::resize(image.binPath(), qint64(450) * 2352 + 100));
        const QString out = m_dir.filePath(QStringLiteral("out-cut"));
        const ProgramRun run = rip({image.cuePath(), QStringLiteral("--out"), out});
        QCOMPARE(run.exitCode, 1);
        QVERIFY2(run.standardOutput.contains(QStringLiteral("Track 01: ripped, not in database -> Track 01.flac\n")),
                 qPrintable(run.standardOutput));
        QVERIFY(run.standardOutput.contains(
            QStringLiteral("Track 02: FAILED: Track last frame is larger than last disc frame.\n")));
        QVERIFY(run.standardOutput.contains(QStringLiteral("Track 03: FAILED: Track 3 is not on the disc")));
        QVERIFY(run.standardOutput.contains(QStringLiteral("2 of 3 tracks failed")));
        QCOMPARE(QDir(out).entryList(QDir::Files), QStringList{QStringLiteral("Track 01.flac")});
        QVERIFY(decodedFlacAudio(QDir(out).filePath(QStringLiteral("Track 01.flac"))) == image.trackAudio(0));
        const QString text = readAll(ripLogOf(run));
        QCOMPARE(text.count(QStringLiteral("Result:       FAILED")), 2);
        QVERIFY(text.contains(QStringLiteral("Message:      Track last frame is larger than last disc frame.")));
        QVERIFY(text.contains(QStringLiteral("2 of 3 tracks failed.")));

        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost));
        QProcessEnvironment unreachable = m_environment;
        unreachable.insert(QStringLiteral("PELICANE_ACCURATERIP_URL"),
                           QStringLiteral("http://127.0.0.1:%1").arg(closed.serverPort()));
        closed.close();
        const DiscImage whole =
            DiscImage::create(m_dir.path(), QStringLiteral("whole"), DiscImage::audioOptions({200, 200}));
        const ProgramRun unchecked =
            rip({whole.cuePath(), QStringLiteral("--out"), m_dir.filePath(QStringLiteral("out-u"))}, unreachable);
        QCOMPARE(unchecked.exitCode, 0);
        QVERIFY2(unchecked.standardOutput.contains(
                     QStringLiteral("Track 02: ripped, not checked: the database could not be reached")),
                 qPrintable(unchecked.standardOutput));
    }

    // Names are cut by bytes, not characters; a full output folder is said to
    // be full and keeps no torn file.
    void longNamesAndAFullDisk()
    {
        DiscImage::Options options = DiscImage::audioOptions({200});
        options.title = QString(150, u'é');
        options.tracks[0].title = QString(150, u'é');
        const DiscImage image = DiscImage::create(m_dir.path(), QStringLiteral("long"), options);
        QVERIFY(image.isValid());
        const QString out = m_dir.filePath(QStringLiteral("out-long"));
        const ProgramRun run = rip({image.cuePath(), QStringLiteral("--out"), out});
        QCOMPARE(run.exitCode, 0);
        const QStringList files = QDir(out).entryList(QDir::Files);
        QCOMPARE(files.size(), 1);
        QVERIFY(files[0].toUtf8().size() <= 255 && files[0].startsWith(QStringLiteral("01 éé")));
        QVERIFY(QFileInfo(ripLogOf(run)).fileName().toUtf8().size() <= 255);

        if (::geteuid() != 0) {
            QSKIP("needs root to mount a small tmpfs");
        }
        const QString full = m_dir.filePath(QStringLiteral("full"));
        QVERIFY(QDir().mkpath(full));
        QVERIFY(QProcess::execute(QStringLiteral("mount"),
                                  {QStringLiteral("-t"), QStringLiteral("tmpfs"), QStringLiteral("-o"),
                                   QStringLiteral("size=24k"), QStringLiteral("tmpfs"), full}) == 0);
        const ProgramRun filled = rip({image.cuePath(), QStringLiteral("--out"), full});
        const QStringList left = QDir(full).entryList(QDir::Files);
        QProcess::execute(QStringLiteral("umount"), {full});
        QCOMPARE(filled.exitCode, 1);
        QVERIFY2(filled.standardOutput.contains(QStringLiteral("could not be written: the disk is full.")),
                 qPrintable(filled.standardOutput));
        QVERIFY(left.isEmpty());
    }

    // Every track of the sample disc arrives as a FLAC file of the image's
    // audio, with the release's titles and the album data of the options.
    void sampleDiscWithAlbumOptions()
    {
        const auto before = storedFilesByName(m_server);
        const ProgramRun run =
            uploadCd({QStringLiteral("--yes"), QStringLiteral("--album"), QStringLiteral("Given Album"),
                      QStringLiteral("--artist=Given Artist"), QStringLiteral("--disc"), QStringLiteral("2"),
                      QStringLiteral("--playlist"), QStringLiteral("Harbour"), m_image});
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
        const QString command = QStringLiteral("'%1' upload-cd --tag 'Typed' '%2'").arg(cliPath(), m_image);
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

    // A disc whose table of contents cannot be read (its tracks lie past the
    // end of its data).
    void unreadableDiscUploadsNothing()
    {
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

QTEST_GUILESS_MAIN(TestCDCli)
#include "tst_cdcli.moc"
