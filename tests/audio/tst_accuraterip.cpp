#include "audio/accuraterip.h"
#include "audio/cdripper.h"
#include "audio/riplog.h"
#include "core/logger.h"
#include "support/devserverprocess.h"
#include "support/discimage.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>

#include <zlib.h>

#include <memory>

namespace {

struct DiscCloser
{
    void operator()(CdIo_t *disc) const { cdio_destroy(disc); }
};
using Disc = std::unique_ptr<CdIo_t, DiscCloser>;

Disc openDisc(const DiscImage &image)
{
    return Disc(cdio_open(image.cuePath().toLocal8Bit().constData(), DRIVER_UNKNOWN));
}

// A second, deliberately plain reading of the AccurateRip sums: every sample
// as a 32-bit little-endian word times its 1-based position, in 64 bits.
void referenceSums(const QByteArray &audio, bool first, bool last, quint32 *v1, quint32 *v2)
{
    const qint64 count = audio.size() / 4;
    quint64 sum1 = 0;
    quint64 sum2 = 0;
    for (qint64 position = 1; position <= count; ++position) {
        if ((first && position < 5 * 588) || (last && position > count - 5 * 588)) {
            continue;
        }
        const quint64 word = qFromLittleEndian<quint32>(audio.constData() + (position - 1) * 4);
        const quint64 product = word * quint64(position);
        sum1 += product & 0xffffffffu;
        sum2 += (product & 0xffffffffu) + (product >> 32);
    }
    *v1 = quint32(sum1);
    *v2 = quint32(sum2);
}

// The ids spelled out from track starts in sectors (audio only) and the end
// of the audio, and the freedb id from all starts and the lead-out.
struct ReferenceIds
{
    quint32 id1 = 0;
    quint32 id2 = 0;
    quint32 freedb = 0;
};

ReferenceIds referenceIds(const QList<int> &audioStarts, int audioEnd, const QList<int> &allStarts, int leadOut)
{
    ReferenceIds ids;
    for (int i = 0; i < audioStarts.size(); ++i) {
        ids.id1 += quint32(audioStarts[i]);
        ids.id2 += quint32(qMax(audioStarts[i], 1)) * quint32(i + 1);
    }
    ids.id1 += quint32(audioEnd);
    ids.id2 += quint32(audioEnd) * quint32(audioStarts.size() + 1);
    int digits = 0;
    for (int start : allStarts) {
        for (const QChar c : QString::number((start + 150) / 75)) {
            digits += c.digitValue();
        }
    }
    const int seconds = (leadOut + 150) / 75 - (allStarts.first() + 150) / 75;
    ids.freedb = quint32(digits % 255) << 24 | quint32(seconds) << 8 | quint32(allStarts.size());
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
        // An audio disc read from its image.
        const DiscImage image =
            DiscImage::create(m_dir.path(), QStringLiteral("ids"), DiscImage::audioOptions({750, 1234, 600, 977}));
        QVERIFY(image.isValid());
        Disc disc = openDisc(image);
        QVERIFY(disc);
        AccurateRip::TableOfContents toc;
        QVERIFY(AccurateRip::readTableOfContents(disc.get(), &toc));
        const AccurateRip::DiscIds ids = AccurateRip::discIds(toc);
        const QList<int> starts{0, 750, 1984, 2584};
        const ReferenceIds expected = referenceIds(starts, 3561, starts, 3561);
        QCOMPARE(ids.audioTracks, 4);
        QCOMPARE(ids.id1, expected.id1);
        QCOMPARE(ids.id2, expected.id2);
        QCOMPARE(ids.freedb, expected.freedb);
        QCOMPARE(ids.text(), QStringLiteral("004-%1-%2-%3")
                                 .arg(expected.id1, 8, 16, QLatin1Char('0'))
                                 .arg(expected.id2, 8, 16, QLatin1Char('0'))
                                 .arg(expected.freedb, 8, 16, QLatin1Char('0')));
        // The folders are id1's last three hex digits, lowest first.
        QCOMPARE(AccurateRip::entryPath(ids), QStringLiteral("accuraterip/%1/%2/%3/dBAR-%4.bin")
                                                  .arg(expected.id1 & 0xf, 0, 16)
                                                  .arg((expected.id1 >> 4) & 0xf, 0, 16)
                                                  .arg((expected.id1 >> 8) & 0xf, 0, 16)
                                                  .arg(ids.text()));
        QCOMPARE(AccurateRip::entryURL(ids, QUrl(QStringLiteral("http://example.test/db"))).toString(),
                 QStringLiteral("http://example.test/db/") + AccurateRip::entryPath(ids));

        // The sample disc of the local service (tracks at 0, 300, 600,
        // lead-out 900), worked by hand: id1 1800, id2 1 + 600 + 1800 + 3600,
        // freedb digits 2 + 6 + 1 + 0 = 9, 12 seconds, 3 tracks.
        AccurateRip::TableOfContents sample;
        sample.tracks = {{1, 0, true}, {2, 300, true}, {3, 600, true}};
        sample.leadOut = 900;
        QCOMPARE(AccurateRip::discIds(sample).text(), QStringLiteral("003-00000708-00001771-09000c03"));

        // A data track first: the audio tracks count from 1 among
        // themselves, the freedb id still sees every track.
        AccurateRip::TableOfContents mixed;
        mixed.tracks = {{1, 0, false}, {2, 20000, true}, {3, 31000, true}};
        mixed.leadOut = 40000;
        const ReferenceIds mixedIds = referenceIds({20000, 31000}, 40000, {0, 20000, 31000}, 40000);
        QCOMPARE(AccurateRip::discIds(mixed).audioTracks, 2);
        QCOMPARE(AccurateRip::discIds(mixed).id1, mixedIds.id1);
        QCOMPARE(AccurateRip::discIds(mixed).id2, mixedIds.id2);
        QCOMPARE(AccurateRip::discIds(mixed).freedb, mixedIds.freedb);

        // A data track last (an enhanced CD): the audio ends 11400 sectors
        // before the data session.
        AccurateRip::TableOfContents enhanced;
        enhanced.tracks = {{1, 0, true}, {2, 15000, true}, {3, 40000, false}};
        enhanced.leadOut = 52000;
        const ReferenceIds enhancedIds = referenceIds({0, 15000}, 28600, {0, 15000, 40000}, 52000);
        QCOMPARE(AccurateRip::discIds(enhanced).audioTracks, 2);
        QCOMPARE(AccurateRip::discIds(enhanced).id1, enhancedIds.id1);
        QCOMPARE(AccurateRip::discIds(enhanced).id2, enhancedIds.id2);
        QCOMPARE(AccurateRip::discIds(enhanced).freedb, enhancedIds.freedb);

        // No audio: no ids, and no lookup.
        AccurateRip::TableOfContents data;
        data.tracks = {{1, 0, false}};
        data.leadOut = 1000;
        QVERIFY(!AccurateRip::discIds(data).isValid());
        QCOMPARE(AccurateRip::fetch(AccurateRip::discIds(data), root(), 1000).status,
                 AccurateRip::Lookup::Status::Failed);
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
        QVERIFY(image.isValid());
        Disc disc = openDisc(image);
        QVERIFY(disc);
        AccurateRip::TableOfContents toc;
        QVERIFY(AccurateRip::readTableOfContents(disc.get(), &toc));
        const AccurateRip::DiscIds ids = AccurateRip::discIds(toc);
        QList<quint32> v1s;
        QList<quint32> v2s;
        for (int i = 0; i < 3; ++i) {
            quint32 v1 = 0;
            quint32 v2 = 0;
            referenceSums(image.trackAudio(i), i == 0, i == 2, &v1, &v2);
            v1s << v1;
            v2s << v2;
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

        RipLog log;
        log.source = QStringLiteral("/dev/sr0");
        log.readOffset = 6;
        log.discId = QStringLiteral("sqiQcFcdWmoQZM6Hly5BnKDt1s0-");
        log.accurateRipId = QStringLiteral("003-00000708-00001771-09000c03");
        log.accurateRipLookup = QStringLiteral("2 entries");
        log.album = QStringLiteral("AC/DC: Live?");
        log.started = QDateTime(QDate(2026, 3, 4), QTime(5, 6, 7));
        RipLogTrack good;
        good.number = 1;
        good.firstSector = 0;
        good.lastSector = 299;
        good.statistics.sectorsRead = 310;
        good.statistics.rereads = 10;
        good.statistics.corrections = 2;
        good.ripped = true;
        good.checksumV1 = 0x6a3e51f0;
        good.checksumV2 = 0x30a0e496;
        good.crc32 = 0xecdca07e;
        good.accurateRip = QStringLiteral("accurately ripped (confidence 12)");
        good.file = QStringLiteral("/music/01 Morning Tide.flac");
        RipLogTrack bad;
        bad.number = 2;
        bad.firstSector = 300;
        bad.lastSector = 599;
        bad.statistics.skips = 3;
        bad.message = QStringLiteral("Track 2: sectors 400-402 could not be read.");
        bad.accurateRip = QStringLiteral("not checked: the track was not ripped");
        log.tracks = {good, bad};

        const QString text = log.text();
        for (const char *line :
             {"Drive:        /dev/sr0\n", "Read offset:  6 samples\n", "Disc id:      sqiQcFcdWmoQZM6Hly5BnKDt1s0-\n",
              "AccurateRip:  003-00000708-00001771-09000c03\n", "Track 01\n  Sectors:      0-299 (300)\n",
              "  Reads:        310 sectors, 10 re-read, 0 read errors\n",
              "  Paranoia:     0 verifications, 2 corrections, 0 skips\n",
              "  AccurateRip:  v1 6A3E51F0, v2 30A0E496\n  CRC32:        ECDCA07E\n",
              "  Verification: accurately ripped (confidence 12)\n", "  Result:       ripped\n",
              "Track 02\n  Sectors:      300-599 (300)\n", "0 corrections, 3 skips\n", "  Result:       FAILED\n",
              "  Message:      Track 2: sectors 400-402 could not be read.\n", "1 of 2 tracks failed.\n"}) {
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

        // Beside the application log, and named in it; a second log of the
        // same second does not replace the first.
        const QString logFile = Logger::logFileURL().toLocalFile();
        QCOMPARE(ripLogFolder(), QFileInfo(logFile).absolutePath() + QStringLiteral("/rips"));
        QString path;
        QVERIFY(!writeRipLog(log, &path));
        QCOMPARE(path, ripLogFolder() + QStringLiteral("/AC_DC_ Live_ 2026-03-04 05-06-07.log"));
        QFile written(path);
        QVERIFY(written.open(QIODevice::ReadOnly));
        QCOMPARE(QString::fromUtf8(written.readAll()), text);
        QString second;
        QVERIFY(!writeRipLog(log, &second));
        QCOMPARE(second, ripLogFolder() + QStringLiteral("/AC_DC_ Live_ 2026-03-04 05-06-07 (2).log"));
        QFile appLog(logFile);
        QVERIFY(appLog.open(QIODevice::ReadOnly));
        QVERIFY(appLog.readAll().contains(("Rip log written to " + path).toUtf8()));
    }
};

QTEST_GUILESS_MAIN(TestAccurateRip)
#include "tst_accuraterip.moc"
