// The audio-CD flow of the session: choosing the disc, listing its tracks,
// compiling its metadata, the album prompt, and the run with one track at a
// time.
#include "session/sessionmodel.h"

#include "cd/plcaudiocdprocessor.h"
#include "cd/plcvolumetype.h"
#include "core/logger.h"
#include "service/lyraboxservice.h"
#include "session/audiocdprompter.h"

#include <QFileInfo>
#include <QMetaObject>
#include <QPointer>
#include <QThreadPool>
#include <QUrl>

#include <cstdio>

namespace {

// Where the user edits the tracks and cover of an uploaded album.
const char *const kLibraryEditingAddress = "https://www.lyrabox.com/library";

AlbumPromptInput promptInputFor(const DiscMetadata &metadata)
{
    AlbumPromptInput input;
    input.releases = metadata.releases;
    input.releaseId = metadata.releaseId;
    if (metadata.tags && !metadata.trackPaths.isEmpty()) {
        const PLCID3Tag first = metadata.tags->value(metadata.trackPaths.first());
        input.albumTitle = first.album();
        input.albumArtist = first.albumArtist() ? first.albumArtist() : first.artist();
        input.discNumber = first.discNumber();
        input.artwork = first.artwork();
    }
    return input;
}

} // namespace

void SessionModel::OnBeginUploadCD()
{
    Logger::log(QStringLiteral("Begin Uploading CD"));
    if (m_cd.chooserOpen) {
        if (m_cd.prompter) {
            m_cd.prompter->setChooserDisks(m_foundDisks);
        }
        return;
    }
    if (m_cd.isBeginningUpload) {
        return;
    }
    if (m_foundDisks.size() == 1) {
        beginUploadCD(m_foundDisks.first());
        return;
    }
    if (m_foundDisks.isEmpty() || !m_cd.prompter) {
        return;
    }
    m_cd.isBeginningUpload = true;
    m_cd.chooserOpen = true;
    QPointer<SessionModel> self(this);
    m_cd.prompter->chooseDisk(m_foundDisks, [self](int result, const QString &disk) {
        if (!self || !self->m_cd.chooserOpen) {
            return;
        }
        self->m_cd.chooserOpen = false;
        self->m_cd.isBeginningUpload = false;
        if (result == 1 && !disk.isEmpty()) {
            self->beginUploadCD(disk);
        }
    });
}

bool SessionModel::beginUploadCD(const QString &disk, const QString &releaseId)
{
    // Set until the run is under way, cancelled or failed: a second press
    // meanwhile starts nothing.
    if (m_cd.isBeginningUpload) {
        return false;
    }
    m_cd.isBeginningUpload = true;
    m_cd.volume = disk;
    m_cd.releaseId = releaseId;
    startWaitingAnimation(QStringLiteral("Loading CD..."));
    compileAudioCD(/*refill=*/false);
    return true;
}

void SessionModel::compileAudioCD(bool refill)
{
    const QString volume = m_cd.volume;
    DiscMetadataOptions options;
    options.releaseId = m_cd.releaseId;
    options.timeoutMs = m_cd.lookupTimeoutMs;
    const QStringList formats = LyraboxService::sharedService().getSupportedFormatList();
    if (!refill) {
        m_files.clear(FileList::Found);
        m_files.clear(FileList::Ready);
    }
    const quint64 ticket = ++m_cd.compileTicket;
    QPointer<SessionModel> self(this);
    QThreadPool::globalInstance()->start([self, volume, options, formats, refill, ticket] {
        // The disc's tracks as files; only supported extensions count.
        QStringList tracks;
        QHash<QString, qint64> sizes;
        if (const auto contents = PLCVolumeType::contentsOfDiskAtURL(QUrl::fromLocalFile(volume))) {
            for (const PLCVolumeType::TrackFile &track : *contents) {
                if (formats.contains(QFileInfo(track.path).suffix().toLower())) {
                    tracks.append(track.path);
                    sizes.insert(track.path, track.size);
                }
            }
        }
        const DiscMetadata metadata =
            PLCAudioCDProcessor::compileDiscMetadata(volume, tracks, options, [self](int stage) {
                QMetaObject::invokeMethod(
                    self, [self, stage] { self->audioCDStageReached(stage); }, Qt::QueuedConnection);
            });
        QMetaObject::invokeMethod(
            self,
            [self, metadata, tracks, sizes, refill, ticket] {
                self->audioCDCompiled(metadata, tracks, sizes, refill, ticket);
            },
            Qt::QueuedConnection);
    });
}

void SessionModel::audioCDStageReached(int stage)
{
    switch (stage) {
    case ReadingCDStage:
        startWaitingAnimation(QStringLiteral("Reading CD..."));
        break;
    case DiscInformationStage:
        startWaitingAnimation(QStringLiteral("Getting CD info..."));
        break;
    case ArtworkStage:
        startWaitingAnimation(QStringLiteral("Getting CD artwork..."));
        break;
    default:
        break;
    }
}

