#include "library/downloadlibraryoperation.h"

#include "core/logger.h"
#include "library/downloadspeedmeter.h"
#include "core/appinfo.h"
#include "core/formatting.h"
#include "protocol/clientfields.h"
#include "protocol/endpoints.h"
#include "protocol/httpstatuscodemap.h"
#include "protocol/transporterror.h"
#include "protocol/urlencoding.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QTemporaryFile>
#include <QThread>

#include <atomic>

namespace {

constexpr int kTimeoutMilliseconds = 60 * 1000;
// Bounds what Qt buffers ahead of us, so memory stays flat on any segment size.
constexpr qint64 kReadBufferSize = 1024 * 1024;
constexpr qint64 kCopyBufferSize = 256 * 1024;
const QByteArray kEndMarker = QByteArrayLiteral("EOF\n");

QString incompleteDownloadMessage()
{
    return QStringLiteral("Incomplete download.");
}

} // namespace

// The latest progress figures, written by the transfer thread and read on the
// main thread. Only one report is queued at a time, so a fast transfer cannot
// flood the main thread's event queue.
struct DownloadProgressState
{
    std::atomic<qint64> totalBytesWritten{0};
    std::atomic<qint64> bytesPerSecond{-1};
    std::atomic<bool> reportQueued{false};
};

// Lives on the operation's thread and owns the network manager, the reply and
// the file being written.
class DownloadLibraryWorker : public QObject
{
public:
    struct Request
    {
        QUrl url;
        bool header = false;
        qint64 offset = 0;
        qint64 length = 0;
        QString downloadTo;
    };

    DownloadLibraryWorker(DownloadLibraryOperation *operation, Request request,
                          std::shared_ptr<DownloadProgressState> progress)
        : m_operation(operation), m_request(std::move(request)), m_progress(std::move(progress))
    {}

    void run();
    // Runs on the worker's thread as it ends: the network objects belong to it.
    void release();
    // Ends the transfer; it completes with the cancellation error.
    void cancel();

private:
    void responseReceived();
    void writeAvailableData();
    void taskCompleted();
    bool openPartialFile();
    bool bodyCutShort() const;
    OptionalError moveIntoPlace(std::optional<QUrl> *downloadedFile);
    void finish(const std::optional<QUrl> &file, const OptionalError &error, int status, bool transportOK);
    QString chunkPath() const;

    DownloadLibraryOperation *m_operation;
    Request m_request;
    std::shared_ptr<DownloadProgressState> m_progress;

    QNetworkAccessManager *m_manager = nullptr;
    QNetworkReply *m_reply = nullptr;
    bool m_responseSeen = false;
    bool m_completionHandled = false;
    bool m_cancelRequested = false;
    std::optional<qint64> m_estimatedBytes;

    std::unique_ptr<QFile> m_file;
    OptionalError m_writeError;
    qint64 m_totalBytesWritten = 0;
    DownloadSpeedMeter m_speed;
    QElapsedTimer m_clock;
    QByteArray m_buffer;
};

void DownloadLibraryWorker::run()
{
    m_manager = new QNetworkAccessManager(this);
    m_clock.start();

    QNetworkRequest request(m_request.url);
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    request.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
    request.setTransferTimeout(kTimeoutMilliseconds);
    m_reply = m_manager->get(request);
    m_reply->setReadBufferSize(kReadBufferSize);
    connect(m_reply, &QNetworkReply::metaDataChanged, this, &DownloadLibraryWorker::responseReceived);
    connect(m_reply, &QNetworkReply::readyRead, this, &DownloadLibraryWorker::writeAvailableData);
    connect(m_reply, &QNetworkReply::finished, this, &DownloadLibraryWorker::taskCompleted);
}

void DownloadLibraryWorker::release()
{
    m_completionHandled = true;
    if (m_reply) {
        m_reply->disconnect(this);
        m_reply->abort();
    }
    delete m_manager; // and its replies
    m_manager = nullptr;
    m_reply = nullptr;
    m_file.reset();
}

