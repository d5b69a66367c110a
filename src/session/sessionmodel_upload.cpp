// The upload run: its start, the digest check, the bound on simultaneous
// uploads, pause, resume, cancel and start over; then each file's result,
// retries, the failure prompts and the Result page.
#include "session/sessionmodel.h"

#include "audio/trackripjob.h"
#include "cd/plcvolumetype.h"
#include "core/appinfo.h"
#include "core/formatting.h"
#include "core/logger.h"
#include "fingerprint/filehash.h"
#include "fingerprint/md5cache.h"
#include "service/lyraboxservice.h"
#include "session/audiocdflow.h"
#include "session/md5checkoperation.h"

#include <QFileInfo>
#include <QPointer>
#include <QThreadPool>
#include <QTimer>

#include <algorithm>
#include <climits>
#include <cstdio>

namespace {

// The folder holding the path; for a CD track that is its disc volume.
QString parentFolder(const QString &path)
{
    return QFileInfo(path).path();
}

LyraboxService *service()
{
    return &LyraboxService::sharedService();
}

const char *const kExternalDriveText =
    "If you experience issues uploading and are using a NAS, USB or other external or network storage device. "
    "Check that the drive is mounted and that your user can read the files on it. Contact us if you have any "
    "questions at ";

} // namespace

UploadRunState::UploadRunState()
{
    md5CheckOperationQueue.setName(QStringLiteral("MD5 check"));
    md5CheckOperationQueue.setMaxConcurrentOperationCount(1);
    // Fresh digests just before sending: a couple at a time is all the disk
    // gives anyway, and the scan keeps the global pool.
    digestPool.setMaxThreadCount(2);
    md5CheckProgressItem.setupView();
    md5CheckProgressItem.setPath(QStringLiteral("Checking for previously uploaded files..."));
    md5CheckProgressItem.setUploadProgress(0, true);
}

UploadRunState::~UploadRunState()
{
    md5CheckOperationQueue.cancelAllOperations();
}

// --- Reading the user's numbers ------------------------------------------------

int SessionModel::leadingIntValue(const QString &text)
{
    // Read as a number from the start of the text: blanks, a sign, digits.
    // Whatever follows is ignored, and no digits at all read as 0.
    qsizetype i = 0;
    while (i < text.size() && text.at(i).isSpace()) {
        ++i;
    }
    bool negative = false;
    if (i < text.size() && (text.at(i) == QLatin1Char('+') || text.at(i) == QLatin1Char('-'))) {
        negative = text.at(i) == QLatin1Char('-');
        ++i;
    }
    qint64 value = 0;
    for (; i < text.size() && text.at(i) >= QLatin1Char('0') && text.at(i) <= QLatin1Char('9'); ++i) {
        value = std::min<qint64>(value * 10 + (text.at(i).unicode() - '0'), qint64(INT_MAX) + 1);
    }
    return int(std::clamp<qint64>(negative ? -value : value, INT_MIN, INT_MAX));
}

// --- Starting a run ----------------------------------------------------------------

void SessionModel::OnUploadFiles(const QString &threadCountText, const QString &playlistName, const QString &tagName)
{
    const int count = leadingIntValue(threadCountText);
    if (count < 1 || count > kMaxSimultaneousUploads) {
        showAlert(QStringLiteral("Simultaneous upload count should be between 1 and %1.").arg(kMaxSimultaneousUploads),
                  QString(), QStringLiteral("OK"));
        return;
    }
    startWaitingAnimation(QStringLiteral("Preparing upload..."));
    setAudioCDArtworkVisible(false);

    LyraboxService *lyrabox = service();
    lyrabox->setCreatePlaylistName(playlistName.isEmpty() ? QString() : playlistName);
    lyrabox->setCreateTagName(tagName.isEmpty() ? QString() : tagName);

    Logger::log(QStringLiteral("Starting Upload"));
    Logger::log(QStringLiteral(" - Found Files: %1").arg(m_files.found().size()));
    Logger::log(QStringLiteral(" - Skipped Files (0 expected): %1").arg(m_files.skipped().size()));
    Logger::log(QStringLiteral(" - Errored Files (0 expected): %1").arg(m_files.errored().size()));
    Logger::log(QStringLiteral(" - Uploading Files (0 expected): %1").arg(m_files.uploading().size()));
    Logger::log(QStringLiteral(" - Completed Files (0 expected): %1").arg(m_files.completed().size()));
    Logger::log(QStringLiteral(" - Retry Files (0 expected): %1").arg(m_files.retry().size()));
    Logger::log(QStringLiteral(" - Playlist Name: %1").arg(nullable(lyrabox->createPlaylistName())));
    Logger::log(QStringLiteral(" - Tag Name: %1").arg(nullable(lyrabox->createTagName())));

    m_run.foundFilesCountCache = m_files.found().size();
    if (lyrabox->reuploadDuplicates()) {
        // Nothing is skipped for being known, so there is nothing to check.
        m_files.moveAll(FileList::Found, FileList::Ready);
    }
    lyrabox->readMd5List();
    lyrabox->setSimultaneousUploadCount(uint(count));
}

