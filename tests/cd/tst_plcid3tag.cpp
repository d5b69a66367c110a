#include "cd/plcid3tag.h"

#include <QtTest>

namespace {

PLCID3Tag completeTag()
{
    PLCID3Tag tag;
    tag.setTitle(QStringLiteral("Title"));
    tag.setAlbum(QStringLiteral("Album"));
    tag.setArtist(QStringLiteral("Artist"));
    tag.setAlbumArtist(QStringLiteral("Album Artist"));
    tag.setYear(1999);
    tag.setTrack(3);
    tag.setTotalTracks(12);
    tag.setArtwork(QByteArray("\xFF\xD8\xFF\xE0 twelve bytes", 17));
    return tag;
}

} // namespace

class TestPLCID3Tag : public QObject
{
    Q_OBJECT

private slots:
    void descriptionText()
    {
        QCOMPARE(PLCID3Tag().description(),
                 QStringLiteral("PLCID3Tag { \r    title = (null) \r    album = (null) \r    artist = (null) \r    "
                                "albumArtist = (null) \r    year = (null) \r    genreText = (null) \r    track = "
                                "(null)/(null) \r    discNumber = (null) \r    }\r"));
        PLCID3Tag tag = completeTag();
        tag.setGenreText(QStringLiteral("Rock"));
        tag.setDiscNumber(2);
        tag.setTotalTracks(std::nullopt);
        QCOMPARE(tag.description(),
                 QStringLiteral("PLCID3Tag { \r    title = Title \r    album = Album \r    artist = Artist \r    "
                                "albumArtist = Album Artist \r    year = 1999 \r    genreText = Rock \r    track = "
                                "3/(null) \r    discNumber = 2 \r    }\r"));
    }

    void completeness_data()
    {
        QTest::addColumn<PLCID3Tag>("tag");
        QTest::addColumn<bool>("complete");
        const auto changed = [](auto change) {
            PLCID3Tag tag = completeTag();
            change(tag);
            return tag;
        };
        QTest::newRow("complete") << completeTag() << true;
        QTest::newRow("empty artwork is present") << changed([](PLCID3Tag &t) { t.setArtwork(QByteArray()); }) << true;
        QTest::newRow("no artwork") << changed([](PLCID3Tag &t) { t.setArtwork(std::nullopt); }) << false;
        QTest::newRow("year 0") << changed([](PLCID3Tag &t) { t.setYear(0); }) << false;
        QTest::newRow("empty title") << changed([](PLCID3Tag &t) { t.setTitle(QString()); }) << false;
        QTest::newRow("no total") << changed([](PLCID3Tag &t) { t.setTotalTracks(std::nullopt); }) << false;
        QTest::newRow("empty record") << PLCID3Tag() << false;
    }
    void completeness()
    {
        QFETCH(PLCID3Tag, tag);
        QFETCH(bool, complete);
        QCOMPARE(tag.isComplete(), complete);
    }

    void mimeTypeGuess_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("mimeType"); // null: no guess
        const auto padded = [](const char *hex) -> QByteArray {
            return QByteArray::fromHex(hex) + QByteArray(12, '\x11');
        };
        QTest::newRow("bmp") << padded("424D") << QStringLiteral("image/x-ms-bmp");
        QTest::newRow("gif") << padded("474946") << QStringLiteral("image/gif");
        QTest::newRow("jpeg") << padded("FFD8FF") << QStringLiteral("image/jpeg");
        QTest::newRow("riff") << padded("52494646") << QStringLiteral("image/webp");
        QTest::newRow("tiff ii") << padded("49492A00") << QStringLiteral("image/tiff");
        QTest::newRow("png") << QByteArray::fromHex("89504E470D0A1A0A0000000D") << QStringLiteral("image/png");
        QTest::newRow("jp2") << QByteArray::fromHex("0000000C6A5020200D0A870A") << QStringLiteral("image/jp2");
        QTest::newRow("not tiff") << padded("49492A2B") << QString();
        QTest::newRow("png signature broken") << padded("89504E470D0A1A0B") << QString();
        QTest::newRow("jp2 last byte differs") << QByteArray::fromHex("0000000C6A5020200D0A870B") << QString();
        QTest::newRow("empty") << QByteArray() << QString();
    }
    void mimeTypeGuess()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, mimeType);
        const std::optional<QString> guess = PLCID3Tag::mimeTypeByGuessingFromData(bytes);
        QCOMPARE(guess.has_value(), !mimeType.isNull());
        QCOMPARE(guess.value_or(QString()), mimeType);
    }

    void settingArtworkSetsItsFormat()
    {
        PLCID3Tag tag;
        tag.setArtwork(QByteArray::fromHex("89504E470D0A1A0A0000000D49484452"));
        QCOMPARE(tag.artworkFormat().value_or(QString()), QStringLiteral("image/png"));
        tag.setArtwork(QByteArray("not an image at all"));
        QVERIFY(!tag.artworkFormat());
        tag.setArtwork(std::nullopt);
        QVERIFY(!tag.artwork() && !tag.artworkFormat());
    }
};

QTEST_GUILESS_MAIN(TestPLCID3Tag)
#include "tst_plcid3tag.moc"
