#include "audio/cdripper.h"
#include "cd/discsession.h"
#include "platform/discimages.h"
#include "riptesting.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <vector>

namespace {

// A rip engine on a disc, freed when it goes.
struct Engine
{
    RipContext *context = nullptr;
    int status = -1;
    Engine(CdIo_t *disc, const RipSettings *settings = nullptr) { status = ripOpen(&context, settings, disc); }
    ~Engine() { ripFree(&context); }
    Engine(const Engine &) = delete;
    Engine &operator=(const Engine &) = delete;
};

RipSettings retries(uint32_t count)
{
    RipSettings settings;
    settings.readRetries = count;
    return settings;
}

struct RipResult
{
    int status = -1;
    int progressCalls = 0;
    int nullSampleCalls = 0;
    QList<QPair<int, int>> firstCalls;
    QStringList messages;
    QByteArray audio;
    QByteArray streamed; // the samples as the progress calls handed them over
    RipTrack record;
};

// The disc's audio as one little-endian stream, data tracks and the gaps
// before them as silence.
QByteArray discAudio(const DiscImage &image)
{
    QByteArray audio;
    for (int i = 0; i < image.trackCount(); ++i) {
        const DiscImage::Track &track = image.options().tracks.at(i);
        audio += QByteArray(qsizetype(track.gapBefore) * kRipSectorBytes, '\0');
        audio += track.data ? QByteArray(track.sectors * kRipSectorBytes, '\0') : image.trackAudio(i);
    }
    return audio;
}

// What a drive with a read offset of shift samples should hand back for the
// track at index: the track's samples moved by shift, silence off the disc.
QByteArray shiftedTrack(const DiscImage &image, int index, int shift)
{
    const QByteArray disc = discAudio(image);
    const qint64 start = (qint64(image.trackFirstSector(index)) * 588 + shift) * 4;
    const qint64 length = qint64(image.trackSectors(index)) * kRipSectorBytes;
    QByteArray expected(length, '\0');
    for (qint64 i = 0; i < length; ++i) {
        const qint64 at = start + i;
        if (at >= 0 && at < disc.size()) {
            expected[i] = disc[at];
        }
    }
    return expected;
}

// Forgets the simulated damage when a test ends, however it ends.
struct DamageGuard
{
    DamageGuard(const std::vector<int32_t> &sectors, int delayMs = 0)
    {
        ripSimulateUnreadableSectors(sectors, delayMs);
    }
    ~DamageGuard() { ripSimulateUnreadableSectors({}); }
};

RipResult rip(RipContext *context, uint32_t number, int stopAtCall = -1)
{
    RipResult result;
    RipTrack *track = ripTrackRecord(context, number);
    if (!track) {
        return result;
    }
    result.status = ripTrack(
        context, track,
        [&](int32_t current, int32_t total, const int16_t *samples, bool *stop) {
            if (result.firstCalls.size() < 3) {
                result.firstCalls.append({current, total});
            }
            ++result.progressCalls;
            if (samples) {
                result.streamed.append(reinterpret_cast<const char *>(samples), kRipSectorBytes);
            } else {
                ++result.nullSampleCalls;
            }
            if (result.progressCalls == stopAtCall) {
                *stop = true;
            }
        },
        [&](const char *message) { result.messages.append(QString::fromUtf8(message)); });
    result.record = *track;
    if (result.status == 0 && track->audio) {
        result.audio = QByteArray(reinterpret_cast<const char *>(track->audio),
                                  qsizetype(track->lastSector - track->firstSector + 1) * kRipSectorBytes);
    }
    return result;
}

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
        QTest::addColumn<bool>("plainReads");
        QTest::addColumn<quint32>("retries");
        QTest::newRow("full paranoia, retry-limited") << false << 5u;
        QTest::newRow("full paranoia, unlimited") << false << 0u;
        QTest::newRow("plain reads") << true << 5u;
    }
    void ripsEveryTrackBitExact()
    {
        QFETCH(bool, plainReads);
        QFETCH(quint32, retries);
        Disc disc = openDisc(m_standard);
        QVERIFY(disc);
        RipSettings settings;
        settings.disableParanoia = plainReads ? 1 : 0;
        settings.readRetries = retries;
        Engine engine(disc.get(), &settings);
        QCOMPARE(engine.status, 0);
        QCOMPARE(engine.context->leadOut, uint32_t(m_standard.totalSectors()));

        for (int i = 0; i < m_standard.trackCount(); ++i) {
            const int sectors = m_standard.trackSectors(i);
            const RipResult result = rip(engine.context, uint32_t(i + 1));
            QVERIFY2(result.status == 0, qPrintable(result.messages.join(QLatin1Char('|'))));
            QVERIFY(result.messages.isEmpty());
            const QByteArray expected = m_standard.trackBytes(i);
            QCOMPARE(expected.size(), sectors * kRipSectorBytes);
            QVERIFY2(result.audio == expected, qPrintable(QStringLiteral("track %1 differs").arg(i + 1)));
            QVERIFY(result.streamed == expected);
            // Twice with nothing, then once a sector.
            QCOMPARE(result.progressCalls, sectors + 2);
            QCOMPARE(result.nullSampleCalls, 2);
            QCOMPARE(result.firstCalls,
                     (QList<QPair<int, int>>{qMakePair(0, 1), qMakePair(0, sectors), qMakePair(1, sectors)}));
            QCOMPARE(result.record.firstSector, uint32_t(m_standard.trackFirstSector(i)));
            QCOMPARE(result.record.lastSector, uint32_t(m_standard.trackFirstSector(i) + sectors - 1));
            QCOMPARE(result.record.samples, uint64_t(sectors) * 1176);
            const AccurateRipSums sums = accurateRipSums(expected, i == 0, i == m_standard.trackCount() - 1);
            QCOMPARE(result.record.checksumV1, sums.v1);
            QCOMPARE(result.record.checksumV2, sums.v2);
            // The drive is asked for this track only (twice over, to verify),
            // never for the rest of the disc behind it.
            QVERIFY2(result.record.statistics.sectorsRead <= uint32_t(2 * sectors + 64),
                     qPrintable(QStringLiteral("track %1: %2 sectors read for %3")
                                    .arg(i + 1)
                                    .arg(result.record.statistics.sectorsRead)
                                    .arg(sectors)));
        }
    }

    // The first track skips its start, the last its end (checked above); a
    // one-track disc skips only its start. The skips matter: others give
    // other sums.
    void accurateRipSkipsTheDiscEdges()
    {
        const DiscImage single =
            DiscImage::create(m_dir.path(), QStringLiteral("single"), DiscImage::audioOptions({300}));
        Disc disc = openDisc(single);
        const RipSettings settings = retries(5);
        Engine engine(disc.get(), &settings);
        const RipResult result = rip(engine.context, 1);
        QCOMPARE(result.status, 0);
        const AccurateRipSums expected = accurateRipSums(result.audio, true, false);
        QCOMPARE(result.record.checksumV1, expected.v1);
        QCOMPARE(result.record.checksumV2, expected.v2);
        QVERIFY(accurateRipSums(result.audio, true, true).v1 != expected.v1);
        QVERIFY(accurateRipSums(result.audio, false, false).v1 != expected.v1);
    }

    void stopFromProgressEndsTheRip()
    {
        Disc disc = openDisc(m_standard);
        const RipSettings settings = retries(5);
        Engine engine(disc.get(), &settings);
        // At the first call, before reading, at sector 10 and at the last sector.
        for (int stopAtCall : {1, 2, 12, m_standard.trackSectors(1) + 2}) {
            const RipResult result = rip(engine.context, 2, stopAtCall);
            QCOMPARE(result.status, 1);
            QCOMPARE(result.progressCalls, stopAtCall);
            QVERIFY(result.messages.isEmpty());
        }
        // The context stays usable after a stop.
        const RipResult again = rip(engine.context, 2);
        QCOMPARE(again.status, 0);
        QCOMPARE(again.audio, m_standard.trackBytes(1));
    }

    void discStartingAtTrackTwo()
    {
        DiscImage::Options options = DiscImage::audioOptions({600, 450, 525});
        options.firstTrackNumber = 2;
        const DiscImage image = DiscImage::create(m_dir.path(), QStringLiteral("fromtwo"), options);
        QVERIFY(image.isValid());
        Disc disc = openDisc(image);
        QCOMPARE(int(cdio_get_first_track_num(disc.get())), 2);
        Engine engine(disc.get());
        // Track n is found at record n - 1 by its own number.
        for (int i = 0; i < image.trackCount(); ++i) {
            const RipResult result = rip(engine.context, uint32_t(i + 2));
            QCOMPARE(result.status, 0);
            QCOMPARE(result.record.number, uint32_t(i + 2));
            QVERIFY(result.audio == image.trackBytes(i));
            QCOMPARE(result.record.checksumV1, accurateRipSums(result.audio, i == 0, i == image.trackCount() - 1).v1);
        }
    }

    void unreadableSectorsFailTheTrack_data()
    {
        QTest::addColumn<bool>("plainReads");
        QTest::addColumn<quint32>("retryCount");
        QTest::addColumn<int>("lastUnread");
        // Paranoia moves on past the sectors its skip filled in without a
        // read; plain reads lose the rest of the drive's 25-sector read.
        QTest::newRow("full paranoia, retry-limited") << false << 5u << 103;
        QTest::newRow("full paranoia, unlimited") << false << 0u << 103;
        QTest::newRow("plain reads") << true << 5u << 124;
    }
    void unreadableSectorsFailTheTrack()
    {
        QFETCH(bool, plainReads);
        QFETCH(quint32, retryCount);
        QFETCH(int, lastUnread);
        Disc disc = openDisc(m_standard);
        RipSettings settings = retries(retryCount);
        settings.disableParanoia = plainReads ? 1 : 0;
        Engine engine(disc.get(), &settings);
        const int first = m_standard.trackFirstSector(1);
        const DamageGuard damage({first + 100, first + 101});
        QElapsedTimer timer;
        timer.start();
        const RipResult result = rip(engine.context, 2);
        QVERIFY2(timer.elapsed() < 5000, qPrintable(QString::number(timer.elapsed())));
        QCOMPARE(result.status, 1);
        const QString expected =
            QStringLiteral("Track 2: sectors %1-%2 could not be read.").arg(first + 100).arg(first + lastUnread);
        QCOMPARE(result.messages.last(), expected);
        // Every sector not named holds the disc's audio.
        const QByteArray audio(reinterpret_cast<const char *>(result.record.audio),
                               m_standard.trackSectors(1) * kRipSectorBytes);
        const QByteArray image = m_standard.trackAudio(1);
        QVERIFY(audio.left(100 * kRipSectorBytes) == image.left(100 * kRipSectorBytes));

        QCOMPARE(QString::fromStdString(result.record.failure), expected);
        if (!plainReads) {
            QVERIFY(result.record.statistics.skips > 0);
        }
        QVERIFY(result.record.statistics.readErrors > 0);
        // The tracks around it are untouched.
        QCOMPARE(rip(engine.context, 1).audio, m_standard.trackAudio(0));
        const RipResult after = rip(engine.context, 3);
        QVERIFY2(after.audio == m_standard.trackAudio(2), qPrintable(after.messages.join(QLatin1Char('|'))));
    }

    void stopEndsARipStuckOnDamageQuickly()
    {
        Disc disc = openDisc(m_standard);
        const RipSettings settings = retries(5);
        Engine engine(disc.get(), &settings);
        const int first = m_standard.trackFirstSector(1);
        // Each failed read takes 300 ms, so the damaged sector alone would
        // keep paranoia busy for many seconds.
        const DamageGuard damage({first + 10}, 300);
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
        const DiscImage shortImage =
            DiscImage::create(m_dir.path(), QStringLiteral("short"), DiscImage::audioOptions({300, 300, 300}));
        QVERIFY(shortImage.isValid());
        QVERIFY(QFile::resize(shortImage.binPath(), qint64(450) * kRipSectorBytes + 100));
        {
            Disc disc = openDisc(shortImage);
            QVERIFY(disc);
            Engine engine(disc.get());
            QCOMPARE(rip(engine.context, 1).audio, shortImage.trackAudio(0));
            const RipResult second = rip(engine.context, 2);
            QCOMPARE(second.status, 1);
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
        Engine engine(disc.get(), nullptr);
        QVERIFY(QFile::resize(removed.binPath(), qint64(450) * kRipSectorBytes));
        QElapsedTimer timer;
        timer.start();
        const RipResult result = rip(engine.context, 2);
        QVERIFY(timer.elapsed() < 5000);
        QCOMPARE(result.status, 1);
        // The image layer hands back a few sectors past the cut as read (it
        // pads a short file read); from there on the drive's error names them.
        const QRegularExpression failure(QStringLiteral("^Track 2: the drive reported \"007: Unknown, unrecoverable "
                                                        "error reading data\" reading sectors (\\d+)-599\\.$"));
        const QRegularExpressionMatch match = failure.match(result.messages.last());
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
        QVERIFY(!stop);
        QVERIFY(messages.isEmpty());
        ripForwardDriveText("405: Option not supported by drive\n010: Unable to access sector 12\n", collect, &stop);
        QVERIFY(stop);
        QCOMPARE(messages, QStringList{QStringLiteral("010: Unable to access sector 12\n")});
    }

    // A cue sheet saying MOTOROLA (a toc image's big-endian audio goes
    // through pelicane-cli upload-cd in tst_uploadcdcli).
    void byteOrderComesFromTheImage()
    {
        DiscImage::Options options = DiscImage::audioOptions({150, 120});
        options.bigEndian = true;
        const DiscImage image = DiscImage::create(m_dir.path(), QStringLiteral("motorola"), options);
        QVERIFY(image.isValid());
        QVERIFY(image.trackBytes(0) != image.trackAudio(0));
        Disc disc = openDisc(image);
        Engine engine(disc.get());
        for (int i = 0; i < image.trackCount(); ++i) {
            QCOMPARE(rip(engine.context, uint32_t(i + 1)).audio, image.trackAudio(i));
        }
    }

    // The same from a folder whose name is not Latin-1: the toc's copy names
    // its bin in the folder's own bytes.
    void tocInAFolderNamedInAnyScript()
    {
        const QString folder = m_dir.filePath(QStringLiteral("Диски 音楽"));
        QVERIFY(QDir().mkpath(folder));
        // A toc's raw audio is big-endian.
        DiscImage::Options options = DiscImage::audioOptions({150, 120});
        options.bigEndian = true;
        const DiscImage image = DiscImage::create(folder, QStringLiteral("disc"), options);
        QVERIFY(image.isValid());
        const QString toc = image.writeToc();
        QVERIFY(!toc.isEmpty());
        QTemporaryDir elsewhere;
        const QString previous = QDir::currentPath();
        QVERIFY(QDir::setCurrent(elsewhere.path()));
        QVERIFY(DiscImages::insert(toc));
        OptionalError opened;
        const std::shared_ptr<DiscSession> disc = DiscSession::open(toc, &opened);
        QVERIFY(QDir::setCurrent(previous));
        QVERIFY2(disc, qPrintable(opened ? opened->localizedDescription() : QString()));
        disc->use([&](CdIo_t *handle) {
            Engine engine(handle);
            QCOMPARE(engine.status, 0);
            QCOMPARE(rip(engine.context, 2).audio, image.trackAudio(1));
            ripFree(&engine.context);
        });
        DiscSession::eject(toc);
    }

    // A data track is never read as audio, nor is the gap before an
    // Enhanced CD's data session, where its audio ends.
    void dataTracksAnywhere_data()
    {
        QTest::addColumn<QList<int>>("sectors");
        QTest::addColumn<int>("dataIndex");
        QTest::addColumn<int>("gapBefore");
        QTest::newRow("data first (mixed mode)") << QList<int>{200, 300, 250} << 0 << 0;
        QTest::newRow("data last, one session") << QList<int>{200, 300, 250} << 2 << 0;
        QTest::newRow("Enhanced CD") << QList<int>{200, 300, 250, 150} << 3 << 11400;
        QTest::newRow("data in the middle") << QList<int>{200, 150, 300, 250} << 1 << 0;
    }
    void dataTracksAnywhere()
    {
        QFETCH(QList<int>, sectors);
        QFETCH(int, dataIndex);
        QFETCH(int, gapBefore);
        DiscImage::Options options = DiscImage::audioOptions(sectors);
        options.tracks[dataIndex].data = true;
        options.tracks[dataIndex].gapBefore = gapBefore;
        const DiscImage image = DiscImage::create(m_dir.path(), QStringLiteral("data%1").arg(dataIndex), options);
        QVERIFY(image.isValid());
        Disc disc = openDisc(image);
        const int dataNumber = dataIndex + 1;
        const int firstAudio = dataIndex == 0 ? 2 : 1;
        const int lastAudio = dataNumber == image.trackCount() ? dataNumber - 1 : image.trackCount();
        QCOMPARE(int(ripFirstAudioTrack(disc.get())), firstAudio);
        QCOMPARE(int(ripLastAudioTrack(disc.get())), lastAudio);
        // Offsets either way read past the audio's edges: silence there.
        for (const int shift : {-700, 0, 700}) {
            RipSettings settings = retries(5);
            ripSetReadOffset(&settings, shift);
            Engine engine(disc.get(), &settings);
            const RipResult data = rip(engine.context, uint32_t(dataNumber));
            QCOMPARE(data.status, 1);
            QCOMPARE(data.messages,
                     QStringList{
                         QStringLiteral("Track %1 is a data track, not audio; it cannot be ripped.").arg(dataNumber)});
            for (int number = firstAudio; number <= lastAudio; ++number) {
                if (number == dataNumber) {
                    continue;
                }
                QElapsedTimer timer;
                timer.start();
                const RipResult result = rip(engine.context, uint32_t(number));
                QVERIFY(timer.elapsed() < 5000);
                QVERIFY2(result.status == 0, qPrintable(result.messages.join(QLatin1Char('|'))));
                QVERIFY2(result.audio == shiftedTrack(image, number - 1, shift),
                         qPrintable(QStringLiteral("track %1, offset %2").arg(number).arg(shift)));
                const AccurateRipSums expected =
                    accurateRipSums(result.audio, number == firstAudio, number == lastAudio);
                QCOMPARE(result.record.checksumV1, expected.v1);
                QCOMPARE(result.record.checksumV2, expected.v2);
            }
        }
    }

    void readOffsetsShiftTheAudioWithSilentEdges()
    {
        Disc disc = openDisc(m_standard);
        for (const int shift : {-1200, -30, 30, 588, 1300}) {
            RipSettings settings = retries(5);
            ripSetReadOffset(&settings, shift);
            Engine engine(disc.get(), &settings);
            for (int i = 0; i < m_standard.trackCount(); ++i) {
                const RipResult result = rip(engine.context, uint32_t(i + 1));
                QCOMPARE(result.status, 0);
                QVERIFY2(result.audio == shiftedTrack(m_standard, i, shift),
                         qPrintable(QStringLiteral("track %1, offset %2").arg(i + 1).arg(shift)));
            }
        }
        // Parts that disagree are refused before anything is read.
        const QList<QPair<int, int>> wrong = {{30, 0}, {-30, 1}, {700, 1}, {30, -1}, {6000, 11}};
        for (const auto &[samples, sectors] : wrong) {
            RipSettings settings = retries(5);
            settings.offsetSamples = samples;
            settings.offsetSectors = sectors;
            Engine engine(disc.get(), &settings);
            const RipResult result = rip(engine.context, 1);
            QCOMPARE(result.status, 1);
            QCOMPARE(result.messages,
                     QStringList{QStringLiteral("The read offset of %1 samples does not fit its %2 sectors.")
                                     .arg(samples)
                                     .arg(sectors)});
            QVERIFY(!ripTrackRecord(engine.context, 1)->buffer);
        }
    }
};

QTEST_GUILESS_MAIN(TestCDRipper)
#include "tst_cdripper.moc"
