// A disc's metadata compiled from its reading, CD-TEXT, MusicBrainz and the
// cover services, against the local service's stand-ins.
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
#include <QFile>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

using Release = DiscServicesData::Release;
using Credit = DiscServicesData::Credit;
Q_DECLARE_METATYPE(DiscImage::Options)
Q_DECLARE_METATYPE(Release)

namespace {

QList<DiscServicesData::Track> tracksTitled(const QStringList &titles)
{
    return DiscServicesData::tracksTitled(titles);
}

// A disc's CD-TEXT: album, performer (of the disc and every track), titles.
DiscImage::Options cdText(const QList<int> &sectors, const QString &album = {}, const QString &performer = {},
                          const QStringList &titles = {}, int firstTrack = 1)
{
    DiscImage::Options options = DiscImage::audioOptions(sectors);
    options.firstTrackNumber = firstTrack;
    options.title = album;
    options.performer = performer;
    for (int i = 0; i < titles.size(); ++i) {
        options.tracks[i].title = titles.at(i);
        options.tracks[i].performer = performer;
    }
    return options;
}

// "title|artist|album|album artist|genre|year|track/total|disc|cover type",
// "-" for a field not there.
QString describe(const PLCID3Tag &tag)
{
    const auto text = [](const auto &value) {
        if constexpr (std::is_same_v<std::decay_t<decltype(value)>, std::optional<int>>) {
            return value ? QString::number(*value) : QStringLiteral("-");
        } else {
            return value.value_or(QStringLiteral("-"));
        }
    };
    return QStringList{text(tag.title()),
                       text(tag.artist()),
                       text(tag.album()),
                       text(tag.albumArtist()),
                       text(tag.genreText()),
                       text(tag.year()),
                       text(tag.track()) + u'/' + text(tag.totalTracks()),
                       text(tag.discNumber()),
                       text(tag.artworkFormat())}
        .join(u'|');
}

} // namespace

