#include "cd/discidentifier.h"
#include "cd/discsession.h"
#include "cd/plcaudiocdprocessor.h"
#include "cd/plcvolumetype.h"
#include "platform/discimages.h"
#include "support/devserverprocess.h"
#include "support/discimage.h"
#include "support/discservicesdata.h"
#include "support/logtesting.h"

#include <QElapsedTimer>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

namespace {

using Release = DiscServicesData::Release;
using Track = DiscServicesData::Track;
using Credit = DiscServicesData::Credit;
const auto tracksTitled = [](const QStringList &titles) { return DiscServicesData::tracksTitled(titles); };

// A compilation and what it wrote to the standard output sink.
struct Outcome
{
    DiscMetadata metadata;
    QStringList standardOutput;
    QString log;
    qint64 elapsedMs = 0;

    PLCID3Tag tag(int index) const { return metadata.tags->value(metadata.trackPaths.at(index)); }
};

} // namespace

class TestDiscMetadata : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    DevServerProcess m_server;
    std::unique_ptr<DiscServicesData> m_data;
    int m_imageCount = 0;

    // A disc image of its own for every case: its track lengths make its
    // identifier unique.
    DiscImage uniqueImage(DiscImage::Options options)
    {
        ++m_imageCount;
        options.tracks[0].sectors += m_imageCount;
        return DiscImage::create(m_dir.path(), QStringLiteral("disc%1").arg(m_imageCount), options);
    }

    DiscImage makeImage(const QList<int> &sectors, const QString &title = QString(),
                        const QString &performer = QString(), const QStringList &trackTitles = {}, int firstTrack = 1,
                        const QString &genre = QString())
    {
        DiscImage::Options options = DiscImage::audioOptions(sectors);
        options.firstTrackNumber = firstTrack;
        options.title = title;
        options.performer = performer;
        options.genre = genre;
        for (int i = 0; i < trackTitles.size(); ++i) {
            options.tracks[i].title = trackTitles.at(i);
            options.tracks[i].performer = performer;
        }
        return uniqueImage(options);
    }

    // Inserts the image; the paths of its first `count` tracks (all when negative).
    static QStringList insertedTrackPaths(const DiscImage &image, int count = -1)
    {
        QStringList paths;
        const QString volume = DiscImages::normalizedPath(image.cuePath());
        const auto tracks = DiscImages::insert(image.cuePath())
                                ? PLCVolumeType::contentsOfDiskAtURL(QUrl::fromLocalFile(volume))
                                : std::nullopt;
        for (const PLCVolumeType::TrackFile &track : tracks.value_or(QList<PLCVolumeType::TrackFile>())) {
            if (count < 0 || paths.size() < count) {
                paths.append(track.path);
            }
        }
        return paths;
    }

    Outcome compile(const DiscImage &image, DiscMetadataOptions options = {}, int pathCount = -1)
    {
        Outcome outcome;
        const QStringList paths = insertedTrackPaths(image, pathCount);
        const QString volume = DiscImages::normalizedPath(image.cuePath());
        options.standardOutput = [&outcome](const QString &line) { outcome.standardOutput.append(line); };
        const LogWatch log;
        QElapsedTimer timer;
        timer.start();
        outcome.metadata = PLCAudioCDProcessor::compileDiscMetadata(volume, paths, options);
        outcome.elapsedMs = timer.elapsed();
        outcome.log = log.text();
        return outcome;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
        DiscServicesData::pointAt(m_server);
        m_data = std::make_unique<DiscServicesData>(m_server.dataDirectory());
    }

    void cleanup()
    {
        DiscSession::closeAll();
        DiscImages::clear();
    }

    // The identifier is libdiscid's for a drive: a data track first or in the
    // middle counts, an Enhanced CD's data session does not. The volume
    // lists the audio tracks, each as long as its audio.
    void discIdAndTracksOfImage_data()
    {
        QTest::addColumn<QList<int>>("sectors");
        QTest::addColumn<int>("firstTrack");
        QTest::addColumn<int>("dataIndex");
        QTest::addColumn<int>("gapBefore");
        QTest::newRow("audio") << QList<int>{600, 450, 525} << 1 << -1 << 0;
        QTest::newRow("audio from track 2") << QList<int>{600, 450, 525} << 2 << -1 << 0;
        QTest::newRow("data first") << QList<int>{300, 600, 450, 525} << 1 << 0 << 0;
        QTest::newRow("data in the middle") << QList<int>{600, 300, 450, 525} << 1 << 1 << 0;
        QTest::newRow("Enhanced CD") << QList<int>{600, 450, 525, 300} << 1 << 3 << 11400;
    }
    void discIdAndTracksOfImage()
    {
        QFETCH(QList<int>, sectors);
        QFETCH(int, firstTrack);
        QFETCH(int, dataIndex);
        QFETCH(int, gapBefore);
        DiscImage::Options options = DiscImage::audioOptions(sectors);
        options.firstTrackNumber = firstTrack;
        if (dataIndex >= 0) {
            options.tracks[dataIndex].data = true;
            options.tracks[dataIndex].gapBefore = gapBefore;
        }
        const DiscImage image = uniqueImage(options);
        const QString volume = DiscImages::normalizedPath(image.cuePath());
        QVERIFY(DiscImages::insert(image.cuePath()));
        OptionalError error;
        const std::shared_ptr<DiscSession> disc = DiscSession::open(volume, &error);
        QVERIFY(disc);
        DiscIdentifier::Result id;
        disc->use([&](CdIo_t *handle) { id = DiscIdentifier::read(handle, disc->deviceName(), true); });
        QVERIFY2(id.error.isEmpty(), qPrintable(id.error));
        QCOMPARE(id.id, image.musicBrainzDiscId());

        QList<QPair<int, qint64>> listed;
        QList<QPair<int, qint64>> expected;
        for (const PLCVolumeType::TrackFile &track : PLCVolumeType::contentsOfDiskAtURL(QUrl::fromLocalFile(volume))
                                                         .value_or(QList<PLCVolumeType::TrackFile>())) {
            listed.append({track.trackNumber, track.size});
        }
        for (int i = 0; i < image.trackCount(); ++i) {
            if (i != dataIndex) {
                expected.append({firstTrack + i, qint64(image.trackSectors(i)) * 2352});
            }
        }
        QCOMPARE(listed, expected);
    }

    // MusicBrainz wins over CD-TEXT field by field; the first release of the
    // disc's list is used, the others are offered; the compilation runs on
    // the pool and reports back on this thread.
    void releaseFromMusicBrainz()
    {
        const DiscImage image = makeImage({300, 310, 320}, QStringLiteral("CD Album"), QStringLiteral("CD Band"),
                                          {QStringLiteral("cd one"), QStringLiteral("cd two"), QStringLiteral("cd 3")});
        const QString discId = image.musicBrainzDiscId();
        Release first{QStringLiteral("rel-first"),
                      QStringLiteral("Full Title"),
                      {Credit{QStringLiteral("Ann"), QStringLiteral(" & ")}, Credit{QStringLiteral("Bo"), QString()}},
                      QStringLiteral("1999-04-01"),
                      QStringLiteral("GB"),
                      QStringLiteral("Lyra Label"),
                      QStringLiteral("5012345678900"),
                      {DiscServicesData::Medium{{discId}, tracksTitled({"One", "Two", "Three"})}}};
        first.media[0].tracks[0].artists = {Credit{QStringLiteral("Ann"), QStringLiteral(" feat. ")},
                                            Credit{QStringLiteral("Cy"), QString()}};
        first.media[0].tracks[0].genre = QStringLiteral("jazz");
        Release second = first;
        second.id = QStringLiteral("rel-second");
        second.date = QStringLiteral("2004");
        second.country = QStringLiteral("US");
        // The disc lookup names the album; the full release's title is not used.
        Release summary = first;
        summary.title = QStringLiteral("Disc Title");
        m_data->addDisc(discId, {summary, second});
        m_data->addRelease(first);
        m_data->addCoverArt(first.id, QStringLiteral("png"), DiscServicesData::imageBytes("PNG"));

        const QStringList paths = insertedTrackPaths(image);
        QCOMPARE(paths.size(), 3);
        QList<int> stages;
        std::optional<DiscMetadata> result;
        int completions = 0;
        QThread *completionThread = nullptr;
        PLCAudioCDProcessor::compileDiscMetadataInBackground(
            DiscImages::normalizedPath(image.cuePath()), paths, {}, this, [&](int stage) { stages.append(stage); },
            [&](const DiscMetadata &metadata) {
                result = metadata;
                ++completions;
                completionThread = QThread::currentThread();
            });
        QVERIFY(!result); // never before the event loop runs
        QTRY_VERIFY_WITH_TIMEOUT(result.has_value(), 10000);
        QTest::qWait(50);
        QCOMPARE(completions, 1);
        QCOMPARE(completionThread, QThread::currentThread());
        QCOMPARE(stages, QList<int>({0, 1, 2}));

        QVERIFY(result->tags);
        QVERIFY2(!result->error, qPrintable(result->error ? result->error->localizedDescription() : QString()));
        QCOMPARE(result->discId, discId);
        QCOMPARE(result->releaseId, first.id);
        QCOMPARE(result->releases.size(), 2);
        QCOMPARE(result->releases[0], (ReleaseCandidate{"rel-first", "Disc Title", "Ann & Bo", "1999-04-01", "GB",
                                                        "Lyra Label", "5012345678900", 1}));
        QCOMPARE(result->releases[1].country, QStringLiteral("US"));
        const PLCID3Tag one = result->tags->value(paths[0]);
        QCOMPARE(one.title(), QStringLiteral("One"));
        QCOMPARE(one.album(), QStringLiteral("Disc Title"));
        QCOMPARE(one.artist(), QStringLiteral("Ann feat. Cy"));
        QCOMPARE(one.albumArtist(), QStringLiteral("Ann & Bo"));
        QCOMPARE(one.genreText(), QStringLiteral("jazz"));
        QCOMPARE(one.year(), 1999);
        QCOMPARE(one.track(), 1);
        QCOMPARE(one.totalTracks(), 3);
        QCOMPARE(one.discNumber(), 1);
        QCOMPARE(one.artworkFormat(), QStringLiteral("image/jpeg"));
        QCOMPARE(result->artworkSource, ArtworkLookup::Source::CoverArtArchive);
        const PLCID3Tag three = result->tags->value(paths[2]);
        QCOMPARE(three.title(), QStringLiteral("Three"));
        QCOMPARE(three.artist(), QStringLiteral("Band"));
        // CD-TEXT's genre code 0 ("Not Used") names no genre.
        QCOMPARE(three.genreText(), std::nullopt);
        QCOMPARE(three.artwork(), one.artwork());
    }

    void unknownDiscFilledFromCDText()
    {
        const DiscImage image =
            makeImage({300, 300, 300}, QStringLiteral("CD Album"), QStringLiteral("CD Band"),
                      {QStringLiteral("First"), QString(), QStringLiteral("Third")}, 1, QStringLiteral("Ambient Dub"));
        const Outcome outcome = compile(image);
        QVERIFY(outcome.metadata.tags);
        QCOMPARE(outcome.metadata.error->code(), 1001);
        QCOMPARE(outcome.metadata.error->localizedDescription(), QStringLiteral("Missing Metadata"));
        QCOMPARE(outcome.standardOutput.size(), 4);
        QVERIFY(outcome.standardOutput[0].startsWith(QStringLiteral("ResourceNotFound Exception: '")));
        QVERIFY(outcome.standardOutput[0].endsWith(QLatin1Char('\'')));
        QCOMPARE(outcome.standardOutput[1], QStringLiteral("LastResult: 6"));
        QCOMPARE(outcome.standardOutput[2], QStringLiteral("LastHTTPCode: 404"));
        QVERIFY(outcome.standardOutput[3].startsWith(QStringLiteral("LastErrorMessage: ")));
        QCOMPARE(outcome.tag(0).title(), QStringLiteral("First"));
        QCOMPARE(outcome.tag(1).title(), QStringLiteral("Track 2"));
        QCOMPARE(outcome.tag(2).title(), QStringLiteral("Third"));
        QCOMPARE(outcome.tag(2).artist(), QStringLiteral("CD Band"));
        QCOMPARE(outcome.tag(2).album(), QStringLiteral("CD Album"));
        QCOMPARE(outcome.tag(2).albumArtist(), QStringLiteral("CD Band"));
        // The disc's genre text, where its genre code (0) would name none.
        QCOMPARE(outcome.tag(2).genreText(), QStringLiteral("Ambient Dub"));
        QCOMPARE(outcome.tag(2).totalTracks(), 3);
        QCOMPARE(outcome.tag(2).year(), std::nullopt);
        QCOMPARE(outcome.tag(2).discNumber(), std::nullopt);
        QVERIFY(outcome.metadata.releaseId.isEmpty());
        QVERIFY(outcome.log.contains(QStringLiteral("Searching DiscRecording...")));
        QVERIFY(outcome.log.contains(QStringLiteral(" - Found track: Third")));
        QVERIFY(outcome.log.contains(QStringLiteral(" - No ArtworkReleaseID")));
    }

    // Empty texts from MusicBrainz count: CD-TEXT cannot fill them.
    void releaseWithoutArtistCreditsOrDate()
    {
        const DiscImage image = makeImage({300, 300}, QStringLiteral("CD Album"), QStringLiteral("CD Band"),
                                          {QStringLiteral("x"), QStringLiteral("y")});
        const QString discId = image.musicBrainzDiscId();
        Release release{"rel-nocredit", "Bare", {}, "", "", "", "", {{{discId}, tracksTitled({"P", "Q"})}}};
        release.media[0].tracks[0].artists.clear();
        release.media[0].tracks[1].artists.clear();
        m_data->addDisc(discId, {release});
        m_data->addRelease(release);
        m_data->addCoverArt(release.id, QStringLiteral("jpg"), DiscServicesData::imageBytes("JPG"));
        const Outcome outcome = compile(image);
        QCOMPARE(outcome.tag(0).title(), QStringLiteral("P"));
        QCOMPARE(outcome.tag(0).artist(), QString());
        QCOMPARE(outcome.tag(0).albumArtist(), QString());
        QCOMPARE(outcome.tag(0).album(), QStringLiteral("Bare"));
        QCOMPARE(outcome.tag(0).year(), 0);
        QVERIFY(outcome.tag(0).artwork());
        QCOMPARE(outcome.metadata.error->code(), 1001);
    }

    // Track numbers follow the disc, and CD-TEXT is matched by them: a disc
    // whose first track is 2 gets its titles on the right tracks.
    void firstTrackNumberTwo()
    {
        const DiscImage image = makeImage({300, 300}, QStringLiteral("Album"), QStringLiteral("Band"),
                                          {QStringLiteral("Opening"), QStringLiteral("Closing")}, 2);
        const Outcome outcome = compile(image);
        QCOMPARE(outcome.tag(0).track(), 2);
        QCOMPARE(outcome.tag(1).track(), 3);
        QCOMPARE(outcome.tag(0).title(), QStringLiteral("Opening"));
        QCOMPARE(outcome.tag(1).title(), QStringLiteral("Closing"));
        QCOMPARE(outcome.tag(1).totalTracks(), 3);
        QCOMPARE(outcome.tag(0).album(), QStringLiteral("Album"));
    }

    void discNumberOfTwoMedia_data()
    {
        QTest::addColumn<bool>("firstDiscOfMedium");
        QTest::addColumn<int>("discNumber");
        QTest::newRow("first disc of the second medium") << true << 2;
        QTest::newRow("only a later disc of the second medium") << false << 1;
    }

    void discNumberOfTwoMedia()
    {
        QFETCH(bool, firstDiscOfMedium);
        QFETCH(int, discNumber);
        const DiscImage image = makeImage({300, 300});
        const QString discId = image.musicBrainzDiscId();
        const QStringList secondDiscs = firstDiscOfMedium ? QStringList{discId, QStringLiteral("other-disc-id")}
                                                          : QStringList{QStringLiteral("other-disc-id"), discId};
        const Release release =
            DiscServicesData::release("rel-two-media-" + QString::number(discNumber), "Double", "2000",
                                      {{{QStringLiteral("first-disc-id")}, tracksTitled({"1-1", "1-2", "1-3"})},
                                       {secondDiscs, tracksTitled({"2-1", "2-2"})}});
        m_data->addDisc(discId, {release});
        m_data->addRelease(release);
        const Outcome outcome = compile(image);
        QCOMPARE(outcome.metadata.releases.value(0).mediumCount, 2);
        QCOMPARE(outcome.tag(0).title(), QStringLiteral("2-1"));
        QCOMPARE(outcome.tag(1).totalTracks(), 2);
        QCOMPARE(outcome.tag(1).discNumber(), discNumber);
    }

    // A silent or dead MusicBrainz costs at most the bound; CD-TEXT and
    // artwork still run.
    void musicBrainzUnreachable_data()
    {
        QTest::addColumn<bool>("silent");
        QTest::addColumn<QString>("prefix");
        QTest::addColumn<int>("lastResult");
        QTest::newRow("silent") << true << "Timeout Exception: '" << 2;
        QTest::newRow("dead") << false << "Connection Exception: '" << 1;
    }

    void musicBrainzUnreachable()
    {
        QFETCH(bool, silent);
        QFETCH(QString, prefix);
        QFETCH(int, lastResult);
        const QString performer = QStringLiteral("Slow Band ") + QString::number(m_imageCount);
        const DiscImage image = makeImage({300, 300}, QStringLiteral("Slow Album"), performer,
                                          {QStringLiteral("Wait"), QStringLiteral("More")});
        const QString discId = image.musicBrainzDiscId();
        const Release release =
            DiscServicesData::release("rel-slow", "Never Seen", "", {{{discId}, tracksTitled({"n"})}});
        m_data->addDisc(discId, {release});
        m_data->delayAnswer(QStringLiteral("musicbrainz/discid/%1.xml").arg(discId), 4000);
        m_data->addDiscogsCover(performer, QStringLiteral("Slow Album"), QStringLiteral("slow.png"),
                                DiscServicesData::imageBytes("PNG"));
        if (!silent) {
            QTcpServer closed;
            QVERIFY(closed.listen(QHostAddress::LocalHost));
            qputenv("PELICANE_MUSICBRAINZ_SERVER", "127.0.0.1:" + QByteArray::number(closed.serverPort()));
            closed.close();
        }
        DiscMetadataOptions options;
        options.timeoutMs = 1000;
        const Outcome outcome = compile(image, options);
        DiscServicesData::pointAt(m_server);
        QVERIFY2(outcome.elapsedMs < 2500, qPrintable(QString::number(outcome.elapsedMs)));
        QCOMPARE(outcome.standardOutput.size(), 4);
        QVERIFY(outcome.standardOutput[0].startsWith(prefix));
        QCOMPARE(outcome.standardOutput[1], QStringLiteral("LastResult: %1").arg(lastResult));
        QCOMPARE(outcome.standardOutput[2], QStringLiteral("LastHTTPCode: 0"));
        QCOMPARE(outcome.tag(0).title(), QStringLiteral("Wait"));
        QCOMPARE(outcome.tag(1).album(), QStringLiteral("Slow Album"));
        QCOMPARE(outcome.tag(1).artworkFormat(), QStringLiteral("image/png"));
        QCOMPARE(outcome.metadata.artworkSource, ArtworkLookup::Source::Discogs);
        // No year without MusicBrainz, so the records stay incomplete.
        QCOMPARE(outcome.metadata.error->code(), 1001);
    }

    void sixPathsForEightTracks()
    {
        const DiscImage image = makeImage({200, 200, 200, 200, 200, 200, 200, 200});
        const QString discId = image.musicBrainzDiscId();
        const Release release = DiscServicesData::release(
            "rel-eight", "Eight", "1990", {{{discId}, tracksTitled({"t1", "t2", "t3", "t4", "t5", "t6", "t7", "t8"})}});
        m_data->addDisc(discId, {release});
        m_data->addRelease(release);
        const Outcome outcome = compile(image, {}, 6);
        QCOMPARE(outcome.metadata.tags->size(), 6);
        QCOMPARE(outcome.tag(5).title(), QStringLiteral("t6"));
        QCOMPARE(outcome.tag(5).totalTracks(), 8);
        QVERIFY(outcome.log.contains(QStringLiteral(" - Found track: t6")));
        QVERIFY(!outcome.log.contains(QStringLiteral(" - Found track: t7")));
    }

    void unreadableDisc()
    {
        QList<int> stages;
        const DiscMetadata metadata = PLCAudioCDProcessor::compileDiscMetadata(
            m_dir.filePath(QStringLiteral("nothing.cue")), {QStringLiteral("/x/1 Audio Track.aiff")}, {},
            [&](int stage) { stages.append(stage); });
        QVERIFY(!metadata.tags);
        QCOMPARE(metadata.error->code(), 1000);
        QCOMPARE(metadata.error->localizedDescription(), QStringLiteral("Path is not a CD"));
        QCOMPARE(stages, QList<int>({0}));
    }

    void mergeRule()
    {
        ID3TagDictionary tags;
        PLCID3Tag first;
        first.setTitle(QString());
        first.setYear(0);
        first.setArtwork(DiscServicesData::imageBytes("PNG"));
        PLCAudioCDProcessor::updateTags(tags, QStringLiteral("p"), first);
        PLCID3Tag second;
        second.setTitle(QStringLiteral("later"));
        second.setArtist(QStringLiteral("filled"));
        second.setYear(2001);
        second.setArtwork(DiscServicesData::imageBytes("JPG"));
        PLCAudioCDProcessor::updateTags(tags, QStringLiteral("p"), second);
        const PLCID3Tag merged = tags.value(QStringLiteral("p"));
        QCOMPARE(merged.title(), QString()); // an empty text is present
        QCOMPARE(merged.artist(), QStringLiteral("filled"));
        QCOMPARE(merged.year(), 2001); // 0 counts as missing
        QVERIFY(!merged.artwork());
        QCOMPARE(PLCAudioCDProcessor::stringWithUTF8String(nullptr), std::nullopt);
    }
};

QTEST_MAIN(TestDiscMetadata)
#include "tst_discmetadata.moc"
