#pragma once

#include <QNetworkRequest>
#include <QString>
#include <QUrl>

// How every request of the program is built, so that all of them name
// themselves, follow redirects and bound their silence the same way.
//
// Each caller keeps its own network manager: an upload or a segment starts on
// a fresh connection, so none inherits a kept-alive one that the server has
// meanwhile dropped (a streamed body cannot be sent a second time).
namespace Network {

// What the lookups in public databases and cover archives call themselves.
QString lookupUserAgent();

// A request to url that
// - sends userAgent as its User-Agent header (an empty one sends none of ours),
// - follows redirects, but never from HTTPS down to HTTP,
// - never answers from a cache nor fills one,
// - ends after transferTimeoutMs without a byte either way (0: no such bound;
//   Qt reports that end as a cancellation, so callers that must tell a
//   time-out keep their own clock).
QNetworkRequest makeRequest(const QUrl &url, const QString &userAgent, int transferTimeoutMs = 0);

} // namespace Network
