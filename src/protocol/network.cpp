#include "protocol/network.h"

namespace Network {

QString lookupUserAgent()
{
    return QStringLiteral("Lyrabox Pelicane");
}

QNetworkRequest makeRequest(const QUrl &url, const QString &userAgent, int transferTimeoutMs)
{
    QNetworkRequest request(url);
    if (!userAgent.isEmpty()) {
        request.setRawHeader(QByteArrayLiteral("User-Agent"), userAgent.toUtf8());
    }
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    request.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
    request.setTransferTimeout(transferTimeoutMs);
    return request;
}

} // namespace Network
