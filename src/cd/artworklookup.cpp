#include "cd/artworklookup.h"

#include "core/logger.h"
#include "protocol/blockingget.h"
#include "protocol/endpoints.h"
#include "protocol/urlencoding.h"

#include <QBuffer>
#include <QImage>
#include <QImageWriter>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

// The application's Discogs consumer credentials.
const char *const kDiscogsKey = "qWeRtYuIoPaSdFgHjKlZ";
const char *const kDiscogsSecret = "AbCdEfGhIjKlMnOpQrStUvWxYzAbCdEf";

// Larger answers are no cover anybody meant to send.
constexpr qint64 kMaxAnswerBytes = 32 << 20;

BlockingGet::Answer fetch(const QUrl &url, int timeoutMs)
{
    return BlockingGet::get(url, timeoutMs, kMaxAnswerBytes);
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

bool lookUpCoverArtArchive(const QString &releaseId, QHash<QString, PLCID3Tag> &tags, int timeoutMs)
{
    Logger::log(QStringLiteral("Searching CoverArtArchive for artwork..."));
    if (releaseId.isEmpty()) {
        Logger::log(QStringLiteral(" - No ArtworkReleaseID"));
        return false;
    }
    const QUrl url =
        QUrl(baseOf(Endpoints::coverArtURL()) + QStringLiteral("/release/") + releaseId + QStringLiteral("/front"));
    const BlockingGet::Answer fetched = fetch(url, timeoutMs);
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

bool lookUpDiscogs(QHash<QString, PLCID3Tag> &tags, const QString &firstPath, int timeoutMs)
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
    const BlockingGet::Answer search = fetch(url, timeoutMs);
    if (search.failed()) {
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
    const BlockingGet::Answer image = fetch(coverURL, timeoutMs);
    if (image.failed() || image.body.isEmpty()) {
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
    if (lookUpCoverArtArchive(releaseId, tags, timeoutMs)) {
        // Logs that Discogs is not needed.
        lookUpDiscogs(tags, firstPath, timeoutMs);
        return Source::CoverArtArchive;
    }
    return lookUpDiscogs(tags, firstPath, timeoutMs) ? Source::Discogs : Source::None;
}

} // namespace ArtworkLookup
