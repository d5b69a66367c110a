#include "library/downloadlibrarymodel.h"

#include "core/appinfo.h"
#include "core/logger.h"
#include "library/downloadlibraryoperation.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMutexLocker>
#include <QSaveFile>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const char *const kTrackCountKey = "downloaded_track_count";

} // namespace

// The latest figures of one chunk, written on the download queue's thread.
// Only one report is queued at a time, so a fast transfer cannot flood the
// main thread's event queue.
struct DownloadLibraryModel::ChunkProgress
{
    std::atomic<qint64> bytes{0};
    std::atomic<qint64> speed{-1};
    std::atomic<qint64> estimatedBytes{-1};
    std::atomic<bool> reportQueued{false};
};

DownloadLibraryModel::DownloadLibraryModel(const QUrl &URL, const QString &userId, const QString &userToken,
                                           DownloadLibraryPrompter *prompter, QObject *parent)
    : QObject(parent), m_URL(URL), m_userId(userId), m_userToken(userToken), m_prompter(prompter)
{
    m_downloadQueue.setName(QStringLiteral("Library download"));
    m_downloadQueue.setMaxConcurrentOperationCount(1);
    m_unzipQueue.setName(QStringLiteral("Library extraction"));
    m_unzipQueue.setMaxConcurrentOperationCount(1);
    m_resumeTimer.setSingleShot(true);
    // A coarse timer may fire up to 5% early; the wait is a full five seconds.
    m_resumeTimer.setTimerType(Qt::PreciseTimer);
    m_resumeTimer.setInterval(kRetryDelayMilliseconds);
    connect(&m_resumeTimer, &QTimer::timeout, this, [this] { m_downloadQueue.setSuspended(false); });
    m_meterTick.setInterval(1000);
    connect(&m_meterTick, &QTimer::timeout, this, &DownloadLibraryModel::updateDownloadProgress);
    m_view.actionText = QStringLiteral("Configuring Library Download...");
}

DownloadLibraryModel::~DownloadLibraryModel()
{
    {
        QMutexLocker locker(&m_retryLock);
        m_stopping = true;
    }
    m_resumeTimer.stop();
    // Both queues end while this object is whole; what they queued for the
    // main thread is dropped with it.
    m_downloadQueue.cancelAllOperations();
    m_downloadQueue.setSuspended(false); // cancelled requests still have to start to end
    m_unzipQueue.cancelAllOperations();
    m_downloadQueue.waitUntilAllOperationsAreFinished();
    m_unzipQueue.waitUntilAllOperationsAreFinished();
}

QString DownloadLibraryModel::destinationPath() const
{
    return QDir(m_URL.toLocalFile()).filePath(libraryFolderName());
}

QList<std::pair<qint64, qint64>> DownloadLibraryModel::chunksFrom(qint64 start, qint64 count)
{
    QList<std::pair<qint64, qint64>> chunks;
    for (qint64 offset = start; offset < count; offset += kChunkLength) {
        chunks.append({offset, std::min(kChunkLength, count - offset)});
    }
    return chunks;
}

std::optional<qint64> DownloadLibraryModel::readResumeRecord(const QString &destination)
{
    QFile file(QDir(destination).filePath(resumeRecordName()));
    if (!file.open(QIODevice::ReadOnly)) {
        return std::nullopt;
    }
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll());
    const QJsonValue value = document.object().value(QLatin1String(kTrackCountKey));
    if (!document.isObject() || !value.isDouble()) {
        return std::nullopt;
    }
    return value.toInteger();
}

