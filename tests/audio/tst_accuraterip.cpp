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

// The ids spelled out from the audio tracks' starts in sectors and the end
// of the audio, and the freedb id from every track's start and the lead-out.
struct ReferenceIds
{
    quint32 id1 = 0;
    quint32 id2 = 0;
    quint32 freedb = 0;
};

ReferenceIds referenceIds(const AccurateRip::TableOfContents &toc, const QList<int> &audioStarts, int audioEnd)
{
    ReferenceIds ids;
    for (int i = 0; i < audioStarts.size(); ++i) {
        ids.id1 += quint32(audioStarts[i]);
        ids.id2 += quint32(qMax(audioStarts[i], 1)) * quint32(i + 1);
    }
    ids.id1 += quint32(audioEnd);
    ids.id2 += quint32(audioEnd) * quint32(audioStarts.size() + 1);
    int digits = 0;
    for (const AccurateRip::TocTrack &track : toc.tracks) {
        for (const QChar c : QString::number((track.start + 150) / 75)) {
            digits += c.digitValue();
        }
    }
    const int seconds = (toc.leadOut + 150) / 75 - (toc.tracks.front().start + 150) / 75;
    ids.freedb = quint32(digits % 255) << 24 | quint32(seconds) << 8 | quint32(toc.tracks.size());
    return ids;
}

QByteArray word(quint32 value)
{
    QByteArray bytes(4, '\0');
    qToLittleEndian(value, bytes.data());
    return bytes;
}

