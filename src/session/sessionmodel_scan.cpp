// Folder choice, scan, file list and disc watch of the session.
#include "session/sessionmodel.h"

#include "session/audiocdflow.h"

#include "cd/plcvolumetype.h"
#include "core/formatting.h"
#include "core/logger.h"
#include "core/paths.h"
#include "platform/discimages.h"
#include "platform/settings.h"
#include "service/lyraboxservice.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QMetaObject>
#include <QSemaphore>

#include <memory>

namespace {

// Found files travel to the main thread in batches: often enough that a
// cancelled scan leaves what it had found, seldom enough that the main
// thread never spends long on one.
constexpr qsizetype kBatchSize = 2000;
constexpr qint64 kBatchIntervalMs = 100;

// Frees a scan's hand-over slot when its last copy goes: when the main
// thread has merged the batch it travels with, or dropped it unrun.
class HandOverSlotRelease
{
public:
    explicit HandOverSlotRelease(std::shared_ptr<QSemaphore> slot) : m_slot(std::move(slot)) {}
    ~HandOverSlotRelease() { m_slot->release(); }
    HandOverSlotRelease(const HandOverSlotRelease &) = delete;
    HandOverSlotRelease &operator=(const HandOverSlotRelease &) = delete;

private:
    std::shared_ptr<QSemaphore> m_slot;
};

} // namespace

void SessionModel::setupSearchContainerView()
{
    // The retry list stays: a new run tries those first.
    for (const FileList list : {FileList::Found, FileList::Ready, FileList::Uploading, FileList::Skipped,
                                FileList::Errored, FileList::Completed}) {
        m_files.clear(list);
    }
    if (m_searchFolderPath.isEmpty() || !QFileInfo::exists(m_searchFolderPath.first())) {
        m_searchFolderPath.append(Paths::musicDirectory());
    }
    updateSearchFolderPath();
    emit searchContainerViewSetUp();
    // The page hid the disc controls: they show again for discs still there.
    discoverAudioCDs(true);
}

void SessionModel::setupListContainerView()
{
    const qsizetype count = m_files.found().size();
    setFileCountLabelText(
        QStringLiteral("%1 files were found. %2")
            .arg(groupedNumber(count),
                 count > 0 ? QStringLiteral("Click a filename to remove it from the list.") : QString()));
    emit listContainerViewSetUp();
}

void SessionModel::OnPathChanged(const QString &text)
{
    m_searchFolderPath = QStringList{text};
}

void SessionModel::chooseSearchFolders(const QStringList &paths)
{
    if (paths.isEmpty()) {
        return;
    }
    m_searchFolderPath = paths;
    updateSearchFolderPath();
    Settings::setValue(kSettingsLastFolderPath, paths.last());
}

void SessionModel::OnSearchFolder()
{
    Logger::log(QStringLiteral("Scanning directory: ") + formatPathList(m_searchFolderPath));
    if (!m_searchFolderPath.isEmpty() && PLCVolumeType::isDiskAtPath(m_searchFolderPath.first())) {
        // Choosing a disc image inserts it, as a disc put into a drive; off
        // the Search page it waits there, in the list of discs.
        QString disk = m_searchFolderPath.first();
        if (DiscImages::isDiscImageFile(disk)) {
            DiscImages::insert(disk);
            disk = DiscImages::normalizedPath(disk);
        }
        if (m_mainPageType == MainPageTypeSearch) {
            discoverAudioCDs();
            Logger::log(QStringLiteral("Begin Uploading CD"));
            m_cdFlow->beginUploadCD(disk);
        }
        return;
    }
    m_files.clear(FileList::Found);
    m_files.clear(FileList::Ready);
    setMainPageType(MainPageTypeList);
    setFileSearchInProgress(true);
    setFileCountLabelText(QStringLiteral("Searching for files..."));
    emit fileSearchCountChanged(0);
    setBeginUploadEnabled(false);
    setIsFileSearchCanceled(false);
    // Batches of a scan that was cancelled before this one must not land in
    // this one's list.
    ++m_scanEpoch;
    appendFilesAtPath(m_searchFolderPath);
}

