#include "session/audiocdflow.h"

#include "audio/riplog.h"
#include "audio/trackripjob.h"
#include "cd/discsession.h"
#include "cd/plcaudiocdprocessor.h"
#include "cd/plcvolumetype.h"
#include "core/logger.h"
#include "platform/discimages.h"
#include "service/lyraboxservice.h"
#include "session/sessionmodel.h"
#include "upload/cdtrackrips.h"

#include <QFileInfo>
#include <QMetaObject>
#include <QPointer>
#include <QThreadPool>
#include <QUrl>

namespace {

// Where the user edits the tracks and cover of an uploaded album.
const char *const kLibraryEditingAddress = "https://www.lyrabox.com/library";
const char *const kUnknownArtist = "Unknown Artist";

// The lookups wait on the network for up to their time-out each, and one
// that was cancelled or superseded runs to its end unheeded: they get threads
// of their own, so they never hold up the scan or the digests. Never
// destroyed, so that quitting does not wait for a silent server.
QThreadPool &lookupPool()
{
    static QThreadPool *pool = [] {
        auto *created = new QThreadPool;
        created->setMaxThreadCount(6);
        return created;
    }();
    return *pool;
}

} // namespace

AudioCDFlow::AudioCDFlow(SessionModel *session) : QObject(session), m_session(session)
{
    connect(session, &SessionModel::mainPageTypeChanged, this, [this](quint32 page) {
        if (page == MainPageTypeSearch) {
            m_runTracks.clear();
            m_ripLogPath.clear();
            CDTrackRips::dropRipped();
        }
    });
    connect(session, &SessionModel::uploadEnded, this, &AudioCDFlow::writeRipLog);
}

AudioCDFlow::~AudioCDFlow() = default;

void AudioCDFlow::OnBeginUploadCD()
{
    Logger::log(QStringLiteral("Begin Uploading CD"));
    const QStringList disks = m_session->foundDisks();
    if (m_chooserOpen) {
        if (m_prompter) {
            m_prompter->setChooserDisks(disks);
        }
        return;
    }
    if (m_sequenceRunning) {
        return;
    }
    if (disks.size() == 1) {
        beginUploadCD(disks.first());
        return;
    }
    if (disks.isEmpty() || !m_prompter) {
        return;
    }
    m_chooserOpen = true;
    QPointer<AudioCDFlow> self(this);
    m_prompter->chooseDisk(disks, [self](int result, const QString &disk) {
        if (!self || !self->m_chooserOpen) {
            return;
        }
        self->m_chooserOpen = false;
        if (result == 1 && !disk.isEmpty()) {
            self->beginUploadCD(disk);
        }
    });
}

bool AudioCDFlow::beginUploadCD(const QString &disk, const QString &releaseId)
{
    if (m_sequenceRunning) {
        return false;
    }
    ++m_sequence;
    m_sequenceRunning = true;
    m_volume = disk;
    // Another disc (or the same one again) is read afresh.
    m_cache = makeDiscLookupCache();
    m_metadata = DiscMetadata();
    setLookingUp(true, QStringLiteral("Loading CD..."));
    compile(Compile::First, releaseId);
    return true;
}