// One database entry: header, then per track confidence, sum and a
// sector-450 sum.
QByteArray entry(const AccurateRip::DiscIds &ids, const QList<quint32> &sums, quint8 confidence)
{
    QByteArray bytes;
    bytes += char(ids.audioTracks);
    bytes += word(ids.id1) + word(ids.id2) + word(ids.freedb);
    for (quint32 sum : sums) {
        bytes += char(confidence);
        bytes += word(sum) + word(0x12345678);
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

    QString entryFile(const AccurateRip::DiscIds &ids) const
    {
        return m_server.dataDirectory() + u'/' + AccurateRip::entryPath(ids);
    }

    QUrl root() const { return QUrl(m_server.baseUrl()); }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    }

    void discIdsFromTheTableOfContents()
    {
        // An audio disc read from its image; a data track first (the audio
        // tracks count from 1 among themselves, the freedb id still sees
        // every track); a data track last, as on an Enhanced CD (the ids
        // still end at the disc's lead-out).
        const DiscImage image =
            DiscImage::create(m_dir.path(), QStringLiteral("ids"), DiscImage::audioOptions({750, 1234, 600, 977}));
        Disc disc = openDisc(image);
        QVERIFY(disc);
        AccurateRip::TableOfContents read;
        QVERIFY(AccurateRip::readTableOfContents(disc.get(), &read));
        const AccurateRip::TableOfContents mixed{{{1, 0, false}, {2, 20000, true}, {3, 31000, true}}, 40000};
        const AccurateRip::TableOfContents enhanced{{{1, 0, true}, {2, 15000, true}, {3, 40000, false}}, 52000};
        const QList<std::tuple<AccurateRip::TableOfContents, QList<int>, int>> cases{
            {read, {0, 750, 1984, 2584}, 3561}, {mixed, {20000, 31000}, 40000}, {enhanced, {0, 15000}, 52000}};
        for (const auto &[toc, audioStarts, audioEnd] : cases) {
            const AccurateRip::DiscIds ids = AccurateRip::discIds(toc);
            const ReferenceIds expected = referenceIds(toc, audioStarts, audioEnd);
            QCOMPARE(ids.audioTracks, int(audioStarts.size()));
            QCOMPARE(ids.id1, expected.id1);
            QCOMPARE(ids.id2, expected.id2);
            QCOMPARE(ids.freedb, expected.freedb);
        }

        // A real Enhanced CD ("Liquid" by Recoil) and the ids dBpoweramp and
        // EAC give it, as ARver's notes on data tracks report them.
        AccurateRip::TableOfContents liquid{{}, 333651};
        for (const int start : {0, 12617, 40337, 63075, 93260, 117965, 151715, 184190, 215110, 247305, 281585}) {
            liquid.tracks.push_back({int(liquid.tracks.size()) + 1, start, start != 281585});
        }
        QCOMPARE(AccurateRip::discIds(liquid).text(), QStringLiteral("010-00164419-00b9f6e2-9e11600b"));

        // The sample disc of the local service (tracks at 0, 300, 600,
        // lead-out 900), worked by hand: id1 1800, id2 1 + 600 + 1800 + 3600,
        // freedb digits 2 + 6 + 1 + 0 = 9, 12 seconds, 3 tracks. Its entry
        // lies in folders named by id1's last three hex digits, lowest first.
        const AccurateRip::DiscIds sample = AccurateRip::discIds({{{1, 0, true}, {2, 300, true}, {3, 600, true}}, 900});
        QCOMPARE(sample.text(), QStringLiteral("003-00000708-00001771-09000c03"));
        QCOMPARE(AccurateRip::entryURL(sample, QUrl(QStringLiteral("http://example.test/db"))).toString(),
                 QStringLiteral("http://example.test/db/accuraterip/8/0/7/dBAR-003-00000708-00001771-09000c03.bin"));

        // No audio: no ids, and no lookup.
        const AccurateRip::DiscIds data = AccurateRip::discIds({{{1, 0, false}}, 1000});
        QVERIFY(!data.isValid());
        QCOMPARE(AccurateRip::fetch(data, root(), 1000).status, AccurateRip::Lookup::Status::Failed);
    }

    void entriesAndVerdicts()
    {
        AccurateRip::DiscIds ids;
        ids.audioTracks = 2;
        ids.id1 = 0x01020304;
        ids.id2 = 0xa0b0c0d0;
        ids.freedb = 0x11002202;
        const QByteArray v1Entry = entry(ids, {0x11111111, 0x22222222}, 9);
        const QByteArray v2Entry = entry(ids, {0x33333333, 0x44444444}, 4);
        std::vector<AccurateRip::Entry> entries;
        QString error;
        QVERIFY(AccurateRip::parseEntries(v1Entry + v2Entry, ids, &entries, &error));
        QCOMPARE(entries.size(), size_t(2));
        QCOMPARE(entries[1].tracks[1].checksum, 0x44444444u);
        QCOMPARE(entries[1].tracks[1].confidence, quint8(4));
        QCOMPARE(entries[0].tracks[0].frame450, 0x12345678u);

        // Garbage: a cut entry, nothing, another disc's entry.
        QVERIFY(!AccurateRip::parseEntries(v1Entry.left(v1Entry.size() - 1), ids, &entries, &error));
        QVERIFY(error.contains(QStringLiteral("not a whole number")));
        QVERIFY(entries.empty());
        QVERIFY(!AccurateRip::parseEntries(QByteArray(), ids, &entries, &error));
        AccurateRip::DiscIds other = ids;
        other.id2 += 1;
        QVERIFY(!AccurateRip::parseEntries(v1Entry + entry(other, {1, 2}, 1), ids, &entries, &error));
        QVERIFY(error.contains(QStringLiteral("another disc")));
        QVERIFY(entries.empty());

        AccurateRip::Lookup found;
        found.status = AccurateRip::Lookup::Status::Found;
        QVERIFY(AccurateRip::parseEntries(v1Entry + v2Entry, ids, &found.entries, &error));
        const AccurateRip::Verdict byV1 = AccurateRip::verify(found, 0, 0x11111111, 0x99999999);
        QCOMPARE(byV1.kind, AccurateRip::Verdict::Kind::Accurate);
        QCOMPARE(byV1.text(), QStringLiteral("accurately ripped (confidence 9)"));
        const AccurateRip::Verdict byV2 = AccurateRip::verify(found, 1, 0x99999999, 0x44444444);
        QCOMPARE(byV2.text(), QStringLiteral("accurately ripped (confidence 4)"));
        QCOMPARE(byV2.confidenceV1, 0);
        QCOMPARE(byV2.confidenceV2, 4);
        // Another track's sum is no match for this one.
        QCOMPARE(AccurateRip::verify(found, 1, 0x11111111, 0x33333333).text(), QStringLiteral("no match"));
        QCOMPARE(AccurateRip::verify(found, 5, 0x11111111, 0x33333333).kind, AccurateRip::Verdict::Kind::NoMatch);
        AccurateRip::Lookup missing;
        missing.status = AccurateRip::Lookup::Status::NotInDatabase;
        QCOMPARE(AccurateRip::verify(missing, 0, 1, 2).text(), QStringLiteral("not in database"));
        AccurateRip::Lookup failed;
        failed.error = QStringLiteral("the database did not answer within 1 seconds");
        QCOMPARE(AccurateRip::verify(failed, 0, 1, 2).text(),
                 QStringLiteral("not checked: the database did not answer within 1 seconds"));
    }

    // A rip of a generated disc verified through the local service, the
    // entry holding sums computed by the reference above; then every way the
    // database can fail.
    void ripVerifiedThroughTheDatabase()
    {
        const DiscImage image =
            DiscImage::create(m_dir.path(), QStringLiteral("verified"), DiscImage::audioOptions({400, 350, 420}));
        Disc disc = openDisc(image);
        QVERIFY(disc);
        AccurateRip::TableOfContents toc;
        QVERIFY(AccurateRip::readTableOfContents(disc.get(), &toc));
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
        QVERIFY(writeFile(entryFile(ids), entry(ids, v1sWithFault, 20) + entry(ids, v2s, 3)));

        QElapsedTimer timer;
        timer.start();
        const AccurateRip::Lookup lookup = AccurateRip::fetch(ids, root(), 5000);
        QCOMPARE(lookup.status, AccurateRip::Lookup::Status::Found);
        QCOMPARE(lookup.entries.size(), size_t(2));

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
        QCOMPARE(verdicts, (QStringList{QStringLiteral("accurately ripped (confidence 20)"),
                                        QStringLiteral("accurately ripped (confidence 3)"),
                                        QStringLiteral("accurately ripped (confidence 20)")}));

        // Not in the database: the real one's 404.
        QFile::remove(entryFile(ids));
        QCOMPARE(AccurateRip::fetch(ids, root(), 5000).status, AccurateRip::Lookup::Status::NotInDatabase);

        // A garbage answer is a failed check, never a verdict.
        QVERIFY(writeFile(entryFile(ids), QByteArray("<html>busy</html>")));
        AccurateRip::Lookup garbage = AccurateRip::fetch(ids, root(), 5000);
        QCOMPARE(garbage.status, AccurateRip::Lookup::Status::Failed);
        QVERIFY2(garbage.error.contains(QStringLiteral("not a whole number")), qPrintable(garbage.error));

        // A silent database: the wait ends at the bound.
        QVERIFY(writeFile(entryFile(ids), entry(ids, v1s, 2)));
        QVERIFY(writeFile(entryFile(ids) + QStringLiteral(".delay"), QByteArray("4000")));
        timer.restart();
        const AccurateRip::Lookup silent = AccurateRip::fetch(ids, root(), 800);
        QVERIFY2(timer.elapsed() < 2500, qPrintable(QString::number(timer.elapsed())));
        QCOMPARE(silent.status, AccurateRip::Lookup::Status::Failed);
        QVERIFY2(silent.error.contains(QStringLiteral("did not answer")), qPrintable(silent.error));
        QFile::remove(entryFile(ids) + QStringLiteral(".delay"));

        // Nobody listening, and an address that is not http.
        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost));
        const quint16 port = closed.serverPort();
        closed.close();
        const AccurateRip::Lookup refused =
            AccurateRip::fetch(ids, QUrl(QStringLiteral("http://127.0.0.1:%1").arg(port)), 5000);
        QCOMPARE(refused.status, AccurateRip::Lookup::Status::Failed);
        QVERIFY(refused.error.contains(QStringLiteral("could not be reached")));
        QCOMPARE(AccurateRip::fetch(ids, QUrl(QStringLiteral("ftp://127.0.0.1/")), 5000).status,
                 AccurateRip::Lookup::Status::Failed);
    }

    void ripLogFileAndText()
    {
        // CRC-32 against zlib's.
        const DiscImage image = DiscImage::create(m_dir.path(), QStringLiteral("crc"), DiscImage::audioOptions({100}));
        const QByteArray audio = image.trackAudio(0);
        QCOMPARE(ripCrc32(reinterpret_cast<const uint8_t *>(audio.constData()), size_t(audio.size())),
                 quint32(crc32(0, reinterpret_cast<const Bytef *>(audio.constData()), uInt(audio.size()))));
        QCOMPARE(ripCrc32(reinterpret_cast<const uint8_t *>("123456789"), 9), 0xCBF43926u);

        // The figures the rip log formats itself (the rest of its text, its
        // folder and its mention in the application log are checked in the
        // log of a pelicane-cli rip).
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

        QCOMPARE(log.fileName(), QStringLiteral("AC_DC_ Live_ 2026-03-04 05-06-07.log"));
        RipLog unnamed = log;
        unnamed.album.clear();
        QCOMPARE(unnamed.fileName(), QStringLiteral("sqiQcFcdWmoQZM6Hly5BnKDt1s0- 2026-03-04 05-06-07.log"));
        unnamed.discId.clear();
        QCOMPARE(unnamed.fileName(), QStringLiteral("Audio CD 2026-03-04 05-06-07.log"));

        // A second log of the same second does not replace the first.
        QString path;
        QVERIFY(!writeRipLog(log, &path));
        QCOMPARE(path, ripLogFolder() + QStringLiteral("/AC_DC_ Live_ 2026-03-04 05-06-07.log"));
        QFile written(path);
        QVERIFY(written.open(QIODevice::ReadOnly));
        QCOMPARE(QString::fromUtf8(written.readAll()), text);
        QString second;
        QVERIFY(!writeRipLog(log, &second));
        QCOMPARE(second, ripLogFolder() + QStringLiteral("/AC_DC_ Live_ 2026-03-04 05-06-07 (2).log"));
    }
};

QTEST_GUILESS_MAIN(TestAccurateRip)
#include "tst_accuraterip.moc"
