#pragma once

#include <QString>
#include <QUrl>

// Addresses of the services the program talks to. Each can be replaced by an
// environment variable, which is how the local service and tests point the
// program at 127.0.0.1.
namespace Endpoints {

QUrl apiURL();            // PELICANE_API_URL: the JSON API, whole ("/s/JSON/")
QUrl uploadURL();         // PELICANE_UPLOAD_URL: upload root (digest list, uploads)
QUrl downloadURL();       // PELICANE_DOWNLOAD_URL: library download; the query is appended after "?"
QString musicBrainzHost(); // PELICANE_MUSICBRAINZ_SERVER as host:port
int musicBrainzPort();
QUrl coverArtURL();       // PELICANE_COVERART_URL
QUrl discogsURL();        // PELICANE_DISCOGS_URL

} // namespace Endpoints
