#include "cd/id3writer.h"

#include "core/logger.h"

#include <taglib/attachedpictureframe.h>
#include <taglib/commentsframe.h>
#include <taglib/id3v2tag.h>
#include <taglib/mpegfile.h>
#include <taglib/tbytevectorstream.h>
#include <taglib/textidentificationframe.h>

namespace {

TagLib::String toTagString(const QString &text)
{
    return TagLib::String(text.toStdString(), TagLib::String::UTF8);
}

void addTextFrame(TagLib::ID3v2::Tag *tag, const char *frameId, const QString &text)
{
    // ID3 v2.3 has no UTF-8 encoding; TagLib writes UTF-16 with a byte-order mark.
    auto *frame = new TagLib::ID3v2::TextIdentificationFrame(TagLib::ByteVector(frameId), TagLib::String::UTF16);
    frame->setText(toTagString(text));
    tag->addFrame(frame);
}

void addOptionalTextFrame(TagLib::ID3v2::Tag *tag, const char *frameId, const std::optional<QString> &text)
{
    if (text) {
        addTextFrame(tag, frameId, *text);
    }
}

} // namespace

QString ID3Writer::comment()
{
    return QStringLiteral("Ripped by Lyrabox Pelicane Mac");
}

std::optional<QByteArray> ID3Writer::write(const PLCID3Tag &tag, const QByteArray &data, OptionalError *error)
{
    // Only PNG and JPEG covers are embedded; any other cover is left out.
    std::optional<QString> pictureMimeType;
    if (tag.artwork()) {
        const std::optional<QString> &format = tag.artworkFormat();
        if (format == QLatin1String("image/png") || format == QLatin1String("image/jpeg")) {
            pictureMimeType = format;
        } else {
            Logger::log(QStringLiteral("Skipping ID3 picture of unknown format: ") +
                        format.value_or(QStringLiteral("none")));
        }
    }

    const auto fail = [error](const QString &message) -> std::optional<QByteArray> {
        if (error) {
            *error = Error::errorWithMessage(message);
        }
        return std::nullopt;
    };

    TagLib::ByteVector bytes(data.constData(), static_cast<unsigned int>(data.size()));
    TagLib::ByteVectorStream stream(bytes);
    TagLib::MPEG::File file(&stream, TagLib::ID3v2::FrameFactory::instance(), false);
    // A tag is only written into MPEG audio: data without a single frame is refused.
    if (!file.isValid() || file.firstFrameOffset() < 0) {
        return fail(QStringLiteral("The data to tag is not MP3 audio"));
    }

    // The new tag replaces whatever ID3 v2 tag the file had.
    file.strip(TagLib::MPEG::File::ID3v2);
    TagLib::ID3v2::Tag *id3 = file.ID3v2Tag(true);

    addOptionalTextFrame(id3, "TPE1", tag.artist());
    addOptionalTextFrame(id3, "TPE2", tag.albumArtist());
    addOptionalTextFrame(id3, "TALB", tag.album());
    addOptionalTextFrame(id3, "TIT2", tag.title());
    addOptionalTextFrame(id3, "TCON", tag.genreText());

    if (pictureMimeType) {
        auto *picture = new TagLib::ID3v2::AttachedPictureFrame();
        picture->setTextEncoding(TagLib::String::UTF16);
        picture->setMimeType(toTagString(*pictureMimeType));
        picture->setType(TagLib::ID3v2::AttachedPictureFrame::FrontCover);
        const QByteArray &artwork = *tag.artwork();
        picture->setPicture(TagLib::ByteVector(artwork.constData(), static_cast<unsigned int>(artwork.size())));
        id3->addFrame(picture);
    }

    addTextFrame(id3, "TRCK",
                 QString::number(tag.track().value_or(1)) + QLatin1Char('/') +
                     QString::number(tag.totalTracks().value_or(1)));
    // Disc n of n: the total is deliberately the disc's own number.
    const int disc = tag.discNumber().value_or(1);
    addTextFrame(id3, "TPOS", QString::number(disc) + QLatin1Char('/') + QString::number(disc));

    auto *commentFrame = new TagLib::ID3v2::CommentsFrame(TagLib::String::UTF16);
    commentFrame->setLanguage(TagLib::ByteVector("eng"));
    commentFrame->setText(toTagString(comment()));
    id3->addFrame(commentFrame);

    if (!file.save(TagLib::MPEG::File::ID3v2, TagLib::File::StripNone, TagLib::ID3v2::v3)) {
        return fail(QStringLiteral("Could not write the ID3 tag"));
    }
    const TagLib::ByteVector *written = stream.data();
    return QByteArray(written->data(), static_cast<qsizetype>(written->size()));
}