OptionalError DownloadLibraryModel::destinationProblem(const QString &destination)
{
    const auto cannotWrite = [](const QString &folder, int code) {
        return Error::withDomain(
            QStringLiteral("NSPOSIXErrorDomain"), code,
            QStringLiteral("Cannot write to %1: %2")
                .arg(QDir::toNativeSeparators(folder), QString::fromLocal8Bit(std::strerror(code))));
    };
    const QByteArray path = QFile::encodeName(destination);
    struct stat info;
    if (::stat(path.constData(), &info) != 0) {
        // What fails is the chosen folder, which cannot take a new one.
        if (::mkdir(path.constData(), 0777) != 0 && errno != EEXIST) {
            return cannotWrite(QFileInfo(destination).path(), errno);
        }
    } else if (!S_ISDIR(info.st_mode)) {
        return cannotWrite(destination, ENOTDIR);
    }
    // Only a file made there tells: root passes over the permission bits but
    // not over a read-only mount. The name is a leftover's, should it stay.
    QByteArray probe = path + "/.temp-probe-XXXXXX";
    const int fd = ::mkstemp(probe.data());
    if (fd < 0) {
        return cannotWrite(destination, errno);
    }
    ::close(fd);
    ::unlink(probe.constData());
    return std::nullopt;
}

// Partial downloads, archives and half-written tracks of an earlier run: the
// record never counts what they held, so they are fetched again.
void DownloadLibraryModel::removeLeftovers(const QString &destination)
{
    if (!QFileInfo(destination).isDir()) {
        return;
    }
    int removed = 0;
    QDirIterator it(destination, {QStringLiteral(".temp-*")}, QDir::Files | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        if (QFile::remove(it.next())) {
            ++removed;
        }
    }
    if (removed > 0) {
        Logger::log(QStringLiteral(" - Removed %1 leftover temporary file(s)").arg(removed));
    }
}

void DownloadLibraryModel::start()
{
    Logger::log(QStringLiteral(" - Configuring library download"));
    if (const OptionalError problem = destinationProblem(destinationPath())) {
        // Reported from the event loop, as every other end of a run.
        QMetaObject::invokeMethod(
            this, [this, error = *problem] { stopForDestination(error); }, Qt::QueuedConnection);
        return;
    }
    // On the download queue, ahead of every request: nothing is written yet.
    m_downloadQueue.addOperation([destination = destinationPath()] { removeLeftovers(destination); });
    auto header = std::make_shared<DownloadLibraryOperation>();
    header->setUserId(m_userId);
    header->setToken(m_userToken);
    header->setHeaderRequest(true);
    addToDownloadQueue(std::move(header), Operation::QueuePriority::Normal);
}

void DownloadLibraryModel::headerEnded(std::optional<qint64> count, const OptionalError &error)
{
    if (count) {
        trackCountReceived(*count);
        return;
    }
    const Error failure = error.value_or(
        Error::errorWithMessage(QStringLiteral("The library service did not tell how many tracks there are.")));
    Logger::log(QStringLiteral(" - Could not configure library download: ") + failure.localizedDescription());
    m_failed = true;
    m_downloadError = failure;
    m_view.actionText = QStringLiteral("Could not start the library download");
    m_view.errorInfoVisible = true;
    m_view.errorInfoText = failure.localizedDescription();
    m_view.cancelTitle = QStringLiteral("Close");
    m_view.cancelIsDefault = true;
    changeView();
    Q_EMIT configurationFailed(failure);
}

void DownloadLibraryModel::trackCountReceived(qint64 count)
{
    m_totalTrackCount = count;
    Logger::log(QStringLiteral(" - Got count: %1").arg(count));
    const qint64 start = readResumeRecord(destinationPath()).value_or(0);
    m_recorded = start;

    if (count < 1 || start >= count) {
        Logger::log(QStringLiteral(" - Scheduled 0 chunks"));
        showDone();
        return;
    }
    const auto chunks = chunksFrom(start, count);
    for (const auto &[offset, length] : chunks) {
        m_chunks.insert(offset, {length, ChunkState::Waiting});
        addToDownloadQueue(makeChunkOperation(offset, length), Operation::QueuePriority::Normal);
        ++m_downloadsScheduled;
    }
    Logger::log(QStringLiteral(" - Scheduled %1 chunks").arg(chunks.size()));
    m_runTracks = count - start;
    m_clock.start();
    m_lastAnswer.start();
    m_meter.restart(0);
    m_meterTick.start();
    m_view.actionText = QStringLiteral("Downloading Library...");
    m_view.progressDeterminate = true;
    m_view.progressValue = 0;
    changeView();
}

