#include "upload/asyncuploadrequestoperation.h"

#include "audio/trackripjob.h"
#include "cd/plcvolumetype.h"
#include "core/formatting.h"
#include "core/logger.h"
#include "platform/dispatch.h"
#include "protocol/httpstatuscodemap.h"
#include "protocol/network.h"
#include "protocol/transporterror.h"
#include "upload/cdtrackrips.h"
#include "upload/uploadbodydevice.h"
#include "upload/uploadstream.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
#include <QTimer>
#include <QUrl>
#include <algorithm>

#include <cerrno>
#include <cstring>
#include <memory>
#include <sys/stat.h>

namespace {

qint64 monotonicMs()
{
    static QElapsedTimer clock = [] {
        QElapsedTimer timer;
        timer.start();
        return timer;
    }();
    return clock.elapsed();
}

} // namespace

AsyncUploadRequestOperation::AsyncUploadRequestOperation(const AsyncUploadRequestConfiguration &configuration)
    : AsyncUploadRequestOperation(configuration, Timeouts())
{}

AsyncUploadRequestOperation::AsyncUploadRequestOperation(const AsyncUploadRequestConfiguration &configuration,
                                                         const Timeouts &timeouts)
    : m_config(configuration), m_timeouts(timeouts)
{
    setName(QFileInfo(configuration.filePath).fileName());
}

AsyncUploadRequestOperation::~AsyncUploadRequestOperation() = default;

void AsyncUploadRequestOperation::logMessage(const QString &message) const
{
    Logger::log(nullable(QFileInfo(m_config.filePath).fileName()) + QStringLiteral(": ") + message);
}

QString AsyncUploadRequestOperation::mimeTypeForPath(const QString &path)
{
    return UploadStream::mimeTypeForPath(path);
}

// ---------------------------------------------------------------------------
// Reports

bool AsyncUploadRequestOperation::claimReport()
{
    return !m_didReport.exchange(true);
}

void AsyncUploadRequestOperation::emitOnMain(std::function<void()> emitter)
{
    dispatchAsyncMain([guard = QPointer<AsyncUploadRequestOperation>(this), self = weak_from_this().lock(),
                       emitter = std::move(emitter)] {
        if (guard) {
            emitter();
        }
    });
}

void AsyncUploadRequestOperation::reportFailure(const Error &error)
{
    if (!claimReport()) {
        return;
    }
    emitOnMain([this, error] { Q_EMIT fileLoadFailed(error); });
}

void AsyncUploadRequestOperation::reportSuccess()
{
    // A cancel that came before the outcome was decided wins: the caller
    // asked for the upload to stop and hears that it stopped.
    if (isCancelled()) {
        reportFailure(Error::cancelledError());
        return;
    }
    if (!claimReport()) {
        return;
    }
    m_succeeded = true;
    emitOnMain([this] { Q_EMIT fileLoadSucceeded(); });
}

void AsyncUploadRequestOperation::finishOperation()
{
    m_stopReadingCD = true;
    // The temporary FLAC file goes with its rip, whatever the outcome.
    m_ripJob.reset();
    setExecuting(false);
    setFinished(true);
}

// ---------------------------------------------------------------------------
// Start and cancel

void AsyncUploadRequestOperation::cancel()
{
    Operation::cancel();
    QMutexLocker locker(&m_workerLock);
    m_retryWait.wakeAll();
    // The request belongs to the worker thread; it is stopped there.
    if (m_workerContext) {
        QMetaObject::invokeMethod(
            m_workerContext, [this] { abortTransfer(); }, Qt::QueuedConnection);
    }
}

void AsyncUploadRequestOperation::waitBeforeRetry()
{
    // A cancel cuts the wait short; the operation then reports it below.
    QMutexLocker locker(&m_workerLock);
    const QDeadlineTimer deadline(m_timeouts.retryDelayMs);
    while (!isCancelled() && !deadline.hasExpired()) {
        m_retryWait.wait(&m_workerLock, deadline);
    }
}