void AudioCDFlow::compile(Compile kind, const QString &releaseId)
{
    DiscMetadataOptions options;
    options.releaseId = releaseId;
    options.timeoutMs = m_lookupTimeoutMs;
    options.cache = m_cache;
    const QStringList formats = LyraboxService::sharedService().getSupportedFormatList();
    const QString volume = m_volume;
    const quint64 sequence = m_sequence;
    const quint64 pick = m_pick;
    const QStringList known = m_metadata.trackPaths;
    QPointer<AudioCDFlow> self(this);
    lookupPool().start([=] {
        // A sequence's stage and result count only while it runs.
        const auto current = [self, sequence, pick, kind] {
            return self && self->m_sequenceRunning && self->m_sequence == sequence &&
                   (kind == Compile::First || self->m_pick == pick);
        };
        // The disc's tracks as files; only supported extensions count.
        QStringList tracks = known;
        QHash<QString, qint64> sizes;
        if (kind == Compile::First) {
            if (const auto contents = PLCVolumeType::contentsOfDiskAtURL(QUrl::fromLocalFile(volume))) {
                for (const PLCVolumeType::TrackFile &track : *contents) {
                    if (formats.contains(QFileInfo(track.path).suffix().toLower())) {
                        tracks.append(track.path);
                        sizes.insert(track.path, track.size);
                    }
                }
            }
        }
        Compiled result;
        result.tracks = tracks;
        result.sizes = sizes;
        result.metadata = PLCAudioCDProcessor::compileDiscMetadata(volume, tracks, options, [self, current](int stage) {
            QMetaObject::invokeMethod(
                self,
                [self, current, stage] {
                    if (current()) {
                        self->stageReached(stage);
                    }
                },
                Qt::QueuedConnection);
        });
        if (kind == Compile::First && result.metadata.tags) {
            // Asked now, the database's answer waits for the rips; it names
            // the disc in the rip log too.
            OptionalError ignored;
            const AccurateRip::Lookup lookup = TrackRipJob::fetchAccurateRip(DiscSession::open(volume, &ignored),
                                                                             options.timeoutMs, &result.accurateRipId);
            result.accurateRipLookup = lookup.summary();
        }
        QMetaObject::invokeMethod(
            self,
            [self, current, kind, result] {
                if (!current()) {
                    return;
                }
                if (kind == Compile::First) {
                    self->compiled(result);
                } else {
                    self->picked(result.metadata);
                }
            },
            Qt::QueuedConnection);
    });
}

void AudioCDFlow::stageReached(int stage)
{
    if (!m_lookingUp) {
        return; // a release picked in the prompt shows its own busy sign
    }
    switch (stage) {
    case ReadingCDStage:
        setLookingUp(true, QStringLiteral("Reading CD..."));
        break;
    case DiscInformationStage:
        setLookingUp(true, QStringLiteral("Getting CD info..."));
        break;
    case ArtworkStage:
        setLookingUp(true, QStringLiteral("Getting CD artwork..."));
        break;
    default:
        break;
    }
}

void AudioCDFlow::setLookingUp(bool lookingUp, const QString &reason)
{
    if (lookingUp) {
        m_session->startWaitingAnimation(reason);
    } else if (m_lookingUp) {
        m_session->stopWaitingAnimation();
    }
    if (m_lookingUp != lookingUp) {
        m_lookingUp = lookingUp;
        emit lookingUpChanged(lookingUp);
    }
}

void AudioCDFlow::endSequence()
{
    ++m_sequence;
    ++m_pick;
    m_sequenceRunning = false;
    m_pickRunning = false;
    setLookingUp(false);
}

void AudioCDFlow::cancelLookup()
{
    if (!m_sequenceRunning || !m_lookingUp) {
        return;
    }
    Logger::log(QStringLiteral("CD lookup cancelled"));
    endSequence();
    m_session->fileLists().clear(FileList::Ready);
}

AlbumPromptInput AudioCDFlow::promptInput() const
{
    AlbumPromptInput input;
    input.releases = m_metadata.releases;
    input.releaseId = m_metadata.releaseId;
    if (m_metadata.tags && !m_metadata.trackPaths.isEmpty()) {
        const PLCID3Tag first = m_metadata.tags->value(m_metadata.trackPaths.first());
        input.albumTitle = first.album();
        // The album's artist only: a track's artist would file a
        // compilation under one of its artists.
        input.albumArtist = first.albumArtist();
        input.discNumber = first.discNumber();
        input.artwork = first.artwork();
    }
    return input;
}

