#pragma once

#include <QString>

namespace httplib {
class Server;
}

// A stand-in for the AccurateRip database, answering from files in the data
// folder, so a rip is verified without the internet and a test adds a disc
// by writing its entry:
//
//   accuraterip/a/b/c/dBAR-NNN-XXXXXXXX-XXXXXXXX-XXXXXXXX.bin
//       GET /accuraterip/a/b/c/dBAR-NNN-XXXXXXXX-XXXXXXXX-XXXXXXXX.bin
//
// A disc without a file gets 404, as from the real database. A file
// "<entry>.delay" holding milliseconds holds its answer back that long.
namespace AccurateRipService {

void registerRoutes(httplib::Server &server, const QString &dataDirectory);

} // namespace AccurateRipService
