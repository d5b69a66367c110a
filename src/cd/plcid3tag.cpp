#include "cd/plcid3tag.h"

#include <array>
#include <cstring>

QString describeOptional(const std::optional<QString> &value)
{
    return value ? *value : QStringLiteral("(null)");
}

QString describeOptional(std::optional<int> value)
{
    return value ? QString::number(*value) : QStringLiteral("(null)");
}

void PLCID3Tag::setArtwork(const std::optional<QByteArray> &artwork)
{
    m_artwork = artwork;
    m_artworkFormat = mimeTypeByGuessingFromData(artwork);
}

bool PLCID3Tag::isComplete() const
{
    const auto hasText = [](const std::optional<QString> &text) { return text && !text->isEmpty(); };
    const auto hasNumber = [](std::optional<int> number) { return number.value_or(0) != 0; };
    return hasText(m_title) && hasText(m_album) && hasText(m_artist) && hasText(m_albumArtist) && hasNumber(m_year) &&
           hasNumber(m_track) && hasNumber(m_totalTracks) && m_artwork.has_value();
}

QString PLCID3Tag::description() const
{
    return QStringLiteral("PLCID3Tag { \r    title = ") + describeOptional(m_title) +
           QStringLiteral(" \r    album = ") + describeOptional(m_album) + QStringLiteral(" \r    artist = ") +
           describeOptional(m_artist) + QStringLiteral(" \r    albumArtist = ") + describeOptional(m_albumArtist) +
           QStringLiteral(" \r    year = ") + describeOptional(m_year) + QStringLiteral(" \r    genreText = ") +
           describeOptional(m_genreText) + QStringLiteral(" \r    track = ") + describeOptional(m_track) +
           QLatin1Char('/') + describeOptional(m_totalTracks) + QStringLiteral(" \r    discNumber = ") +
           describeOptional(m_discNumber) + QStringLiteral(" \r    }\r");
}

std::optional<QString> PLCID3Tag::mimeTypeByGuessingFromData(const std::optional<QByteArray> &data)
{
    if (!data || data->size() < 12) {
        return std::nullopt;
    }
    struct Signature
    {
        const char *bytes;
        size_t length;
        const char *mimeType;
    };
    // Tested in this order; the first match wins. Any RIFF container is
    // taken for WebP without looking further.
    static const std::array<Signature, 11> signatures{{
        {"\x42\x4D", 2, "image/x-ms-bmp"},
        {"\x47\x49\x46", 3, "image/gif"},
        {"\xFF\xD8\xFF", 3, "image/jpeg"},
        {"\x38\x42\x50\x53", 4, "image/psd"},
        {"\x46\x4F\x52\x4D", 4, "image/iff"},
        {"\x52\x49\x46\x46", 4, "image/webp"},
        {"\x00\x00\x01\x00", 4, "image/vnd.microsoft.icon"},
        {"\x49\x49\x2A\x00", 4, "image/tiff"},
        {"\x4D\x4D\x00\x2A", 4, "image/tiff"},
        {"\x89\x50\x4E\x47\x0D\x0A\x1A\x0A", 8, "image/png"},
        {"\x00\x00\x00\x0C\x6A\x50\x20\x20\x0D\x0A\x87\x0A", 12, "image/jp2"},
    }};
    for (const Signature &signature : signatures) {
        if (std::memcmp(data->constData(), signature.bytes, signature.length) == 0) {
            return QString::fromLatin1(signature.mimeType);
        }
    }
    return std::nullopt;
}