void AsyncUploadRequestOperation::start()
{
    logMessage(QStringLiteral("Task Started"));
    setExecuting(true);

    if (m_config.isRetry) {
        logMessage(QStringLiteral("Waiting 5 seconds to retry..."));
        waitBeforeRetry();
        logMessage(QStringLiteral("Retrying"));
    }

    // A CD track is a file of its disc volume, which only the disc model
    // knows about.
    const QString &path = m_config.filePath;
    const bool onDisc = !path.isEmpty() && PLCVolumeType::isDiskAtURL(QUrl::fromLocalFile(QFileInfo(path).path()));
    qint64 size = 0;
    if (onDisc) {
        const auto track = PLCVolumeType::trackFileAtPath(path);
        if (!track) {
            reportFailure(Error::errorWithMessage(QStringLiteral("File does not exist"), 200));
            finishOperation();
            return;
        }
        size = track->size;
    } else {
        struct stat attributes
        {
        };
        // Only a file that is really gone is "File does not exist"; a folder
        // without search permission or a name too long says so.
        const int code = path.isEmpty()                                                  ? ENOENT
                         : ::stat(QFile::encodeName(path).constData(), &attributes) != 0 ? errno
                                                                                         : 0;
        if (code == ENOENT || code == ENOTDIR) {
            reportFailure(Error::errorWithMessage(QStringLiteral("File does not exist"), 200));
            finishOperation();
            return;
        }
        if (code != 0) {
            reportFailure(Error::withDomain(QStringLiteral("NSPOSIXErrorDomain"), code,
                                            QString::fromLocal8Bit(std::strerror(code))));
            finishOperation();
            return;
        }
        size = qint64(attributes.st_size);
    }

    m_didWriteFooter = false;
    m_headerData = UploadStream::beginMultipartDataUpload(m_config);
    m_footerData = UploadStream::endMultipartDataUpload(m_config);
    m_fileSize = size;

    // No transfer time-out of Qt's: the slices below keep their own, which
    // tells a silent server from a cancel.
    QNetworkRequest request = Network::makeRequest(QUrl(m_config.uploadURL), m_config.userAgent);
    request.setRawHeader("Content-Type",
                         (QStringLiteral("multipart/form-data; boundary=") + UploadStream::boundary()).toUtf8());

    if (isCancelled()) {
        reportFailure(Error::cancelledError());
        finishOperation();
        return;
    }

    m_isUploadingAudioCD = onDisc;

    QString bodyPath = path;
    qint64 bodySize = size;
    if (onDisc && !beginReadingCD(&bodyPath, &bodySize)) {
        finishOperation();
        return;
    }

    transfer(request, bodyPath, bodySize);
    if (onDisc && !m_succeeded && m_ripJob) {
        // Sent again, the track goes as it was ripped, not ripped again.
        CDTrackRips::keepRipped(path, m_ripJob);
    }
    finishOperation();
}

// ---------------------------------------------------------------------------
// The transfer, on the worker thread

void AsyncUploadRequestOperation::transfer(QNetworkRequest &request, const QString &bodyPath, qint64 bodySize)
{
    QNetworkAccessManager manager;
    QObject context;
    UploadBodyDevice body(m_headerData, bodyPath, bodySize, m_footerData,
                          [this](const QString &message) { logMessage(message); });
    QEventLoop loop;
    m_loop = &loop;
    m_body = &body;
    m_transferDone = false;
    m_timedOut = false;
    m_bodyRefused = false;
    m_abortAtMs = -1;
    m_responseData.clear();

    if (!body.open(QIODevice::ReadOnly)) {
        reportFailure(Error::errorWithMessage(QStringLiteral("File Load Error: %1").arg(body.errorString()), 200));
        m_body = nullptr;
        m_loop = nullptr;
        return;
    }

    connect(&body, &UploadBodyDevice::footerWritten, &context, [this] {
        m_didWriteFooterAtMs = monotonicMs();
        m_didWriteFooter = true;
    });
    connect(
        &body, &UploadBodyDevice::newBodyRequested, &context,
        [this] {
            // The connection went down under the body and Qt wants to send it
            // again: the upload ends, as a lost connection, so it can be retried.
            m_bodyRefused = true;
            endSoon();
        },
        Qt::QueuedConnection);
    connect(
        &body, &UploadBodyDevice::sourceFailed, &context,
        [this](const QString &detail) {
            reportFailure(Error::errorWithMessage(QStringLiteral("File Load Error: %1").arg(detail), 200));
            endSoon();
        },
        Qt::QueuedConnection);

    request.setHeader(QNetworkRequest::ContentLengthHeader, body.size());
    request.setAttribute(QNetworkRequest::DoNotBufferUploadDataAttribute, true);
    request.setAttribute(QNetworkRequest::EmitAllUploadProgressSignalsAttribute, true);

    // Any byte moving either way counts as activity; the slices below look
    // at it (a timer restarted per piece of body would cost more).
    m_lastActivityMs = monotonicMs();

    std::unique_ptr<QNetworkReply> reply(manager.post(request, &body));
    m_uploadTask = reply.get();
    connect(reply.get(), &QNetworkReply::uploadProgress, &context, [this](qint64 sent, qint64 total) {
        m_lastActivityMs = monotonicMs();
        // Qt closes a reply with (0, 0), which counts no bytes.
        if (total > 0) {
            handleUploadProgress(sent, total);
        }
    });
    connect(reply.get(), &QNetworkReply::readyRead, &context, [this] {
        m_lastActivityMs = monotonicMs();
        m_responseData += m_uploadTask->readAll();
    });
    connect(reply.get(), &QNetworkReply::finished, &context, [this, &loop] {
        if (m_uploadTask->isOpen()) {
            m_responseData += m_uploadTask->readAll();
        }
        m_transferDone = true;
        handleCompletion(m_uploadTask);
        loop.quit();
    });

    // The event loop runs in one-second slices; between them the stuck guard
    // and the request time-out look at the clock.
    QTimer slice;
    slice.setInterval(1000);
    connect(&slice, &QTimer::timeout, &context, [this, &loop] {
        checkStuck();
        if (!m_transferDone && monotonicMs() - m_lastActivityMs > m_timeouts.requestTimeoutMs) {
            m_timedOut = true;
            abortTransfer();
        }
        if (m_transferDone || isFinished()) {
            loop.quit();
        } else if (m_abortAtMs >= 0 ? monotonicMs() >= m_abortAtMs : isCancelled()) {
            abortTransfer();
        }
    });

    {
        QMutexLocker locker(&m_workerLock);
        m_workerContext = &context;
    }
    slice.start();
    if (isCancelled()) {
        abortTransfer();
    }
    if (!m_transferDone) {
        loop.exec();
    }
    {
        QMutexLocker locker(&m_workerLock);
        m_workerContext = nullptr;
    }
    // Whatever is still in flight goes with the session.
    abortTransfer();
    slice.stop();
    reply->disconnect(&context);
    reply.reset();
    m_uploadTask = nullptr;
    m_body = nullptr;
    m_loop = nullptr;
    body.close();
}