// Called on the main thread and, for a retry, on the download queue's: it
// reads only what never changes after construction.
std::shared_ptr<DownloadLibraryOperation> DownloadLibraryModel::makeChunkOperation(qint64 offset, qint64 length)
{
    auto operation = std::make_shared<DownloadLibraryOperation>();
    operation->setUserId(m_userId);
    operation->setToken(m_userToken);
    operation->setOffset(offset);
    operation->setLength(length);
    operation->setDownloadToURL(QUrl::fromLocalFile(destinationPath()));
    auto progress = std::make_shared<ChunkProgress>();
    // Direct, on the download queue's thread: every write is seen there, and
    // only one report at a time crosses to the main thread.
    DownloadLibraryOperation *raw = operation.get();
    connect(
        raw, &DownloadLibraryOperation::progressChanged, this,
        [this, raw, progress](qint64 bytes, qint64 speed) {
            progress->bytes = bytes;
            progress->speed = speed;
            progress->estimatedBytes = raw->estimatedBytes().value_or(-1);
            if (!progress->reportQueued.exchange(true)) {
                QMetaObject::invokeMethod(
                    this, [this, progress] { chunkProgress(*progress); }, Qt::QueuedConnection);
            }
        },
        Qt::DirectConnection);
    connect(operation.get(), &Operation::executingChanged, this, [this, offset](bool executing) {
        if (executing) {
            chunkStarted(offset);
        }
    });
    return operation;
}

void DownloadLibraryModel::addToDownloadQueue(std::shared_ptr<DownloadLibraryOperation> operation,
                                              Operation::QueuePriority priority)
{
    operation->setQueuePriority(priority);
    DownloadLibraryOperation *raw = operation.get();
    operation->setCompletionHandler([this, raw] { downloadEnded(raw); });
    m_downloadQueue.addOperation(std::move(operation));
}

void DownloadLibraryModel::downloadEnded(DownloadLibraryOperation *operation)
{
    if (!operation->completionHandled()) {
        return; // cancelled before it started
    }
    const OptionalError error = operation->error();
    if (operation->isHeaderRequest()) {
        QMetaObject::invokeMethod(
            this, [this, count = operation->trackCount(), error] { headerEnded(count, error); }, Qt::QueuedConnection);
        return;
    }
    const qint64 offset = operation->offset();
    const qint64 length = operation->length();
    // A write that failed for want of space may work once an extraction
    // frees some; a folder that takes no file at all never will.
    const OptionalError unwritable =
        error && operation->writeFailed() ? destinationProblem(destinationPath()) : std::nullopt;
    if (error && error->code() != -999 && !unwritable) {
        // Here, before the queue moves on: the retry jumps the chunks that
        // wait, and nothing starts until the pause is over.
        QMutexLocker locker(&m_retryLock);
        if (!m_stopping) {
            m_downloadQueue.setSuspended(true);
            addToDownloadQueue(makeChunkOperation(offset, length), Operation::QueuePriority::High);
        }
    }
    QMetaObject::invokeMethod(
        this,
        [this, offset, length, file = operation->downloadedFileURL(), error, unwritable] {
            chunkFinished(offset, length, file, error, unwritable);
        },
        Qt::QueuedConnection);
}

void DownloadLibraryModel::chunkStarted(qint64 offset)
{
    m_chunkRunning = true;
    m_currentOffset = offset;
    m_currentBytes = 0;
    m_currentEstimatedBytes = -1;
    m_currentSpeed = -1;
    updateDownloadProgress();
}

void DownloadLibraryModel::chunkProgress(ChunkProgress &progress)
{
    // Allow the next report to be queued before reading, so no write goes unreported.
    progress.reportQueued = false;
    if (progress.bytes > m_currentBytes) {
        m_lastAnswer.start();
    }
    m_currentBytes = progress.bytes;
    m_currentSpeed = progress.speed;
    m_currentEstimatedBytes = progress.estimatedBytes;
    updateDownloadProgress();
}

