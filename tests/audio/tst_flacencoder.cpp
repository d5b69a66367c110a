#include "audio/flacencoder.h"
#include "support/discimage.h"
#include "support/flactools.h"

#include <QBuffer>
#include <QImage>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <sys/resource.h>

namespace {

// The metadata block names in order ("STREAMINFO", ...).
QStringList blockTypes(const QString &path)
{
    QStringList types;
    const QRegularExpression type(QStringLiteral("^METADATA block #\\d+\n  type: \\d+ \\((\\w+)\\)$"),
                                  QRegularExpression::MultilineOption);
    for (auto it = type.globalMatch(QString::fromUtf8(flacToolOutput("metaflac", {"--list", path}))); it.hasNext();) {
        types << it.next().captured(1);
    }
    return types;
}

} // namespace

class TestFLACEncoder : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QByteArray m_audio;

    // Encodes the audio sector by sector as a rip hands it over.
    static QString encode(FLACEncoder &encoder, const QByteArray &audio, const PLCID3Tag &tags, OptionalError *error,
                          QList<quint64> *progress = nullptr, const std::function<void()> &beforeFinish = {})
    {
        QString completedPath;
        *error = encoder.configureWithSampleCount(
            quint64(audio.size() / 4), tags,
            [progress](uint64_t written, uint64_t total) {
                if (progress) {
                    *progress << written << total;
                }
            },
            [&completedPath](const QUrl &url) { completedPath = url.toLocalFile(); });
        if (*error) {
            return QString();
        }
        const auto *samples = reinterpret_cast<const int16_t *>(audio.constData());
        for (qsizetype offset = 0; offset < audio.size() / 2; offset += 1176) {
            encoder.processSamples(samples + offset, size_t(std::min<qsizetype>(1176, audio.size() / 2 - offset)));
        }
        if (beforeFinish) {
            beforeFinish();
        }
        *error = encoder.finish();
        return completedPath;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        const DiscImage image =
            DiscImage::create(m_dir.path(), QStringLiteral("disc"), DiscImage::audioOptions({1500, 37}));
        QVERIFY(image.isValid());
        m_audio = image.trackBytes(0) + image.trackBytes(1);
    }

    void encodesTheSamplesExactly()
    {
        FLACEncoder encoder;
        OptionalError error;
        QList<quint64> progress;
        const QString path = encode(encoder, m_audio, PLCID3Tag(), &error, &progress);
        QVERIFY2(!error, qPrintable(error ? error->localizedDescription() : QString()));
        QCOMPARE(path, encoder.filepath().toLocalFile());
        QCOMPARE(flacToolOutput("metaflac", {"--show-channels", "--show-bps", "--show-sample-rate", path}),
                 QByteArray("2\n16\n44100\n"));
        const QByteArray decoded = decodedFlacAudio(path);
        QCOMPARE(decoded.size(), m_audio.size());
        QVERIFY(decoded == m_audio);
        // The last report: every sample written, of the total announced.
        const quint64 total = quint64(m_audio.size() / 4);
        QCOMPARE(progress.mid(progress.size() - 2), (QList<quint64>{total, total}));
    }

    void commentsInOrderAndOnlyWhenPresent_data()
    {
        QTest::addColumn<PLCID3Tag>("tags");
        QTest::addColumn<QStringList>("expected");

        PLCID3Tag few;
        few.setTitle(QStringLiteral("Song"));
        few.setArtist(QStringLiteral("Band"));
        few.setTrack(3);
        few.setTotalTracks(12);
        QTest::newRow("title, artist, track 3 of 12")
            << few << QStringList{"title=Song", "artist=Band", "tracknumber=3/12"};

        PLCID3Tag all;
        all.setDiscNumber(2);
        all.setTrack(7);
        all.setTotalTracks(9);
        all.setGenreText(QStringLiteral("Jazz"));
        all.setYear(1999);
        all.setAlbumArtist(QStringLiteral("Various"));
        all.setArtist(QStringLiteral("Zoë"));
        all.setAlbum(QStringLiteral("Année"));
        all.setTitle(QStringLiteral("Tïtle"));
        QTest::newRow("every field") << all << QStringList{"title=Tïtle",         "album=Année", "artist=Zoë",
                                                           "albumartist=Various", "year=1999",   "genre=Jazz",
                                                           "tracknumber=7/9",     "discnumber=2"};

        PLCID3Tag noTotal;
        noTotal.setTrack(4);
        QTest::newRow("track without a total") << noTotal << QStringList{"tracknumber=4"};

        QTest::newRow("nothing") << PLCID3Tag() << QStringList();
    }
    void commentsInOrderAndOnlyWhenPresent()
    {
        QFETCH(PLCID3Tag, tags);
        QFETCH(QStringList, expected);
        FLACEncoder encoder;
        OptionalError error;
        const QString path = encode(encoder, m_audio.left(20 * 2352), tags, &error);
        QVERIFY(!error);
        QCOMPARE(flacComments(path), expected);
        // The picture block is there even without artwork, and the padding block is never written.
        QCOMPARE(blockTypes(path), (QStringList{"STREAMINFO", "VORBIS_COMMENT", "PICTURE"}));
        QVERIFY(flacToolOutput("metaflac", {"--export-picture-to=-", path}).isEmpty());
    }

    void artworkIsTheFrontCoverWithItsSize()
    {
        QImage image(40, 24, QImage::Format_RGB32);
        image.fill(Qt::darkCyan);
        QByteArray png;
        QBuffer buffer(&png);
        buffer.open(QIODevice::WriteOnly);
        QVERIFY(image.save(&buffer, "PNG"));
        PLCID3Tag tags;
        tags.setArtwork(png);
        tags.setArtworkFormat(QStringLiteral("image/png"));
        FLACEncoder encoder;
        OptionalError error;
        const QString path = encode(encoder, m_audio.left(10 * 2352), tags, &error);
        QVERIFY(!error);
        const QString listing = QString::fromUtf8(flacToolOutput("metaflac", {"--list", "--block-type=PICTURE", path}));
        QVERIFY2(listing.contains(QStringLiteral("type: 3 (Cover (front))")), qPrintable(listing));
        QVERIFY(listing.contains(QStringLiteral("MIME type: image/png")));
        QVERIFY(listing.contains(QStringLiteral("width: 40")));
        QVERIFY(listing.contains(QStringLiteral("height: 24")));
        QVERIFY(listing.contains(QStringLiteral("depth: 32")));
        QCOMPARE(flacToolOutput("metaflac", {"--export-picture-to=-", path}), png);
    }

    // A file that cannot be written (a full disk; here a file size limit),
    // from the start or only when the last frame and the headers go out:
    // finish says so, the file is handed to no one and goes with the encoder.
    void writeFailuresFailTheFinish_data()
    {
        QTest::addColumn<bool>("atTheEnd");
        QTest::newRow("while encoding") << false;
        QTest::newRow("at the end") << true;
    }
    void writeFailuresFailTheFinish()
    {
        QFETCH(bool, atTheEnd);
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit saved{};
        QCOMPARE(::getrlimit(RLIMIT_FSIZE, &saved), 0);
        const auto limit = [saved](rlim_t bytes) {
            rlimit lowered = saved;
            lowered.rlim_cur = bytes;
            return ::setrlimit(RLIMIT_FSIZE, &lowered) == 0;
        };
        const auto restore = qScopeGuard([&] { ::setrlimit(RLIMIT_FSIZE, &saved); });
        {
            FLACEncoder encoder;
            OptionalError error;
            QVERIFY(atTheEnd || limit(65536));
            const QString completed = encode(encoder, m_audio, PLCID3Tag(), &error, nullptr, [&] {
                if (atTheEnd) {
                    limit(QFileInfo(encoder.filepath().toLocalFile()).size());
                }
            });
            ::setrlimit(RLIMIT_FSIZE, &saved);
            QVERIFY(error);
            QVERIFY2(error->localizedDescription().startsWith(QStringLiteral("Error finishing the FLAC file (")),
                     qPrintable(error->localizedDescription()));
            QVERIFY(completed.isEmpty());
            QCOMPARE(temporaryLeftovers().size(), 1);
        }
        QCOMPARE(temporaryLeftovers(), QStringList());
    }
};

QTEST_GUILESS_MAIN(TestFLACEncoder)
#include "tst_flacencoder.moc"