void AsyncUploadRequestOperation::endSoon()
{
    // Qt fails the request by itself when the body gives out; aborting as
    // well would make it report twice. The abort is only the fallback.
    Operation::cancel();
    m_abortAtMs = monotonicMs() + 2000;
}

void AsyncUploadRequestOperation::abortTransfer()
{
    if (m_uploadTask && !m_uploadTask->isFinished()) {
        m_uploadTask->abort();
    }
}

void AsyncUploadRequestOperation::handleUploadProgress(qint64 bytesSent, qint64 bytesTotal)
{
    if (!m_body) {
        return;
    }
    // A file's progress is against the whole body, envelopes included, so 100%
    // means every byte went out. A CD track's is against its raw audio size,
    // which the smaller FLAC body never reaches.
    const double divisor =
        m_isUploadingAudioCD.load()
            ? double(m_fileSize.load() + m_body->headerBytesRemaining() + m_body->footerBytesRemaining())
            : double(bytesTotal);
    const double fraction = divisor > 0 ? std::min(1.0, double(bytesSent) / divisor) : 0.0;
    m_lastKnownProgress = fraction * 100.0;
    const auto percent = quint64(fraction * 100.0);
    if (percent != m_lastProgress) {
        m_lastProgress = percent;
        emitOnMain([this, fraction] { Q_EMIT fileLoadProgressChanged(fraction); });
    }
}

void AsyncUploadRequestOperation::handleCompletion(QNetworkReply *reply)
{
    const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    int statusCode = status.isValid() ? status.toInt() : 0;
    QString message = status.isValid() ? HTTPStatusCodeMap::descriptionForCode(unsigned(statusCode)) : QString();

    const bool bodyStarted = m_body && m_body->bodyStarted();
    OptionalError error;
    if (!status.isValid()) {
        if (m_timedOut) {
            error = TransportError::errorForNetworkError(QNetworkReply::TimeoutError, reply->errorString());
        } else if (m_bodyRefused) {
            error = TransportError::errorForNetworkError(QNetworkReply::RemoteHostClosedError, reply->errorString());
        } else {
            error = TransportError::errorForReply(reply, bodyStarted);
        }
    }

    QString canceled = QStringLiteral("False");
    OptionalError outcome;
    if (error && error->code() == TransportError::TimedOut && m_lastKnownProgress.load() >= 100.0) {
        message = QStringLiteral("Timed out, but progress == 100%; assuming success");
        statusCode = 200;
        error.reset();
    }
    if (error) {
        message = error->localizedDescription();
        if (error->code() == TransportError::Cancelled) {
            canceled = QStringLiteral("True");
        }
        outcome = error;
    } else {
        QJsonParseError parseError{};
        const QJsonDocument document = QJsonDocument::fromJson(m_responseData, &parseError);
        if (parseError.error == QJsonParseError::NoError) {
            const QJsonValue value = document.object().value(QStringLiteral("message"));
            message = value.isUndefined() || value.isNull() ? QString() : value.toVariant().toString();
        }
        if (statusCode != 200) {
            outcome = Error::errorWithMessage(message, statusCode);
        }
    }

    logMessage(QStringLiteral("Response: StatusCode: %1, Result: %2, Canceled: %3, Message: %4")
                   .arg(QString::number(statusCode),
                        statusCode == 200 ? QStringLiteral("True") : QStringLiteral("False"), canceled,
                        nullable(message)));

    if (outcome) {
        reportFailure(*outcome);
    } else {
        reportSuccess();
    }
}

void AsyncUploadRequestOperation::checkStuck()
{
    if (!m_didWriteFooter.load() || m_transferDone) {
        return;
    }
    if (monotonicMs() - m_didWriteFooterAtMs <= m_timeouts.stuckGuardMs) {
        return;
    }
    reportFailure(Error::errorWithMessage(QStringLiteral("The operation timed out."), TransportError::TimedOut));
    logMessage(QStringLiteral("Stuck runloop state detected. Forcing operation to end."));
    Operation::cancel();
    abortTransfer();
    if (m_loop) {
        m_loop->quit();
    }
}
