#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>

// One GET on the calling thread, for the lookups that run on worker threads
// (cover art, Discogs, the AccurateRip database): a request as Network builds
// it with the lookups' user agent, the whole exchange bounded by a time and
// the answer by a size. The calling thread needs no event loop of its own; it
// is never the GUI thread.
namespace BlockingGet {

struct Answer
{
    enum class Failure { None, TimedOut, TooLarge, Transport, HttpStatus };

    QByteArray body;
    int status = 0; // the HTTP status, 0 without an answer
    Failure failure = Failure::None;
    QString error; // what failed, for the user; empty on success

    bool failed() const { return failure != Failure::None; }
};

Answer get(const QUrl &url, int timeoutMs, qint64 maxBytes);

} // namespace BlockingGet
