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
    void fieldsStartAbsent();
    void descriptionText();
    void completeness_data();
    void completeness();
    void mimeTypeGuess_data();
    void mimeTypeGuess();
    void settingArtworkSetsItsFormat();
};

void TestPLCID3Tag::fieldsStartAbsent()
{
    PLCID3Tag tag;
    QVERIFY(!tag.title() && !tag.album() && !tag.artist() && !tag.albumArtist() && !tag.genreText());
    QVERIFY(!tag.year() && !tag.track() && !tag.totalTracks() && !tag.discNumber());
    QVERIFY(!tag.artwork() && !tag.artworkFormat());
    // 0 and the empty text are values, not absence.
    tag.setYear(0);
    tag.setTitle(QString());
    QVERIFY(tag.year().has_value());
    QCOMPARE(*tag.year(), 0);
    QVERIFY(tag.title().has_value());
    QVERIFY(!(tag == PLCID3Tag()));
}

void TestPLCID3Tag::descriptionText()
{
    QCOMPARE(PLCID3Tag().description(),
             QStringLiteral("PLCID3Tag { \r    title = (null) \r    album = (null) \r    artist = (null) \r    "
                            "albumArtist = (null) \r    year = (null) \r    genreText = (null) \r    track = "
                            "(null)/(null) \r    discNumber = (null) \r    }\r"));
    PLCID3Tag tag = completeTag();
    tag.setGenreText(QStringLiteral("Rock"));
    tag.setDiscNumber(2);
    tag.setTotalTracks(std::nullopt);
    const QString text = tag.description();
    QCOMPARE(text, QStringLiteral("PLCID3Tag { \r    title = Title \r    album = Album \r    artist = Artist \r    "
                                  "albumArtist = Album Artist \r    year = 1999 \r    genreText = Rock \r    track = "
                                  "3/(null) \r    discNumber = 2 \r    }\r"));
    QVERIFY(!text.contains(QLatin1Char('\n')));
    QCOMPARE(text.count(QLatin1Char('\r')), 10);
}

void TestPLCID3Tag::completeness_data()
{
    QTest::addColumn<PLCID3Tag>("tag");
    QTest::addColumn<bool>("complete");
    const PLCID3Tag complete = completeTag();
    QTest::newRow("complete") << complete << true;

    PLCID3Tag noGenreNoDisc = complete;
    noGenreNoDisc.setArtworkFormat(std::nullopt);
    QTest::newRow("genre, disc and format are not needed") << noGenreNoDisc << true;

    PLCID3Tag noArtwork = complete;
    noArtwork.setArtwork(std::nullopt);
    QTest::newRow("all texts, 1999, 3 of 12, no artwork") << noArtwork << false;

    PLCID3Tag emptyArtwork = complete;
    emptyArtwork.setArtwork(QByteArray());
    QTest::newRow("empty artwork is present") << emptyArtwork << true;

    PLCID3Tag yearZero = complete;
    yearZero.setYear(0);
    QTest::newRow("year 0") << yearZero << false;

    PLCID3Tag emptyTitle = complete;
    emptyTitle.setTitle(QString());
    QTest::newRow("empty title") << emptyTitle << false;

    const auto without = [&](auto change) {
        PLCID3Tag tag = complete;
        change(tag);
        return tag;
    };
    QTest::newRow("no album") << without([](PLCID3Tag &t) { t.setAlbum(std::nullopt); }) << false;
    QTest::newRow("empty artist") << without([](PLCID3Tag &t) { t.setArtist(QString()); }) << false;
    QTest::newRow("no album artist") << without([](PLCID3Tag &t) { t.setAlbumArtist(std::nullopt); }) << false;
    QTest::newRow("track 0") << without([](PLCID3Tag &t) { t.setTrack(0); }) << false;
    QTest::newRow("no total") << without([](PLCID3Tag &t) { t.setTotalTracks(std::nullopt); }) << false;
    QTest::newRow("empty record") << PLCID3Tag() << false;
}

