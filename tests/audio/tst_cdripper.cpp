#include "audio/cdripper.h"
#include "cd/plcaudiocdprocessor.h"
#include "platform/discimages.h"
#include "support/discimage.h"

#include <QTemporaryDir>
#include <QtTest>

#include <cstring>
#include <memory>
#include <vector>

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

// The AccurateRip sums as the published algorithm states them, from the raw
// bytes: 64-bit sums reduced at the end, the v2 sum folding each product's
// high half back in.
struct Sums
{
    quint32 v1;
    quint32 v2;
};
Sums referenceChecksums(const QByteArray &bytes, bool skipStart, bool skipEnd)
{
    const qint64 count = bytes.size() / 4;
    const auto *data = reinterpret_cast<const uchar *>(bytes.constData());
    quint64 v1 = 0;
    quint64 v2low = 0;
    quint64 v2high = 0;
    for (qint64 i = 0; i < count; ++i) {
        const qint64 position = i + 1;
        if (skipStart && position < 5 * 588 - 1 + 1) {
            continue;
        }
        if (skipEnd && position > count - 5 * 588) {
            continue;
        }
        const quint64 word = quint64(data[4 * i]) | quint64(data[4 * i + 1]) << 8 | quint64(data[4 * i + 2]) << 16 |
                             quint64(data[4 * i + 3]) << 24;
        const quint64 product = word * quint64(position);
        v1 += product;
        v2low += product & 0xFFFFFFFFu;
        v2high += product >> 32;
    }
    return {quint32(v1), quint32(v2low + v2high)};
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

private slots:
    void initTestCase();
    void ripsEveryTrackBitExact_data();
    void ripsEveryTrackBitExact();
    void accurateRipSkipsFirstAndLastTrackEdges();
    void oneTrackDiscSkipsOnlyTheStart();
    void stopFromProgressEndsTheRip_data();
    void stopFromProgressEndsTheRip();
    void trackPastLeadOutFails();
    void discStartingAtTrackTwo();
    void mixedDiscAudioTrack();
    void readOffsetArithmetic();
    void noiseRipsInTheRightByteOrder();
    void driveTextsAndHarmlessNotice();
    void openAndFreeEdges();
    void ripsTheChosenDiscThroughTheSharedHandle();

private:
    QTemporaryDir m_dir;
    DiscImage m_standard;
};

void TestCDRipper::initTestCase()
{
    QVERIFY(m_dir.isValid());
    m_standard = DiscImage::create(m_dir.path(), QStringLiteral("standard"), DiscImage::standardOptions());
    QVERIFY(m_standard.isValid());
}

void TestCDRipper::ripsEveryTrackBitExact_data()
{
    QTest::addColumn<bool>("plainReads");
    QTest::addColumn<quint32>("retries");
    QTest::newRow("full paranoia, retry-limited") << false << 5u;
    QTest::newRow("full paranoia, unlimited") << false << 0u;
    QTest::newRow("plain reads") << true << 5u;
}

void TestCDRipper::ripsEveryTrackBitExact()
{
    QFETCH(bool, plainReads);
    QFETCH(quint32, retries);
    Disc disc = openDisc(m_standard);
    QVERIFY(disc);
    RipSettings settings;
    settings.disableParanoia = plainReads ? 1 : 0;
    settings.readRetries = retries;
    RipContext *context = nullptr;
    QCOMPARE(ripOpen(&context, &settings, disc.get()), 0);
    QVERIFY(context);
    QCOMPARE(context->leadOut, uint32_t(m_standard.totalSectors()));

    for (int i = 0; i < m_standard.trackCount(); ++i) {
        const int sectors = m_standard.trackSectors(i);
        const RipResult result = rip(context, uint32_t(i + 1));
        QCOMPARE(result.status, 0);
        QVERIFY(result.messages.isEmpty());
        const QByteArray expected = m_standard.trackBytes(i);
        QCOMPARE(expected.size(), sectors * kRipSectorBytes);
        QVERIFY2(result.audio == expected, qPrintable(QStringLiteral("track %1 differs").arg(i + 1)));
        QVERIFY(result.streamed == expected);
        // Twice with nothing, then once a sector.
        QCOMPARE(result.progressCalls, sectors + 2);
        QCOMPARE(result.nullSampleCalls, 2);
        QCOMPARE(result.firstCalls.at(0), qMakePair(0, 1));
        QCOMPARE(result.firstCalls.at(1), qMakePair(0, sectors));
        QCOMPARE(result.firstCalls.at(2), qMakePair(1, sectors));
        QCOMPARE(result.record.audio, result.record.buffer);
        QCOMPARE(result.record.firstSector, uint32_t(m_standard.trackFirstSector(i)));
        QCOMPARE(result.record.lastSector, uint32_t(m_standard.trackFirstSector(i) + sectors - 1));
        QCOMPARE(result.record.samples, uint64_t(sectors) * 1176);
        QCOMPARE(result.record.preEmphasis, 0);
    }
    ripFree(&context);
    QVERIFY(!context);
}

