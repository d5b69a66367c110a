#pragma once

#include "core/error.h"

#include <QNetworkReply>

#include <functional>

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

// Whether a socket error text says no route led out ("Network unreachable",
// "Host unreachable"): the machine is offline.
bool isUnreachableText(const QString &errorString);

// Loads the system's network-information backend where there is one, so that
// its reachability can tell an offline machine; on the main thread, once.
void watchReachability();
// Replaces the system's reachability for tests: true means offline; an
// empty function restores the system's.
void setOfflineProbe(std::function<bool()> probe);

// The code for a Qt network error. bodyStarted: an upload body had begun to
// go out, so an unexplained failure means the connection was lost.
int codeForNetworkError(QNetworkReply::NetworkError error, bool bodyStarted = false);

// The error of a reply that failed without an HTTP status. errorString is
// used for codes that have no fixed wording; a socket text of an unreachable
// network or host makes it the offline error (-1009).
Error errorForNetworkError(QNetworkReply::NetworkError error, const QString &errorString, bool bodyStarted = false);

// For a finished reply: none when it carries an HTTP status (the status
// decides then) or succeeded, else the transport error. A failure to reach a
// server other than this machine while the system reports no network is the
// offline error.
OptionalError errorForReply(const QNetworkReply *reply, bool bodyStarted = false);

} // namespace TransportError
