#include "audio/cdripper.h"
#include "cd/discsession.h"
#include "platform/discimages.h"
#include "riptesting.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QtTest>

Q_DECLARE_METATYPE(RipSettings)

namespace {

RipSettings retries(uint32_t count, bool plainReads = false, int32_t offset = 0)
{
    RipSettings settings;
    settings.readRetries = count;
    settings.disableParanoia = plainReads ? 1 : 0;
    ripSetReadOffset(&settings, offset);
    return settings;
}

// A rip engine on a disc, freed when it goes.
struct Engine
{
    RipContext *context = nullptr;
    int status = -1;
    explicit Engine(CdIo_t *disc, RipSettings settings = retries(5)) { status = ripOpen(&context, &settings, disc); }
    ~Engine() { ripFree(&context); }
    Engine(const Engine &) = delete;
    Engine &operator=(const Engine &) = delete;
};

struct RipResult
{
    int status = -1;
    int progressCalls = 0;
    QList<QPair<int, int>> firstCalls; // (current, total) of the first three progress calls
    QStringList messages;
    QByteArray audio;
    QByteArray streamed; // the samples as the progress calls handed them over
    RipTrack record;
};

RipResult rip(RipContext *context, uint32_t number, int stopAtCall = -1)
{
    RipResult result;
    RipTrack *track = ripTrackRecord(context, number);
    result.status = ripTrack(
        context, track,
        [&](int32_t current, int32_t total, const int16_t *samples, bool *stop) {
            if (result.firstCalls.size() < 3) {
                result.firstCalls.append({current, total});
            }
            if (++result.progressCalls == stopAtCall) {
                *stop = true;
            }
            if (samples) {
                result.streamed.append(reinterpret_cast<const char *>(samples), kRipSectorBytes);
            }
        },
        [&](const char *message) { result.messages.append(QString::fromUtf8(message)); });
    result.record = *track;
    if (track->audio) {
        result.audio = QByteArray(reinterpret_cast<const char *>(track->audio),
                                  qsizetype(track->lastSector - track->firstSector + 1) * kRipSectorBytes);
    }
    return result;
}

// What a drive with a read offset of shift samples should hand back for the
// track at index: the track's samples moved by shift, with silence off the
// disc's audio (data tracks and the gaps before them count as silence).
QByteArray shiftedTrack(const DiscImage &image, int index, int shift)
{
    QByteArray disc;
    for (int i = 0; i < image.trackCount(); ++i) {
        const DiscImage::Track &track = image.options().tracks.at(i);
        disc += QByteArray(qsizetype(track.gapBefore) * kRipSectorBytes, '\0');
        disc += track.data ? QByteArray(track.sectors * kRipSectorBytes, '\0') : image.trackAudio(i);
    }
    const qint64 start = (qint64(image.trackFirstSector(index)) * 588 + shift) * 4;
    QByteArray expected(qint64(image.trackSectors(index)) * kRipSectorBytes, '\0');
    for (qint64 i = std::max<qint64>(0, -start); i < expected.size() && start + i < disc.size(); ++i) {
        expected[i] = disc[start + i];
    }
    return expected;
}

// Forgets the simulated damage when a test ends, however it ends.
struct DamageGuard
{
    ~DamageGuard()
    {
        ripSimulateUnreadableSectors({});
        ripSimulateUnstableSectors({});
    }
};

} // namespace