void SessionModel::setupUploadContainerView()
{
    updateUploadState();
    m_run.uploadListItems.clear();
    emit uploadListViewChanged();
    m_isUploading = true;
    emit uploadStateChanged();
    beginUploading();
}

void SessionModel::setOffline(bool offline)
{
    if (m_run.offline != offline) {
        m_run.offline = offline;
        emit offlineChanged(offline);
    }
}

void SessionModel::beginUploading()
{
    setOffline(false);
    startWaitingAnimation(QStringLiteral("Preparing upload..."));
    service()->verifyLogin();
}

// --- The digest check --------------------------------------------------------------

void SessionModel::startMd5CheckPhase()
{
    const QStringList snapshot = m_files.found().toList();
    const QString firstRoot = m_searchFolderPath.isEmpty() ? QString() : m_searchFolderPath.first();

    Md5CheckOperation::Handlers handlers;
    handlers.audioCD = [this] {
        m_files.moveAll(FileList::Found, FileList::Ready);
        setMd5CheckProgressItemOnScreen(false);
        md5CheckedWithProgress(1.0);
    };
    handlers.began = [this] {
        setMd5CheckProgressItemOnScreen(true);
        updateUploadListView();
    };
    handlers.checked = [this](const QString &path, bool known, qint64 done, qint64 total) {
        // A file that left the found list meanwhile (the lists were emptied
        // by a start over) is not brought back.
        m_files.move(path, FileList::Found, known ? FileList::Skipped : FileList::Ready);
        md5CheckedWithProgress(total == 0 ? 0.0 : double(done) / double(total));
    };
    handlers.ended = [this](double progress) {
        setMd5CheckProgressItemOnScreen(false);
        md5CheckedWithProgress(progress);
    };
    handlers.logKnown = true;

    auto operation =
        std::make_shared<Md5CheckOperation>(this, snapshot, service()->getMd5List(), firstRoot, std::move(handlers));
    m_run.md5CheckOperationQueue.cancelAllOperations();
    m_run.md5CheckOperationQueue.addOperation(operation);
}

void SessionModel::setMd5CheckProgressItemOnScreen(bool onScreen)
{
    if (m_run.md5CheckProgressItemOnScreen != onScreen) {
        m_run.md5CheckProgressItemOnScreen = onScreen;
        emit uploadListViewChanged();
    }
}

void SessionModel::md5CheckedWithProgress(double progress)
{
    if (!m_isUploading) {
        std::fprintf(stderr, "ignoring md5 check because canceled\n");
        return;
    }
    // Files waiting to go again count as much as ready ones: a run never
    // ends with one of them left behind.
    while ((!m_files.ready().isEmpty() || !m_files.retry().isEmpty()) &&
           m_files.uploading().size() < qsizetype(service()->simultaneousUploadCount())) {
        uploadNextFile();
    }
    m_run.md5CheckProgressItem.setUploadProgress(qint64(progress * 100.0), false);
    emit md5CheckProgressItemChanged();
    updateUploadState();
    updateUploadListView();
    if (m_files.found().isEmpty() && m_files.ready().isEmpty() && m_files.retry().isEmpty() &&
        m_files.uploading().isEmpty() && m_mainPageType != MainPageTypeResult) {
        showUploadResult();
    }
}

