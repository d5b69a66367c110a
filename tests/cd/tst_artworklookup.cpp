#include "cd/artworklookup.h"
#include "support/devserverprocess.h"
#include "support/discservicesdata.h"
#include "support/logtesting.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTcpServer>
#include <QtTest>

namespace {

// Three records of one album, as the compilation leaves them.
QHash<QString, PLCID3Tag> albumRecords(const std::optional<QString> &album, const std::optional<QString> &albumArtist)
{
    QHash<QString, PLCID3Tag> tags;
    for (int i = 1; i <= 3; ++i) {
        PLCID3Tag tag;
        tag.setTrack(i);
        tag.setAlbum(album);
        tag.setAlbumArtist(albumArtist);
        tags.insert(QStringLiteral("/disc/%1 Audio Track.aiff").arg(i), tag);
    }
    return tags;
}

const QString kFirstPath = QStringLiteral("/disc/1 Audio Track.aiff");

struct Lookup
{
    ArtworkLookup::Source source = ArtworkLookup::Source::None;
    QHash<QString, PLCID3Tag> tags;
    QString log;
    qint64 elapsedMs = 0;

    // Every record carries the same image.
    bool sameArtworkEverywhere() const
    {
        for (const PLCID3Tag &tag : tags) {
            if (tag.artwork() != tags.value(kFirstPath).artwork()) {
                return false;
            }
        }
        return true;
    }
};

Lookup lookUp(const QString &releaseId, QHash<QString, PLCID3Tag> tags, int timeoutMs = 5000)
{
    Lookup lookup;
    const LogWatch log;
    QElapsedTimer timer;
    timer.start();
    lookup.source = ArtworkLookup::lookUp(releaseId, tags, kFirstPath, timeoutMs);
    lookup.elapsedMs = timer.elapsed();
    lookup.tags = tags;
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
        DiscServicesData::pointAt(m_server);
        m_data = std::make_unique<DiscServicesData>(m_server.dataDirectory());
    }

    void init() { DiscServicesData::pointAt(m_server); }

    // The archive's PNG comes through its redirect and is stored as JPEG;
    // Discogs is then not asked.
    void coverArtArchiveImageBecomesJpeg()
    {
        m_data->addCoverArt(QStringLiteral("caa-png"), QStringLiteral("png"), DiscServicesData::imageBytes("PNG", 40));
        m_data->addDiscogsCover(QStringLiteral("Band"), QStringLiteral("Album"), QStringLiteral("unused.png"),
                                DiscServicesData::imageBytes("PNG"));
        const Lookup lookup =
            lookUp(QStringLiteral("caa-png"), albumRecords(QStringLiteral("Album"), QStringLiteral("Band")));
        QCOMPARE(lookup.source, ArtworkLookup::Source::CoverArtArchive);
        const PLCID3Tag tag = lookup.tags.value(kFirstPath);
        QCOMPARE(tag.artworkFormat(), QStringLiteral("image/jpeg"));
        QCOMPARE(QImage::fromData(*tag.artwork()).size(), QSize(40, 40));
        QVERIFY(lookup.sameArtworkEverywhere());
        QVERIFY(lookup.log.contains(QStringLiteral(" - Found artwork for release on CoverArtArchive")));
        QVERIFY(lookup.log.contains(QStringLiteral(" - Artwork already found on CoverArtArchive")));
    }

