#include "protocol/transporterror.h"

#include <QHostAddress>
#include <QMutex>
#include <QNetworkInformation>

namespace TransportError {

namespace {

QMutex g_probeLock;
std::function<bool()> g_offlineProbe;

// The system's own view, where it has one (a network-information backend
// that has been loaded); without one nothing is known.
bool systemReportsOffline()
{
    {
        QMutexLocker locker(&g_probeLock);
        if (g_offlineProbe) {
            return g_offlineProbe();
        }
    }
    const QNetworkInformation *information = QNetworkInformation::instance();
    return information && information->reachability() == QNetworkInformation::Reachability::Disconnected;
}

bool isLoopback(const QUrl &url)
{
    const QString host = url.host();
    return host.compare(QLatin1String("localhost"), Qt::CaseInsensitive) == 0 || QHostAddress(host).isLoopback();
}

} // namespace

bool isUnreachableText(const QString &errorString)
{
    // The socket layer's words for a connect that found no route: Qt passes
    // them on as an unexplained network error.
    return errorString.contains(QLatin1String("Network unreachable"), Qt::CaseInsensitive) ||
           errorString.contains(QLatin1String("Host unreachable"), Qt::CaseInsensitive) ||
           errorString.contains(QLatin1String("No route to host"), Qt::CaseInsensitive);
}

void setOfflineProbe(std::function<bool()> probe)
{
    QMutexLocker locker(&g_probeLock);
    g_offlineProbe = std::move(probe);
}

void watchReachability()
{
    if (!QNetworkInformation::instance()) {
        QNetworkInformation::loadBackendByFeatures(QNetworkInformation::Feature::Reachability);
    }
}

int codeForNetworkError(QNetworkReply::NetworkError error, bool bodyStarted)
{
    switch (error) {
    case QNetworkReply::NoError:
        return 0;
    case QNetworkReply::OperationCanceledError:
        return Cancelled;
    case QNetworkReply::TimeoutError:
        return TimedOut;
    case QNetworkReply::HostNotFoundError:
        return CannotFindHost;
    case QNetworkReply::ConnectionRefusedError:
        return CannotConnectToHost;
    case QNetworkReply::RemoteHostClosedError:
        return NetworkConnectionLost;
    case QNetworkReply::TemporaryNetworkFailureError:
    case QNetworkReply::NetworkSessionFailedError:
        return NotConnectedToInternet;
    case QNetworkReply::SslHandshakeFailedError:
        return SecureConnectionFailed;
    default:
        // Qt resends a rewound body after a reset and then gives up with an
        // unexplained error: that is a lost connection.
        return bodyStarted ? NetworkConnectionLost : Unknown;
    }
}

Error errorForNetworkError(QNetworkReply::NetworkError error, const QString &errorString, bool bodyStarted)
{
    int code = codeForNetworkError(error, bodyStarted);
    if (code != Cancelled && code != TimedOut && isUnreachableText(errorString)) {
        code = NotConnectedToInternet;
    }
    QString message;
    switch (code) {
    case Cancelled:
        message = QStringLiteral("cancelled");
        break;
    case TimedOut:
        message = QStringLiteral("The operation timed out.");
        break;
    case CannotFindHost:
        message = QStringLiteral("A server with the specified hostname could not be found.");
        break;
    case CannotConnectToHost:
        message = QStringLiteral("Could not connect to the server.");
        break;
    case NetworkConnectionLost:
        message = QStringLiteral("The network connection was lost.");
        break;
    case NotConnectedToInternet:
        message = QStringLiteral("The Internet connection appears to be offline.");
        break;
    case SecureConnectionFailed:
        message = QStringLiteral("An SSL error has occurred and a secure connection to the server cannot be made.");
        break;
    default:
        message = errorString;
        break;
    }
    return Error::withDomain(QString::fromLatin1(Domain), code, message);
}

OptionalError errorForReply(const QNetworkReply *reply, bool bodyStarted)
{
    if (reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid()) {
        return std::nullopt;
    }
    if (reply->error() == QNetworkReply::NoError) {
        return std::nullopt;
    }
    Error error = errorForNetworkError(reply->error(), reply->errorString(), bodyStarted);
    // A failure to find or reach a server out there, while the system says
    // it has no network, is the offline case.
    if ((error.code() == Unknown || error.code() == CannotFindHost || error.code() == CannotConnectToHost) &&
        !isLoopback(reply->url()) && systemReportsOffline()) {
        return errorForNetworkError(QNetworkReply::TemporaryNetworkFailureError, reply->errorString());
    }
    return error;
}

} // namespace TransportError