void DownloadLibraryWorker::cancel()
{
    if (m_reply && !m_completionHandled) {
        m_cancelRequested = true;
        m_reply->abort();
    }
}

void DownloadLibraryWorker::responseReceived()
{
    const QVariant status = m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (m_responseSeen || !status.isValid()) {
        return;
    }
    m_responseSeen = true;
    if (m_reply->hasRawHeader("Estimated-Content-Length")) {
        m_estimatedBytes =
            DownloadLibraryOperation::parseEstimatedLength(m_reply->rawHeader("Estimated-Content-Length"));
    }

    if (m_request.header) {
        const qint64 count = DownloadLibraryOperation::parseTrackCount(m_reply->rawHeader("Total-Tracks"));
        // The body is not wanted.
        m_completionHandled = true;
        m_reply->disconnect(this);
        m_reply->abort();
        const auto estimated = m_estimatedBytes;
        QMetaObject::invokeMethod(
            m_operation,
            [operation = m_operation, count, estimated] { operation->didReceiveTrackCount(count, estimated); },
            Qt::QueuedConnection);
        thread()->quit();
        return;
    }
    const auto estimated = m_estimatedBytes;
    QMetaObject::invokeMethod(
        m_operation, [operation = m_operation, estimated] { operation->didReceiveResponse(estimated); },
        Qt::QueuedConnection);
    openPartialFile();
}

// The body goes to a partial file beside the chunk's final place, so moving it
// there is a rename. Only when that folder cannot hold it (a file is in the
// way) does it go to the temporary folder, and the move then reports why.
bool DownloadLibraryWorker::openPartialFile()
{
    if (m_file) {
        return true;
    }
    const QFileInfo folder(m_request.downloadTo);
    if (!folder.exists()) {
        QDir().mkpath(m_request.downloadTo);
    }
    if (QFileInfo(m_request.downloadTo).isDir()) {
        auto file = std::make_unique<QFile>(chunkPath() + QStringLiteral(".part"));
        if (file->open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Unbuffered)) {
            m_file = std::move(file);
            return true;
        }
    }
    auto temporary = std::make_unique<QTemporaryFile>(QDir::tempPath() + QStringLiteral("/pelicane-library-XXXXXX"));
    temporary->setAutoRemove(false);
    if (temporary->open()) {
        m_file = std::move(temporary);
        return true;
    }
    m_writeError = Error::errorWithMessage(temporary->errorString());
    return false;
}

void DownloadLibraryWorker::writeAvailableData()
{
    if (!m_reply || m_completionHandled) {
        return;
    }
    if (m_buffer.isEmpty()) {
        m_buffer.resize(kCopyBufferSize);
    }
    while (m_reply->bytesAvailable() > 0) {
        const qint64 read = m_reply->read(m_buffer.data(), m_buffer.size());
        if (read <= 0) {
            break;
        }
        if (m_writeError) {
            continue; // draining what is left after a failure
        }
        if (!openPartialFile() || m_file->write(m_buffer.constData(), read) != read) {
            if (!m_writeError) {
                m_writeError = Error::errorWithMessage(m_file->errorString());
            }
            m_reply->abort();
            return;
        }
        m_totalBytesWritten += read;
        const qint64 speed = m_speed.addWrite(read, m_totalBytesWritten, m_clock.elapsed() / 1000.0);
        m_progress->totalBytesWritten = m_totalBytesWritten;
        m_progress->bytesPerSecond = speed;
        if (!m_progress->reportQueued.exchange(true)) {
            QMetaObject::invokeMethod(
                m_operation, [operation = m_operation] { operation->didWriteData(); }, Qt::QueuedConnection);
        }
    }
}

QString DownloadLibraryWorker::chunkPath() const
{
    return QDir(m_request.downloadTo)
        .filePath(DownloadLibraryOperation::chunkFileName(m_request.offset, m_request.length));
}

