// Cover art for a disc from the local service's stand-ins for the Cover Art Archive and
// Discogs: what each gives, the search terms, and every way a lookup comes back empty.
#include "cd/artworklookup.h"
#include "support/devserverprocess.h"
#include "support/discservicesdata.h"
#include "support/logtesting.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTcpServer>
#include <QtTest>

namespace {

const QString kFirstPath = QStringLiteral("/disc/1 Audio Track.aiff");

struct Lookup
{
    ArtworkLookup::Source source = ArtworkLookup::Source::None;
    std::optional<QByteArray> artwork; // the first record's; every record must carry the same
    std::optional<QString> format;
    QString log;
    qint64 elapsedMs = 0;
};

// Three records of one album, as the compilation leaves them, looked up.
Lookup lookUp(const QString &releaseId, const QString &album, const std::optional<QString> &albumArtist,
              int timeoutMs = 5000)
{
    QHash<QString, PLCID3Tag> tags;
    for (int i = 1; i <= 3; ++i) {
        PLCID3Tag tag;
        tag.setTrack(i);
        tag.setAlbum(album);
        tag.setAlbumArtist(albumArtist);
        tags.insert(QStringLiteral("/disc/%1 Audio Track.aiff").arg(i), tag);
    }
    Lookup lookup;
    const LogWatch log;
    QElapsedTimer timer;
    timer.start();
    lookup.source = ArtworkLookup::lookUp(releaseId, tags, kFirstPath, timeoutMs);
    lookup.elapsedMs = timer.elapsed();
    lookup.artwork = tags.value(kFirstPath).artwork();
    lookup.format = tags.value(kFirstPath).artworkFormat();
    for (const PLCID3Tag &tag : std::as_const(tags)) {
        if (tag.artwork() != lookup.artwork) {
            lookup.format = QStringLiteral("differs between the records");
        }
    }
    lookup.log = log.text();
    return lookup;
}

} // namespace

class TestArtworkLookup : public QObject
{
    Q_OBJECT

private:
    DevServerProcess m_server;
    std::unique_ptr<DiscServicesData> m_data;

private slots:
    void initTestCase()
    {
        QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
        m_data = std::make_unique<DiscServicesData>(m_server.dataDirectory());
    }

    void init() { DiscServicesData::pointAt(m_server); }

    // The archive's PNG comes through its redirect and is stored as JPEG; Discogs is then
    // not asked. An error page in its place is no image: Discogs is asked next and its PNG
    // is kept as it came.
    void coverArtArchiveThenDiscogs()
    {
        m_data->addCoverArt(QStringLiteral("caa-png"), QStringLiteral("png"), DiscServicesData::imageBytes("PNG", 40));
        m_data->addDiscogsCover(QStringLiteral("Band"), QStringLiteral("Album"), QStringLiteral("unused.png"),
                                DiscServicesData::imageBytes("PNG"));
        Lookup lookup = lookUp(QStringLiteral("caa-png"), QStringLiteral("Album"), QStringLiteral("Band"));
        QCOMPARE(lookup.source, ArtworkLookup::Source::CoverArtArchive);
        QCOMPARE(lookup.format, QStringLiteral("image/jpeg"));
        QCOMPARE(QImage::fromData(*lookup.artwork).size(), QSize(40, 40));
        QVERIFY(lookup.log.contains(QStringLiteral(" - Found artwork for release on CoverArtArchive")));
        QVERIFY(lookup.log.contains(QStringLiteral(" - Artwork already found on CoverArtArchive")));

        m_data->addCoverArt(QStringLiteral("caa-html"), QStringLiteral("html"),
                            "<html><body>503 Service Unavailable</body></html>");
        const QByteArray png = DiscServicesData::imageBytes("PNG", 24);
        m_data->addDiscogsCover(QStringLiteral("Page Band"), QStringLiteral("Page Album"), QStringLiteral("p.png"),
                                png);
        lookup = lookUp(QStringLiteral("caa-html"), QStringLiteral("Page Album"), QStringLiteral("Page Band"));
        QVERIFY(lookup.log.contains(QStringLiteral(" - Image load parse error")));
        QCOMPARE(lookup.source, ArtworkLookup::Source::Discogs);
        QCOMPARE(lookup.artwork, png);
        QCOMPARE(lookup.format, QStringLiteral("image/png"));
    }