void TestCDRipper::accurateRipSkipsFirstAndLastTrackEdges()
{
    Disc disc = openDisc(m_standard);
    RipSettings settings;
    settings.readRetries = 5;
    RipContext *context = nullptr;
    QCOMPARE(ripOpen(&context, &settings, disc.get()), 0);
    const int last = m_standard.trackCount();
    for (int number = 1; number <= last; ++number) {
        const RipResult result = rip(context, uint32_t(number));
        QCOMPARE(result.status, 0);
        const Sums expected = referenceChecksums(result.audio, number == 1, number == last);
        QCOMPARE(result.record.checksumV1, expected.v1);
        QCOMPARE(result.record.checksumV2, expected.v2);
        QVERIFY(result.record.checksumV1 != result.record.checksumV2);
        // The skips matter: summing the whole track gives other values.
        if (number == 1 || number == last) {
            QVERIFY(referenceChecksums(result.audio, false, false).v1 != expected.v1);
        }
    }
    ripFree(&context);
}

void TestCDRipper::oneTrackDiscSkipsOnlyTheStart()
{
    const DiscImage image = DiscImage::create(m_dir.path(), QStringLiteral("single"), DiscImage::audioOptions({300}));
    QVERIFY(image.isValid());
    Disc disc = openDisc(image);
    RipSettings settings;
    settings.readRetries = 5;
    RipContext *context = nullptr;
    QCOMPARE(ripOpen(&context, &settings, disc.get()), 0);
    const RipResult result = rip(context, 1);
    QCOMPARE(result.status, 0);
    QCOMPARE(result.audio, image.trackBytes(0));
    const Sums expected = referenceChecksums(result.audio, true, false);
    QCOMPARE(result.record.checksumV1, expected.v1);
    QCOMPARE(result.record.checksumV2, expected.v2);
    QVERIFY(referenceChecksums(result.audio, true, true).v1 != expected.v1);
    ripFree(&context);
}

void TestCDRipper::stopFromProgressEndsTheRip_data()
{
    QTest::addColumn<int>("stopAtCall");
    QTest::addColumn<int>("expectedCalls");
    QTest::newRow("at the first call") << 1 << 1;
    QTest::newRow("before reading") << 2 << 2;
    QTest::newRow("at sector 10") << 12 << 12;
    QTest::newRow("at the last sector") << 450 + 2 << 450 + 2;
}

void TestCDRipper::stopFromProgressEndsTheRip()
{
    QFETCH(int, stopAtCall);
    QFETCH(int, expectedCalls);
    Disc disc = openDisc(m_standard);
    RipSettings settings;
    settings.readRetries = 5;
    RipContext *context = nullptr;
    QCOMPARE(ripOpen(&context, &settings, disc.get()), 0);
    const RipResult result = rip(context, 2, stopAtCall);
    QCOMPARE(result.status, 1);
    QCOMPARE(result.progressCalls, expectedCalls);
    QVERIFY(result.messages.isEmpty());
    // The context stays usable after a stop.
    const RipResult again = rip(context, 2);
    QCOMPARE(again.status, 0);
    QCOMPARE(again.audio, m_standard.trackBytes(1));
    ripFree(&context);
}

void TestCDRipper::trackPastLeadOutFails()
{
    Disc disc = openDisc(m_standard);
    RipContext *context = nullptr;
    QCOMPARE(ripOpen(&context, nullptr, disc.get()), 0);
    // The spare record after the last track names no track on the disc.
    RipTrack *spare = ripTrackRecord(context, uint32_t(m_standard.trackCount() + 1));
    QVERIFY(spare);
    spare->number = uint32_t(m_standard.trackCount() + 1);
    const RipResult result = rip(context, uint32_t(m_standard.trackCount() + 1));
    QCOMPARE(result.status, 1);
    QCOMPARE(result.messages, QStringList{QStringLiteral("Track last frame is larger than last disc frame.")});
    QCOMPARE(result.progressCalls, 1);
    QVERIFY(!spare->buffer);
    ripFree(&context);
}

