#include "library/downloadlibrarymodel.h"

#include "core/logger.h"
#include "library/downloadlibraryoperation.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocale>
#include <QSaveFile>

namespace {

const char *const kSupportAddress = "support@lyrabox.com";
const char *const kTrackCountKey = "downloaded_track_count";

QString formatBytes(qint64 bytes)
{
    return QLocale::c().formattedDataSize(bytes, 1, QLocale::DataSizeSIFormat);
}

} // namespace

DownloadLibraryModel::DownloadLibraryModel(const QUrl &URL, const QString &userId, const QString &userToken,
                                           DownloadLibraryPrompter *prompter, QObject *parent)
    : QObject(parent), m_URL(URL), m_userId(userId), m_userToken(userToken), m_prompter(prompter)
{
    // One extraction at a time, in the order the chunks arrive.
    m_unzipQueue.setMaxThreadCount(1);
    m_resumeTimer.setSingleShot(true);
    // A coarse timer may fire up to 5% early; the wait is a full five seconds.
    m_resumeTimer.setTimerType(Qt::PreciseTimer);
    m_resumeTimer.setInterval(kRetryDelayMilliseconds);
    connect(&m_resumeTimer, &QTimer::timeout, this, &DownloadLibraryModel::resumeDownloadQueue);
    m_view.actionText = QStringLiteral("Configuring Library Download...");
}

