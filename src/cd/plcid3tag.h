#pragma once

#include <QByteArray>
#include <QMetaType>
#include <QString>

#include <optional>

// The descriptive metadata of one CD track. Every field is absent until set;
// the numbers are optional so that an absent number differs from 0 (the
// metadata merge relies on that), and so are the texts (an empty text is
// present).
class PLCID3Tag
{
public:
    const std::optional<QString> &title() const { return m_title; }
    void setTitle(const std::optional<QString> &title) { m_title = title; }

    const std::optional<QString> &album() const { return m_album; }
    void setAlbum(const std::optional<QString> &album) { m_album = album; }

    const std::optional<QString> &artist() const { return m_artist; }
    void setArtist(const std::optional<QString> &artist) { m_artist = artist; }

    const std::optional<QString> &albumArtist() const { return m_albumArtist; }
    void setAlbumArtist(const std::optional<QString> &albumArtist) { m_albumArtist = albumArtist; }

    // 0 means unknown.
    std::optional<int> year() const { return m_year; }
    void setYear(std::optional<int> year) { m_year = year; }

    const std::optional<QString> &genreText() const { return m_genreText; }
    void setGenreText(const std::optional<QString> &genreText) { m_genreText = genreText; }

    std::optional<int> track() const { return m_track; }
    void setTrack(std::optional<int> track) { m_track = track; }

    std::optional<int> totalTracks() const { return m_totalTracks; }
    void setTotalTracks(std::optional<int> totalTracks) { m_totalTracks = totalTracks; }

    std::optional<int> discNumber() const { return m_discNumber; }
    void setDiscNumber(std::optional<int> discNumber) { m_discNumber = discNumber; }

    // The encoded cover image. Setting it also sets artworkFormat to the
    // guessed MIME type (absent bytes give an absent format).
    const std::optional<QByteArray> &artwork() const { return m_artwork; }
    void setArtwork(const std::optional<QByteArray> &artwork);

    const std::optional<QString> &artworkFormat() const { return m_artworkFormat; }
    void setArtworkFormat(const std::optional<QString> &artworkFormat) { m_artworkFormat = artworkFormat; }

    // Title, album, artist, album artist, year, track, total tracks and
    // artwork are all there (texts not empty, numbers not 0).
    bool isComplete() const;

    // The multi-line text form the log uses; lines end in carriage returns.
    QString description() const;

    // The MIME type of an encoded image from its first 12 bytes, or nothing.
    static std::optional<QString> mimeTypeByGuessingFromData(const std::optional<QByteArray> &data);

    bool operator==(const PLCID3Tag &other) const = default;

private:
    std::optional<QString> m_title;
    std::optional<QString> m_album;
    std::optional<QString> m_artist;
    std::optional<QString> m_albumArtist;
    std::optional<int> m_year;
    std::optional<QString> m_genreText;
    std::optional<int> m_track;
    std::optional<int> m_totalTracks;
    std::optional<int> m_discNumber;
    std::optional<QByteArray> m_artwork;
    std::optional<QString> m_artworkFormat;
};

Q_DECLARE_METATYPE(PLCID3Tag)

// An optional value as a format prints it: absent is "(null)".
QString describeOptional(const std::optional<QString> &value);
QString describeOptional(std::optional<int> value);