void TestCDRipper::discStartingAtTrackTwo()
{
    DiscImage::Options options = DiscImage::standardOptions();
    options.firstTrackNumber = 2;
    const DiscImage image = DiscImage::create(m_dir.path(), QStringLiteral("fromtwo"), options);
    QVERIFY(image.isValid());
    Disc disc = openDisc(image);
    QVERIFY(disc);
    QCOMPARE(int(cdio_get_first_track_num(disc.get())), 2);
    RipContext *context = nullptr;
    QCOMPARE(ripOpen(&context, nullptr, disc.get()), 0);
    // Track n is found at record n - 1 by its own number.
    for (int i = 0; i < image.trackCount(); ++i) {
        const RipResult result = rip(context, uint32_t(i + 2));
        QCOMPARE(result.status, 0);
        QCOMPARE(result.record.number, uint32_t(i + 2));
        QVERIFY(result.audio == image.trackBytes(i));
        const Sums expected = referenceChecksums(result.audio, i == 0, i == image.trackCount() - 1);
        QCOMPARE(result.record.checksumV1, expected.v1);
    }
    // There is no track 1 on this disc.
    const RipResult missing = rip(context, 1);
    QCOMPARE(missing.status, 1);
    QCOMPARE(missing.messages.value(0), QStringLiteral("Track last frame is larger than last disc frame."));
    ripFree(&context);
}

void TestCDRipper::mixedDiscAudioTrack()
{
    DiscImage::Options options = DiscImage::audioOptions({400, 300});
    options.tracks[1].data = true;
    const DiscImage image = DiscImage::create(m_dir.path(), QStringLiteral("mixed"), options);
    QVERIFY(image.isValid());
    Disc disc = openDisc(image);
    QVERIFY(disc);
    QCOMPARE(cdio_get_discmode(disc.get()), CDIO_DISC_MODE_CD_MIXED);
    RipContext *context = nullptr;
    QCOMPARE(ripOpen(&context, nullptr, disc.get()), 0);
    const RipResult result = rip(context, 1);
    QCOMPARE(result.status, 0);
    QVERIFY(result.audio == image.trackBytes(0));
    ripFree(&context);
}

void TestCDRipper::readOffsetArithmetic()
{
    Disc disc = openDisc(m_standard);
    const QByteArray bin = [&] {
        QFile file(m_standard.binPath());
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }();
    QCOMPARE(bin.size(), m_standard.totalSectors() * kRipSectorBytes);

    const auto ripWith = [&](int32_t sectors, int32_t samples, uint32_t number, int *calls, QByteArray *bufferStart) {
        RipSettings settings;
        settings.offsetSectors = sectors;
        settings.offsetSamples = samples;
        RipContext *context = nullptr;
        if (ripOpen(&context, &settings, disc.get()) != 0) {
            return QByteArray();
        }
        RipTrack *track = ripTrackRecord(context, number);
        QByteArray audio;
        *calls = 0;
        if (ripTrack(
                context, track, [&](int32_t, int32_t, const int16_t *, bool *) { ++*calls; }, nullptr) == 0) {
            const qsizetype length = qsizetype(track->lastSector - track->firstSector + 1) * kRipSectorBytes;
            audio = QByteArray(reinterpret_cast<const char *>(track->audio), length);
            *bufferStart = QByteArray(reinterpret_cast<const char *>(track->buffer), kRipSectorBytes);
        }
        ripFree(&context);
        return audio;
    };

    const int first2 = m_standard.trackFirstSector(1);
    const int sectors2 = m_standard.trackSectors(1);
    int calls = 0;
    QByteArray bufferStart;

    // Later sectors: the audio starts offsetSamples into the buffer.
    QByteArray audio = ripWith(2, 10, 2, &calls, &bufferStart);
    QCOMPARE(audio, bin.mid(qsizetype(first2) * kRipSectorBytes + 40, qsizetype(sectors2) * kRipSectorBytes));
    QCOMPARE(calls, sectors2 + 2 + 2);

    // Earlier sectors: the read starts before the track.
    audio = ripWith(-3, 0, 2, &calls, &bufferStart);
    QCOMPARE(audio, m_standard.trackBytes(1));
    QCOMPARE(bufferStart, bin.mid(qsizetype(first2 - 3) * kRipSectorBytes, kRipSectorBytes));
    QCOMPARE(calls, sectors2 + 3 + 2);

    // Before the disc start nothing is read; that part of the buffer is skipped.
    audio = ripWith(-3, 0, 1, &calls, &bufferStart);
    QCOMPARE(audio, m_standard.trackBytes(0));
    QCOMPARE(calls, m_standard.trackSectors(0) + 2);

    // Past the lead-out the extra sectors are not read.
    const int last = m_standard.trackCount();
    audio = ripWith(2, 0, uint32_t(last), &calls, &bufferStart);
    QCOMPARE(calls, m_standard.trackSectors(last - 1) + 2);
    QCOMPARE(audio, m_standard.trackBytes(last - 1));
}