class TestDiscMetadata : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    DevServerProcess m_server;
    std::unique_ptr<DiscServicesData> m_data;
    int m_imageCount = 0;

    // A disc image of its own for every case: its track lengths make its
    // identifier unique. Inserted; with the paths of its first `count` tracks.
    DiscImage insertedImage(DiscImage::Options options, QStringList *paths = nullptr, int count = -1)
    {
        options.tracks[0].sectors += ++m_imageCount;
        const DiscImage image = DiscImage::create(m_dir.path(), QStringLiteral("disc%1").arg(m_imageCount), options);
        const QString volume = DiscImages::normalizedPath(image.cuePath());
        const auto tracks = DiscImages::insert(image.cuePath())
                                ? PLCVolumeType::contentsOfDiskAtURL(QUrl::fromLocalFile(volume))
                                : std::nullopt;
        for (const PLCVolumeType::TrackFile &track : tracks.value_or(QList<PLCVolumeType::TrackFile>())) {
            if (paths && (count < 0 || paths->size() < count)) {
                paths->append(track.path);
            }
        }
        return image;
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

    // MusicBrainz wins over CD-TEXT field by field; the first release of the
    // disc's list is used, the others are offered; the compilation runs on
    // the pool and reports back once, on this thread.
    void releaseFromMusicBrainz()
    {
        QStringList paths;
        const DiscImage image = insertedImage(
            cdText({300, 310, 320}, QStringLiteral("CD Album"), QStringLiteral("CD Band"), {"cd 1", "cd 2", "cd 3"}),
            &paths);
        const QString discId = image.musicBrainzDiscId();
        Release first{
            "rel-first",  "Full Title",    {Credit{"Ann", " & "}, Credit{"Bo", ""}},           "1999-04-01", "GB",
            "Lyra Label", "5012345678900", {{{discId}, tracksTitled({"One", "Two", "Three"})}}};
        first.media[0].tracks[0].artists = {Credit{"Ann", " feat. "}, Credit{"Cy", ""}};
        first.media[0].tracks[0].genre = QStringLiteral("jazz");
        Release second = first;
        second.id = QStringLiteral("rel-second");
        second.country = QStringLiteral("US");
        // The disc lookup names the album; the full release's title is not used.
        Release summary = first;
        summary.title = QStringLiteral("Disc Title");
        m_data->addDisc(discId, {summary, second});
        m_data->addRelease(first);
        m_data->addCoverArt(first.id, QStringLiteral("png"), DiscServicesData::imageBytes("PNG"));

        QList<int> stages;
        QList<DiscMetadata> results;
        QList<QThread *> threads;
        PLCAudioCDProcessor::compileDiscMetadataInBackground(
            DiscImages::normalizedPath(image.cuePath()), paths, {}, this, [&](int stage) { stages.append(stage); },
            [&](const DiscMetadata &metadata) {
                results << metadata;
                threads << QThread::currentThread();
            });
        QVERIFY(results.isEmpty()); // never before the event loop runs
        QTRY_COMPARE_WITH_TIMEOUT(results.size(), 1, 10000);
        QTest::qWait(50);
        QCOMPARE(results.size(), 1);
        QCOMPARE(threads, QList<QThread *>{QThread::currentThread()});
        QCOMPARE(stages, QList<int>({0, 1, 2}));
        const DiscMetadata &result = results.first();
        QVERIFY2(!result.error, qPrintable(result.error ? result.error->localizedDescription() : QString()));
        QCOMPARE(result.discId, discId);
        QCOMPARE(result.releaseId, first.id);
        QCOMPARE(result.releases.size(), 2);
        QCOMPARE(result.releases[0], (ReleaseCandidate{"rel-first", "Disc Title", "Ann & Bo", "1999-04-01", "GB",
                                                       "Lyra Label", "5012345678900", 1}));
        QCOMPARE(result.releases[1].country, QStringLiteral("US"));
        QCOMPARE(describe(result.tags->value(paths[0])),
                 QStringLiteral("One|Ann feat. Cy|Disc Title|Ann & Bo|jazz|1999|1/3|1|image/jpeg"));
        // CD-TEXT's genre code 0 ("Not Used") names no genre.
        QCOMPARE(describe(result.tags->value(paths[2])),
                 QStringLiteral("Three|Band|Disc Title|Ann & Bo|-|1999|3/3|1|image/jpeg"));
        QCOMPARE(result.tags->value(paths[2]).artwork(), result.tags->value(paths[0]).artwork());
        QCOMPARE(result.artworkSource, ArtworkLookup::Source::CoverArtArchive);
    }

    // What the records come to for discs MusicBrainz knows in other ways or
    // not at all. "DISC" in a release's media stands for the disc's id.
    void compiledRecords_data()
    {
        QTest::addColumn<DiscImage::Options>("disc");
        QTest::addColumn<QList<Release>>("releases");
        QTest::addColumn<int>("paths");            // track files asked for; -1: all
        QTest::addColumn<QStringList>("expected"); // "<index>: <describe()>"

        DiscImage::Options unknown =
            cdText({300, 300, 300}, QStringLiteral("CD Album"), QStringLiteral("CD Band"), {"First", "", "Third"});
        unknown.genre = QStringLiteral("Ambient Dub");
        // The disc's genre text, where its genre code (0) names none.
        QTest::newRow("unknown: CD-TEXT") << unknown << QList<Release>{} << -1
                                          << QStringList{"0: First|CD Band|CD Album|CD Band|Ambient Dub|-|1/3|-|-",
                                                         "1: Track 2|CD Band|CD Album|CD Band|Ambient Dub|-|2/3|-|-"};
        // Empty texts from MusicBrainz count: CD-TEXT cannot fill them.
        Release bare{"rel-bare", "Bare", {}, "", "", "", "", {{{"DISC"}, tracksTitled({"P", "Q"})}}};
        bare.media[0].tracks[0].artists.clear();
        QTest::newRow("no credits or date")
            << cdText({300, 300}, "CD Album", "CD Band", {"x", "y"}) << QList<Release>{bare} << -1
            << QStringList{"0: P||Bare||-|0|1/2|1|image/jpeg"};
        // CD-TEXT is matched by the disc's track numbers.
        QTest::newRow("first track 2") << cdText({300, 300}, "Album", "Band", {"Opening", "Closing"}, 2)
                                       << QList<Release>{} << -1
                                       << QStringList{"0: Opening|Band|Album|Band|-|-|2/3|-|-",
                                                      "1: Closing|Band|Album|Band|-|-|3/3|-|-"};
        const auto twoMedia = [](const QString &id, const QStringList &secondDiscs) {
            return DiscServicesData::release(id, "Double", "2000",
                                             {{{"first-disc-id"}, tracksTitled({"1-1", "1-2", "1-3"})},
                                              {secondDiscs, tracksTitled({"2-1", "2-2"})}});
        };
        QTest::newRow("first disc of the second medium")
            << cdText({300, 300}) << QList<Release>{twoMedia("rel-2a", {"DISC", "other"})} << -1
            << QStringList{"1: 2-2|Band|Double|Band|-|2000|2/2|2|image/jpeg"};
        QTest::newRow("later disc of the second medium")
            << cdText({300, 300}) << QList<Release>{twoMedia("rel-2b", {"other", "DISC"})} << -1
            << QStringList{"1: 2-2|Band|Double|Band|-|2000|2/2|1|image/jpeg"};
        // The identifier is libdiscid's for a drive: a data track first or in
        // the middle counts, an Enhanced CD's data session does not.
        const auto withData = [](QList<int> sectors, int index, int gapBefore) {
            DiscImage::Options options = cdText(sectors);
            options.tracks[index].data = true;
            options.tracks[index].gapBefore = gapBefore;
            return options;
        };
        QTest::newRow("data first") << withData({300, 600, 450}, 0, 0) << QList<Release>{} << -1
                                    << QStringList{"0: Track 2|-|-|-|-|-|2/-|-|-"};
        QTest::newRow("data in the middle")
            << withData({600, 300, 450}, 1, 0) << QList<Release>{} << -1 << QStringList{"1: Track 3|-|-|-|-|-|3/-|-|-"};
        QTest::newRow("Enhanced CD") << withData({600, 450, 300}, 2, 11400) << QList<Release>{} << -1
                                     << QStringList{"1: Track 2|-|-|-|-|-|2/-|-|-"};
        // A cue sheet in UTF-8, which libcdio alone reads as Latin-1.
        QTest::newRow("UTF-8 sheet") << cdText({300, 300}, "Café Disc", "Björk", {"Ça va", "音楽"}) << QList<Release>{}
                                     << -1
                                     << QStringList{"0: Ça va|Björk|Café Disc|Björk|-|-|1/2|-|-",
                                                    "1: 音楽|Björk|Café Disc|Björk|-|-|2/2|-|-"};
        QTest::newRow("six paths of eight tracks")
            << cdText(QList<int>(8, 200))
            << QList<Release>{DiscServicesData::release(
                   "rel-eight", "Eight", "1990", {{{"DISC"}, tracksTitled({"1", "2", "3", "4", "5", "6", "7", "8"})}})}
            << 6 << QStringList{"5: 6|Band|Eight|Band|-|1990|6/8|1|image/jpeg"};
    }
    void compiledRecords()
    {
        QFETCH(DiscImage::Options, disc);
        QFETCH(QList<Release>, releases);
        QFETCH(int, paths);
        QFETCH(QStringList, expected);
        QStringList trackPaths;
        const DiscImage image = insertedImage(disc, &trackPaths, paths);
        for (Release &release : releases) {
            for (DiscServicesData::Medium &medium : release.media) {
                medium.discIds.replaceInStrings(QStringLiteral("DISC"), image.musicBrainzDiscId());
            }
            m_data->addRelease(release);
            m_data->addCoverArt(release.id, QStringLiteral("jpg"), DiscServicesData::imageBytes("JPG"));
        }
        m_data->addDisc(image.musicBrainzDiscId(), releases);
        const LogWatch log;
        const DiscMetadata metadata =
            PLCAudioCDProcessor::compileDiscMetadata(DiscImages::normalizedPath(image.cuePath()), trackPaths, {});
        QCOMPARE(metadata.discId, image.musicBrainzDiscId());
        QCOMPARE(metadata.tags->size(), trackPaths.size());
        // The volume lists the audio tracks, each as long as its audio.
        QList<QPair<int, qint64>> listed;
        QList<QPair<int, qint64>> audio;
        const auto tracks = PLCVolumeType::contentsOfDiskAtURL(QUrl::fromLocalFile(image.cuePath()));
        for (const PLCVolumeType::TrackFile &track : tracks.value_or(QList<PLCVolumeType::TrackFile>())) {
            listed.append({track.trackNumber, track.size});
        }
        for (int i = 0; i < image.trackCount(); ++i) {
            if (!disc.tracks[i].data) {
                audio.append({disc.firstTrackNumber + i, qint64(image.trackSectors(i)) * 2352});
            }
        }
        QCOMPARE(listed, audio);
        QStringList described;
        for (const QString &line : expected) {
            const int index = line.section(u':', 0, 0).toInt();
            described << QString::number(index) + QStringLiteral(": ") +
                             describe(metadata.tags->value(trackPaths[index]));
        }
        QCOMPARE(described, expected);
        // Releases without a year, and no release at all, leave records incomplete.
        QCOMPARE(metadata.error ? metadata.error->code() : 0,
                 releases.isEmpty() || releases[0].date.isEmpty() ? 1001 : 0);
        QCOMPARE(metadata.releaseId, releases.isEmpty() ? QString() : releases[0].id);
        // Only the tracks asked for are looked at.
        QVERIFY(paths < 0 || log.text().contains(QStringLiteral(" - Found track: %1\n").arg(paths)));
        QVERIFY(paths < 0 || !log.text().contains(QStringLiteral(" - Found track: %1\n").arg(paths + 1)));
    }

    // libcdio reads a sheet's audio from <sheet>.bin only; a sheet whose one
    // FILE names another file is read all the same, CD-TEXT and all.
    void sheetNamingAnotherAudioFile()
    {
        const DiscImage image = DiscImage::create(m_dir.path(), QStringLiteral("named"),
                                                  cdText({300, 300}, "Named", "Band", {"One", "Two"}));
        QVERIFY(image.isValid());
        QVERIFY(QFile::rename(image.binPath(), m_dir.filePath(QStringLiteral("Named (Disc 1).bin"))));
        QFile cue(image.cuePath());
        QVERIFY(cue.open(QIODevice::ReadOnly));
        const QByteArray text = cue.readAll().replace("named.bin", "Named (Disc 1).bin");
        cue.close();
        QVERIFY(cue.open(QIODevice::WriteOnly | QIODevice::Truncate) && cue.write(text) == text.size());
        cue.close();
        QVERIFY(DiscImages::insert(image.cuePath()));
        const QString volume = DiscImages::normalizedPath(image.cuePath());
        const auto tracks = PLCVolumeType::contentsOfDiskAtURL(QUrl::fromLocalFile(volume));
        QVERIFY(tracks && tracks->size() == 2);
        const DiscMetadata metadata =
            PLCAudioCDProcessor::compileDiscMetadata(volume, {tracks->at(0).path, tracks->at(1).path}, {});
        QCOMPARE(metadata.tags->value(tracks->at(1).path).title(), std::optional<QString>(QStringLiteral("Two")));
    }

    // A silent, dead or ignorant MusicBrainz costs at most the bound; its
    // report goes to the standard output sink; CD-TEXT and artwork still run.
    void musicBrainzFailures_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QStringList>("report");
        QTest::newRow("silent") << "silent" << QStringList{"Timeout Exception: '", "LastResult: 2", "LastHTTPCode: 0"};
        QTest::newRow("dead") << "dead" << QStringList{"Connection Exception: '", "LastResult: 1", "LastHTTPCode: 0"};
        QTest::newRow("unknown disc") << "unknown"
                                      << QStringList{"ResourceNotFound Exception: '", "LastResult: 6",
                                                     "LastHTTPCode: 404"};
    }
    void musicBrainzFailures()
    {
        QFETCH(QString, kind);
        QFETCH(QStringList, report);
        const QString performer = QStringLiteral("Slow Band ") + QString::number(m_imageCount);
        QStringList paths;
        const DiscImage image = insertedImage(cdText({300, 300}, "Slow Album", performer, {"Wait", "More"}), &paths);
        const QString discId = image.musicBrainzDiscId();
        if (kind != QLatin1String("unknown")) {
            m_data->addDisc(
                discId, {DiscServicesData::release("rel-slow", "Never Seen", "", {{{discId}, tracksTitled({"n"})}})});
            m_data->delayAnswer(QStringLiteral("musicbrainz/discid/%1.xml").arg(discId), 4000);
        }
        m_data->addDiscogsCover(performer, QStringLiteral("Slow Album"), QStringLiteral("slow.png"),
                                DiscServicesData::imageBytes("PNG"));
        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost));
        if (kind == QLatin1String("dead")) {
            qputenv("PELICANE_MUSICBRAINZ_SERVER", "127.0.0.1:" + QByteArray::number(closed.serverPort()));
        }
        closed.close();
        DiscMetadataOptions options;
        options.timeoutMs = 1000;
        QStringList output;
        options.standardOutput = [&output](const QString &line) { output.append(line); };
        QElapsedTimer timer;
        timer.start();
        const DiscMetadata metadata =
            PLCAudioCDProcessor::compileDiscMetadata(DiscImages::normalizedPath(image.cuePath()), paths, options);
        DiscServicesData::pointAt(m_server);
        QVERIFY2(timer.elapsed() < 2500, qPrintable(QString::number(timer.elapsed())));
        QCOMPARE(output.size(), 4);
        QVERIFY2(output[0].startsWith(report[0]) && output[0].endsWith(u'\''), qPrintable(output[0]));
        QCOMPARE(output.mid(1, 2), report.mid(1));
        QVERIFY(output[3].startsWith(QStringLiteral("LastErrorMessage: ")));
        QCOMPARE(describe(metadata.tags->value(paths[1])),
                 QStringLiteral("More|%1|Slow Album|%1|-|-|2/2|-|image/png").arg(performer));
        QCOMPARE(metadata.artworkSource, ArtworkLookup::Source::Discogs);
        // No year without MusicBrainz, so the records stay incomplete.
        QCOMPARE(metadata.error->code(), 1001);
        QCOMPARE(metadata.error->localizedDescription(), QStringLiteral("Missing Metadata"));
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

    // Merging records: an empty text is present, a year of 0 is missing, and
    // artwork is not merged.
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
        QCOMPARE(describe(tags.value(QStringLiteral("p"))), QStringLiteral("|filled|-|-|-|2001|-/-|-|-"));
    }
};

QTEST_MAIN(TestDiscMetadata)
#include "tst_discmetadata.moc"
