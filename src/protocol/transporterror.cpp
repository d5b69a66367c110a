#include "protocol/transporterror.h"

namespace TransportError {

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
    const int code = codeForNetworkError(error, bodyStarted);
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
    return errorForNetworkError(reply->error(), reply->errorString(), bodyStarted);
}

} // namespace TransportError
