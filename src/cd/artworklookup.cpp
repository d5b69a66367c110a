#include "cd/artworklookup.h"

#include "core/logger.h"
#include "protocol/endpoints.h"
#include "protocol/transporterror.h"
#include "protocol/urlencoding.h"

#include <QBuffer>
#include <QEventLoop>
#include <QImage>
#include <QImageWriter>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QTimer>

namespace {

// The application's Discogs consumer credentials.
const char *const kDiscogsKey = "qWeRtYuIoPaSdFgHjKlZ";
const char *const kDiscogsSecret = "AbCdEfGhIjKlMnOpQrStUvWxYzAbCdEf";

struct Fetched
{
    QByteArray body;
    int status = 0;      // the HTTP status, 0 without an answer
    QString error;       // the failure's description; empty on success
    bool failed = false; // no answer, or an HTTP error status
};

// One blocking GET on the calling thread, redirects followed (never from
// HTTPS down to HTTP), the whole exchange bounded by timeoutMs.
Fetched fetch(QNetworkAccessManager &manager, const QUrl &url, int timeoutMs)
{
    QNetworkRequest request(url);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setHeader(QNetworkRequest::UserAgentHeader, QStringLiteral("Lyrabox Pelicane"));
    QNetworkReply *reply = manager.get(request);
    QEventLoop loop;
    QTimer bound;
    bound.setSingleShot(true);
    bool timedOut = false;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    QObject::connect(&bound, &QTimer::timeout, &loop, [&] {
        timedOut = true;
        reply->abort();
    });
    bound.start(timeoutMs);
    if (!reply->isFinished()) {
        loop.exec();
    }
    bound.stop();

    Fetched result;
    result.body = reply->readAll();
    result.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (timedOut) {
        result.failed = true;
        result.error =
            TransportError::errorForNetworkError(QNetworkReply::TimeoutError, QString()).localizedDescription();
    } else if (const OptionalError error = TransportError::errorForReply(reply)) {
        result.failed = true;
        result.error = error->localizedDescription();
    } else if (result.status >= 400) {
        result.failed = true;
        result.error = reply->errorString();
    }
    reply->deleteLater();
    return result;
}

QString baseOf(const QUrl &url)
{
    QString base = url.toString(QUrl::FullyEncoded);
    while (base.endsWith(QLatin1Char('/'))) {
        base.chop(1);
    }
    return base;
}

void setArtworkOnEveryRecord(QHash<QString, PLCID3Tag> &tags, const QByteArray &artwork)
{
    for (PLCID3Tag &tag : tags) {
        tag.setArtwork(artwork);
    }
}

bool lookUpCoverArtArchive(QNetworkAccessManager &manager, const QString &releaseId, QHash<QString, PLCID3Tag> &tags,
                           int timeoutMs)
{
    Logger::log(QStringLiteral("Searching CoverArtArchive for artwork..."));
    if (releaseId.isEmpty()) {
        Logger::log(QStringLiteral(" - No ArtworkReleaseID"));
        return false;
    }
    const QUrl url =
        QUrl(baseOf(Endpoints::coverArtURL()) + QStringLiteral("/release/") + releaseId + QStringLiteral("/front"));
    const Fetched fetched = fetch(manager, url, timeoutMs);
    // Whatever body came is looked at, as a plain read of the address would:
    // an error page then fails as an image, not as a fetch.
    if (fetched.body.isEmpty()) {
        const QString reason = fetched.error.isEmpty() ? QStringLiteral("The answer was empty.") : fetched.error;
        Logger::log(QStringLiteral(" - Error loading CoverArtArchive release: ") + reason);
        return false;
    }
    Logger::log(QStringLiteral(" - Found artwork for release on CoverArtArchive"));
    const QImage image = QImage::fromData(fetched.body);
    if (image.isNull()) {
        Logger::log(QStringLiteral(" - Image load parse error"));
        return false;
    }
    QByteArray jpeg;
    QBuffer buffer(&jpeg);
    buffer.open(QIODevice::WriteOnly);
    QImageWriter writer(&buffer, "jpg");
    if (!writer.write(image)) {
        Logger::log(QStringLiteral(" - Image load parse error"));
        return false;
    }
    setArtworkOnEveryRecord(tags, jpeg);
    return true;
}

bool lookUpDiscogs(QNetworkAccessManager &manager, QHash<QString, PLCID3Tag> &tags, const QString &firstPath,
                   int timeoutMs)
{
    Logger::log(QStringLiteral("Searching Discogs for artwork..."));
    const auto first = tags.constFind(firstPath);
    // The same words for all four cases, nothing found included.
    if (first == tags.constEnd() || first->artwork() || !first->albumArtist() || !first->album()) {
        Logger::log(QStringLiteral(" - Artwork already found on CoverArtArchive"));
        return false;
    }
    const QString artist = ArtworkLookup::artistSearchTerm(*first->albumArtist());
    const QString album = ArtworkLookup::cleanedSearchText(*first->album());
    const QString query = QStringLiteral("release_title=") + URLEncodedString(album) + QStringLiteral("&artist=") +
                          URLEncodedString(artist) + QStringLiteral("&key=") + QLatin1String(kDiscogsKey) +
                          QStringLiteral("&secret=") + QLatin1String(kDiscogsSecret);
    const QUrl url =
        QUrl::fromEncoded((baseOf(Endpoints::discogsURL()) + QStringLiteral("/database/search?") + query).toUtf8());
    const Fetched search = fetch(manager, url, timeoutMs);
    if (search.failed) {
        Logger::log(QStringLiteral(" - Discogs: Error searching: ") + search.error);
        return false;
    }
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(search.body, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        Logger::log(QStringLiteral(" - Discogs: Error parsing JSON: ") + parseError.errorString());
        return false;
    }
    const QJsonArray results = document.object().value(QStringLiteral("results")).toArray();
    if (results.isEmpty()) {
        Logger::log(QStringLiteral(" - Discogs: 0 results"));
        return false;
    }
    const QJsonValue cover = results.first().toObject().value(QStringLiteral("cover_image"));
    const QUrl coverURL(cover.toString(), QUrl::StrictMode);
    if (!cover.isString() || !coverURL.isValid() || coverURL.scheme().isEmpty() || coverURL.host().isEmpty()) {
        Logger::log(QStringLiteral(" - Discogs: No cover image found"));
        return false;
    }
    const Fetched image = fetch(manager, coverURL, timeoutMs);
    if (image.failed || image.body.isEmpty()) {
        const QString reason = image.error.isEmpty() ? QStringLiteral("The answer was empty.") : image.error;
        Logger::log(QStringLiteral(" - Image load error: ") + reason);
        return false;
    }
    // Kept as it came; its format is guessed from its bytes.
    setArtworkOnEveryRecord(tags, image.body);
    return true;
}

} // namespace

