#include "cd/discmetadata.h"

#include "cd/discidentifier.h"
#include "cd/discsession.h"
#include "cd/musicbrainzquery.h"
#include "cd/plcaudiocdprocessor.h"
#include "cd/plcvolumetype.h"
#include "core/logger.h"
#include "protocol/endpoints.h"

#include <QMetaObject>
#include <QMutex>
#include <QMutexLocker>
#include <QPointer>
#include <QStringDecoder>
#include <QThreadPool>

#include <musicbrainz5/Artist.h>
#include <musicbrainz5/ArtistCredit.h>
#include <musicbrainz5/Disc.h>
#include <musicbrainz5/DiscList.h>
#include <musicbrainz5/HTTPFetch.h>
#include <musicbrainz5/Label.h>
#include <musicbrainz5/LabelInfo.h>
#include <musicbrainz5/LabelInfoList.h>
#include <musicbrainz5/Medium.h>
#include <musicbrainz5/MediumList.h>
#include <musicbrainz5/NameCredit.h>
#include <musicbrainz5/NameCreditList.h>
#include <musicbrainz5/Recording.h>
#include <musicbrainz5/Release.h>
#include <musicbrainz5/ReleaseList.h>
#include <musicbrainz5/Tag.h>
#include <musicbrainz5/TagList.h>
#include <musicbrainz5/Track.h>
#include <musicbrainz5/TrackList.h>

#include <cdio/cdtext.h>

#include <algorithm>
#include <cstdio>

namespace {

constexpr int kCDReadErrorCode = 1000;
constexpr int kMissingMetadataCode = 1001;

const char *const kUserAgent = "Lyrabox Pelicane";
const char *const kReleaseIncludes = "artists labels recordings release-groups url-rels discids artist-credits";
// The disc lookup also brings each release's credits and labels, so the
// candidates can be told apart without a lookup per release.
const char *const kDiscIncludes = "artist-credits labels";

std::optional<QString> text(const std::string &value)
{
    return PLCAudioCDProcessor::stringWithUTF8String(value.c_str());
}

QString plainText(const std::string &value)
{
    return QString::fromUtf8(value.data(), qsizetype(value.size()));
}

// The names of a credit, each followed by its join phrase.
QString creditText(const MusicBrainz5::CArtistCredit *credit)
{
    QString joined;
    const MusicBrainz5::CNameCreditList *names = credit ? credit->NameCreditList() : nullptr;
    for (int i = 0; names && i < names->NumItems(); ++i) {
        const MusicBrainz5::CNameCredit *name = names->Item(i);
        const std::string artistName = name->Artist() ? name->Artist()->Name() : name->Name();
        joined += text(artistName).value_or(QString()) + text(name->JoinPhrase()).value_or(QString());
    }
    return joined;
}

// The integer value of the first four characters: leading digits only, 0
// without any.
int yearOf(const QString &date)
{
    int year = 0;
    for (const QChar c : date.left(4)) {
        if (!c.isDigit()) {
            break;
        }
        year = year * 10 + c.digitValue();
    }
    return year;
}

int listCount(const MusicBrainz5::CMediumList *list)
{
    if (!list) {
        return 0;
    }
    return std::max(list->Count(), list->NumItems());
}

ReleaseCandidate candidateOf(const MusicBrainz5::CRelease &release)
{
    ReleaseCandidate candidate;
    candidate.id = plainText(release.ID());
    candidate.title = plainText(release.Title());
    candidate.artistCredit = creditText(release.ArtistCredit());
    candidate.date = plainText(release.Date());
    candidate.country = plainText(release.Country());
    candidate.barcode = plainText(release.Barcode());
    candidate.mediumCount = listCount(release.MediumList());
    if (const MusicBrainz5::CLabelInfoList *labels = release.LabelInfoList()) {
        QStringList names;
        for (int i = 0; i < labels->NumItems(); ++i) {
            if (const MusicBrainz5::CLabel *label = labels->Item(i)->Label()) {
                names.append(plainText(label->Name()));
            }
        }
        candidate.label = names.join(QStringLiteral(", "));
    }
    return candidate;
}

// The position (from 1) of the first medium whose first disc is the disc;
// 1 when the release has fewer than two media or none matches. Later discs
// of a medium are not looked at.
int discNumberOf(const MusicBrainz5::CRelease &release, const std::string &discId)
{
    const MusicBrainz5::CMediumList *media = release.MediumList();
    if (!media || media->NumItems() < 2) {
        return 1;
    }
    for (int i = 0; i < media->NumItems(); ++i) {
        const MusicBrainz5::CDiscList *discs = media->Item(i)->DiscList();
        if (discs && discs->NumItems() > 0 && discs->Item(0)->ID() == discId) {
            return i + 1;
        }
    }
    return 1;
}

// The MusicBrainz records of one release, by the disc's track number.
struct ReleaseTracks
{
    QHash<int, PLCID3Tag> tracks;
};

// What the disc itself says: read once, under the disc's lock.
struct DiscReading
{
    OptionalError error;
    QString discId;
    // MusicBrainz numbers a medium's tracks from the disc id's first track.
    int idFirstTrack = 1;
    int lastAudioTrack = 0;
    QHash<int, PLCID3Tag> cdText;
};

struct CachedArtwork
{
    std::optional<QByteArray> image;
    ArtworkLookup::Source source = ArtworkLookup::Source::None;
};

} // namespace

