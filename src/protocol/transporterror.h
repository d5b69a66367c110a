#pragma once

#include "core/error.h"

#include <QNetworkReply>

// Transport failures carry the codes the rest of the program reasons about
// (-999 cancelled, -1001 timed out, -1005 connection lost, -1009 offline...).
namespace TransportError {

inline constexpr int Cancelled = -999;
inline constexpr int TimedOut = -1001;
inline constexpr int CannotFindHost = -1003;
inline constexpr int CannotConnectToHost = -1004;
inline constexpr int NetworkConnectionLost = -1005;
inline constexpr int NotConnectedToInternet = -1009;
inline constexpr int SecureConnectionFailed = -1200;
inline constexpr int Unknown = -1;

inline constexpr const char *Domain = "NSURLErrorDomain";

// The code for a Qt network error. bodyStarted: an upload body had begun to
// go out, so an unexplained failure means the connection was lost.
int codeForNetworkError(QNetworkReply::NetworkError error, bool bodyStarted = false);

// The error of a reply that failed without an HTTP status. errorString is
// used for codes that have no fixed wording.
Error errorForNetworkError(QNetworkReply::NetworkError error, const QString &errorString, bool bodyStarted = false);

// For a finished reply: none when it carries an HTTP status (the status
// decides then) or succeeded, else the transport error.
OptionalError errorForReply(const QNetworkReply *reply, bool bodyStarted = false);

} // namespace TransportError