// --- Handing out files ---------------------------------------------------------------

void SessionModel::uploadNextFile()
{
    const std::optional<SessionFileLists::Next> next = m_files.takeNext();
    if (!next) {
        if (!m_files.found().isEmpty()) {
            // The check is still feeding the lists.
            return;
        }
        if (m_files.uploading().isEmpty()) {
            // After the current event, so the finish that got here completes first.
            QTimer::singleShot(0, this, &SessionModel::showUploadResult);
        }
        return;
    }
    const QString path = next->path;
    const bool isRetry = next->isRetry;

    const bool isAudioCD = PLCVolumeType::isDiskAtPath(parentFolder(path));
    std::optional<PLCID3Tag> tag;
    if (auto it = m_run.audioCDID3Tags.constFind(path); it != m_run.audioCDID3Tags.constEnd()) {
        tag = *it;
    }

    UploadListItem row;
    row.setupView();
    row.setPath(path);
    row.setFilePath(path);
    row.setAudioCDTrackName(tag ? tag->title() : std::nullopt);
    row.setUploadProgress(0, isAudioCD);
    m_run.uploadListItems.append(row);
    emit uploadListViewChanged();
    updateUploadListView();

    if (isAudioCD) {
        // A track is ripped by its upload; there is no file to digest yet.
        service()->uploadFile(path, tag, isRetry);
        return;
    }

    // The file may have changed since the check: digest it once more just
    // before it goes, on a worker. It stays in uploadingFiles meanwhile, so
    // the bound holds while the digest is taken.
    const quint64 ticket = m_run.nextDigestTicket++;
    m_run.pendingDigests.insert(path, {ticket, isRetry});
    QPointer<SessionModel> self(this);
    m_run.digestPool.start([self, path, ticket, stopping = &m_run.digestsStopping] {
        const std::optional<QString> md5 = FileHash::md5HashOfFileAtPath(path, [stopping] { return stopping->load(); });
        // The shared cache is filled and saved here, off the main thread; a
        // save at most every few seconds keeps a long run linear, and the run's
        // end (and quitting) saves the rest.
        if (md5) {
            MD5Cache &cache = MD5Cache::sharedCache();
            if (cache.get(path) != md5) {
                cache.set(path, *md5);
            }
            cache.saveIfDue(SessionModel::kDigestCacheSaveInterval);
        }
        if (self && !stopping->load()) {
            QMetaObject::invokeMethod(
                self.data(),
                [self, path, ticket, md5] {
                    if (self) {
                        self->freshDigestTaken(path, ticket, md5);
                    }
                },
                Qt::QueuedConnection);
        }
    });
}

void SessionModel::saveDigestCacheSoon()
{
    m_run.digestPool.start([] {
        MD5Cache *cache = MD5Cache::sharedCacheIfMade();
        if (cache && cache->hasUnsavedChanges()) {
            cache->save();
        }
    });
}

void SessionModel::saveDigestCacheNow()
{
    m_run.digestsStopping = true;
    m_run.digestPool.waitForDone();
    MD5Cache *cache = MD5Cache::sharedCacheIfMade();
    if (cache && cache->hasUnsavedChanges()) {
        cache->save();
    }
}

void SessionModel::freshDigestTaken(const QString &path, quint64 ticket, const std::optional<QString> &md5)
{
    const auto pending = m_run.pendingDigests.constFind(path);
    if (pending == m_run.pendingDigests.constEnd() || pending->ticket != ticket) {
        // Paused or stopped while the digest was taken.
        return;
    }
    const bool isRetry = pending->isRetry;
    m_run.pendingDigests.erase(pending);

    LyraboxService *lyrabox = service();
    if (!lyrabox->reuploadDuplicates() && md5 && lyrabox->getMd5List().contains(*md5)) {
        // Known after all; its row stays on screen until the list is rebuilt.
        m_files.move(path, FileList::Uploading, FileList::Skipped);
        updateUploadState();
        updateUploadListView();
        uploadNextFile();
        return;
    }
    lyrabox->uploadFile(path, std::nullopt, isRetry);
}

// --- The Upload page -------------------------------------------------------------------

