#pragma once

#include <QString>
#include <QUrl>

#include <optional>

// Addresses of the services the program talks to. Each can be replaced by an
// environment variable, which is how the local service and tests point the
// program at 127.0.0.1.
namespace Endpoints {

QUrl apiURL();             // PELICANE_API_URL: the JSON API, whole ("/s/JSON/")
QUrl uploadURL();          // PELICANE_UPLOAD_URL: upload root (digest list, uploads)
QUrl downloadURL();        // PELICANE_DOWNLOAD_URL: library download; the query is appended after "?"
QString musicBrainzHost(); // PELICANE_MUSICBRAINZ_SERVER as host:port
int musicBrainzPort();
QUrl coverArtURL(); // PELICANE_COVERART_URL
QUrl discogsURL();  // PELICANE_DISCOGS_URL
// PELICANE_ACCURATERIP_URL: the AccurateRip database root, before "accuraterip/a/b/c/dBAR-….bin"
QUrl accurateRipURL();

// A run of `length` library tracks from `offset`.
struct LibrarySegment
{
    qint64 offset = 0;
    qint64 length = 0;
};

// The library download request: downloadURL(), "?" and the query. With a
// segment, the query asks for those tracks with an end marker; without one,
// for the whole library. User id, token and version go in as they are.
QUrl libraryDownloadURL(const QString &userId, const QString &token,
                        const std::optional<LibrarySegment> &segment = std::nullopt);

} // namespace Endpoints