void SessionModel::appendFilesAtPath(const QStringList &paths)
{
    const QStringList formats = LyraboxService::sharedService().getSupportedFormatList();
    const quint64 epoch = m_scanEpoch;
    m_folderScanRunner.start([this, paths, formats, epoch] {
        const auto stopping = [this] { return m_folderScanRunner.isStopping() || isFileSearchCanceled(); };
        // One batch of a scan at most waits for the main thread: batches
        // queued behind a busy main thread would all be merged in one go,
        // one long stall of the window. Meanwhile the walk gathers on, up to
        // a full batch.
        const auto slot = std::make_shared<QSemaphore>(1);
        QStringList batch;
        QElapsedTimer sinceHandOver;
        sinceHandOver.start();
        const auto handOver = [&, this](bool full) {
            if (batch.isEmpty()) {
                sinceHandOver.restart();
                return;
            }
            if (!slot->tryAcquire()) {
                if (!full) {
                    return;
                }
                while (!slot->tryAcquire(1, 10)) {
                    if (stopping()) {
                        return;
                    }
                }
            }
            const auto release = std::make_shared<HandOverSlotRelease>(slot);
            QMetaObject::invokeMethod(
                this, [this, found = std::move(batch), epoch, release] { mergeFoundFiles(found, epoch); },
                Qt::QueuedConnection);
            batch = QStringList();
            sinceHandOver.restart();
        };
        qint64 found = 0;
        const FolderScan::Outcome outcome = FolderScan(formats).scan(
            paths,
            [&](const QString &path) {
                ++found;
                batch.append(path);
                if (batch.size() >= kBatchSize) {
                    handOver(true);
                } else if (sinceHandOver.elapsed() >= kBatchIntervalMs) {
                    handOver(false);
                }
            },
            stopping);
        handOver(true);
        if (!outcome.finished) {
            // Abandoned: no summary, no completion, no alert; only word that
            // this thread has let go.
            QMetaObject::invokeMethod(
                this, [this, found] { emit fileSearchAbandoned(found); }, Qt::QueuedConnection);
            return;
        }
        QMetaObject::invokeMethod(
            this, [this, epoch, errors = outcome.errorCount] { finishFileSearch(epoch, errors); },
            Qt::QueuedConnection);
    });
}

void SessionModel::mergeFoundFiles(const QStringList &paths, quint64 epoch)
{
    if (epoch != m_scanEpoch || isFileSearchCanceled()) {
        return;
    }
    QStringList added;
    added.reserve(paths.size());
    for (const QString &path : paths) {
        if (m_files.add(FileList::Found, path)) {
            added.append(path);
        }
    }
    if (!added.isEmpty()) {
        emit foundFilesAdded(added);
    }
    if (m_fileSearchInProgress) {
        emit fileSearchCountChanged(m_files.found().size());
    }
}

void SessionModel::OnCancelSearch()
{
    if (!m_fileSearchInProgress) {
        return;
    }
    Logger::log(QStringLiteral("Scan cancelled"));
    // The worker sees the flag before its next entry; batches it already
    // sent are dropped by the epoch.
    setIsFileSearchCanceled(true);
    ++m_scanEpoch;
    setFileSearchInProgress(false);
    // The folders chosen stay: the Search page shows them again.
    setMainPageType(MainPageTypeSearch);
}