void AudioCDFlow::compiled(const Compiled &result)
{
    const DiscMetadata &metadata = result.metadata;
    const QStringList &tracks = result.tracks;
    setLookingUp(false);
    m_session->audioCDID3Tags() = metadata.tags.value_or(ID3TagDictionary());
    m_metadata = metadata;
    m_trackSizes = result.sizes;
    m_accurateRipId = result.accurateRipId;
    m_accurateRipLookup = result.accurateRipLookup;
    SessionFileLists &files = m_session->fileLists();
    files.clear(FileList::Found);
    files.clear(FileList::Ready);
    emit metadataCompiled(metadata);

    if (!metadata.tags) {
        endSequence();
        m_session->showAlert(QStringLiteral("Could not rip from CD"),
                             metadata.error ? metadata.error->localizedDescription() : QString(), QStringLiteral("OK"));
        return;
    }
    files.add(FileList::Ready, tracks);
    if (metadata.error && metadata.error->code() == 1001) {
        m_session->showAlert(
            QStringLiteral("Metadata Not Found"),
            QStringLiteral("This CD meta information was not found. You can set the album name and artist here "
                           "and then the individual track information and cover art at ") +
                QString::fromLatin1(kLibraryEditingAddress) +
                QStringLiteral(" once the CD has been uploaded to your library."),
            QStringLiteral("OK"));
        if (!m_sequenceRunning) {
            return; // cancelled meanwhile (the alert runs its own loop)
        }
    }
    if (!m_prompter) {
        // Nobody to ask: the album data stands as it was found.
        AlbumPromptResult album;
        const AlbumPromptInput input = promptInput();
        album.albumTitle = input.albumTitle.value_or(QStringLiteral("Unknown Album"));
        album.albumArtist = input.albumArtist.value_or(QString());
        album.discNumber = input.discNumber.value_or(1);
        album.artwork = input.artwork.value_or(QByteArray());
        albumPromptEnded(1, album);
        return;
    }
    QPointer<AudioCDFlow> self(this);
    const quint64 sequence = m_sequence;
    AlbumPromptInput input = promptInput();
    if (metadata.lookupError) {
        // Said, so an empty picker is not taken for an unknown disc.
        input.notice = metadata.lookupError->localizedDescription() +
                       QStringLiteral(". The album data comes from the disc itself.");
    }
    m_prompter->promptAlbum(
        input,
        [self, sequence](const QString &releaseId) {
            if (self && self->m_sequence == sequence) {
                self->pickRelease(releaseId);
            }
        },
        [self, sequence](int result, const AlbumPromptResult &album) {
            if (self && self->m_sequence == sequence) {
                self->albumPromptEnded(result, album);
            }
        });
}

void AudioCDFlow::pickRelease(const QString &releaseId)
{
    if (!m_sequenceRunning || (releaseId == m_metadata.releaseId && !m_pickRunning)) {
        return;
    }
    // A newer pick supersedes the one still on its way.
    ++m_pick;
    m_pickRunning = true;
    if (m_prompter) {
        m_prompter->setAlbumPromptBusy(true, QStringLiteral("Getting the release's tracks and cover…"));
    }
    compile(Compile::Pick, releaseId);
}

void AudioCDFlow::picked(const DiscMetadata &metadata)
{
    m_pickRunning = false;
    const OptionalError failure = !metadata.tags ? metadata.error : metadata.lookupError;
    if (failure || metadata.releaseId.isEmpty()) {
        // What was compiled before stands, and so does what the user typed.
        const QString reason = failure ? failure->localizedDescription() : QStringLiteral("the release is unknown");
        Logger::log(QStringLiteral("Release lookup failed: ") + reason);
        if (m_prompter) {
            m_prompter->setAlbumPromptBusy(false, QStringLiteral("The release could not be looked up (%1). The album "
                                                                 "data shown is kept.")
                                                      .arg(reason));
            m_prompter->selectAlbumPromptRelease(m_metadata.releaseId);
        }
        return;
    }
    m_metadata = metadata;
    m_session->audioCDID3Tags() = *metadata.tags;
    emit metadataCompiled(metadata);
    if (m_prompter) {
        m_prompter->setAlbumPromptBusy(false, QString());
        m_prompter->refillAlbumPrompt(promptInput());
    }
}

void AudioCDFlow::albumPromptEnded(int result, const AlbumPromptResult &album)
{
    const AlbumPromptInput found = promptInput();
    endSequence();
    SessionFileLists &files = m_session->fileLists();
    if (result != 1) {
        files.clear(FileList::Ready);
        return;
    }
    // "Unknown Artist" stands for no album artist until the user types one.
    const bool noAlbumArtist =
        album.albumArtist.isEmpty() || (!found.albumArtist && album.albumArtist == QLatin1String(kUnknownArtist));
    for (PLCID3Tag &tag : m_session->audioCDID3Tags()) {
        tag.setAlbum(album.albumTitle);
        tag.setAlbumArtist(noAlbumArtist ? std::nullopt : std::optional<QString>(album.albumArtist));
        tag.setDiscNumber(int(album.discNumber));
    }
    LyraboxService *lyrabox = &LyraboxService::sharedService();
    lyrabox->setCreatePlaylistName(album.playlistName.isEmpty() ? QString() : album.playlistName);
    lyrabox->setCreateTagName(album.tagName.isEmpty() ? QString() : album.tagName);
    m_artwork = album.artwork;
    emit artworkChanged(m_artwork);
    m_session->setAudioCDArtworkVisible(true);
    // Tracks go one at a time, whatever the thread-count field says.
    lyrabox->setSimultaneousUploadCount(1);
    CDTrackRips::clear();
    m_runTracks = files.ready().toList();
    m_runStarted = QDateTime::currentDateTime();
    m_ripLogPath.clear();
    m_session->beginAudioCDRun();
}