void TestCDRipper::noiseRipsInTheRightByteOrder()
{
    DiscImage::Options options = DiscImage::audioOptions({150, 150, 150, 150});
    options.whiteNoise = true;
    for (quint32 seed = 1; seed <= 6; ++seed) {
        options.seed = seed;
        const DiscImage image = DiscImage::create(m_dir.path(), QStringLiteral("noise%1").arg(seed), options);
        QVERIFY(image.isValid());
        Disc disc = openDisc(image);
        RipContext *context = nullptr;
        QCOMPARE(ripOpen(&context, nullptr, disc.get()), 0);
        for (int i = 0; i < image.trackCount(); ++i) {
            const RipResult result = rip(context, uint32_t(i + 1));
            QCOMPARE(result.status, 0);
            QVERIFY2(result.audio == image.trackBytes(i),
                     qPrintable(QStringLiteral("seed %1 track %2").arg(seed).arg(i + 1)));
        }
        ripFree(&context);
    }
}

void TestCDRipper::driveTextsAndHarmlessNotice()
{
    QStringList messages;
    const RipMessageCallback collect = [&](const char *text) { messages.append(QString::fromUtf8(text)); };
    bool stop = false;
    ripForwardDriveText("405: Option not supported by drive\n", collect, &stop);
    ripForwardDriveText("405: Option not supported by drive\n405: Option not supported by drive\n", collect, &stop);
    ripForwardDriveText(nullptr, collect, &stop);
    QVERIFY(!stop);
    QVERIFY(messages.isEmpty());

    ripForwardDriveText("405: Option not supported by drive\n010: Unable to access sector 1200: skipping...\n", collect,
                        &stop);
    QVERIFY(stop);
    QCOMPARE(messages, QStringList{QStringLiteral("010: Unable to access sector 1200: skipping...\n")});
}

void TestCDRipper::openAndFreeEdges()
{
    RipContext *context = reinterpret_cast<RipContext *>(this);
    QCOMPARE(ripOpen(&context, nullptr, nullptr), 1);
    QVERIFY(!context);
    ripFree(&context);
    ripFree(nullptr);

    // The disc handle is the caller's: freeing the engine leaves it usable.
    Disc disc = openDisc(m_standard);
    QCOMPARE(ripOpen(&context, nullptr, disc.get()), 0);
    QCOMPARE(context->trackCount, uint32_t(m_standard.trackCount()));
    QCOMPARE(ripTrackRecord(context, 1)->number, 1u);
    QCOMPARE(ripTrackRecord(context, uint32_t(m_standard.trackCount() + 1))->number, 0u);
    QVERIFY(!ripTrackRecord(context, uint32_t(m_standard.trackCount() + 2)));
    ripFree(&context);
    QVERIFY(!context);
    QCOMPARE(int(cdio_get_num_tracks(disc.get())), m_standard.trackCount());
    QCOMPARE(cdio_get_track_lsn(disc.get(), 2), lsn_t(m_standard.trackFirstSector(1)));
}

void TestCDRipper::ripsTheChosenDiscThroughTheSharedHandle()
{
    // Two discs inserted; the one opened is the one ripped, cue or toc.
    const DiscImage other = DiscImage::create(m_dir.path(), QStringLiteral("other"), DiscImage::audioOptions({90, 60}));
    const QString toc = m_standard.writeToc();
    QVERIFY(!toc.isEmpty());
    QVERIFY(DiscImages::insert(other.cuePath()));
    QVERIFY(DiscImages::insert(m_standard.cuePath()));
    QVERIFY(DiscImages::insert(toc));
    for (const QString &volume : {m_standard.cuePath(), toc}) {
        const OptionalError error = PLCAudioCDProcessor::openDeviceForVolume(volume);
        QVERIFY2(!error, qPrintable(error ? error->localizedDescription() : QString()));
        QCOMPARE(PLCAudioCDProcessor::deviceName(), volume);
        RipSettings settings;
        settings.readRetries = 5;
        RipContext *context = nullptr;
        QCOMPARE(ripOpen(&context, &settings, PLCAudioCDProcessor::cdio()), 0);
        for (int i = 0; i < m_standard.trackCount(); ++i) {
            const RipResult result = rip(context, uint32_t(i + 1));
            QCOMPARE(result.status, 0);
            QVERIFY2(result.audio == m_standard.trackBytes(i), qPrintable(volume));
        }
        ripFree(&context);
        // The handle outlives the engine until the disc is ejected.
        QCOMPARE(int(cdio_get_num_tracks(PLCAudioCDProcessor::cdio())), m_standard.trackCount());
    }
    QVERIFY(!PLCAudioCDProcessor::eject());
    QVERIFY(!PLCAudioCDProcessor::cdio());
    QCOMPARE(DiscImages::list(), (QStringList{other.cuePath(), m_standard.cuePath()}));
    DiscImages::clear();
}

QTEST_GUILESS_MAIN(TestCDRipper)
#include "tst_cdripper.moc"