// What the lookups of one disc found: another release picked later is
// compiled from here, asking the services only for what is missing.
struct DiscLookupCache
{
    QMutex lock;
    std::optional<DiscReading> reading;
    std::optional<QList<ReleaseCandidate>> releases;
    QHash<QString, ReleaseTracks> releaseTracks;
    QHash<QString, CachedArtwork> artwork;
};

std::shared_ptr<DiscLookupCache> makeDiscLookupCache()
{
    return std::make_shared<DiscLookupCache>();
}

namespace {

// The genre of a disc's CD-TEXT: its text when it has one, else the code's
// name; "Not Used", "Not Defined" and unknown codes name none.
std::optional<QString> cdTextGenre(cdtext_t *cdtext)
{
    if (const char *genreText = cdtext_get_const(cdtext, CDTEXT_FIELD_GENRE, 0); genreText && *genreText) {
        return QString::fromLatin1(genreText);
    }
    const cdtext_genre_t code = cdtext_get_genre(cdtext);
    if (code <= CDTEXT_GENRE_UNDEFINED || code > CDTEXT_GENRE_WORLD_MUSIC) {
        return std::nullopt;
    }
    return PLCAudioCDProcessor::stringWithUTF8String(cdtext_genre2str(code));
}

// libcdio reads a cue sheet's text as ISO-8859-1 and hands it on as UTF-8,
// so a cue sheet written in UTF-8 (as most are now) comes out double-encoded:
// "Café" as "CafÃ©". When every character fits one byte and those bytes are
// valid UTF-8 with something beyond ASCII, they were UTF-8 all along.
std::optional<QString> cueSheetText(const std::optional<QString> &text)
{
    if (!text) {
        return text;
    }
    QByteArray bytes;
    bytes.reserve(text->size());
    bool beyondAscii = false;
    for (const QChar c : *text) {
        if (c.unicode() > 0xff) {
            return text;
        }
        beyondAscii = beyondAscii || c.unicode() > 0x7f;
        bytes.append(char(c.unicode()));
    }
    if (!beyondAscii) {
        return text;
    }
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString decoded = decoder.decode(bytes);
    return decoder.hasError() ? text : decoded;
}

DiscReading readDisc(const QString &volumePath)
{
    DiscReading reading;
    OptionalError error;
    const std::shared_ptr<DiscSession> session = DiscSession::open(volumePath, &error);
    if (!session) {
        reading.error = error;
        return reading;
    }
    error = session->use([&](CdIo_t *handle) {
        DiscIdentifier::TableOfContents toc;
        if (DiscIdentifier::readTableOfContents(handle, &toc)) {
            reading.idFirstTrack = toc.first;
            reading.lastAudioTrack = toc.last;
        }
        const DiscIdentifier::Result discId = DiscIdentifier::read(handle, session->deviceName(), session->isImage());
        if (discId.id.isEmpty()) {
            reading.error = Error::errorWithMessage(discId.error, kCDReadErrorCode);
            return;
        }
        reading.discId = discId.id;

        // Owned by the handle: it goes with it and is never freed here.
        cdtext_t *cdtext = cdio_get_cdtext(handle);
        const track_t first = cdio_get_first_track_num(handle);
        const track_t last = cdio_get_last_track_num(handle);
        if (!cdtext || first == CDIO_INVALID_TRACK || last == CDIO_INVALID_TRACK) {
            return;
        }
        const bool cueSheet = session->isImage();
        const auto field = [cdtext, cueSheet](cdtext_field_t key, int track) {
            const std::optional<QString> text =
                PLCAudioCDProcessor::stringWithUTF8String(cdtext_get_const(cdtext, key, track_t(track)));
            return cueSheet ? cueSheetText(text) : text;
        };
        const std::optional<QString> genre = cueSheet ? cueSheetText(cdTextGenre(cdtext)) : cdTextGenre(cdtext);
        // CD-TEXT numbers its blocks as the disc numbers its tracks.
        for (int number = first; number <= last; ++number) {
            PLCID3Tag tag;
            tag.setTitle(field(CDTEXT_FIELD_TITLE, number));
            tag.setArtist(field(CDTEXT_FIELD_PERFORMER, number));
            tag.setAlbum(field(CDTEXT_FIELD_TITLE, 0));
            tag.setAlbumArtist(field(CDTEXT_FIELD_PERFORMER, 0));
            tag.setGenreText(genre);
            tag.setTrack(number);
            tag.setTotalTracks(reading.lastAudioTrack > 0 ? reading.lastAudioTrack : int(last));
            reading.cdText.insert(number, tag);
        }
    });
    if (error) {
        reading.error = error;
    }
    return reading;
}

class Compilation
{
public:
    Compilation(const QString &volumePath, const QStringList &trackPaths, const DiscMetadataOptions &options,
                const PLCAudioCDProcessor::ProgressCallback &progress)
        : m_volumePath(volumePath), m_options(options), m_progress(progress),
          m_cache(options.cache ? options.cache : makeDiscLookupCache())
    {
        m_result.trackPaths = trackPaths;
    }

