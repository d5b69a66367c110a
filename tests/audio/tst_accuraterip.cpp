// AccurateRip: the disc ids from generated and real tables of contents, the database's
// entries and the verdicts, a rip verified through the local service's database and every
// way that database can fail; and the figures and file of the rip log.
#include "audio/accuraterip.h"
#include "audio/cdripper.h"
#include "audio/riplog.h"
#include "riptesting.h"
#include "support/devserverprocess.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QtTest>

#include <zlib.h>

namespace {

// The ids as the published algorithm spells them out: id1 and id2 from the audio tracks'
// starts and the end of the audio, the freedb id from every track's start and the lead-out.
QString referenceIds(const AccurateRip::TableOfContents &toc, const QList<int> &audioStarts, int audioEnd)
{
    quint32 id1 = audioEnd;
    quint32 id2 = quint32(audioEnd) * quint32(audioStarts.size() + 1);
    for (int i = 0; i < audioStarts.size(); ++i) {
        id1 += quint32(audioStarts[i]);
        id2 += quint32(qMax(audioStarts[i], 1)) * quint32(i + 1);
    }
    int digits = 0;
    for (const AccurateRip::TocTrack &track : toc.tracks) {
        for (const QChar c : QString::number((track.start + 150) / 75)) {
            digits += c.digitValue();
        }
    }
    const int seconds = (toc.leadOut + 150) / 75 - (toc.tracks.front().start + 150) / 75;
    const quint32 freedb = quint32(digits % 255) << 24 | quint32(seconds) << 8 | quint32(toc.tracks.size());
    return QStringLiteral("%1-%2-%3-%4")
        .arg(audioStarts.size(), 3, 10, QLatin1Char('0'))
        .arg(id1, 8, 16, QLatin1Char('0'))
        .arg(id2, 8, 16, QLatin1Char('0'))
        .arg(freedb, 8, 16, QLatin1Char('0'));
}

// One database entry: header, then per track confidence, sum and a sector-450 sum.
QByteArray entry(const AccurateRip::DiscIds &ids, const QList<quint32> &sums, quint8 confidence)
{
    QByteArray bytes(13 + 9 * sums.size(), '\0');
    bytes[0] = char(ids.audioTracks);
    qToLittleEndian(ids.id1, bytes.data() + 1);
    qToLittleEndian(ids.id2, bytes.data() + 5);
    qToLittleEndian(ids.freedb, bytes.data() + 9);
    for (int i = 0; i < sums.size(); ++i) {
        bytes[13 + 9 * i] = char(confidence);
        qToLittleEndian(sums[i], bytes.data() + 14 + 9 * i);
        qToLittleEndian(quint32(0x12345678), bytes.data() + 18 + 9 * i);
    }
    return bytes;
}

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

} // namespace

class TestAccurateRip : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    DevServerProcess m_server;