void DownloadLibraryModel::chunkFinished(qint64 offset, qint64 length, const std::optional<QUrl> &file,
                                         const OptionalError &error, const OptionalError &unwritable)
{
    m_chunkRunning = false;
    if (m_failed) {
        return;
    }
    if (unwritable) {
        stopForDestination(*unwritable);
        return;
    }
    // Transport failures have negative codes; anything else came from the service.
    if (!error || error->code() >= 0) {
        m_lastAnswer.start();
    }
    if (!error) {
        ++m_downloadsCompleted;
        // The segment's last progress report was queued before this.
        m_finishedBytes += m_currentBytes;
        m_finishedTracks += length;
        const QString archive = file ? file->toLocalFile() : QString();
        addToUnzipQueue(archive, offset, length);
        updateDownloadProgress();
        Q_EMIT chunkDownloaded(offset, length, archive);
        return;
    }
    if (error->code() == -999) {
        return;
    }
    m_downloadError = error;
    ++m_downloadErrorCount;
    // The retry is already queued and the queue paused.
    Logger::log(QStringLiteral(" - Retrying after 5 seconds"));
    m_resumeTimer.start();

    m_view.errorInfoVisible = true;
    m_view.errorInfoText =
        QStringLiteral("An error occurred while downloading. Retrying library segment %1, attempt %2")
            .arg(offset / kChunkLength + 1)
            .arg(m_downloadErrorCount);
    changeView();
    Q_EMIT chunkFailed(offset, length, *error);
}

void DownloadLibraryModel::stopForDestination(const Error &error)
{
    if (m_failed) {
        return;
    }
    Logger::log(QStringLiteral(" - Library download stopped: ") + error.localizedDescription());
    m_failed = true;
    m_downloadError = error;
    // Nothing more is fetched or extracted; the record keeps what is in place.
    {
        QMutexLocker locker(&m_retryLock);
        m_stopping = true;
    }
    m_resumeTimer.stop();
    m_meterTick.stop();
    m_downloadQueue.cancelAllOperations();
    m_downloadQueue.setSuspended(false); // cancelled requests still have to start to end
    m_unzipQueue.cancelAllOperations();
    m_view.actionText = QStringLiteral("Download Stopped");
    m_view.progressDeterminate = false;
    m_view.progressTextHidden = true;
    m_view.errorInfoVisible = true;
    m_view.errorInfoText = error.localizedDescription();
    m_view.cancelTitle = QStringLiteral("Close");
    m_view.cancelIsDefault = true;
    m_view.cancelEnabled = true;
    changeView();
    Q_EMIT destinationFailed(error);
}

void DownloadLibraryModel::addToUnzipQueue(const QString &archivePath, qint64 offset, qint64 length)
{
    m_extractions.insert(archivePath, Extraction{offset, length});
    auto operation = std::make_shared<UnzipOperation>(archivePath);
    // Queued: the extraction runs on the queue's thread, and every state
    // change happens here on the main thread, in the order reported.
    // Reports still queued when the model goes are dropped with it.
    UnzipOperation *unzip = operation.get();
    connect(unzip, &UnzipOperation::began, this, &DownloadLibraryModel::unzipBegan, Qt::QueuedConnection);
    connect(unzip, &UnzipOperation::totalSizeKnown, this, &DownloadLibraryModel::unzipTotalSizeKnown,
            Qt::QueuedConnection);
    connect(unzip, &UnzipOperation::bytesWritten, this, &DownloadLibraryModel::unzipBytesWritten, Qt::QueuedConnection);
    connect(unzip, &UnzipOperation::ended, this, &DownloadLibraryModel::unzipEnded, Qt::QueuedConnection);
    connect(unzip, &UnzipOperation::failed, this, &DownloadLibraryModel::unzipFailed, Qt::QueuedConnection);
    m_unzipQueue.addOperation(std::move(operation));
}

void DownloadLibraryModel::unzipTotalSizeKnown(const QString &, qint64 totalSize)
{
    m_unzipTotalSize = totalSize;
}

void DownloadLibraryModel::unzipBytesWritten(const QString &, qint64 bytesWritten)
{
    m_unzipTotalBytesWritten += bytesWritten;
    if (m_extractingShown && m_unzipTotalSize > 0) {
        m_view.progressValue = std::min(1.0, double(m_unzipTotalBytesWritten) / double(m_unzipTotalSize));
        changeView();
    }
}