    DiscMetadata run();

private:
    void progress(int stage)
    {
        if (m_progress) {
            m_progress(stage);
        }
    }
    void standardOutput(const QString &line)
    {
        if (m_options.standardOutput) {
            m_options.standardOutput(line);
        } else {
            Logger::log(line);
        }
    }
    // The disc's own number of the track at path (index i of the paths when
    // the name says none).
    int trackNumberOf(int index) const
    {
        const int number = PLCVolumeType::trackNumberInPath(m_result.trackPaths.at(index));
        return number > 0 ? number : m_reading.idFirstTrack + index;
    }
    // Merges the records found for the disc's tracks into the paths' records.
    void mergeFound(const QHash<int, PLCID3Tag> &found)
    {
        for (int i = 0; i < m_result.trackPaths.size(); ++i) {
            const auto tag = found.constFind(trackNumberOf(i));
            if (tag != found.constEnd()) {
                Logger::log(QStringLiteral(" - Found track: ") + describeOptional(tag->title()));
                PLCAudioCDProcessor::updateTags(m_tags, m_result.trackPaths.at(i), *tag);
            }
        }
    }

    void searchMusicBrainz();
    void lookUpReleases(MusicBrainzQuery &query);
    void reportException(const char *prefix, const std::exception &exception, const MusicBrainzQuery &query);
    ReleaseTracks tracksOf(const MusicBrainz5::CRelease &release, const ReleaseCandidate &named,
                           const std::string &discId) const;
    void lookUpArtwork();
    void finish();

