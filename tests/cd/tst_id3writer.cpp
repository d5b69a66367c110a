// The ID3 tag written from a tag record, as TagLib reads it back.
#include "cd/id3writer.h"

#include <taglib/attachedpictureframe.h>
#include <taglib/id3v2tag.h>
#include <taglib/mpegfile.h>
#include <taglib/tbytevectorstream.h>

#include <QtTest>

class TestID3Writer : public QObject
{
    Q_OBJECT

private slots:
    // Every field over a file that had a tag of its own, then an empty record
    // with a cover of a type that is not embedded; the audio stays as it was.
    void roundTrip()
    {
        QByteArray frame(417, '\0'); // one silent MPEG-1 Layer III frame, 128 kbit/s, 44.1 kHz
        frame.replace(0, 4, QByteArray::fromHex("FFFB9064"));
        const QByteArray audio = frame.repeated(10);
        const QByteArray jpeg = QByteArray::fromHex("FFD8FFE000104A46494600010100000100010000FFD9");
        PLCID3Tag full;
        full.setTitle(QStringLiteral("Título"));
        full.setAlbum(QStringLiteral("Album"));
        full.setArtist(QStringLiteral("Artist & Friend"));
        full.setAlbumArtist(QStringLiteral("Various"));
        full.setGenreText(QStringLiteral("Post-Rock"));
        full.setYear(1999);
        full.setTrack(3);
        full.setTotalTracks(12);
        full.setDiscNumber(2);
        full.setArtwork(jpeg);
        PLCID3Tag empty;
        empty.setArtwork(QByteArray("GIF89a\x01\x00\x01\x00\x00\x00", 12));
        const std::optional<QByteArray> old = ID3Writer::write(empty, audio);
        QVERIFY(old);

        // The disc total is the disc's own number, track and disc default to 1 of 1, and no year is written.
        const QList<QPair<PLCID3Tag, QStringList>> cases{
            {full,
             {"TALB Album", "TCON Post-Rock", "TPE1 Artist & Friend", "TPE2 Various", "TPOS 2/2", "TRCK 3/12",
              "TIT2 Título", "APIC image/jpeg 3", "COMM Ripped by Lyrabox Pelicane Mac"}},
            {empty, {"TPOS 1/1", "TRCK 1/1", "COMM Ripped by Lyrabox Pelicane Mac"}}};
        for (const auto &[record, frames] : cases) {
            OptionalError error;
            const std::optional<QByteArray> written = ID3Writer::write(record, *old, &error);
            QVERIFY(written && !error);
            QVERIFY(written->startsWith("ID3\x03"));
            const TagLib::ByteVector bytes(written->constData(), uint(written->size()));
            TagLib::ByteVectorStream stream(bytes);
            TagLib::MPEG::File file(&stream, TagLib::ID3v2::FrameFactory::instance(), false);
            QStringList read;
            for (TagLib::ID3v2::Frame *frame : file.ID3v2Tag()->frameList()) {
                QString text = QString::fromLatin1(frame->frameID().data(), 4) + QLatin1Char(' ');
                if (auto *picture = dynamic_cast<TagLib::ID3v2::AttachedPictureFrame *>(frame)) {
                    text += QString::fromStdString(picture->mimeType().to8Bit()) + QLatin1Char(' ') +
                            QString::number(picture->type());
                    QCOMPARE(QByteArray(picture->picture().data(), picture->picture().size()), jpeg);
                } else {
                    text += QString::fromStdString(frame->toString().to8Bit(true));
                }
                read << text;
            }
            std::sort(read.begin(), read.end());
            QStringList expected = frames;
            std::sort(expected.begin(), expected.end());
            QCOMPARE(read, expected);
            QCOMPARE(written->mid(qsizetype(file.ID3v2Tag()->header()->completeTagSize())), audio);
        }
    }
};

QTEST_GUILESS_MAIN(TestID3Writer)
#include "tst_id3writer.moc"