void DownloadLibraryModel::unzipBegan(const QString &)
{
    // The bar counts the bytes of the running extraction only.
    m_unzipTotalBytesWritten = 0;
    if (m_downloadsCompleted != m_downloadsScheduled) {
        return;
    }
    m_extractingShown = true;
    m_view.progressDeterminate = true;
    m_view.progressTextHidden = true;
    m_view.actionText = QStringLiteral("Extracting Library...");
    m_view.progressValue = 0;
    changeView();
}

bool DownloadLibraryModel::everythingExtracted() const
{
    return m_downloadsCompleted == m_downloadsScheduled && m_unzipsCompleted == m_downloadsScheduled;
}

void DownloadLibraryModel::unzipEnded(const QString &archivePath)
{
    const Extraction extraction = m_extractions.take(archivePath);
    ++m_unzipsCompleted;
    QFile::remove(archivePath);
    m_chunks[extraction.offset].second = ChunkState::Extracted;
    // Only up to the first chunk not extracted: a run stopped before then, or
    // one whose earlier chunk failed, must fetch that chunk again.
    qint64 end = m_recorded;
    for (auto it = m_chunks.constFind(end);
         it != m_chunks.constEnd() && it->first > 0 && it->second == ChunkState::Extracted;
         it = m_chunks.constFind(end)) {
        end = it.key() + it->first;
    }
    if (end > m_recorded) {
        m_recorded = end;
        writeResumeRecord(end);
    }
    Q_EMIT chunkExtracted(extraction.offset, extraction.length);
    finishIfAllHandled();
}

void DownloadLibraryModel::unzipFailed(const QString &archivePath, const Error &error)
{
    const Extraction extraction = m_extractions.take(archivePath);
    Logger::log(QStringLiteral("onZKArchiveDidFail: ") + (archivePath.isNull() ? QStringLiteral("nil") : archivePath));
    ++m_unzipsCompleted;
    m_chunks[extraction.offset].second = ChunkState::Failed;
    // The next run fetches it again; until then it only takes space.
    QFile::remove(archivePath);
    if (m_failed) {
        return; // the run has already ended with its reason
    }
    if (!m_extractionError) {
        m_extractionError = error;
    }
    m_view.errorInfoVisible = true;
    m_view.errorInfoText = error.localizedDescription();
    changeView();
    Q_EMIT extractionFailed(archivePath, error);
    finishIfAllHandled();
}

void DownloadLibraryModel::finishIfAllHandled()
{
    if (!everythingExtracted() || m_isComplete || m_incomplete || m_failed) {
        return;
    }
    if (!m_extractionError) {
        showDone();
        return;
    }
    m_incomplete = true;
    Logger::log(QStringLiteral(" - Library download incomplete: ") + m_extractionError->localizedDescription());
    m_view.actionText = QStringLiteral("Download Incomplete");
    m_view.progressDeterminate = false;
    m_view.progressTextHidden = true;
    m_view.cancelTitle = QStringLiteral("Close");
    m_view.cancelIsDefault = true;
    m_view.cancelEnabled = true;
    changeView();
    Q_EMIT incomplete(*m_extractionError);
}

void DownloadLibraryModel::writeResumeRecord(qint64 count)
{
    QJsonObject record;
    record.insert(QLatin1String(kTrackCountKey), count);
    QSaveFile file(QDir(destinationPath()).filePath(resumeRecordName()));
    if (file.open(QIODevice::WriteOnly)) {
        file.write(QJsonDocument(record).toJson(QJsonDocument::Compact));
        file.commit();
    }
}

void DownloadLibraryModel::showDone()
{
    m_isComplete = true;
    m_view.actionText = QStringLiteral("Done!");
    m_view.cancelTitle = QStringLiteral("Open Folder");
    m_view.cancelIsDefault = true;
    m_view.cancelEnabled = true;
    changeView();
    Q_EMIT completed();
}