void SessionModel::updateUploadState()
{
    const qint64 completed = m_files.completed().size();
    const qint64 remaining = m_files.remaining();
    const qint64 total = remaining + completed;
    // Single precision, cut toward zero: 29 of 100 shows as 28.
    const int percent = total == 0 ? 0 : int(float(completed) / float(total) * 100.0f);
    m_run.uploadStateText = QStringLiteral("Uploaded: %1 files, %2 remaining, %3% complete")
                                .arg(groupedNumber(completed), groupedNumber(remaining))
                                .arg(percent);
    m_run.skippedStateText =
        QStringLiteral("Skipped: %1 files (already uploaded).").arg(groupedNumber(m_files.skipped().size()));
    m_run.skippedStateHidden = m_files.skipped().isEmpty();
    emit uploadStateChanged();
}

void SessionModel::updateUploadListView()
{
    emit uploadListViewLayoutChanged();
}

QRect SessionModel::uploadListRowFrame(qsizetype index, bool checkRowOnScreen, int width)
{
    // Rows hang from the top edge; index -1 is the check row itself.
    const qsizetype slot = index < 0 ? 0 : index + (checkRowOnScreen ? 1 : 0);
    return QRect(0, int(slot * UploadListItem::kRowPitch + (UploadListItem::kRowPitch - UploadListItem::kRowHeight)),
                 width, UploadListItem::kRowHeight);
}

UploadListItem *SessionModel::uploadListItemForFilePath(const QString &filePath)
{
    for (UploadListItem &row : m_run.uploadListItems) {
        if (row.filePath() == filePath) {
            return &row;
        }
    }
    return nullptr;
}

void SessionModel::removeUploadListItem(const QString &filePath)
{
    for (qsizetype i = 0; i < m_run.uploadListItems.size(); ++i) {
        if (m_run.uploadListItems.at(i).filePath() == filePath) {
            m_run.uploadListItems.removeAt(i);
            emit uploadListViewChanged();
            return;
        }
    }
}

void SessionModel::clearUploadListItems()
{
    m_run.uploadListItems.clear();
    emit uploadListViewChanged();
}

void SessionModel::lyraboxDidUpdateUploadProgress(LyraboxService *, const QString &filePath, int progress)
{
    if (UploadListItem *row = uploadListItemForFilePath(filePath)) {
        row->setUploadProgress(progress, false);
        emit uploadListItemChanged(filePath);
    }
}

void SessionModel::lyraboxDidUpdateRipProgress(LyraboxService *, const QString &filePath, int progress)
{
    if (UploadListItem *row = uploadListItemForFilePath(filePath)) {
        row->setUploadProgress(progress, true);
        emit uploadListItemChanged(filePath);
    }
}

// --- Pause, resume, cancel, start over ------------------------------------------------

void SessionModel::OnPauseUpload()
{
    clearUploadListItems();
    if (m_isUploading) {
        service()->stopUploads();
        m_run.md5CheckOperationQueue.cancelAllOperations();
        // The interrupted files lead the ready list again, in their order;
        // interrupted retries become ordinary ready files.
        m_files.moveAll(FileList::Uploading, FileList::Ready, SessionFileLists::End::Front);
        m_run.pendingDigests.clear();
        m_isUploading = false;
        saveDigestCacheSoon();
        updateUploadState();
    } else {
        m_isUploading = true;
        emit uploadStateChanged();
        beginUploading();
        updateUploadState();
    }
}

void SessionModel::OnCancelUpload()
{
    if (m_isUploading) {
        OnPauseUpload();
    }
    showUploadResult();
}

void SessionModel::OnStartOver()
{
    QString representative;
    if (!m_files.completed().isEmpty()) {
        representative = m_files.completed().first();
    } else if (!m_files.ready().isEmpty()) {
        representative = m_files.ready().first();
    } else if (!m_files.errored().isEmpty()) {
        representative = m_files.errored().first();
    } else if (!m_files.uploading().isEmpty()) {
        representative = m_files.uploading().first();
    }
    // Uploads still in flight would otherwise finish into the lists of the
    // next run and end it early; they stop here, a rip among them, before
    // its disc is ejected.
    if (m_isUploading) {
        OnPauseUpload();
    }
    if (!representative.isNull() && PLCVolumeType::isDiskAtPath(parentFolder(representative))) {
        m_cdFlow->ejectInBackground(parentFolder(representative));
    }
    m_foundDisks.clear();
    emit foundDisksChanged(m_foundDisks);
    setIsFileSearchCanceled(true);
    if (m_fileSearchInProgress) {
        setFileSearchInProgress(false);
    }
    setMainPageType(MainPageTypeSearch);
    service()->reset();
}