DownloadLibraryModel::~DownloadLibraryModel()
{
    m_resumeTimer.stop();
    for (DownloadLibraryOperation *operation : m_downloadQueue) {
        delete operation;
    }
    m_downloadQueue.clear();
    if (m_runningDownload) {
        m_runningDownload->disconnect(this);
        delete m_runningDownload; // aborts the transfer; its report is dropped
        m_runningDownload = nullptr;
    }
    m_unzipQueue.clear();
    for (const Extraction &extraction : std::as_const(m_extractions)) {
        extraction.operation->cancel();
    }
    m_unzipQueue.waitForDone();
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

void DownloadLibraryModel::start()
{
    Logger::log(QStringLiteral(" - Configuring library download"));
    auto *header = new DownloadLibraryOperation;
    header->setUserId(m_userId);
    header->setToken(m_userToken);
    header->setTotalTrackCount([this](qint64 count) { trackCountReceived(count); });
    addToDownloadQueue(header, false);
}

void DownloadLibraryModel::trackCountReceived(qint64 count)
{
    m_countReceived = true;
    m_totalTrackCount = count;
    Logger::log(QStringLiteral(" - Got count: %1").arg(count));
    const qint64 start = readResumeRecord(destinationPath()).value_or(0);

    if (count < 1 || start >= count) {
        Logger::log(QStringLiteral(" - Scheduled 0 chunks"));
        showDone();
        return;
    }
    const auto chunks = chunksFrom(start, count);
    for (const auto &[offset, length] : chunks) {
        addToDownloadQueue(makeChunkOperation(offset, length), false);
        ++m_downloadsScheduled;
    }
    Logger::log(QStringLiteral(" - Scheduled %1 chunks").arg(chunks.size()));
    m_view.actionText = QStringLiteral("Downloading Library...");
    m_view.progressDeterminate = true;
    m_view.progressValue = 0;
    changeView();
}

DownloadLibraryOperation *DownloadLibraryModel::makeChunkOperation(qint64 offset, qint64 length)
{
    auto *operation = new DownloadLibraryOperation;
    operation->setUserId(m_userId);
    operation->setToken(m_userToken);
    operation->setOffset(offset);
    operation->setLength(length);
    operation->setDownloadToURL(QUrl::fromLocalFile(destinationPath()));
    operation->setProgress(
        [this](DownloadLibraryOperation *op, qint64 bytes, qint64 speed) { chunkProgress(op, bytes, speed); });
    operation->setCompletion([this](DownloadLibraryOperation *op, const std::optional<QUrl> &file,
                                    const OptionalError &error) { chunkFinished(op, file, error); });
    return operation;
}

void DownloadLibraryModel::addToDownloadQueue(DownloadLibraryOperation *operation, bool highPriority)
{
    if (highPriority) {
        m_downloadQueue.push_front(operation);
    } else {
        m_downloadQueue.push_back(operation);
    }
    startNextDownload();
}

void DownloadLibraryModel::startNextDownload()
{
    if (m_runningDownload || m_downloadQueueSuspended || m_downloadQueue.empty()) {
        return;
    }
    m_runningDownload = m_downloadQueue.front();
    m_downloadQueue.pop_front();
    DownloadLibraryOperation *operation = m_runningDownload;
    connect(operation, &DownloadLibraryOperation::finishedChanged, this, [this, operation](bool finished) {
        if (finished) {
            downloadFinished(operation);
        }
    });
    if (!operation->isHeaderRequest()) {
        m_currentOffset = operation->offset();
        m_currentBytes = 0;
        m_currentEstimatedBytes = -1;
        m_currentSpeed = -1;
        updateDownloadProgress();
    }
    operation->start();
}

void DownloadLibraryModel::downloadFinished(DownloadLibraryOperation *operation)
{
    if (operation != m_runningDownload) {
        return;
    }
    m_runningDownload = nullptr;
    operation->disconnect(this);
    operation->deleteLater(); // it is still reporting
    if (operation->isHeaderRequest() && !m_countReceived) {
        const Error error = operation->error().value_or(
            Error::errorWithMessage(QStringLiteral("The library service did not tell how many tracks there are.")));
        Logger::log(QStringLiteral(" - Could not configure library download: ") + error.localizedDescription());
        Q_EMIT configurationFailed(error);
    }
    startNextDownload();
}

void DownloadLibraryModel::resumeDownloadQueue()
{
    m_downloadQueueSuspended = false;
    startNextDownload();
}

void DownloadLibraryModel::chunkProgress(DownloadLibraryOperation *operation, qint64 bytes, qint64 speed)
{
    m_currentBytes = bytes;
    m_currentSpeed = speed;
    m_currentEstimatedBytes = operation->estimatedBytes().value_or(-1);
    updateDownloadProgress();
}

void DownloadLibraryModel::chunkFinished(DownloadLibraryOperation *operation, const std::optional<QUrl> &file,
                                         const OptionalError &error)
{
    const qint64 offset = operation->offset();
    const qint64 length = operation->length();
    if (!error) {
        ++m_downloadsCompleted;
        m_tracksCompleted = offset + length;
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
    addToDownloadQueue(makeChunkOperation(offset, length), true);
    Logger::log(QStringLiteral(" - Retrying after 5 seconds"));
    m_downloadQueueSuspended = true;
    m_resumeTimer.start();

    m_view.errorInfoVisible = true;
    m_view.errorInfoText =
        QStringLiteral("An error occurred while downloading. Retrying library segment %1, attempt %2")
            .arg(offset / kChunkLength + 1)
            .arg(m_downloadErrorCount);
    changeView();
    Q_EMIT chunkFailed(offset, length, *error);
}

void DownloadLibraryModel::addToUnzipQueue(const QString &archivePath, qint64 offset, qint64 length)
{
    Extraction extraction;
    extraction.operation = std::make_shared<UnzipOperation>(archivePath, this);
    extraction.offset = offset;
    extraction.length = length;
    m_extractions.insert(archivePath, extraction);
    m_unzipQueue.start([operation = extraction.operation] { operation->main(); });
}

// The extractor's reports cross to the main thread, where all state changes.
void DownloadLibraryModel::onZKArchiveDidBeginUnzip(const QString &)
{
    QMetaObject::invokeMethod(
        this, [this] { didBeginUnzip(); }, Qt::QueuedConnection);
}

void DownloadLibraryModel::onZKArchiveDidUpdateTotalSize(const QString &, qint64 totalSize)
{
    QMetaObject::invokeMethod(
        this, [this, totalSize] { m_unzipTotalSize = totalSize; }, Qt::QueuedConnection);
}

void DownloadLibraryModel::onZKArchiveDidUpdateBytesWritten(const QString &, qint64 bytesWritten)
{
    QMetaObject::invokeMethod(
        this,
        [this, bytesWritten] {
            m_unzipTotalBytesWritten += bytesWritten;
            if (m_extractingShown && m_unzipTotalSize > 0) {
                m_view.progressValue = std::min(1.0, double(m_unzipTotalBytesWritten) / double(m_unzipTotalSize));
                changeView();
            }
        },
        Qt::QueuedConnection);
}

void DownloadLibraryModel::onZKArchiveDidEndUnzip(const QString &archivePath)
{
    QMetaObject::invokeMethod(
        this, [this, archivePath] { didEndUnzip(archivePath); }, Qt::QueuedConnection);
}

void DownloadLibraryModel::onZKArchiveDidFail(const QString &archivePath)
{
    QMetaObject::invokeMethod(
        this, [this, archivePath] { didFailUnzip(archivePath); }, Qt::QueuedConnection);
}

void DownloadLibraryModel::didBeginUnzip()
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

void DownloadLibraryModel::didEndUnzip(const QString &archivePath)
{
    const Extraction extraction = m_extractions.take(archivePath);
    ++m_unzipsCompleted;
    if (everythingExtracted()) {
        m_view.actionText = QStringLiteral("Finishing up...");
        m_view.progressDeterminate = false;
        m_view.progressValue = 1.0;
        m_view.cancelEnabled = false;
        changeView();
    }
    QFile::remove(archivePath);
    if (everythingExtracted()) {
        showDone();
    }
    // The end of the chunk just extracted: a run stopped before a downloaded
    // chunk was extracted must fetch that chunk again.
    writeResumeRecord(extraction.offset + extraction.length);
    Q_EMIT chunkExtracted(extraction.offset, extraction.length);
}

void DownloadLibraryModel::didFailUnzip(const QString &archivePath)
{
    m_extractions.remove(archivePath);
    Logger::log(QStringLiteral("onZKArchiveDidFail: ") + (archivePath.isNull() ? QStringLiteral("nil") : archivePath));
    ++m_unzipsCompleted;
    Q_EMIT extractionFailed(archivePath);
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
    if (m_extractingShown || m_isComplete || m_downloadsScheduled == 0) {
        return;
    }
    double fraction = 0;
    QString text = QStringLiteral("Segment %1 of %2")
                       .arg(std::min(m_downloadsCompleted + 1, m_downloadsScheduled))
                       .arg(m_downloadsScheduled);
    if (m_runningDownload && !m_runningDownload->isHeaderRequest()) {
        if (m_currentEstimatedBytes > 0) {
            fraction = std::min(1.0, double(m_currentBytes) / double(m_currentEstimatedBytes));
            text += QStringLiteral(": %1 of %2").arg(formatBytes(m_currentBytes), formatBytes(m_currentEstimatedBytes));
        } else {
            text += QStringLiteral(": %1").arg(formatBytes(m_currentBytes));
        }
        if (m_currentSpeed >= 0) {
            text += QStringLiteral(" at %1/s").arg(formatBytes(m_currentSpeed));
        }
    } else if (m_downloadsCompleted == m_downloadsScheduled) {
        text = QStringLiteral("All %1 segments downloaded").arg(m_downloadsScheduled);
    }
    m_view.progressText = text;
    m_view.progressValue = (m_downloadsCompleted + fraction) / m_downloadsScheduled;
    changeView();
}

void DownloadLibraryModel::OnCancel()
{
    if (!m_isComplete) {
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
    const QString description = m_downloadError ? m_downloadError->localizedDescription() : QString();
    m_prompter->showAlert(QStringLiteral("Download Error"),
                          QStringLiteral("The following error occurred while downloading: \n\n") + description +
                              QStringLiteral("\n\nThe download is attempting to recover automatically. If this error "
                                             "persists, contact ") +
                              QLatin1String(kSupportAddress),
                          {QStringLiteral("OK")}, DownloadLibraryPrompter::Appearance::Default);
}

void DownloadLibraryModel::changeView()
{
    Q_EMIT viewStateChanged();
}
