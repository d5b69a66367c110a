// The tag record (completeness, the artwork's type guessed from its bytes)
// and the ID3 tag written from it, as TagLib reads it back.
#include "cd/id3writer.h"
#include "core/logger.h"

#include <taglib/attachedpictureframe.h>
#include <taglib/commentsframe.h>
#include <taglib/id3v2tag.h>
#include <taglib/mpegfile.h>
#include <taglib/tbytevectorstream.h>

#include <QFile>
#include <QtTest>

namespace {

// Ten silent MPEG-1 Layer III frames (128 kbit/s, 44.1 kHz, 417 bytes each).
QByteArray mp3Bytes()
{
    QByteArray frame(417, '\0');
    frame[0] = char(0xFF);
    frame[1] = char(0xFB);
    frame[2] = char(0x90);
    frame[3] = char(0x64);
    QByteArray data;
    for (int i = 0; i < 10; ++i) {
        data += frame;
    }
    return data;
}

QByteArray jpegBytes()
{
    return QByteArray::fromHex("FFD8FFE000104A46494600010100000100010000FFD9");
}

// The frames of the written tag, as TagLib reads them back.
struct ReadBack
{
    int majorVersion = 0;
    QMap<QByteArray, QStringList> texts;
    QList<TagLib::ID3v2::AttachedPictureFrame::Type> pictureTypes;
    QStringList pictureMimeTypes;
    QList<QByteArray> pictures;
    QStringList comments;
    QByteArray audio;
};

QString fromTag(const TagLib::String &text)
{
    return QString::fromStdString(text.to8Bit(true));
}

ReadBack readBack(const QByteArray &written)
{
    ReadBack result;
    TagLib::ByteVector bytes(written.constData(), static_cast<unsigned int>(written.size()));
    TagLib::ByteVectorStream stream(bytes);
    TagLib::MPEG::File file(&stream, TagLib::ID3v2::FrameFactory::instance(), false);
    TagLib::ID3v2::Tag *tag = file.ID3v2Tag(false);
    if (!tag) {
        return result;
    }
    result.majorVersion = static_cast<int>(tag->header()->majorVersion());
    for (TagLib::ID3v2::Frame *frame : tag->frameList()) {
        const QByteArray id(frame->frameID().data(), 4);
        if (auto *picture = dynamic_cast<TagLib::ID3v2::AttachedPictureFrame *>(frame)) {
            result.pictureTypes.append(picture->type());
            result.pictureMimeTypes.append(fromTag(picture->mimeType()));
            result.pictures.append(QByteArray(picture->picture().data(), qsizetype(picture->picture().size())));
        } else if (auto *comment = dynamic_cast<TagLib::ID3v2::CommentsFrame *>(frame)) {
            result.comments.append(fromTag(comment->text()));
        } else {
            result.texts[id].append(fromTag(frame->toString()));
        }
    }
    result.audio = written.mid(qsizetype(tag->header()->completeTagSize()));
    return result;
}

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

QString logText()
{
    QFile file(Logger::logFileURL().toLocalFile());
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

} // namespace

class TestID3Writer : public QObject
{
    Q_OBJECT

private slots:
    void writesEveryFrame()
    {
        PLCID3Tag tag;
        tag.setTitle(QStringLiteral("Título"));
        tag.setAlbum(QStringLiteral("Album"));
        tag.setArtist(QStringLiteral("Artist & Friend"));
        tag.setAlbumArtist(QStringLiteral("Various"));
        tag.setGenreText(QStringLiteral("Post-Rock"));
        tag.setYear(1999);
        tag.setTrack(3);
        tag.setTotalTracks(12);
        tag.setDiscNumber(2);
        tag.setArtwork(jpegBytes());
        OptionalError error;
        const std::optional<QByteArray> written = ID3Writer::write(tag, mp3Bytes(), &error);
        QVERIFY(written);
        QVERIFY(!error);
        QVERIFY(written->startsWith("ID3\x03"));

        const ReadBack back = readBack(*written);
        QCOMPARE(back.majorVersion, 3);
        // The disc total is the disc's own number; no year is written.
        const QMap<QByteArray, QStringList> texts{
            {"TIT2", {"Título"}},  {"TALB", {"Album"}},     {"TPE1", {"Artist & Friend"}},
            {"TPE2", {"Various"}}, {"TCON", {"Post-Rock"}}, {"TRCK", {"3/12"}},
            {"TPOS", {"2/2"}}};
        QCOMPARE(back.texts, texts);
        QCOMPARE(back.comments, QStringList{QStringLiteral("Ripped by Lyrabox Pelicane Mac")});
        QCOMPARE(back.pictures, QList<QByteArray>{jpegBytes()});
        QCOMPARE(back.pictureMimeTypes, QStringList{QStringLiteral("image/jpeg")});
        QCOMPARE(back.pictureTypes,
                 QList<TagLib::ID3v2::AttachedPictureFrame::Type>{TagLib::ID3v2::AttachedPictureFrame::FrontCover});
        QCOMPARE(back.audio, mp3Bytes());
    }

    void defaultsAndOmissions()
    {
        const std::optional<QByteArray> written = ID3Writer::write(PLCID3Tag(), mp3Bytes());
        QVERIFY(written);
        const ReadBack back = readBack(*written);
        QCOMPARE(back.majorVersion, 3);
        // Track and disc default to 1 of 1; absent texts leave their frames out.
        const QMap<QByteArray, QStringList> texts{{"TRCK", {"1/1"}}, {"TPOS", {"1/1"}}};
        QCOMPARE(back.texts, texts);
        QVERIFY(back.pictures.isEmpty());
        QCOMPARE(back.comments.size(), 1);
    }

    void pictureOnlyForPngAndJpeg_data()
    {
        QTest::addColumn<QByteArray>("artwork");
        QTest::addColumn<QString>("logLine"); // empty: none, and the picture embedded
        const QByteArray png = QByteArray::fromHex("89504E470D0A1A0A0000000D49484452");
        const QByteArray gif = QByteArray("GIF89a\x01\x00\x01\x00\x00\x00", 12);
        QTest::newRow("png") << png << QString();
        QTest::newRow("gif") << gif << QStringLiteral("Skipping ID3 picture of unknown format: image/gif");
    }

    void pictureOnlyForPngAndJpeg()
    {
        QFETCH(QByteArray, artwork);
        QFETCH(QString, logLine);
        const bool embedded = logLine.isEmpty();
        PLCID3Tag tag;
        tag.setArtwork(artwork);
        Logger::clearLog();
        const std::optional<QByteArray> written = ID3Writer::write(tag, mp3Bytes());
        QVERIFY(written);
        const ReadBack back = readBack(*written);
        QCOMPARE(back.pictures.size(), embedded ? 1 : 0);
        if (embedded) {
            QCOMPARE(back.pictures.first(), artwork);
            QCOMPARE(back.pictureMimeTypes.first(), *tag.artworkFormat());
        }
        const QString log = logText();
        if (embedded) {
            QVERIFY2(!log.contains(QStringLiteral("Skipping ID3 picture")), qPrintable(log));
        } else {
            QVERIFY2(log.contains(logLine + QLatin1Char('\n')), qPrintable(log));
        }
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

QTEST_GUILESS_MAIN(TestID3Writer)
#include "tst_id3writer.moc"