void DownloadLibraryModel::updateDownloadProgress()
{
    if (m_extractingShown || m_isComplete || m_incomplete || m_failed || m_downloadsScheduled == 0) {
        m_meterTick.stop();
        return;
    }
    measureTransfer();
    QString text = QStringLiteral("Segment %1 of %2")
                       .arg(std::min(m_downloadsCompleted + 1, m_downloadsScheduled))
                       .arg(m_downloadsScheduled);
    const qint64 silentMinutes = m_lastAnswer.isValid() && m_downloadsCompleted < m_downloadsScheduled
                                     ? m_lastAnswer.elapsed() / kSilenceNoticeMilliseconds
                                     : 0;
    bool tell = false;
    if (silentMinutes > 0) {
        // Retries go on without a bound; the user learns why nothing moves.
        text = QStringLiteral("The service has not answered for %1 min; still trying").arg(silentMinutes);
        tell = silentMinutes != m_silentMinutesTold;
    } else if (m_downloadsCompleted == m_downloadsScheduled) {
        text = QStringLiteral("All %1 segments downloaded").arg(m_downloadsScheduled);
    } else if (m_meter.totalBytes() > 0) {
        text += QStringLiteral(": ") + m_meter.progressText(m_totalEstimated);
    }
    m_silentMinutesTold = silentMinutes;
    if (tell) {
        Logger::log(QStringLiteral(" - ") + text);
        Q_EMIT serviceSilent(text);
    }
    m_view.progressText = text;
    m_view.progressValue =
        m_meter.totalBytes() > 0 ? std::min(1.0, double(m_meter.doneBytes()) / double(m_meter.totalBytes())) : 0.0;
    changeView();
}

// Bytes done are the finished segments' and the running one's so far (a
// failed segment's go back to 0). The total adds the running segment's
// announced size and weighs the tracks still to come at the bytes per track
// seen so far.
void DownloadLibraryModel::measureTransfer()
{
    qint64 knownBytes = m_finishedBytes;
    qint64 knownTracks = m_finishedTracks;
    const bool running = m_chunkRunning && m_currentEstimatedBytes > 0;
    if (running) {
        knownBytes += std::max(m_currentEstimatedBytes, m_currentBytes);
        knownTracks += m_chunks.value(m_currentOffset).first;
    }
    const qint64 tracksToCome = std::max<qint64>(0, m_runTracks - knownTracks);
    const qint64 total =
        knownTracks > 0 ? knownBytes + qint64(double(knownBytes) / double(knownTracks) * double(tracksToCome)) : 0;
    m_totalEstimated = tracksToCome > 0;
    const qint64 done = m_finishedBytes + (m_chunkRunning ? m_currentBytes : 0);
    m_meter.update(done, total, double(m_clock.elapsed()) / 1000.0);
}

void DownloadLibraryModel::OnCancel()
{
    if (m_incomplete || m_failed) {
        // Nothing runs any more.
    } else if (!m_isComplete) {
        const int answer = m_prompter
                               ? m_prompter->showAlert(QStringLiteral("Abort Download"),
                                                       QStringLiteral("Are you sure you want to abort the download?"),
                                                       {QStringLiteral("Yes"), QStringLiteral("No")},
                                                       DownloadLibraryPrompter::Appearance::Dark)
                               : 1001;
        if (answer != 1000) {
            return;
        }
    } else {
        Q_EMIT openFolderRequested(m_URL);
    }
    Q_EMIT closeRequested();
}

void DownloadLibraryModel::OnErrorInfo()
{
    if (!m_prompter) {
        return;
    }
    if (m_incomplete || m_failed) {
        const OptionalError error = m_incomplete ? m_extractionError : m_downloadError;
        m_prompter->showAlert(QStringLiteral("Download Error"), error ? error->localizedDescription() : QString(),
                              {QStringLiteral("OK")}, DownloadLibraryPrompter::Appearance::Default);
        return;
    }
    const QString description = m_downloadError ? m_downloadError->localizedDescription() : QString();
    m_prompter->showAlert(QStringLiteral("Download Error"),
                          QStringLiteral("The following error occurred while downloading: \n\n") + description +
                              QStringLiteral("\n\nThe download is attempting to recover automatically. If this error "
                                             "persists, contact ") +
                              AppInfo::supportAddress(),
                          {QStringLiteral("OK")}, DownloadLibraryPrompter::Appearance::Default);
}

void DownloadLibraryModel::changeView()
{
    Q_EMIT viewStateChanged();
}
