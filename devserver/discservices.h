#pragma once

#include <QString>

namespace httplib {
class Server;
}

// Stand-ins for the outside services of the CD road, answering from files in
// the data folder, so a disc shows real metadata without the internet and a
// test adds a disc by writing files:
//
//   musicbrainz/discid/<disc id>.xml     GET /ws/2/discid/<disc id>
//   musicbrainz/release/<mbid>.xml       GET /ws/2/release/<mbid>
//   coverart/<mbid>/front.<ext>          GET /release/<mbid>/front (a redirect to the file)
//   discogs/<artist> - <title>.json      GET /database/search?release_title=&artist=&key=&secret=
//   discogs/images/<file>                GET /discogs/images/<file>
//
// "{base}" in a Discogs answer becomes this server's address. A file
// "<answer file>.delay" holding milliseconds holds its answer back that long.
namespace DiscServices {

void registerRoutes(httplib::Server &server, const QString &dataDirectory);

// Waits as long as the answer file's ".delay" companion says.
void applyAnswerDelay(const QString &path);

// The Discogs answer file's name for a search.
QString discogsFileName(const QString &artist, const QString &releaseTitle);

} // namespace DiscServices
