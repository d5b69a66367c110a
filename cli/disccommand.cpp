// pelicane-cli disc-info DEVICE-OR-IMAGE [--json] [--release MBID]: opens a
// disc as the program does, compiles its metadata and prints it.
#include "cli/arguments.h"
#include "cli/commands.h"

#include "cd/plcaudiocdprocessor.h"
#include "cd/plcvolumetype.h"
#include "platform/discimages.h"

#include <QEventLoop>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTextStream>

namespace {

// What a person reads for an absent field (the log's "(null)" is for machines).
template <typename T> QString shown(const std::optional<T> &value)
{
    return value ? describeOptional(value) : QStringLiteral("unknown");
}

constexpr int kCDReadErrorCode = 1000;

const char kUsage[] = "usage: pelicane-cli disc-info DEVICE-OR-IMAGE [--json] [--release MBID]\n";

struct DiscInfoOptions
{
    QString target;
    QString releaseId;
    bool json = false;
};

Parsed<DiscInfoOptions> parseDiscInfoOptions(const QStringList &args)
{
    DiscInfoOptions options;
    ArgumentScanner scanner(args);
    while (scanner.next()) {
        const QString given = scanner.raw();
        if (!scanner.isOption() && options.target.isEmpty()) {
            options.target = scanner.current();
            continue;
        }
        if (scanner.isOption() && !scanner.hasInlineValue()) {
            if (scanner.current() == QLatin1String("--json")) {
                options.json = true;
                continue;
            }
            if (scanner.isHelp()) {
                return CommandExit::help(kUsage);
            }
        }
        if (scanner.isOption() && scanner.current() == QLatin1String("--release")) {
            QString missing;
            if (const std::optional<QString> value = scanner.takeValue(&missing); value && !value->isEmpty()) {
                options.releaseId = *value;
                continue;
            }
        }
        return CommandExit::wrongArguments(
            QStringLiteral("pelicane-cli disc-info: unexpected argument '%1'\n%2").arg(given, QLatin1String(kUsage)));
    }
    if (options.target.isEmpty()) {
        return CommandExit::wrongArguments(kUsage);
    }
    return options;
}

QJsonValue jsonText(const std::optional<QString> &text)
{
    return text ? QJsonValue(*text) : QJsonValue(QJsonValue::Null);
}

QJsonValue jsonNumber(std::optional<int> number)
{
    return number ? QJsonValue(*number) : QJsonValue(QJsonValue::Null);
}

QJsonValue jsonNonEmpty(const QString &text)
{
    return text.isEmpty() ? QJsonValue(QJsonValue::Null) : QJsonValue(text);
}

// The image is the same on every record; the first tells.
const PLCID3Tag *firstTag(const DiscMetadata &metadata)
{
    if (!metadata.tags || metadata.trackPaths.isEmpty()) {
        return nullptr;
    }
    const auto found = metadata.tags->constFind(metadata.trackPaths.first());
    return found == metadata.tags->constEnd() ? nullptr : &*found;
}

QJsonObject toJson(const DiscMetadata &metadata)
{
    QJsonArray releases;
    for (const ReleaseCandidate &release : metadata.releases) {
        releases.append(QJsonObject{{"id", release.id},
                                    {"title", release.title},
                                    {"artistCredit", release.artistCredit},
                                    {"date", release.date},
                                    {"country", release.country},
                                    {"label", release.label},
                                    {"barcode", release.barcode},
                                    {"mediumCount", release.mediumCount}});
    }
    QJsonArray tracks;
    for (const QString &path : metadata.trackPaths) {
        if (!metadata.tags || !metadata.tags->contains(path)) {
            continue;
        }
        const PLCID3Tag &tag = metadata.tags->value(path);
        tracks.append(QJsonObject{{"path", path},
                                  {"track", jsonNumber(tag.track())},
                                  {"title", jsonText(tag.title())},
                                  {"artist", jsonText(tag.artist())},
                                  {"album", jsonText(tag.album())},
                                  {"albumArtist", jsonText(tag.albumArtist())},
                                  {"genre", jsonText(tag.genreText())},
                                  {"year", jsonNumber(tag.year())},
                                  {"totalTracks", jsonNumber(tag.totalTracks())},
                                  {"discNumber", jsonNumber(tag.discNumber())}});
    }
    QJsonValue artwork(QJsonValue::Null);
    if (const PLCID3Tag *tag = firstTag(metadata); tag && tag->artwork()) {
        artwork = QJsonObject{{"format", jsonText(tag->artworkFormat())},
                              {"bytes", tag->artwork()->size()},
                              {"source", ArtworkLookup::sourceName(metadata.artworkSource)}};
    }
    QJsonValue error(QJsonValue::Null);
    if (metadata.error) {
        error = QJsonObject{{"code", metadata.error->code()}, {"message", metadata.error->localizedDescription()}};
    }
    return QJsonObject{{"discId", jsonNonEmpty(metadata.discId)},
                       {"releaseId", jsonNonEmpty(metadata.releaseId)},
                       {"releases", releases},
                       {"tracks", tracks},
                       {"artwork", artwork},
                       {"error", error}};
}

void printText(QTextStream &out, const DiscMetadata &metadata)
{
    out << "Disc ID: " << (metadata.discId.isEmpty() ? QStringLiteral("(unknown)") : metadata.discId) << "\n";
    out << "Release: " << (metadata.releaseId.isEmpty() ? QStringLiteral("(none)") : metadata.releaseId) << "\n";
    if (!metadata.releases.isEmpty()) {
        out << "Releases holding this disc (* used):\n";
        for (const ReleaseCandidate &release : metadata.releases) {
            QStringList details;
            for (const QString &detail : {release.date, release.country, release.label, release.barcode}) {
                if (!detail.isEmpty()) {
                    details.append(detail);
                }
            }
            details.append(QStringLiteral("%1 medium(s)").arg(release.mediumCount));
            out << (release.id == metadata.releaseId ? "  * " : "    ") << release.id << "  " << release.title << " / "
                << release.artistCredit << " (" << details.join(QStringLiteral(", ")) << ")\n";
        }
    }
    if (metadata.tags) {
        out << "Tracks:\n";
        for (const QString &path : metadata.trackPaths) {
            const PLCID3Tag tag = metadata.tags->value(path);
            out << "  " << path << "\n"
                << "    track " << shown(tag.track()) << "/" << shown(tag.totalTracks()) << ", disc "
                << shown(tag.discNumber()) << ", year " << shown(tag.year()) << "\n"
                << "    title: " << shown(tag.title()) << "\n"
                << "    artist: " << shown(tag.artist()) << "\n"
                << "    album: " << shown(tag.album()) << "\n"
                << "    album artist: " << shown(tag.albumArtist()) << "\n"
                << "    genre: " << shown(tag.genreText()) << "\n";
        }
    }
    const PLCID3Tag *tag = firstTag(metadata);
    if (tag && tag->artwork()) {
        out << "Artwork: " << describeOptional(tag->artworkFormat()) << ", " << tag->artwork()->size()
            << " bytes, from " << ArtworkLookup::sourceName(metadata.artworkSource) << "\n";
    } else {
        out << "Artwork: none\n";
    }
    if (metadata.error) {
        out << "Error: " << metadata.error->localizedDescription() << " (code " << metadata.error->code() << ")\n";
    }
}

// Opens the disc and compiles its metadata, waiting for the lookups.
DiscMetadata lookUpDisc(const DiscInfoOptions &options)
{
    // Opening an image is inserting it, as choosing it in the program does.
    QString volume = options.target;
    if (DiscImages::isDiscImageFile(options.target) && DiscImages::insert(options.target)) {
        volume = DiscImages::normalizedPath(options.target);
    }
    QStringList trackPaths;
    if (const auto tracks = PLCVolumeType::contentsOfDiskAtURL(QUrl::fromLocalFile(volume))) {
        for (const PLCVolumeType::TrackFile &track : *tracks) {
            trackPaths.append(track.path);
        }
    }
    DiscMetadataOptions lookup;
    lookup.releaseId = options.releaseId;
    DiscMetadata result;
    QEventLoop loop;
    PLCAudioCDProcessor::compileDiscMetadataInBackground(volume, trackPaths, lookup, &loop, {},
                                                         [&](const DiscMetadata &metadata) {
                                                             result = metadata;
                                                             loop.quit();
                                                         });
    loop.exec();
    return result;
}

struct DiscInfo
{
    DiscMetadata metadata;
    bool json = false;
};

DiscInfo runDiscInfo(const DiscInfoOptions &options)
{
    return {lookUpDisc(options), options.json};
}

int printDiscInfo(const DiscInfo &info)
{
    QTextStream out(stdout);
    if (info.json) {
        out << QJsonDocument(toJson(info.metadata)).toJson(QJsonDocument::Compact) << "\n";
    } else {
        printText(out, info.metadata);
    }
    out.flush();
    if (!info.metadata.tags) {
        return Exit::Failed;
    }
    return info.metadata.error && info.metadata.error->code() == kCDReadErrorCode ? Exit::Failed : Exit::Success;
}

} // namespace

int runDiscInfoCommand(const QStringList &args)
{
    return runCommand(parseDiscInfoOptions(args), runDiscInfo, printDiscInfo);
}