    QString m_volumePath;
    DiscMetadataOptions m_options;
    PLCAudioCDProcessor::ProgressCallback m_progress;
    std::shared_ptr<DiscLookupCache> m_cache;
    DiscReading m_reading;
    bool m_askingRelease = false;
    DiscMetadata m_result;
    ID3TagDictionary m_tags;
};

DiscMetadata Compilation::run()
{
    const QStringList &paths = m_result.trackPaths;
    progress(ReadingCDStage);
    Logger::log(QStringLiteral("Compiling %1 ID3 tags for CD: %2").arg(paths.size()).arg(m_volumePath));
    {
        QMutexLocker locker(&m_cache->lock);
        if (m_cache->reading) {
            m_reading = *m_cache->reading;
        }
    }
    if (m_reading.discId.isEmpty()) {
        m_reading = readDisc(m_volumePath);
        if (m_reading.error) {
            m_result.error = m_reading.error;
            return m_result;
        }
        QMutexLocker locker(&m_cache->lock);
        m_cache->reading = m_reading;
    }
    progress(DiscInformationStage);

    Logger::log(QStringLiteral("Filling out initial values:"));
    for (int i = 0; i < paths.size(); ++i) {
        PLCID3Tag tag;
        tag.setTrack(trackNumberOf(i));
        m_tags.insert(paths.at(i), tag);
        Logger::log(QStringLiteral(" - %1: %2").arg(paths.at(i)).arg(trackNumberOf(i)));
    }

    Logger::log(QStringLiteral("Searching MusicBrainz:"));
    m_result.discId = m_reading.discId;
    Logger::log(QStringLiteral(" - DiscID: ") + m_reading.discId);
    searchMusicBrainz();

    // The other platform's disc-recording framework had a say here; CD-TEXT
    // is what it read.
    Logger::log(QStringLiteral("Searching DiscRecording..."));
    Logger::log(QStringLiteral("Searching CD-TEXT..."));
    mergeFound(m_reading.cdText);

    progress(ArtworkStage);
    lookUpArtwork();
    finish();
    m_result.tags = m_tags;
    return m_result;
}

void Compilation::lookUpArtwork()
{
    const QString key = m_result.releaseId;
    std::optional<CachedArtwork> cached;
    {
        QMutexLocker locker(&m_cache->lock);
        if (m_cache->artwork.contains(key)) {
            cached = m_cache->artwork.value(key);
        }
    }
    if (!cached) {
        m_result.artworkSource =
            ArtworkLookup::lookUp(key, m_tags, m_result.trackPaths.value(0), std::max(1, m_options.timeoutMs));
        CachedArtwork found{m_tags.value(m_result.trackPaths.value(0)).artwork(), m_result.artworkSource};
        // A failed fetch is asked again next time; an answer without a cover is kept.
        if (found.image || m_result.artworkSource == ArtworkLookup::Source::None) {
            QMutexLocker locker(&m_cache->lock);
            m_cache->artwork.insert(key, found);
        }
        return;
    }
    m_result.artworkSource = cached->source;
    if (cached->image) {
        for (PLCID3Tag &tag : m_tags) {
            tag.setArtwork(cached->image);
        }
    }
}

void Compilation::searchMusicBrainz()
{
    MusicBrainzQuery query(kUserAgent, Endpoints::musicBrainzHost().toStdString(), Endpoints::musicBrainzPort(),
                           std::max(1, m_options.timeoutMs));
    // Whatever throws leaves the lookup at once; records merged so far stay.
    try {
        lookUpReleases(query);
    } catch (const MusicBrainz5::CConnectionError &e) {
        reportException("Connection Exception: '", e, query);
    } catch (const MusicBrainz5::CTimeoutError &e) {
        reportException("Timeout Exception: '", e, query);
    } catch (const MusicBrainz5::CAuthenticationError &e) {
        reportException("Authentication Exception: '", e, query);
    } catch (const MusicBrainz5::CFetchError &e) {
        reportException("Fetch Exception: '", e, query);
    } catch (const MusicBrainz5::CRequestError &e) {
        reportException("Request Exception: '", e, query);
    } catch (const MusicBrainz5::CResourceNotFoundError &e) {
        reportException("ResourceNotFound Exception: '", e, query);
    } catch (...) {
        Logger::log(QStringLiteral("WHOOPS! Caught some kind of unknown exception"));
        m_result.error = Error::errorWithMessage(text(query.lastErrorMessage()).value_or(QString()), 0);
        m_result.lookupError = m_result.error;
    }
}

void Compilation::reportException(const char *prefix, const std::exception &exception, const MusicBrainzQuery &query)
{
    standardOutput(QString::fromUtf8(prefix) + QString::fromUtf8(exception.what()) + QLatin1Char('\''));
    standardOutput(QStringLiteral("LastResult: ") + QString::number(query.lastResult()));
    standardOutput(QStringLiteral("LastHTTPCode: ") + QString::number(query.lastHTTPCode()));
    standardOutput(QStringLiteral("LastErrorMessage: ") + plainText(query.lastErrorMessage()));
    m_result.error = Error::errorWithMessage(plainText(query.lastErrorMessage()), 0);
    // Not finding the disc is an answer; anything else, and any failure to
    // get a release the disc lookup named, is a failure to tell.
    if (m_askingRelease || !dynamic_cast<const MusicBrainz5::CResourceNotFoundError *>(&exception)) {
        m_result.lookupError =
            Error::errorWithMessage(QStringLiteral("MusicBrainz could not be asked: %1").arg(exception.what()), 0);
    }
}

void Compilation::lookUpReleases(MusicBrainzQuery &query)
{
    const std::string discId = m_result.discId.toStdString();
    std::optional<QList<ReleaseCandidate>> releases;
    {
        QMutexLocker locker(&m_cache->lock);
        releases = m_cache->releases;
    }
    if (!releases) {
        MusicBrainz5::CQuery::tParamMap discParams;
        discParams["inc"] = kDiscIncludes;
        const MusicBrainz5::CMetadata discMetadata = query.query("discid", discId, discParams);
        const MusicBrainz5::CDisc *disc = discMetadata.Disc();
        const MusicBrainz5::CReleaseList *found = disc ? disc->ReleaseList() : nullptr;
        releases.emplace();
        for (int i = 0; found && i < found->NumItems(); ++i) {
            releases->append(candidateOf(*found->Item(i)));
        }
        QMutexLocker locker(&m_cache->lock);
        m_cache->releases = releases;
    }
    m_result.releases = *releases;
    if (releases->isEmpty()) {
        return;
    }

    // The disc release names the album and its date: the first of the list,
    // or the one chosen.
    std::optional<ReleaseCandidate> discRelease;
    for (const ReleaseCandidate &candidate : *releases) {
        if (!discRelease && (m_options.releaseId.isEmpty() || candidate.id == m_options.releaseId)) {
            discRelease = candidate;
        }
    }
    m_result.releaseId = discRelease ? discRelease->id : m_options.releaseId;

    std::optional<ReleaseTracks> tracks;
    {
        QMutexLocker locker(&m_cache->lock);
        if (m_cache->releaseTracks.contains(m_result.releaseId)) {
            tracks = m_cache->releaseTracks.value(m_result.releaseId);
        }
    }
    if (!tracks) {
        MusicBrainz5::CQuery::tParamMap releaseParams;
        releaseParams["inc"] = kReleaseIncludes;
        m_askingRelease = true;
        const MusicBrainz5::CMetadata releaseMetadata =
            query.query("release", m_result.releaseId.toStdString(), releaseParams);
        tracks.emplace();
        if (const MusicBrainz5::CRelease *release = releaseMetadata.Release()) {
            // A chosen release that the disc lookup did not list speaks for itself.
            const ReleaseCandidate named = discRelease ? *discRelease : candidateOf(*release);
            tracks = tracksOf(*release, named, discId);
        }
        QMutexLocker locker(&m_cache->lock);
        m_cache->releaseTracks.insert(m_result.releaseId, *tracks);
    }
    mergeFound(tracks->tracks);
}

ReleaseTracks Compilation::tracksOf(const MusicBrainz5::CRelease &release, const ReleaseCandidate &named,
                                    const std::string &discId) const
{
    ReleaseTracks found;
    const MusicBrainz5::CMediumList matching = release.MediaMatchingDiscID(discId);
    const MusicBrainz5::CMedium *medium = nullptr;
    for (int i = 0; i < matching.NumItems() && !medium; ++i) {
        if (matching.Item(i)->TrackList()) {
            medium = matching.Item(i);
        }
    }
    if (!medium) {
        return found;
    }
    const QString albumArtist = creditText(release.ArtistCredit());
    const int discNumber = discNumberOf(release, discId);
    const MusicBrainz5::CTrackList *tracks = medium->TrackList();
    const std::optional<QString> album = named.title;
    const int year = yearOf(named.date);
    for (int t = 0; t < tracks->NumItems(); ++t) {
        const MusicBrainz5::CTrack *track = tracks->Item(t);
        const MusicBrainz5::CRecording *recording = track->Recording();
        PLCID3Tag tag;
        tag.setTitle(recording ? text(recording->Title()) : text(track->Title()));
        tag.setAlbum(album);
        tag.setArtist(recording ? creditText(recording->ArtistCredit()) : QString());
        tag.setAlbumArtist(albumArtist);
        const MusicBrainz5::CTagList *genres = recording ? recording->TagList() : nullptr;
        if (genres && genres->NumItems() > 0) {
            tag.setGenreText(text(genres->Item(0)->Name()));
        }
        tag.setYear(year);
        // The medium lists the disc id's tracks in order, from its first.
        const int number = m_reading.idFirstTrack + t;
        tag.setTrack(number);
        tag.setTotalTracks(m_reading.idFirstTrack + tracks->NumItems() - 1);
        tag.setDiscNumber(discNumber);
        found.tracks.insert(number, tag);
    }
    return found;
}

void Compilation::finish()
{
    bool complete = true;
    for (PLCID3Tag &tag : m_tags) {
        if (!tag.title() || tag.title()->isEmpty()) {
            tag.setTitle(QStringLiteral("Track ") + describeOptional(tag.track()));
        }
        complete = tag.isComplete() && complete;
    }
    if (!complete) {
        m_result.error = Error::errorWithMessage(QStringLiteral("Missing Metadata"), kMissingMetadataCode);
    }
    QList<PLCID3Tag> sorted = m_tags.values();
    std::stable_sort(sorted.begin(), sorted.end(), [](const PLCID3Tag &a, const PLCID3Tag &b) {
        return a.track().value_or(0) < b.track().value_or(0);
    });
    QStringList descriptions;
    for (const PLCID3Tag &tag : sorted) {
        descriptions.append(tag.description());
    }
    Logger::log(QStringLiteral("Compiled tags: (") + descriptions.join(QStringLiteral(", ")) + QLatin1Char(')'));
}

} // namespace