namespace ArtworkLookup {

QString cleanedSearchText(const QString &text)
{
    QString cleaned;
    cleaned.reserve(text.size());
    for (const QChar c : text) {
        if (c.unicode() >= 32 && c.unicode() <= 126) {
            cleaned.append(c);
        }
    }
    return cleaned;
}

QString artistSearchTerm(const QString &albumArtist)
{
    if (albumArtist.toLower() == QLatin1String("various artists")) {
        return QStringLiteral("Various");
    }
    return cleanedSearchText(albumArtist);
}

QString sourceName(Source source)
{
    switch (source) {
    case Source::CoverArtArchive:
        return QStringLiteral("Cover Art Archive");
    case Source::Discogs:
        return QStringLiteral("Discogs");
    case Source::None:
        break;
    }
    return QString();
}

Source lookUp(const QString &releaseId, QHash<QString, PLCID3Tag> &tags, const QString &firstPath, int timeoutMs)
{
    QNetworkAccessManager manager;
    if (lookUpCoverArtArchive(manager, releaseId, tags, timeoutMs)) {
        // Logs that Discogs is not needed.
        lookUpDiscogs(manager, tags, firstPath, timeoutMs);
        return Source::CoverArtArchive;
    }
    return lookUpDiscogs(manager, tags, firstPath, timeoutMs) ? Source::Discogs : Source::None;
}

} // namespace ArtworkLookup