private slots:
    void initTestCase() { QVERIFY2(m_server.start(), qPrintable(m_server.errorString())); }

    void discIdsFromTheTableOfContents()
    {
        // An audio disc read from its image; a data track first (the audio tracks count from
        // 1 among themselves, the freedb id still sees every track); a data track last, as on
        // an Enhanced CD (the ids still end at the disc's lead-out).
        const DiscImage image =
            DiscImage::create(m_dir.path(), QStringLiteral("ids"), DiscImage::audioOptions({750, 1234, 600, 977}));
        Disc disc = openDisc(image);
        AccurateRip::TableOfContents read;
        QVERIFY(disc && AccurateRip::readTableOfContents(disc.get(), &read));
        const AccurateRip::TableOfContents mixed{{{1, 0, false}, {2, 20000, true}, {3, 31000, true}}, 40000};
        const AccurateRip::TableOfContents enhanced{{{1, 0, true}, {2, 15000, true}, {3, 40000, false}}, 52000};
        QCOMPARE(AccurateRip::discIds(read).text(), referenceIds(read, {0, 750, 1984, 2584}, 3561));
        QCOMPARE(AccurateRip::discIds(mixed).text(), referenceIds(mixed, {20000, 31000}, 40000));
        QCOMPARE(AccurateRip::discIds(enhanced).text(), referenceIds(enhanced, {0, 15000}, 52000));

        // A real Enhanced CD ("Liquid" by Recoil) and the ids dBpoweramp and EAC give it, as
        // ARver's notes on data tracks report them.
        AccurateRip::TableOfContents liquid{{}, 333651};
        for (const int start : {0, 12617, 40337, 63075, 93260, 117965, 151715, 184190, 215110, 247305, 281585}) {
            liquid.tracks.push_back({int(liquid.tracks.size()) + 1, start, start != 281585});
        }
        QCOMPARE(AccurateRip::discIds(liquid).text(), QStringLiteral("010-00164419-00b9f6e2-9e11600b"));

        // Its entry lies in folders named by id1's last three hex digits, lowest first.
        const AccurateRip::DiscIds sample = AccurateRip::discIds({{{1, 0, true}, {2, 300, true}, {3, 600, true}}, 900});
        QCOMPARE(AccurateRip::entryURL(sample, QUrl(QStringLiteral("http://example.test/db"))).toString(),
                 QStringLiteral("http://example.test/db/accuraterip/8/0/7/dBAR-003-00000708-00001771-09000c03.bin"));
        // No audio: no ids, and no lookup.
        const AccurateRip::DiscIds data = AccurateRip::discIds({{{1, 0, false}}, 1000});
        QVERIFY(!data.isValid());
        QCOMPARE(AccurateRip::fetch(data, QUrl(m_server.baseUrl()), 1000).status, AccurateRip::Lookup::Status::Failed);
    }

    void entriesAndVerdicts()
    {
        const AccurateRip::DiscIds ids{2, 0x01020304, 0xa0b0c0d0, 0x11002202};
        const QByteArray v1Entry = entry(ids, {0x11111111, 0x22222222}, 9);
        const QByteArray v2Entry = entry(ids, {0x33333333, 0x44444444}, 4);
        AccurateRip::Lookup found;
        found.status = AccurateRip::Lookup::Status::Found;
        QString error;
        QVERIFY(AccurateRip::parseEntries(v1Entry + v2Entry, ids, &found.entries, &error));
        QCOMPARE(found.entries.size(), size_t(2));
        QCOMPARE(found.entries[0].tracks[0].frame450, 0x12345678u);

        // Garbage: a cut entry, nothing, another disc's entry.
        AccurateRip::DiscIds other = ids;
        other.id2 += 1;
        for (const QByteArray &garbage : QByteArrayList{v1Entry.chopped(1), {}, v1Entry + entry(other, {1, 2}, 1)}) {
            std::vector<AccurateRip::Entry> entries;
            QVERIFY(!AccurateRip::parseEntries(garbage, ids, &entries, &error));
            QVERIFY(entries.empty());
        }
        QVERIFY(error.contains(QStringLiteral("another disc")));

        // Either sum of a track vouches for it, with the confidence of the entries holding it;
        // another track's sum is no match for this one.
        const AccurateRip::Verdict byV2 = AccurateRip::verify(found, 1, 0x99999999, 0x44444444);
        QCOMPARE(byV2.text(), QStringLiteral("accurately ripped (confidence 4)"));
        QCOMPARE(byV2.confidenceV1, 0);
        QCOMPARE(AccurateRip::verify(found, 0, 0x11111111, 0x99999999).text(),
                 QStringLiteral("accurately ripped (confidence 9)"));
        QCOMPARE(AccurateRip::verify(found, 1, 0x11111111, 0x33333333).text(), QStringLiteral("no match"));
        QCOMPARE(AccurateRip::verify(found, 5, 0x11111111, 0x33333333).text(), QStringLiteral("no match"));
        found.status = AccurateRip::Lookup::Status::NotInDatabase;
        QCOMPARE(AccurateRip::verify(found, 0, 1, 2).text(), QStringLiteral("not in database"));
        AccurateRip::Lookup failed;
        failed.error = QStringLiteral("the database did not answer within 1 seconds");
        QCOMPARE(AccurateRip::verify(failed, 0, 1, 2).text(),
                 QStringLiteral("not checked: the database did not answer within 1 seconds"));
    }

    // A rip of a generated disc verified through the local service, the entry holding sums
    // computed by the reference; then every way the database can fail.
    void ripVerifiedThroughTheDatabase()
    {
        const DiscImage image =
            DiscImage::create(m_dir.path(), QStringLiteral("verified"), DiscImage::audioOptions({400, 350, 420}));
        Disc disc = openDisc(image);
        AccurateRip::TableOfContents toc;
        QVERIFY(disc && AccurateRip::readTableOfContents(disc.get(), &toc));
        const AccurateRip::DiscIds ids = AccurateRip::discIds(toc);
        QList<quint32> v1s;
        QList<quint32> v2s;
        for (int i = 0; i < 3; ++i) {
            const AccurateRipSums sums = accurateRipSums(image.trackAudio(i), i == 0, i == 2);
            v1s << sums.v1;
            v2s << sums.v2;
        }
        // The middle track's v1 entry holds a wrong sum: v2 still vouches.
        QList<quint32> v1sWithFault = v1s;
        v1sWithFault[1] ^= 1;
        const QString entryFile = m_server.dataDirectory() + u'/' + AccurateRip::entryPath(ids);
        QVERIFY(writeFile(entryFile, entry(ids, v1sWithFault, 20) + entry(ids, v2s, 3)));
        const AccurateRip::Lookup lookup = AccurateRip::fetch(ids, QUrl(m_server.baseUrl()), 5000);
        QCOMPARE(lookup.status, AccurateRip::Lookup::Status::Found);

        RipContext *context = nullptr;
        QCOMPARE(ripOpen(&context, nullptr, disc.get()), 0);
        QStringList verdicts;
        for (uint32_t n = 1; n <= 3; ++n) {
            RipTrack *track = ripTrackRecord(context, n);
            QCOMPARE(ripTrack(context, track, {}, {}), 0);
            verdicts << AccurateRip::verify(lookup, int(n) - 1, track->checksumV1, track->checksumV2).text();
            ripReleaseTrack(track);
        }
        ripFree(&context);
        QCOMPARE(verdicts, (QStringList{"accurately ripped (confidence 20)", "accurately ripped (confidence 3)",
                                        "accurately ripped (confidence 20)"}));

        // Not in the database (its 404); garbage; silent past the bound; nobody listening;
        // not an http address.
        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost));
        const QUrl refused(QStringLiteral("http://127.0.0.1:%1").arg(closed.serverPort()));
        closed.close();
        const QList<std::tuple<QByteArray, int, QUrl, QString>> failures{
            {{}, 0, m_server.baseUrl(), QString()},
            {"<html>busy</html>", 0, m_server.baseUrl(), "not a whole number"},
            {entry(ids, v1s, 2), 4000, m_server.baseUrl(), "did not answer within 0.8 seconds"},
            {{}, 0, refused, "could not be reached"},
            {{}, 0, QUrl(QStringLiteral("ftp://127.0.0.1/")), "is not an http address"}};
        for (const auto &[answer, delayMs, root, error] : failures) {
            QFile::remove(entryFile);
            QVERIFY(answer.isEmpty() || writeFile(entryFile, answer));
            QVERIFY(writeFile(entryFile + QStringLiteral(".delay"), QByteArray::number(delayMs)));
            QElapsedTimer timer;
            timer.start();
            const AccurateRip::Lookup lookup = AccurateRip::fetch(ids, root, 800);
            QVERIFY2(timer.elapsed() < 2500, qPrintable(QString::number(timer.elapsed())));
            QCOMPARE(lookup.status, error.isEmpty() ? AccurateRip::Lookup::Status::NotInDatabase
                                                    : AccurateRip::Lookup::Status::Failed);
            QVERIFY2(lookup.error.contains(error), qPrintable(lookup.error));
        }
    }

    void ripLogFileAndText()
    {
        // CRC-32 against zlib's.
        const DiscImage image = DiscImage::create(m_dir.path(), QStringLiteral("crc"), DiscImage::audioOptions({100}));
        const QByteArray audio = image.trackAudio(0);
        QCOMPARE(ripCrc32(reinterpret_cast<const uint8_t *>(audio.constData()), size_t(audio.size())),
                 quint32(crc32(0, reinterpret_cast<const Bytef *>(audio.constData()), uInt(audio.size()))));

        // The figures the rip log formats itself (the rest of its text, its folder and its
        // mention in the application log are checked in the log of a pelicane-cli rip).
        RipLog log;
        log.discId = QStringLiteral("sqiQcFcdWmoQZM6Hly5BnKDt1s0-");
        log.album = QStringLiteral("AC/DC: Live?");
        log.started = QDateTime(QDate(2026, 3, 4), QTime(5, 6, 7));
        RipLogTrack good;
        good.number = 1;
        good.statistics.sectorsRead = 310;
        good.statistics.rereads = 10;
        good.ripped = true;
        good.checksumV1 = 0x6a3e51f0;
        good.checksumV2 = 0x30a0e496;
        good.crc32 = 0xecdca07e;
        RipLogTrack bad;
        bad.number = 2;
        log.tracks = {good, bad};
        const QString text = log.text();
        for (const char *line :
             {"  Reads:        310 sectors, 10 re-read, 0 read errors\n",
              "  AccurateRip:  v1 6A3E51F0, v2 30A0E496\n  CRC32:        ECDCA07E\n", "  Result:       ripped\n"}) {
            QVERIFY2(text.contains(QString::fromUtf8(line)), line);
        }
        // A failed track has no sums to show.
        QCOMPARE(text.count(QStringLiteral("CRC32:")), 1);

        // Named after the album, else the disc, else "Audio CD"; a second log of the same
        // second does not replace the first.
        QString path;
        QVERIFY(!writeRipLog(log, &path));
        QCOMPARE(path, ripLogFolder() + QStringLiteral("/AC_DC_ Live_ 2026-03-04 05-06-07.log"));
        QFile written(path);
        QVERIFY(written.open(QIODevice::ReadOnly));
        QCOMPARE(QString::fromUtf8(written.readAll()), text);
        QVERIFY(!writeRipLog(log, &path));
        QCOMPARE(path, ripLogFolder() + QStringLiteral("/AC_DC_ Live_ 2026-03-04 05-06-07 (2).log"));
        log.album.clear();
        QCOMPARE(log.fileName(), QStringLiteral("sqiQcFcdWmoQZM6Hly5BnKDt1s0- 2026-03-04 05-06-07.log"));
        log.discId.clear();
        QCOMPARE(log.fileName(), QStringLiteral("Audio CD 2026-03-04 05-06-07.log"));
    }
};

QTEST_GUILESS_MAIN(TestAccurateRip)
#include "tst_accuraterip.moc"