void AudioCDFlow::OnEjectCD()
{
    const QStringList disks = m_session->foundDisks();
    if (disks.isEmpty() || !PLCVolumeType::isDiskAtPath(disks.first())) {
        return;
    }
    if (m_sequenceRunning && m_volume == disks.first()) {
        cancelLookup();
    }
    ejectInBackground(disks.first());
}

void AudioCDFlow::ejectInBackground(const QString &volume)
{
    QPointer<SessionModel> session(m_session);
    // Ejecting waits for the drive, and for a rip to stop: never here.
    QThreadPool::globalInstance()->start([session, volume] {
        if (const OptionalError error = DiscSession::eject(volume)) {
            Logger::log(QStringLiteral("Eject error: ") + error->localizedDescription());
        }
        QMetaObject::invokeMethod(
            session,
            [session] {
                if (session) {
                    session->discoverAudioCDs(true);
                }
            },
            Qt::QueuedConnection);
    });
}

void AudioCDFlow::disksChanged(const QStringList &disks)
{
    if (disks.isEmpty() && m_chooserOpen) {
        m_chooserOpen = false;
        if (m_prompter) {
            m_prompter->closeChooser();
        }
    } else if (m_chooserOpen && m_prompter) {
        m_prompter->setChooserDisks(disks);
    }
    // A disc taken out (or swapped) behind our back is read afresh next time.
    QThreadPool::globalInstance()->start([disks] { DiscSession::closeAllBut(disks); });
}

QList<std::pair<QString, QString>> AudioCDFlow::trackVerdicts() const
{
    QList<std::pair<QString, QString>> verdicts;
    for (const QString &path : m_runTracks) {
        const PLCID3Tag tag = m_session->audioCDID3Tags().value(path);
        const int number = PLCVolumeType::trackNumberInPath(path);
        const QString name = QStringLiteral("%1 %2")
                                 .arg(number > 0 ? number : tag.track().value_or(0), 2, 10, QLatin1Char('0'))
                                 .arg(tag.title().value_or(QFileInfo(path).completeBaseName()));
        const std::optional<RipLogTrack> rip = CDTrackRips::find(path);
        QString verdict = QStringLiteral("not ripped");
        if (rip) {
            verdict = rip->ripped ? rip->accurateRip : QStringLiteral("failed: ") + rip->message;
        }
        verdicts.append({name, verdict});
    }
    return verdicts;
}

void AudioCDFlow::writeRipLog()
{
    if (m_runTracks.isEmpty() || !m_ripLogPath.isEmpty()) {
        return;
    }
    // The run is over: what was kept for sending again is given up.
    CDTrackRips::dropRipped();
    RipLog log;
    log.started = m_runStarted;
    log.source = m_volume;
    log.isImage = DiscImages::isDiscImageFile(m_volume);
    log.readOffset = TrackRipJob::configuredReadOffset();
    log.discId = m_metadata.discId;
    log.accurateRipId = m_accurateRipId;
    log.accurateRipLookup = m_accurateRipLookup;
    for (const QString &path : std::as_const(m_runTracks)) {
        if (const std::optional<RipLogTrack> track = CDTrackRips::find(path)) {
            log.tracks.append(*track);
        }
    }
    if (log.tracks.isEmpty()) {
        return;
    }
    const PLCID3Tag first = m_session->audioCDID3Tags().value(m_runTracks.first());
    log.album = first.album().value_or(QString());
    log.artist = first.albumArtist().value_or(QString());
    if (const OptionalError error = ::writeRipLog(log, &m_ripLogPath)) {
        Logger::log(QStringLiteral("The rip log could not be written: ") + error->localizedDescription());
        m_ripLogPath.clear();
    }
}
