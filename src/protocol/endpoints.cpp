#include "protocol/endpoints.h"

#include "core/appinfo.h"
#include "protocol/clientfields.h"
#include "protocol/urlencoding.h"

#include <QByteArray>

namespace {

QString fromEnvironment(const char *name, const char *fallback)
{
    const QByteArray value = qgetenv(name);
    return value.isEmpty() ? QString::fromLatin1(fallback) : QString::fromUtf8(value);
}

QString musicBrainzServer()
{
    return fromEnvironment("PELICANE_MUSICBRAINZ_SERVER", "musicbrainz.org:80");
}

} // namespace

namespace Endpoints {

QUrl apiURL()
{
    return QUrl(fromEnvironment("PELICANE_API_URL", "https://api.lyrabox.com/s/JSON/"));
}

QUrl uploadURL()
{
    return QUrl(fromEnvironment("PELICANE_UPLOAD_URL", "https://upload.lyrabox.com/"));
}

QUrl downloadURL()
{
    return QUrl(fromEnvironment("PELICANE_DOWNLOAD_URL", "https://download.lyrabox.com/library"));
}

QString musicBrainzHost()
{
    const QString server = musicBrainzServer();
    const qsizetype colon = server.lastIndexOf(QLatin1Char(':'));
    return colon < 0 ? server : server.left(colon);
}

int musicBrainzPort()
{
    const QString server = musicBrainzServer();
    const qsizetype colon = server.lastIndexOf(QLatin1Char(':'));
    bool ok = false;
    const int port = colon < 0 ? 80 : server.mid(colon + 1).toInt(&ok);
    return ok && port > 0 ? port : 80;
}

QUrl coverArtURL()
{
    return QUrl(fromEnvironment("PELICANE_COVERART_URL", "https://coverartarchive.org"));
}

QUrl discogsURL()
{
    return QUrl(fromEnvironment("PELICANE_DISCOGS_URL", "https://api.discogs.com"));
}

QUrl accurateRipURL()
{
    // The public database answers over plain http only.
    return QUrl(fromEnvironment("PELICANE_ACCURATERIP_URL", "http://www.accuraterip.com"));
}

QUrl libraryDownloadURL(const QString &userId, const QString &token, const std::optional<LibrarySegment> &segment)
{
    const QString shortVersion = AppInfo::shortVersion();
    const QString client = queryAllowedEscape(ClientFields::client());
    const QString deviceName = queryAllowedEscape(QStringLiteral("Pelicane for Mac ") + shortVersion);
    // The client goes in already encoded, so its blank ends up encoded twice.
    const QString userAgent = queryAllowedEscape(QStringLiteral("Lyrabox ") + client + u' ' + shortVersion +
                                                 QStringLiteral(" (") + AppInfo::buildNumber() + u')');
    QString query = QStringLiteral("_user_id=") + userId + QStringLiteral("&_token=") + token +
                    QStringLiteral("&client=") + client + QStringLiteral("&device_name=") + deviceName +
                    QStringLiteral("&user_agent=") + userAgent + QStringLiteral("&version=") + shortVersion +
                    QStringLiteral("&mode=downloadlibrary&container_type=library");
    if (segment) {
        query += QStringLiteral("&offset=") + QString::number(segment->offset) + QStringLiteral("&length=") +
                 QString::number(segment->length) + QStringLiteral("&end_marker=1");
    }
    return QUrl(downloadURL().toString(QUrl::FullyEncoded) + u'?' + query, QUrl::TolerantMode);
}

} // namespace Endpoints