DiscMetadata PLCAudioCDProcessor::compileDiscMetadata(const QString &volumePath, const QStringList &trackPaths,
                                                      const DiscMetadataOptions &options,
                                                      const ProgressCallback &progressCallback)
{
    return Compilation(volumePath, trackPaths, options, progressCallback).run();
}

void PLCAudioCDProcessor::compileDiscMetadataInBackground(const QString &volumePath, const QStringList &trackPaths,
                                                          const DiscMetadataOptions &options, QObject *context,
                                                          ProgressCallback progressCallback,
                                                          std::function<void(const DiscMetadata &)> completion)
{
    QPointer<QObject> receiver(context);
    QThreadPool::globalInstance()->start(
        [=, progressCallback = std::move(progressCallback), completion = std::move(completion)] {
            const ProgressCallback forward = [receiver, progressCallback](int stage) {
                if (receiver && progressCallback) {
                    QMetaObject::invokeMethod(
                        receiver, [progressCallback, stage] { progressCallback(stage); }, Qt::QueuedConnection);
                }
            };
            const DiscMetadata metadata = compileDiscMetadata(volumePath, trackPaths, options, forward);
            if (receiver && completion) {
                QMetaObject::invokeMethod(
                    receiver, [completion, metadata] { completion(metadata); }, Qt::QueuedConnection);
            }
        });
}