OptionalError DownloadLibraryWorker::moveIntoPlace(std::optional<QUrl> *downloadedFile)
{
    const QString folder = m_request.downloadTo;
    if (!QFileInfo::exists(folder)) {
        QDir().mkpath(folder);
    }
    const QFileInfo info(folder);
    if (info.exists() && !info.isDir()) {
        return Error::errorWithMessage(QStringLiteral("Conflicting file exists at download path: ") + folder);
    }
    const QString target = chunkPath();
    QFile::remove(target);
    if (!m_file->rename(target)) {
        return Error::errorWithMessage(m_file->errorString());
    }
    *downloadedFile = QUrl::fromLocalFile(target);
    return std::nullopt;
}

bool DownloadLibraryWorker::bodyCutShort() const
{
    bool ok = false;
    const qint64 announced = m_reply->rawHeader("Content-Length").toLongLong(&ok);
    // With a content coding the announced length is not what reaches us.
    if (!ok || m_reply->hasRawHeader("Content-Encoding")) {
        return false;
    }
    return m_totalBytesWritten < announced && !m_writeError;
}

void DownloadLibraryWorker::taskCompleted()
{
    if (m_completionHandled || !m_reply) {
        return;
    }
    writeAvailableData();
    m_completionHandled = true;

    const QVariant statusValue = m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    // A body cut off, timed out or cancelled after the headers arrived is still
    // a transport failure: Qt's codes below 200 are those of the connection,
    // the others stand for the HTTP status, which is judged below.
    OptionalError transportError;
    if (m_reply->error() == QNetworkReply::OperationCanceledError && !m_cancelRequested) {
        // Qt 6.4 ends a transfer time-out as a cancellation; only a cancel of
        // ours may count as one, or the chunk would never be retried.
        transportError = TransportError::errorForNetworkError(QNetworkReply::TimeoutError, QString());
    } else if (m_reply->error() != QNetworkReply::NoError && m_reply->error() < QNetworkReply::ContentAccessDenied) {
        transportError = TransportError::errorForNetworkError(m_reply->error(), m_reply->errorString());
    } else if (bodyCutShort()) {
        // Qt 6.4 ends a reply whose connection closed before Content-Length
        // bytes arrived as if it were whole.
        transportError = TransportError::errorForNetworkError(QNetworkReply::RemoteHostClosedError, QString());
    }
    if (m_writeError || transportError) {
        if (m_file) {
            m_file->remove();
        }
        finish(std::nullopt, m_writeError ? m_writeError : transportError, 0, !transportError);
        return;
    }

    const int status = statusValue.isValid() ? statusValue.toInt() : 0;
    if (!openPartialFile()) { // an empty body never opened one
        finish(std::nullopt, m_writeError, status, true);
        return;
    }
    m_file->close();
    std::optional<QUrl> downloaded;
    OptionalError error = moveIntoPlace(&downloaded);
    if (error) {
        m_file->remove();
    } else if (statusValue.isValid() && status != 200) {
        error = Error::errorWithMessage(
            QStringLiteral("%1 (%2)").arg(nullable(HTTPStatusCodeMap::descriptionForCode(status))).arg(status));
    } else if (status == 200) {
        error = DownloadLibraryOperation::validateEndMarker(downloaded->toLocalFile());
    }
    finish(downloaded, error, status, true);
}

void DownloadLibraryWorker::finish(const std::optional<QUrl> &file, const OptionalError &error, int status,
                                   bool transportOK)
{
    m_file.reset();
    const QString url = m_reply ? m_reply->request().url().toString(QUrl::FullyEncoded) : QStringLiteral("nil");
    const auto estimated = m_estimatedBytes;
    QMetaObject::invokeMethod(
        m_operation,
        [operation = m_operation, file, error, status, transportOK, estimated, url] {
            operation->didComplete(file, error, status, transportOK, estimated, url);
        },
        Qt::QueuedConnection);
    thread()->quit();
}

// ---------------------------------------------------------------------------