void SessionModel::beginAudioCDRun()
{
    m_run.foundFilesCountCache = m_files.ready().size();
    setMainPageType(MainPageTypeUpload);
}

void SessionModel::OnReuploadChecked(bool checked)
{
    // A checked box means known files are skipped.
    service()->setReuploadDuplicates(!checked);
}

// --- Results --------------------------------------------------------------------------

void SessionModel::lyraboxDidFinishUpload(LyraboxService *, const QString &filePath, const OptionalError &error)
{
    emit uploadFinished(filePath, error);
    if (!m_files.uploading().contains(filePath)) {
        // The run was paused after this upload had ended; the pause put the
        // file back in the ready list. A success is real, so it counts once
        // and is not sent again; a failure leaves the file to be sent again.
        if (!error) {
            m_run.simultaneousErrors = 0;
            m_files.relocate(filePath, FileList::Completed);
        } else if (!error->isCancelled()) {
            Logger::log(QStringLiteral("%1 - %2").arg(lastPathComponent(filePath), error->localizedDescription()));
        }
        updateUploadState();
        updateUploadListView();
        return;
    }

    // A refused session may be a revoked one: the run stops at once and the
    // session is verified before another file is sent. The file is not
    // counted as failed for it; once the session proves valid, a second
    // refusal of the same file is the file's own failure.
    if (error && error->code() == kNotAuthenticatedStatus && m_isUploading &&
        !m_run.refusedAfterVerification.contains(filePath)) {
        Logger::log(QStringLiteral("%1 - %2").arg(lastPathComponent(filePath), error->localizedDescription()));
        m_run.refusedAfterVerification.insert(filePath);
        m_files.move(filePath, FileList::Uploading, FileList::Retry);
        removeUploadListItem(filePath);
        Logger::log(QStringLiteral("Upload refused as not authenticated; verifying the session"));
        // Pausing ends every other transfer; resuming verifies the session
        // first and goes on only when it is valid, or the session-expired
        // path takes over.
        OnPauseUpload();
        OnPauseUpload();
        return;
    }

    // Transport failures go again, before any ready file, up to a bound per
    // file. A cancel goes nowhere: the pause that asked for it has put the
    // file back already. Offline pauses the run instead of spending attempts.
    if (error) {
        Logger::log(QStringLiteral("%1 - %2").arg(lastPathComponent(filePath), error->localizedDescription()));
        if (error->code() >= 1) {
            m_files.move(filePath, FileList::Uploading, FileList::Errored);
            ++m_run.simultaneousErrors;
        } else if (!error->isCancelled() && m_isUploading) {
            const int attempts = error->code() == kOfflineCode ? 0 : ++m_run.failedAttempts[filePath];
            if (attempts >= kMaxAttemptsPerFile) {
                Logger::log(QStringLiteral("%1 - gave up after %2 attempts")
                                .arg(lastPathComponent(filePath))
                                .arg(kMaxAttemptsPerFile));
                m_run.failedAttempts.remove(filePath);
                m_files.move(filePath, FileList::Uploading, FileList::Errored);
            } else {
                m_files.move(filePath, FileList::Uploading, FileList::Retry);
                if (error->code() != kOfflineCode) {
                    emit uploadRetrying(filePath, attempts, *error);
                }
            }
        } else {
            m_files.remove(filePath, FileList::Uploading);
        }
    } else {
        m_run.simultaneousErrors = 0;
        m_run.failedAttempts.remove(filePath);
        m_files.move(filePath, FileList::Uploading, FileList::Completed);
        setOffline(false);
    }
    removeUploadListItem(filePath);

    if (m_run.simultaneousErrors >= kSimultaneousErrorLimit) {
        if (m_isUploading) {
            OnPauseUpload();
        }
        if (!hasVisibleAlert()) {
            // The text has said 10 since long before the limit became 50.
            showAlert(QStringLiteral("Upload Error"),
                      QStringLiteral("10 files failed to upload in a row. Please check your internet connection. "
                                     "If the problem persists, contact support."),
                      QStringLiteral("OK"));
        }
    }

    if (error && error->code() == kOfflineCode) {
        if (m_isUploading) {
            OnPauseUpload();
        }
        setOffline(true);
        if (!hasVisibleAlert()) {
            showAlert(QStringLiteral("Upload Error"), QStringLiteral("The internet connection appears to be offline."),
                      QStringLiteral("OK"));
        }
    } else if (error && !error->isCancelled() && m_run.audioCDArtworkVisible) {
        // The disc's failure or the service's: each is told as what it is.
        const bool ripFailed = error->domain() == QLatin1String(kRipErrorDomain);
        const int answer = showAlert(ripFailed ? QStringLiteral("CD Rip Error") : QStringLiteral("Upload Error"),
                                     error->localizedDescription(), QStringLiteral("Retry Track"),
                                     QStringLiteral("Skip Track"), QStringLiteral("Cancel Upload"));
        if (answer == kAlertFirstButtonReturn) {
            m_files.relocate(filePath, FileList::Ready, SessionFileLists::End::Front);
            uploadNextFile();
        } else if (answer == kAlertSecondButtonReturn) {
            uploadNextFile();
        } else if (answer == kAlertThirdButtonReturn) {
            m_files.clear(FileList::Errored);
            stopWaitingAnimation();
            setMainPageType(MainPageTypeResult);
        }
    } else if (m_isUploading) {
        uploadNextFile();
    }

    updateUploadState();
    updateUploadListView();
}