    // The Discogs answers are filed under the search terms, so an answer proves the terms.
    void discogsSearchTerms_data()
    {
        QTest::addColumn<QString>("albumArtist");
        QTest::addColumn<QString>("album");
        QTest::addColumn<QString>("artistTerm");
        QTest::addColumn<QString>("albumTerm");
        QTest::newRow("various artists") << "VARIOUS Artists"
                                         << "Hits & Misses"
                                         << "Various"
                                         << "Hits & Misses";
        QTest::newRow("accents dropped") << QStringLiteral("Sigur Rós") << QStringLiteral("Ágætis byrjun") << "Sigur Rs"
                                         << "gtis byrjun";
    }

    void discogsSearchTerms()
    {
        QFETCH(QString, albumArtist);
        QFETCH(QString, album);
        QFETCH(QString, artistTerm);
        QFETCH(QString, albumTerm);
        QCOMPARE(ArtworkLookup::artistSearchTerm(albumArtist), artistTerm);
        QCOMPARE(ArtworkLookup::cleanedSearchText(album), albumTerm);
        const QByteArray jpeg = DiscServicesData::imageBytes("JPG");
        m_data->addDiscogsCover(artistTerm, albumTerm, QStringLiteral("%1.jpg").arg(qHash(artistTerm)), jpeg);
        const Lookup lookup = lookUp(QString(), album, albumArtist);
        QVERIFY(lookup.log.contains(QStringLiteral(" - No ArtworkReleaseID")));
        QCOMPARE(lookup.source, ArtworkLookup::Source::Discogs);
        QCOMPARE(lookup.artwork, jpeg);
    }

    void nothingFound_data()
    {
        QTest::addColumn<QString>("albumArtist"); // empty: none
        QTest::addColumn<QString>("logged");
        QTest::newRow("no album artist") << ""
                                         << " - Artwork already found on CoverArtArchive";
        QTest::newRow("no result") << "Nobody"
                                   << " - Discogs: 0 results";
        QTest::newRow("image gone") << "Lost"
                                    << " - Image load error: ";
        QTest::newRow("service gone") << "Dead"
                                      << " - Discogs: Error searching: ";
    }

    void nothingFound()
    {
        QFETCH(QString, albumArtist);
        QFETCH(QString, logged);
        m_data->addDiscogsCover(QStringLiteral("Lost"), QStringLiteral("Cover"), QStringLiteral("gone.png"), {});
        QFile::remove(m_server.dataDirectory() + QStringLiteral("/discogs/images/gone.png"));
        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost));
        if (albumArtist == QLatin1String("Dead")) {
            qputenv("PELICANE_DISCOGS_URL", "http://127.0.0.1:" + QByteArray::number(closed.serverPort()));
        }
        closed.close();
        const Lookup lookup = lookUp(QString(), QStringLiteral("Cover"),
                                     albumArtist.isEmpty() ? std::nullopt : std::optional<QString>(albumArtist));
        QVERIFY2(lookup.log.contains(logged), qPrintable(lookup.log));
        QCOMPARE(lookup.source, ArtworkLookup::Source::None);
        QVERIFY(!lookup.artwork);
    }

    // A silent archive costs at most the bound, then Discogs is asked.
    void slowCoverArtArchive()
    {
        m_data->addCoverArt(QStringLiteral("caa-slow"), QStringLiteral("png"), DiscServicesData::imageBytes("PNG"));
        m_data->delayAnswer(QStringLiteral("coverart/caa-slow/front.png"), 4000);
        const QByteArray png = DiscServicesData::imageBytes("PNG", 8);
        m_data->addDiscogsCover(QStringLiteral("Slow"), QStringLiteral("Slow"), QStringLiteral("slow.png"), png);
        const Lookup lookup = lookUp(QStringLiteral("caa-slow"), QStringLiteral("Slow"), QStringLiteral("Slow"), 1000);
        QVERIFY2(lookup.elapsedMs < 2500, qPrintable(QString::number(lookup.elapsedMs)));
        QVERIFY(
            lookup.log.contains(QStringLiteral(" - Error loading CoverArtArchive release: The operation timed out.")));
        QCOMPARE(lookup.artwork, png);
    }
};

QTEST_MAIN(TestArtworkLookup)
#include "tst_artworklookup.moc"