DownloadLibraryOperation::DownloadLibraryOperation(QObject *parent)
    : QObject(parent), m_progressState(std::make_shared<DownloadProgressState>())
{}

DownloadLibraryOperation::~DownloadLibraryOperation()
{
    stopWorker();
}

void DownloadLibraryOperation::stopWorker()
{
    if (!m_thread) {
        return;
    }
    // The worker never waits for the main thread, so waiting for it here is safe.
    // Reports it queued for this operation are dropped with it.
    m_thread->quit();
    m_thread->wait();
    delete m_worker;
    m_worker = nullptr;
    delete m_thread;
    m_thread = nullptr;
}

QString DownloadLibraryOperation::chunkFileName(qint64 offset, qint64 length)
{
    const qint64 index = length > 0 ? offset / length : 0;
    return QStringLiteral(".temp-%1.zip").arg(index);
}

QUrl DownloadLibraryOperation::requestURL(const QString &userId, const QString &token, qint64 offset, qint64 length)
{
    const QString shortVersion = AppInfo::shortVersion();
    const QString build = AppInfo::buildNumber();
    const QString client = queryAllowedEscape(ClientFields::client());
    const QString deviceName = queryAllowedEscape(QStringLiteral("Pelicane for Mac ") + shortVersion);
    // The client goes in already encoded, so its blank ends up encoded twice.
    const QString userAgent = queryAllowedEscape(QStringLiteral("Lyrabox ") + client + u' ' + shortVersion +
                                                 QStringLiteral(" (") + build + u')');
    const QString query = QStringLiteral("_user_id=") + userId + QStringLiteral("&_token=") + token +
                          QStringLiteral("&client=") + client + QStringLiteral("&device_name=") + deviceName +
                          QStringLiteral("&user_agent=") + userAgent + QStringLiteral("&version=") + shortVersion +
                          QStringLiteral("&mode=downloadlibrary&container_type=library&offset=") +
                          QString::number(offset) + QStringLiteral("&length=") + QString::number(length) +
                          QStringLiteral("&end_marker=1");
    return QUrl(Endpoints::downloadURL().toString(QUrl::FullyEncoded) + u'?' + query, QUrl::TolerantMode);
}

OptionalError DownloadLibraryOperation::validateEndMarker(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadWrite | QIODevice::ExistingOnly)) {
        Logger::log(QStringLiteral("Could not open file to validate end marker"));
        return Error::errorWithMessage(incompleteDownloadMessage());
    }
    const qint64 size = file.size();
    QByteArray tail;
    if (size >= kEndMarker.size() && file.seek(size - kEndMarker.size())) {
        tail = file.read(kEndMarker.size());
    }
    if (tail != kEndMarker || !file.resize(size - kEndMarker.size())) {
        Logger::log(QStringLiteral("Unable to validate data, no end marker found"));
        return Error::errorWithMessage(incompleteDownloadMessage());
    }
    return std::nullopt;
}

std::optional<qint64> DownloadLibraryOperation::parseEstimatedLength(const QByteArray &value)
{
    if (value.isEmpty()) {
        return 0;
    }
    qsizetype i = (value.front() == '+' || value.front() == '-') ? 1 : 0;
    if (i == value.size()) {
        return std::nullopt;
    }
    for (qsizetype j = i; j < value.size(); ++j) {
        if (value[j] < '0' || value[j] > '9') {
            return std::nullopt;
        }
    }
    bool ok = false;
    const qint64 number = value.toLongLong(&ok);
    return ok ? std::optional<qint64>(number) : std::nullopt;
}

qint64 DownloadLibraryOperation::parseTrackCount(const QByteArray &value)
{
    // Leading blanks, a sign and the digits that follow; the rest is ignored.
    const QByteArray text = value.trimmed();
    qsizetype end = (!text.isEmpty() && (text.front() == '+' || text.front() == '-')) ? 1 : 0;
    while (end < text.size() && text[end] >= '0' && text[end] <= '9') {
        ++end;
    }
    bool ok = false;
    const qint64 count = text.left(end).toLongLong(&ok);
    return ok ? count : 0;
}