std::optional<ID3TagDictionary> PLCAudioCDProcessor::ID3TagsForPath(const QString &volumePath,
                                                                    const QStringList &trackPaths, OptionalError *error,
                                                                    const ProgressCallback &progressCallback)
{
    const DiscMetadata metadata = compileDiscMetadata(volumePath, trackPaths, {}, progressCallback);
    if (error) {
        *error = metadata.error;
    }
    return metadata.tags;
}

void PLCAudioCDProcessor::updateTags(ID3TagDictionary &tags, const QString &path, const PLCID3Tag &tag)
{
    PLCID3Tag &stored = tags[path];
    const auto mergeText = [](const std::optional<QString> &from, const std::optional<QString> &into, auto set) {
        if (!into) {
            set(from);
        }
    };
    mergeText(tag.title(), stored.title(), [&](const auto &v) { stored.setTitle(v); });
    mergeText(tag.artist(), stored.artist(), [&](const auto &v) { stored.setArtist(v); });
    mergeText(tag.album(), stored.album(), [&](const auto &v) { stored.setAlbum(v); });
    mergeText(tag.albumArtist(), stored.albumArtist(), [&](const auto &v) { stored.setAlbumArtist(v); });
    mergeText(tag.genreText(), stored.genreText(), [&](const auto &v) { stored.setGenreText(v); });
    if (!stored.track()) {
        stored.setTrack(tag.track());
    }
    if (!stored.totalTracks()) {
        stored.setTotalTracks(tag.totalTracks());
    }
    if (!stored.discNumber()) {
        stored.setDiscNumber(tag.discNumber());
    }
    // An unknown year (0) gives way to a known one, never to an absent one.
    if (tag.year() && stored.year().value_or(0) == 0) {
        stored.setYear(tag.year());
    }
}

std::optional<QString> PLCAudioCDProcessor::stringWithUTF8String(const char *text)
{
    if (!text) {
        return std::nullopt;
    }
    return QString::fromUtf8(text);
}