class TestCDRipper : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    DiscImage m_standard;

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        m_standard =
            DiscImage::create(m_dir.path(), QStringLiteral("standard"), DiscImage::audioOptions({600, 450, 525}));
        QVERIFY(m_standard.isValid());
    }

    void ripsEveryTrackBitExact_data()
    {
        QTest::addColumn<RipSettings>("settings");
        QTest::newRow("full paranoia, retry-limited") << retries(5);
        QTest::newRow("full paranoia, unlimited") << retries(0);
        QTest::newRow("plain reads") << retries(5, true);
    }
    void ripsEveryTrackBitExact()
    {
        QFETCH(RipSettings, settings);
        Disc disc = openDisc(m_standard);
        Engine engine(disc.get(), settings);
        QCOMPARE(engine.status, 0);
        QCOMPARE(engine.context->leadOut, uint32_t(m_standard.totalSectors()));
        for (int i = 0; i < m_standard.trackCount(); ++i) {
            const int sectors = m_standard.trackSectors(i);
            const RipResult result = rip(engine.context, uint32_t(i + 1));
            QVERIFY2(result.status == 0 && result.messages.isEmpty(), qPrintable(result.messages.join(u'|')));
            const QByteArray expected = m_standard.trackBytes(i);
            QVERIFY2(result.audio == expected, qPrintable(QStringLiteral("track %1 differs").arg(i + 1)));
            QVERIFY(result.streamed == expected);
            // Twice with nothing, then once a sector.
            QCOMPARE(result.progressCalls, sectors + 2);
            QCOMPARE(result.firstCalls,
                     (QList<QPair<int, int>>{qMakePair(0, 1), qMakePair(0, sectors), qMakePair(1, sectors)}));
            QCOMPARE(result.record.firstSector, uint32_t(m_standard.trackFirstSector(i)));
            QCOMPARE(result.record.samples, uint64_t(sectors) * 1176);
            const AccurateRipSums sums = accurateRipSums(expected, i == 0, i == m_standard.trackCount() - 1);
            QCOMPARE(result.record.checksumV1, sums.v1);
            QCOMPARE(result.record.checksumV2, sums.v2);
            // The drive is asked for this track only (twice over, to verify),
            // never for the rest of the disc behind it.
            QVERIFY2(result.record.statistics.sectorsRead <= uint32_t(2 * sectors + 64),
                     qPrintable(QString::number(result.record.statistics.sectorsRead)));
        }
        // A one-track disc skips only its start: other skips give other sums.
        const DiscImage single =
            DiscImage::create(m_dir.path(), QStringLiteral("single"), DiscImage::audioOptions({300}));
        Disc one = openDisc(single);
        Engine oneEngine(one.get(), settings);
        const RipResult whole = rip(oneEngine.context, 1);
        QCOMPARE(whole.record.checksumV1, accurateRipSums(whole.audio, true, false).v1);
        QVERIFY(accurateRipSums(whole.audio, true, true).v1 != whole.record.checksumV1);
        QVERIFY(accurateRipSums(whole.audio, false, false).v1 != whole.record.checksumV1);
    }

    // Discs laid out every way, ripped with read offsets either way: a data
    // track is never read as audio, nor is the gap before an Enhanced CD's
    // data session, and audio beyond the disc's audio is silence.
    void ripsEachLayoutWithEachOffset_data()
    {
        QTest::addColumn<QList<int>>("sectors");
        QTest::addColumn<int>("firstNumber");
        QTest::addColumn<int>("dataIndex");
        QTest::addColumn<int>("gapBefore");
        QTest::addColumn<bool>("bigEndian"); // the cue says MOTOROLA
        QTest::addColumn<bool>("toc");       // a toc image in a folder whose name is not Latin-1
        QTest::newRow("audio from track 2") << QList<int>{600, 450, 525} << 2 << -1 << 0 << false << false;
        QTest::newRow("big-endian cue") << QList<int>{150, 120} << 1 << -1 << 0 << true << false;
        QTest::newRow("toc") << QList<int>{150, 120} << 1 << -1 << 0 << true << true;
        QTest::newRow("data first (mixed mode)") << QList<int>{200, 300, 250} << 1 << 0 << 0 << false << false;
        QTest::newRow("data last, one session") << QList<int>{200, 300, 250} << 1 << 2 << 0 << false << false;
        QTest::newRow("Enhanced CD") << QList<int>{200, 300, 250, 150} << 1 << 3 << 11400 << false << false;
        QTest::newRow("data in the middle") << QList<int>{200, 150, 300, 250} << 1 << 1 << 0 << false << false;
    }
    void ripsEachLayoutWithEachOffset()
    {
        QFETCH(QList<int>, sectors);
        QFETCH(int, firstNumber);
        QFETCH(int, dataIndex);
        QFETCH(int, gapBefore);
        QFETCH(bool, bigEndian);
        QFETCH(bool, toc);
        DiscImage::Options options = DiscImage::audioOptions(sectors);
        options.firstTrackNumber = firstNumber;
        options.bigEndian = bigEndian;
        if (dataIndex >= 0) {
            options.tracks[dataIndex].data = true;
            options.tracks[dataIndex].gapBefore = gapBefore;
        }
        const QString folder =
            m_dir.filePath(QString::fromUtf8(QTest::currentDataTag()) + QStringLiteral(" Диски 音楽"));
        QVERIFY(QDir().mkpath(folder));
        const DiscImage image = DiscImage::create(folder, QStringLiteral("disc"), options);
        QVERIFY(image.isValid());
        QVERIFY(!bigEndian || image.trackBytes(0) != image.trackAudio(0));
        // A toc names its bin relatively: opened from another working folder.
        const QString path = toc ? image.writeToc() : image.cuePath();
        QTemporaryDir elsewhere;
        const QString previous = QDir::currentPath();
        QVERIFY(DiscImages::insert(path) && QDir::setCurrent(elsewhere.path()));
        OptionalError opened;
        const std::shared_ptr<DiscSession> disc = DiscSession::open(path, &opened);
        QVERIFY(QDir::setCurrent(previous));
        QVERIFY2(disc, qPrintable(opened ? opened->localizedDescription() : QString()));
        const auto eject = qScopeGuard([&] { DiscSession::eject(path); });
        disc->use([&](CdIo_t *handle) {
            const int dataNumber = firstNumber + dataIndex;
            const int firstAudio = firstNumber + (dataIndex == 0 ? 1 : 0);
            const int lastAudio = firstNumber + image.trackCount() - 1 - (dataIndex == image.trackCount() - 1 ? 1 : 0);
            QCOMPARE(int(ripFirstAudioTrack(handle)), firstAudio);
            QCOMPARE(int(ripLastAudioTrack(handle)), lastAudio);
            for (const int shift : {-1200, -30, 0, 588, 700}) {
                Engine engine(handle, retries(5, false, shift));
                QCOMPARE(engine.status, 0);
                if (dataIndex >= 0) {
                    const RipResult data = rip(engine.context, uint32_t(dataNumber));
                    QCOMPARE(data.status, 1);
                    QCOMPARE(data.messages,
                             QStringList{QStringLiteral("Track %1 is a data track, not audio; it cannot be ripped.")
                                             .arg(dataNumber)});
                }
                for (int number = firstAudio; number <= lastAudio; ++number) {
                    if (number == dataNumber) {
                        continue;
                    }
                    QElapsedTimer timer;
                    timer.start();
                    const RipResult result = rip(engine.context, uint32_t(number));
                    QVERIFY(timer.elapsed() < 5000);
                    QVERIFY2(result.status == 0, qPrintable(result.messages.join(u'|')));
                    QVERIFY2(result.audio == shiftedTrack(image, number - firstNumber, shift),
                             qPrintable(QStringLiteral("track %1, offset %2").arg(number).arg(shift)));
                    const AccurateRipSums sums =
                        accurateRipSums(result.audio, number == firstAudio, number == lastAudio);
                    QCOMPARE(result.record.checksumV1, sums.v1);
                    QCOMPARE(result.record.checksumV2, sums.v2);
                }
            }
        });
    }

    // Parts of an offset that disagree are refused before anything is read.
    void offsetsThatDisagreeAreRefused()
    {
        Disc disc = openDisc(m_standard);
        for (const auto &[samples, sectors] :
             QList<QPair<int, int>>{{30, 0}, {-30, 1}, {700, 1}, {30, -1}, {6000, 11}}) {
            RipSettings settings = retries(5);
            settings.offsetSamples = samples;
            settings.offsetSectors = sectors;
            Engine engine(disc.get(), settings);
            const RipResult result = rip(engine.context, 1);
            QCOMPARE(result.status, 1);
            QCOMPARE(result.messages, QStringList{QStringLiteral("The read offset of %1 samples does not fit its %2 "
                                                                 "sectors.")
                                                      .arg(samples)
                                                      .arg(sectors)});
            QVERIFY(!ripTrackRecord(engine.context, 1)->buffer);
        }
    }

    void stopFromProgressEndsTheRip()
    {
        Disc disc = openDisc(m_standard);
        Engine engine(disc.get());
        // At the first call, before reading, at sector 10 and at the last sector.
        for (int stopAtCall : {1, 2, 12, m_standard.trackSectors(1) + 2}) {
            const RipResult result = rip(engine.context, 2, stopAtCall);
            QCOMPARE(result.status, 1);
            QCOMPARE(result.progressCalls, stopAtCall);
            QVERIFY(result.messages.isEmpty());
        }
        // The context stays usable after a stop.
        QCOMPARE(rip(engine.context, 2).audio, m_standard.trackBytes(1));
    }

    // Sectors the drive cannot read, or reads differently each time (which
    // paranoia cannot verify and skips), fail the track by name and leave
    // the tracks around it untouched.
    void damagedSectorsFailTheTrack_data()
    {
        QTest::addColumn<RipSettings>("settings");
        QTest::addColumn<bool>("unstable");
        QTest::addColumn<int>("lastBad");
        // Paranoia moves on past the sectors its skip filled in without a
        // read; plain reads lose the rest of the drive's 25-sector read.
        QTest::newRow("unreadable, full paranoia, retry-limited") << retries(5) << false << 103;
        QTest::newRow("unreadable, full paranoia, unlimited") << retries(0) << false << 103;
        QTest::newRow("unreadable, plain reads") << retries(5, true) << false << 124;
        QTest::newRow("unstable, full paranoia, retry-limited") << retries(5) << true << 100;
        QTest::newRow("unstable, full paranoia, unlimited") << retries(0) << true << 100;
    }
    void damagedSectorsFailTheTrack()
    {
        QFETCH(RipSettings, settings);
        QFETCH(bool, unstable);
        QFETCH(int, lastBad);
        Disc disc = openDisc(m_standard);
        Engine engine(disc.get(), settings);
        const int first = m_standard.trackFirstSector(1);
        const DamageGuard guard;
        if (unstable) {
            // One sector: a skip is reported at its start only, whatever it covers.
            ripSimulateUnstableSectors({first + 100});
        } else {
            ripSimulateUnreadableSectors({first + 100, first + 101});
        }
        QElapsedTimer timer;
        timer.start();
        const RipResult result = rip(engine.context, 2);
        QVERIFY2(timer.elapsed() < 5000, qPrintable(QString::number(timer.elapsed())));
        QCOMPARE(result.status, 1);
        const QString expected =
            QStringLiteral("Track 2: sector%1 could not be read.")
                .arg(lastBad == 100 ? QStringLiteral(" %1").arg(first + 100)
                                    : QStringLiteral("s %1-%2").arg(first + 100).arg(first + lastBad));
        QCOMPARE(result.messages.last(), expected);
        QCOMPARE(QString::fromStdString(result.record.failure), expected);
        // Every sector before the damage holds the disc's audio.
        QCOMPARE(QByteArray(reinterpret_cast<const char *>(result.record.audio), 100 * kRipSectorBytes),
                 m_standard.trackAudio(1).left(100 * kRipSectorBytes));
        QVERIFY(settings.disableParanoia || result.record.statistics.skips > 0);
        QVERIFY(unstable || result.record.statistics.readErrors > 0);
        QCOMPARE(rip(engine.context, 1).audio, m_standard.trackAudio(0));
        QCOMPARE(rip(engine.context, 3).audio, m_standard.trackAudio(2));
    }

    void stopEndsARipStuckOnDamageQuickly()
    {
        Disc disc = openDisc(m_standard);
        Engine engine(disc.get());
        // Each failed read takes 300 ms, so the damaged sector alone would
        // keep paranoia busy for many seconds.
        const DamageGuard guard;
        ripSimulateUnreadableSectors({m_standard.trackFirstSector(1) + 10}, 300);
        QElapsedTimer timer;
        qint64 stopAsked = -1;
        int nothingCalls = 0;
        RipTrack *track = ripTrackRecord(engine.context, 2);
        timer.start();
        const int status = ripTrack(
            engine.context, track,
            [&](int32_t, int32_t, const int16_t *samples, bool *stop) {
                // The third call without samples comes from inside the stuck read.
                if (!samples && ++nothingCalls == 3) {
                    stopAsked = timer.elapsed();
                    *stop = true;
                }
            },
            nullptr);
        QCOMPARE(status, 1);
        QVERIFY(stopAsked >= 0);
        QVERIFY2(timer.elapsed() - stopAsked < 1000, qPrintable(QString::number(timer.elapsed() - stopAsked)));
        QVERIFY(track->failure.empty());
    }

    void damagedAndRemovedDiscsFail()
    {
        // The bin ends inside track 2: track 2 runs past the lead-out, track 3
        // is not on the disc at all.
        const DiscImage cut =
            DiscImage::create(m_dir.path(), QStringLiteral("short"), DiscImage::audioOptions({300, 300, 300}));
        QVERIFY(QFile::resize(cut.binPath(), qint64(450) * kRipSectorBytes + 100));
        {
            Disc disc = openDisc(cut);
            Engine engine(disc.get(), RipSettings());
            QCOMPARE(rip(engine.context, 1).audio, cut.trackAudio(0));
            const RipResult second = rip(engine.context, 2);
            QCOMPARE(second.messages, QStringList{QStringLiteral("Track last frame is larger than last disc frame.")});
            // Refused before any read, holding no buffer.
            QCOMPARE(second.progressCalls, 1);
            QVERIFY(!second.record.buffer);
            const RipResult third = rip(engine.context, 3);
            QCOMPARE(third.status, 1);
            QVERIFY2(third.messages.value(0).startsWith(QStringLiteral("Track 3 is not on the disc")),
                     qPrintable(third.messages.value(0)));
        }

        // The disc goes away in the middle of track 2 (its bin is cut short
        // after opening): the rest of the track cannot be read.
        const DiscImage removed =
            DiscImage::create(m_dir.path(), QStringLiteral("removed"), DiscImage::audioOptions({300, 300}));
        Disc disc = openDisc(removed);
        Engine engine(disc.get(), RipSettings());
        QVERIFY(QFile::resize(removed.binPath(), qint64(450) * kRipSectorBytes));
        QElapsedTimer timer;
        timer.start();
        const RipResult result = rip(engine.context, 2);
        QVERIFY(timer.elapsed() < 5000);
        QCOMPARE(result.status, 1);
        // The image layer hands back a few sectors past the cut as read (it
        // pads a short file read); from there on the drive's error names them.
        const QRegularExpressionMatch match =
            QRegularExpression(QStringLiteral("^Track 2: the drive reported \"007: Unknown, unrecoverable error "
                                              "reading data\" reading sectors (\\d+)-599\\.$"))
                .match(result.messages.last());
        QVERIFY2(match.hasMatch(), qPrintable(result.messages.last()));
        QVERIFY(match.captured(1).toInt() >= 450 && match.captured(1).toInt() < 475);
        QVERIFY(result.messages.first().startsWith(QStringLiteral("007: ")));
    }

    void driveTextsStopExceptTheHarmlessOne()
    {
        QStringList messages;
        const RipMessageCallback collect = [&](const char *text) { messages << QString::fromUtf8(text); };
        bool stop = false;
        ripForwardDriveText("405: Option not supported by drive\n", collect, &stop);
        QVERIFY(!stop && messages.isEmpty());
        ripForwardDriveText("405: Option not supported by drive\n010: Unable to access sector 12\n", collect, &stop);
        QVERIFY(stop);
        QCOMPARE(messages, QStringList{QStringLiteral("010: Unable to access sector 12\n")});
    }
};

QTEST_GUILESS_MAIN(TestCDRipper)
#include "tst_cdripper.moc"