void TestPLCID3Tag::completeness()
{
    QFETCH(PLCID3Tag, tag);
    QFETCH(bool, complete);
    QCOMPARE(tag.isComplete(), complete);
}

void TestPLCID3Tag::mimeTypeGuess_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("mimeType"); // null: no guess
    const auto padded = [](const char *hex) {
        QByteArray bytes = QByteArray::fromHex(hex);
        bytes.append(QByteArray(12, '\x11'));
        return bytes;
    };
    QTest::newRow("bmp") << padded("424D") << QStringLiteral("image/x-ms-bmp");
    QTest::newRow("gif") << padded("474946") << QStringLiteral("image/gif");
    QTest::newRow("jpeg") << padded("FFD8FF") << QStringLiteral("image/jpeg");
    QTest::newRow("psd") << padded("38425053") << QStringLiteral("image/psd");
    QTest::newRow("iff") << padded("464F524D") << QStringLiteral("image/iff");
    QTest::newRow("riff") << padded("52494646") << QStringLiteral("image/webp");
    QTest::newRow("wav is riff") << QByteArray("RIFF\x24\x00\x00\x00WAVEfmt ", 16) << QStringLiteral("image/webp");
    QTest::newRow("icon") << padded("00000100") << QStringLiteral("image/vnd.microsoft.icon");
    QTest::newRow("tiff ii") << padded("49492A00") << QStringLiteral("image/tiff");
    QTest::newRow("tiff mm") << padded("4D4D002A") << QStringLiteral("image/tiff");
    QTest::newRow("not tiff") << padded("49492A2B") << QString();
    QTest::newRow("png") << QByteArray::fromHex("89504E470D0A1A0A0000000D") << QStringLiteral("image/png");
    QTest::newRow("png of 11 bytes") << QByteArray::fromHex("89504E470D0A1A0A000000") << QString();
    QTest::newRow("png signature broken") << padded("89504E470D0A1A0B") << QString();
    QTest::newRow("jp2") << QByteArray::fromHex("0000000C6A5020200D0A870A") << QStringLiteral("image/jp2");
    QTest::newRow("jp2 last byte differs") << QByteArray::fromHex("0000000C6A5020200D0A870B") << QString();
    QTest::newRow("bmp before anything") << QByteArray("BMGIF89a....", 12) << QStringLiteral("image/x-ms-bmp");
    QTest::newRow("text") << QByteArray("hello, world") << QString();
    QTest::newRow("empty") << QByteArray() << QString();
}

void TestPLCID3Tag::mimeTypeGuess()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QString, mimeType);
    const std::optional<QString> guess = PLCID3Tag::mimeTypeByGuessingFromData(bytes);
    if (mimeType.isNull()) {
        QVERIFY2(!guess, qPrintable(guess.value_or(QString())));
    } else {
        QCOMPARE(guess.value_or(QString()), mimeType);
    }
}

void TestPLCID3Tag::settingArtworkSetsItsFormat()
{
    PLCID3Tag tag;
    tag.setArtwork(QByteArray::fromHex("89504E470D0A1A0A0000000D49484452"));
    QCOMPARE(tag.artworkFormat().value_or(QString()), QStringLiteral("image/png"));
    tag.setArtwork(QByteArray("not an image at all"));
    QVERIFY(tag.artwork().has_value());
    QVERIFY(!tag.artworkFormat());
    tag.setArtworkFormat(QStringLiteral("image/jpeg"));
    QCOMPARE(*tag.artworkFormat(), QStringLiteral("image/jpeg"));
    tag.setArtwork(std::nullopt);
    QVERIFY(!tag.artwork() && !tag.artworkFormat());
    QVERIFY(!PLCID3Tag::mimeTypeByGuessingFromData(std::nullopt));
}

QTEST_GUILESS_MAIN(TestPLCID3Tag)
#include "tst_plcid3tag.moc"