    // An error page is no image; Discogs is asked next and its PNG is kept
    // as it came.
    void errorPageThenDiscogsPngKept()
    {
        m_data->addCoverArt(QStringLiteral("caa-html"), QStringLiteral("html"),
                            "<html><body>503 Service Unavailable</body></html>");
        const QByteArray png = DiscServicesData::imageBytes("PNG", 24);
        m_data->addDiscogsCover(QStringLiteral("Page Band"), QStringLiteral("Page Album"), QStringLiteral("p.png"),
                                png);
        const Lookup lookup =
            lookUp(QStringLiteral("caa-html"), albumRecords(QStringLiteral("Page Album"), QStringLiteral("Page Band")));
        QVERIFY(lookup.log.contains(QStringLiteral(" - Image load parse error")));
        QVERIFY(lookup.log.contains(QStringLiteral("Searching Discogs for artwork...")));
        QCOMPARE(lookup.source, ArtworkLookup::Source::Discogs);
        QCOMPARE(lookup.tags.value(kFirstPath).artwork(), png);
        QCOMPARE(lookup.tags.value(kFirstPath).artworkFormat(), QStringLiteral("image/png"));
        QVERIFY(lookup.sameArtworkEverywhere());
    }

    // The Discogs answers are filed under the search terms, so an answer
    // proves the terms.
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
        const Lookup lookup = lookUp(QString(), albumRecords(album, albumArtist));
        QVERIFY(lookup.log.contains(QStringLiteral(" - No ArtworkReleaseID")));
        QCOMPARE(lookup.source, ArtworkLookup::Source::Discogs);
        QCOMPARE(lookup.tags.value(kFirstPath).artwork(), jpeg);
    }

    void nothingToSearchFor()
    {
        const Lookup lookup = lookUp(QString(), albumRecords(QStringLiteral("Album"), std::nullopt));
        QCOMPARE(lookup.source, ArtworkLookup::Source::None);
        QVERIFY(lookup.log.contains(QStringLiteral(" - Artwork already found on CoverArtArchive")));
        QVERIFY(!lookup.tags.value(kFirstPath).artwork());
    }

    void discogsFailures()
    {
        const auto records = albumRecords(QStringLiteral("Nowhere"), QStringLiteral("Nobody"));
        Lookup lookup = lookUp(QString(), records);
        QVERIFY(lookup.log.contains(QStringLiteral(" - Discogs: 0 results")));

        m_data->addDiscogsCover(QStringLiteral("Lost"), QStringLiteral("Cover"), QStringLiteral("gone.png"), {});
        QFile::remove(m_server.dataDirectory() + QStringLiteral("/discogs/images/gone.png"));
        lookup = lookUp(QString(), albumRecords(QStringLiteral("Cover"), QStringLiteral("Lost")));
        QVERIFY(lookup.log.contains(QStringLiteral(" - Image load error: ")));
        QVERIFY(!lookup.tags.value(kFirstPath).artwork());

        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost));
        const QByteArray dead = "http://127.0.0.1:" + QByteArray::number(closed.serverPort());
        closed.close();
        qputenv("PELICANE_DISCOGS_URL", dead);
        lookup = lookUp(QString(), records);
        QVERIFY(lookup.log.contains(QStringLiteral(" - Discogs: Error searching: ")));
        QCOMPARE(lookup.source, ArtworkLookup::Source::None);
    }

    // A silent archive costs at most the bound, then Discogs is asked.
    void slowCoverArtArchive()
    {
        m_data->addCoverArt(QStringLiteral("caa-slow"), QStringLiteral("png"), DiscServicesData::imageBytes("PNG"));
        m_data->delayAnswer(QStringLiteral("coverart/caa-slow/front.png"), 4000);
        const QByteArray png = DiscServicesData::imageBytes("PNG", 8);
        m_data->addDiscogsCover(QStringLiteral("Slow"), QStringLiteral("Slow"), QStringLiteral("slow.png"), png);
        const Lookup lookup =
            lookUp(QStringLiteral("caa-slow"), albumRecords(QStringLiteral("Slow"), QStringLiteral("Slow")), 1000);
        QVERIFY2(lookup.elapsedMs < 2500, qPrintable(QString::number(lookup.elapsedMs)));
        QVERIFY(
            lookup.log.contains(QStringLiteral(" - Error loading CoverArtArchive release: The operation timed out.")));
        QCOMPARE(lookup.tags.value(kFirstPath).artwork(), png);
    }
};

QTEST_MAIN(TestArtworkLookup)
#include "tst_artworklookup.moc"