void SessionModel::finishFileSearch(quint64 epoch, qint64 errorCount)
{
    if (epoch != m_scanEpoch || isFileSearchCanceled()) {
        return;
    }
    Logger::log(
        QStringLiteral("Scan complete. Found %1 files. %2 scan errors.").arg(m_files.found().size()).arg(errorCount));
    m_scanErrorCount = errorCount;
    setFileSearchInProgress(false);
    setupListContainerView();
    if (!m_files.found().isEmpty()) {
        setBeginUploadEnabled(true);
    }
    if (errorCount >= 1) {
        showAlert(QStringLiteral("Scan Errors"),
                  QStringLiteral("%1 %2 occurred when searching. Some files may not appear in the search results.")
                      .arg(errorCount)
                      .arg(errorCount == 1 ? QStringLiteral("error") : QStringLiteral("errors")),
                  QStringLiteral("OK"));
    }
}

void SessionModel::filesDropped(const QStringList &paths)
{
    Logger::log(QStringLiteral("Dropped: ") + formatPathList(paths));
    // Disc images are discs put in: they join the disc list wherever they
    // are dropped, and start nothing but on the Search page.
    QStringList others;
    QStringList images;
    for (const QString &path : paths) {
        (DiscImages::isDiscImageFile(path) ? images : others).append(path);
    }
    for (const QString &image : std::as_const(images)) {
        DiscImages::insert(image);
    }
    if (others.isEmpty()) {
        if (m_mainPageType == MainPageTypeSearch && !images.isEmpty()) {
            discoverAudioCDs();
            Logger::log(QStringLiteral("Begin Uploading CD"));
            m_cdFlow->beginUploadCD(DiscImages::normalizedPath(images.first()));
        }
        return;
    }
    const QStringList &folders = others;
    switch (m_mainPageType) {
    case MainPageTypeList:
        // Added behind the current list; the end of the scan updates the page.
        appendFilesAtPath(folders);
        return;
    case MainPageTypeUpload:
        if (showAlert(QStringLiteral("Upload Files"), QStringLiteral("This will abort the current upload, proceed?"),
                      QStringLiteral("Upload"), QStringLiteral("Cancel")) != kAlertFirstButtonReturn) {
            return;
        }
        if (m_isUploading) {
            OnPauseUpload();
        }
        break;
    default:
        break;
    }
    m_searchFolderPath = folders;
    OnSearchFolder();
}

void SessionModel::removeFoundFile(const QString &path)
{
    const qsizetype row = m_files.remove(path, FileList::Found);
    if (row < 0) {
        return;
    }
    // The count label keeps the scan's number until the page is set up again.
    emit foundFileRemoved(row);
}

void SessionModel::setFileCountLabelText(const QString &text)
{
    m_fileCountLabelText = text;
    emit fileCountLabelTextChanged(text);
}

void SessionModel::setFileSearchInProgress(bool inProgress)
{
    m_fileSearchInProgress = inProgress;
    emit fileSearchInProgressChanged(inProgress);
}

void SessionModel::setBeginUploadEnabled(bool enabled)
{
    m_beginUploadEnabled = enabled;
    emit beginUploadEnabledChanged(enabled);
}

void SessionModel::discoverAudioCDs(bool force)
{
    if (m_mainPageType != MainPageTypeSearch) {
        return;
    }
    // Qt's timers keep firing under a modal alert; the watch waits for it to close.
    if (hasVisibleAlert()) {
        return;
    }
    const PLCVolumeType::DiscVolumeListing listing = PLCVolumeType::discVolumes();
    if (listing.error) {
        Logger::log(QStringLiteral("discoverAudioCDs: ") + listing.error->localizedDescription());
        return;
    }
    QStringList disks;
    for (const QString &volume : listing.volumes) {
        if (PLCVolumeType::isDiskAtPath(volume)) {
            disks.append(volume);
        }
    }
    // The discs themselves are compared, so a swap between two ticks counts.
    if (disks != m_foundDisks) {
        Logger::log(QStringLiteral("discoverAudioCDs: %1 CDs found").arg(disks.size()));
        m_foundDisks = disks;
        m_cdFlow->disksChanged(m_foundDisks);
        emit foundDisksChanged(m_foundDisks);
    } else if (force) {
        emit foundDisksChanged(m_foundDisks);
    }
}
