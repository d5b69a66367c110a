#include "library/segmenttransfer.h"

#include "library/segmentanswer.h"
#include "protocol/clientfields.h"
#include "protocol/httpstatuscodemap.h"
#include "protocol/network.h"
#include "protocol/transporterror.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QTemporaryFile>

namespace {

constexpr int kTimeoutMilliseconds = 60 * 1000;
// Bounds what Qt buffers ahead of us, so memory stays flat on any segment size.
constexpr qint64 kReadBufferSize = 1024 * 1024;
constexpr qint64 kCopyBufferSize = 256 * 1024;

} // namespace

SegmentTransfer::SegmentTransfer(Request request) : m_request(std::move(request)) {}

SegmentTransfer::~SegmentTransfer()
{
    m_completionHandled = true;
    if (m_reply) {
        m_reply->disconnect(this);
        m_reply->abort();
    }
    delete m_manager; // and its replies
}

void SegmentTransfer::start()
{
    m_manager = new QNetworkAccessManager(this);
    m_clock.start();

    m_reply = m_manager->get(Network::makeRequest(m_request.url, ClientFields::userAgent(), kTimeoutMilliseconds));
    m_reply->setReadBufferSize(kReadBufferSize);
    connect(m_reply, &QNetworkReply::metaDataChanged, this, &SegmentTransfer::responseReceived);
    connect(m_reply, &QNetworkReply::readyRead, this, &SegmentTransfer::writeAvailableData);
    connect(m_reply, &QNetworkReply::finished, this, &SegmentTransfer::taskCompleted);
}

void SegmentTransfer::cancel()
{
    if (m_reply && !m_completionHandled) {
        m_cancelRequested = true;
        m_reply->abort();
    }
}

void SegmentTransfer::responseReceived()
{
    const QVariant status = m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (m_responseSeen || !status.isValid()) {
        return;
    }
    m_responseSeen = true;
    if (m_reply->hasRawHeader("Estimated-Content-Length")) {
        m_estimatedBytes = SegmentAnswer::parseEstimatedLength(m_reply->rawHeader("Estimated-Content-Length"));
    }

    if (m_request.header) {
        Outcome outcome;
        outcome.trackCount = SegmentAnswer::parseTrackCount(m_reply->rawHeader("Total-Tracks"));
        outcome.estimatedBytes = m_estimatedBytes;
        // The body is not wanted.
        m_completionHandled = true;
        m_reply->disconnect(this);
        m_reply->abort();
        Q_EMIT ended(outcome);
        return;
    }
    openPartialFile();
}

// The body goes to a partial file beside the chunk's final place, so moving it
// there is a rename. Only when that folder cannot hold it (a file is in the
// way) does it go to the temporary folder, and the move then reports why.
bool SegmentTransfer::openPartialFile()
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

void SegmentTransfer::writeAvailableData()
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
        Q_EMIT progressChanged(m_totalBytesWritten, speed);
    }
}

QString SegmentTransfer::chunkPath() const
{
    return QDir(m_request.downloadTo).filePath(SegmentAnswer::chunkFileName(m_request.offset, m_request.length));
}

OptionalError SegmentTransfer::moveIntoPlace(std::optional<QUrl> *downloadedFile)
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

bool SegmentTransfer::bodyCutShort() const
{
    bool ok = false;
    const qint64 announced = m_reply->rawHeader("Content-Length").toLongLong(&ok);
    // With a content coding the announced length is not what reaches us.
    if (!ok || m_reply->hasRawHeader("Content-Encoding")) {
        return false;
    }
    return m_totalBytesWritten < announced && !m_writeError;
}

void SegmentTransfer::taskCompleted()
{
    if (m_completionHandled || !m_reply) {
        return;
    }
    writeAvailableData();
    m_completionHandled = true;

    Outcome outcome;
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
        outcome.error = m_writeError ? m_writeError : transportError;
        outcome.transportOK = !transportError;
        outcome.writeFailed = bool(m_writeError);
        finish(std::move(outcome));
        return;
    }

    outcome.status = statusValue.isValid() ? statusValue.toInt() : 0;
    if (!openPartialFile()) { // an empty body never opened one
        outcome.error = m_writeError;
        outcome.writeFailed = true;
        finish(std::move(outcome));
        return;
    }
    m_file->close();
    OptionalError error = moveIntoPlace(&outcome.file);
    if (error) {
        m_file->remove();
        outcome.writeFailed = true;
    } else if (statusValue.isValid() && outcome.status != 200) {
        error = Error::errorWithMessage(HTTPStatusCodeMap::errorText(outcome.status));
    } else if (outcome.status == 200) {
        error = SegmentAnswer::validateEndMarker(outcome.file->toLocalFile());
    }
    outcome.error = error;
    finish(std::move(outcome));
}

void SegmentTransfer::finish(Outcome outcome)
{
    m_file.reset();
    outcome.requestURL = m_reply ? m_reply->request().url().toString(QUrl::FullyEncoded) : QStringLiteral("nil");
    outcome.estimatedBytes = m_estimatedBytes;
    Q_EMIT ended(outcome);
}