void DownloadLibraryOperation::start()
{
    if (m_thread || m_finished) {
        return;
    }
    if (m_cancelled) {
        setFinished(true);
        return;
    }
    Logger::log(QStringLiteral("DownloadLibrary(%1, %2, %3)")
                    .arg(m_offset)
                    .arg(m_length)
                    .arg(isHeaderRequest() ? QStringLiteral("header") : QStringLiteral("chunk")));
    setExecuting(true);

    DownloadLibraryWorker::Request request;
    request.url = requestURL(m_userId, m_token, m_offset, m_length);
    request.header = isHeaderRequest();
    request.offset = m_offset;
    request.length = m_length;
    request.downloadTo = m_downloadToURL.toLocalFile();

    m_thread = new QThread;
    m_thread->setObjectName(QStringLiteral("DownloadLibraryOperation"));
    m_worker = new DownloadLibraryWorker(this, request, m_progressState);
    m_worker->moveToThread(m_thread);
    connect(m_thread, &QThread::started, m_worker, [worker = m_worker] { worker->run(); });
    connect(
        m_thread, &QThread::finished, m_worker, [worker = m_worker] { worker->release(); }, Qt::DirectConnection);
    m_thread->start();
}

void DownloadLibraryOperation::cancel()
{
    if (m_finished) {
        return;
    }
    m_cancelled = true;
    if (!m_thread) {
        setFinished(true);
        return;
    }
    QMetaObject::invokeMethod(
        m_worker, [worker = m_worker] { worker->cancel(); }, Qt::QueuedConnection);
}

void DownloadLibraryOperation::setExecuting(bool executing)
{
    if (m_executing != executing) {
        m_executing = executing;
        Q_EMIT executingChanged(executing);
    }
}

void DownloadLibraryOperation::setFinished(bool finished)
{
    if (m_finished != finished) {
        m_finished = finished;
        Q_EMIT finishedChanged(finished);
    }
}

void DownloadLibraryOperation::didReceiveTrackCount(qint64 count, std::optional<qint64> estimatedBytes)
{
    if (m_completionHandled) {
        return;
    }
    m_completionHandled = true;
    m_estimatedBytes = estimatedBytes;
    if (m_totalTrackCount) {
        m_totalTrackCount(count);
    }
    setExecuting(false);
    setFinished(true);
}

void DownloadLibraryOperation::didReceiveResponse(std::optional<qint64> estimatedBytes)
{
    m_estimatedBytes = estimatedBytes;
}

void DownloadLibraryOperation::didWriteData()
{
    // Allow the next report to be queued before reading, so no write goes unreported.
    m_progressState->reportQueued = false;
    const qint64 total = m_progressState->totalBytesWritten;
    const qint64 speed = m_progressState->bytesPerSecond;
    if (m_progress && !m_completionHandled) {
        m_progress(this, total, speed);
    }
}

void DownloadLibraryOperation::didComplete(const std::optional<QUrl> &file, const OptionalError &error, int status,
                                           bool transportOK, std::optional<qint64> estimatedBytes,
                                           const QString &requestURL)
{
    if (m_completionHandled) {
        return;
    }
    m_completionHandled = true;
    m_downloadedFileURL = file;
    m_error = error;
    m_estimatedBytes = estimatedBytes;
    if (m_completion) {
        m_completion(this, file, error);
    }
    Logger::log(QStringLiteral("Response: %1 - StatusCode: %2, Result: %3, Canceled: %4, Message: %5")
                    .arg(requestURL)
                    .arg(status)
                    .arg(transportOK ? QStringLiteral("True") : QStringLiteral("False"))
                    .arg(error && error->code() == -999 ? QStringLiteral("True") : QStringLiteral("False"))
                    .arg(error ? error->localizedDescription() : QStringLiteral("nil")));
    setExecuting(false);
    setFinished(true);
}