void SessionModel::lyraboxDidExperienceExternalDriveError(LyraboxService *)
{
    showAlert(QStringLiteral("External Drive Error"), QString::fromUtf8(kExternalDriveText) + AppInfo::supportAddress(),
              QStringLiteral("OK"));
}

void SessionModel::showUploadResult()
{
    saveDigestCacheSoon();
    setMainPageType(MainPageTypeResult);
    Logger::log(QStringLiteral("Upload Ended"));
    Logger::log(QStringLiteral(" - Found Files: %1").arg(m_files.found().size()));
    Logger::log(QStringLiteral(" - Skipped Files: %1").arg(m_files.skipped().size()));
    Logger::log(QStringLiteral(" - Errored Files: %1").arg(m_files.errored().size()));
    Logger::log(QStringLiteral(" - Uploading Files: %1").arg(m_files.uploading().size()));
    Logger::log(QStringLiteral(" - Completed Files: %1").arg(m_files.completed().size()));
    Logger::log(QStringLiteral(" - Retry Files: %1").arg(m_files.retry().size()));
    emit uploadEnded();
}

void SessionModel::setupResultContainerView()
{
    m_run.discoveredText = QStringLiteral("Discovered: \t%1 files").arg(groupedNumber(m_run.foundFilesCountCache));
    m_run.uploadedText = QStringLiteral("Uploaded: \t%1 files").arg(groupedNumber(m_files.completed().size()));
    m_run.skippedText =
        QStringLiteral("Skipped: \t%1 files (already uploaded)").arg(groupedNumber(m_files.skipped().size()));
    m_run.errorsText = QStringLiteral("Errors: \t\t%1 files").arg(groupedNumber(m_files.errored().size()));
    m_run.retryErrorsButtonVisible = !m_files.errored().isEmpty();
    emit uploadStateChanged();
}

void SessionModel::OnRetryErrors()
{
    m_files.moveAll(FileList::Errored, FileList::Ready);
    m_run.simultaneousErrors = 0;
    // Asked for by the user: every file gets its attempts afresh.
    m_run.failedAttempts.clear();
    m_run.refusedAfterVerification.clear();
    setMainPageType(MainPageTypeUpload);
}

// --- Other state ---------------------------------------------------------------------

void SessionModel::setAudioCDArtworkVisible(bool visible)
{
    if (m_run.audioCDArtworkVisible != visible) {
        m_run.audioCDArtworkVisible = visible;
        emit audioCDArtworkVisibleChanged(visible);
    }
}