void SessionModel::audioCDCompiled(const DiscMetadata &metadata, const QStringList &tracks,
                                   const QHash<QString, qint64> &sizes, bool refill, quint64 ticket)
{
    if (ticket != m_cd.compileTicket) {
        return; // a newer compilation for another release is on its way
    }
    stopWaitingAnimation();
    m_run.audioCDID3Tags = metadata.tags.value_or(ID3TagDictionary());
    m_cd.metadata = metadata;
    m_cd.trackSizes = sizes;
    if (!refill) {
        m_files.add(FileList::Ready, tracks);
    }
    emit audioCDMetadataCompiled(metadata);

    if (metadata.error && metadata.error->code() == 1000) {
        m_cd.isBeginningUpload = false;
        if (refill && m_cd.prompter) {
            m_cd.prompter->refillAlbumPrompt(promptInputFor(metadata));
        }
        showAlert(QStringLiteral("Could not rip from CD"), metadata.error->localizedDescription(),
                  QStringLiteral("OK"));
        return;
    }
    if (refill) {
        if (m_cd.prompter) {
            m_cd.prompter->refillAlbumPrompt(promptInputFor(metadata));
        }
        return;
    }
    if (metadata.error && metadata.error->code() == 1001) {
        showAlert(QStringLiteral("Metadata Not Found"),
                  QStringLiteral("This CD meta information was not found. You can set the album name and artist here "
                                 "and then the individual track information and cover art at ") +
                      QString::fromLatin1(kLibraryEditingAddress) +
                      QStringLiteral(" once the CD has been uploaded to your library."),
                  QStringLiteral("OK"));
    }
    if (!m_cd.prompter) {
        // Nobody to ask: the album data stands as it was found.
        AlbumPromptResult album;
        const AlbumPromptInput input = promptInputFor(metadata);
        album.albumTitle = input.albumTitle.value_or(QStringLiteral("Unknown Album"));
        album.albumArtist = input.albumArtist.value_or(QStringLiteral("Unknown Artist"));
        album.discNumber = input.discNumber.value_or(1);
        album.artwork = input.artwork.value_or(QByteArray());
        albumPromptEnded(1, album);
        return;
    }
    QPointer<SessionModel> self(this);
    m_cd.prompter->promptAlbum(
        promptInputFor(metadata),
        [self](const QString &releaseId) {
            if (!self) {
                return;
            }
            self->m_cd.releaseId = releaseId;
            self->startWaitingAnimation(QStringLiteral("Getting CD info..."));
            self->compileAudioCD(/*refill=*/true);
        },
        [self](int result, const AlbumPromptResult &album) {
            if (self) {
                self->albumPromptEnded(result, album);
            }
        });
}

void SessionModel::albumPromptEnded(int result, const AlbumPromptResult &album)
{
    // A compilation for another release still running is forgotten.
    ++m_cd.compileTicket;
    if (result != 1) {
        m_cd.isBeginningUpload = false;
        m_files.clear(FileList::Ready);
        return;
    }
    for (PLCID3Tag &tag : m_run.audioCDID3Tags) {
        tag.setAlbum(album.albumTitle);
        tag.setAlbumArtist(album.albumArtist);
        tag.setDiscNumber(int(album.discNumber));
    }
    LyraboxService *lyrabox = &LyraboxService::sharedService();
    lyrabox->setCreatePlaylistName(album.playlistName.isEmpty() ? QString() : album.playlistName);
    lyrabox->setCreateTagName(album.tagName.isEmpty() ? QString() : album.tagName);
    m_cd.artwork = album.artwork;
    emit audioCDArtworkChanged(m_cd.artwork);
    setAudioCDArtworkVisible(true);
    // Tracks go one at a time, whatever the thread-count field says.
    lyrabox->setSimultaneousUploadCount(1);
    m_run.foundFilesCountCache = m_files.ready().size();
    setMainPageType(MainPageTypeUpload);
    m_cd.isBeginningUpload = false;
}

void SessionModel::OnEjectCD()
{
    if (m_foundDisks.isEmpty()) {
        return;
    }
    const QString disk = m_foundDisks.first();
    if (!PLCVolumeType::isDiskAtPath(disk)) {
        return;
    }
    if (const OptionalError error = PLCAudioCDProcessor::eject(disk)) {
        std::fprintf(stderr, "eject error: %s\n", qPrintable(error->localizedDescription()));
    }
    discoverAudioCDs();
}

void SessionModel::audioCDsCountChanged()
{
    if (m_foundDisks.isEmpty() && m_cd.chooserOpen) {
        m_cd.chooserOpen = false;
        m_cd.isBeginningUpload = false;
        if (m_cd.prompter) {
            m_cd.prompter->closeChooser();
        }
    }
}
