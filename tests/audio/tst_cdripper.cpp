#include "audio/cdripper.h"
#include "cd/plcaudiocdprocessor.h"
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
            QCOMPARE(result.status, 0);
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
        }
    }

    void accurateRipSkipsTheDiscEdges()
    {
        // The first track skips its start, the last its end; a one-track disc only its start.
        const DiscImage single =
            DiscImage::create(m_dir.path(), QStringLiteral("single"), DiscImage::audioOptions({300}));
        QVERIFY(single.isValid());
        const DiscImage *images[] = {&m_standard, &single};
        for (const DiscImage *image : images) {
            Disc disc = openDisc(*image);
            const RipSettings settings = retries(5);
            Engine engine(disc.get(), &settings);
            const int last = image->trackCount();
            for (int number = 1; number <= last; ++number) {
                const RipResult result = rip(engine.context, uint32_t(number));
                QCOMPARE(result.status, 0);
                const bool skipEnd = number == last && last > 1;
                const Sums expected = referenceChecksums(result.audio, number == 1, skipEnd);
                QCOMPARE(result.record.checksumV1, expected.v1);
                QCOMPARE(result.record.checksumV2, expected.v2);
                QVERIFY(result.record.checksumV1 != result.record.checksumV2);
                // The skips matter: other skips give other values.
                if (number == 1 || number == last) {
                    QVERIFY(referenceChecksums(result.audio, number != 1, !skipEnd).v1 != expected.v1);
                }
            }
        }
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

    void trackPastLeadOutFails()
    {
        Disc disc = openDisc(m_standard);
        Engine engine(disc.get());
        // The spare record after the last track names no track on the disc.
        const uint32_t spareNumber = uint32_t(m_standard.trackCount() + 1);
        RipTrack *spare = ripTrackRecord(engine.context, spareNumber);
        QVERIFY(spare);
        QCOMPARE(spare->number, 0u);
        QVERIFY(!ripTrackRecord(engine.context, spareNumber + 1));
        spare->number = spareNumber;
        const RipResult result = rip(engine.context, spareNumber);
        QCOMPARE(result.status, 1);
        QCOMPARE(result.messages, QStringList{QStringLiteral("Track last frame is larger than last disc frame.")});
        QCOMPARE(result.progressCalls, 1);
        QVERIFY(!spare->buffer);
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
            QCOMPARE(result.record.checksumV1,
                     referenceChecksums(result.audio, i == 0, i == image.trackCount() - 1).v1);
        }
    }
};

QTEST_GUILESS_MAIN(TestCDRipper)
#include "tst_cdripper.moc"
