#pragma once

#include "core/error.h"
#include "platform/operationqueue.h"
#include "upload/asyncuploadrequestconfiguration.h"

#include <QByteArray>
#include <QMutex>
#include <QString>
#include <QWaitCondition>

#include <atomic>
#include <functional>
#include <memory>

class TrackRipJob;
class QEventLoop;
class QNetworkReply;
class QNetworkRequest;
class UploadBodyDevice;

// The waits of an upload operation.
struct UploadTimeouts
{
    int retryDelayMs = 5000;       // before a retry starts
    int stuckGuardMs = 120000;     // no answer this long after the body went out
    int requestTimeoutMs = 900000; // nothing sent or received this long
};

// Uploads one file (or one CD track) to the upload endpoint as a single
// multipart/form-data POST, and reports the outcome through its signals.
//
// Runs on a worker thread of the upload queue and keeps it for the whole
// transfer, with its own network manager and event loop. Every signal is
// emitted on the main thread. Exactly one final report (fileLoadFailed or
// fileLoadSucceeded) is emitted; an operation cancelled before the outcome
// was decided reports failure, never success. Log lines are prefixed with the
// file's name.
//
// Connect before the operation is queued. An operation made with
// std::make_shared stays alive until its last signal has been emitted, so a
// receiver may look at it through a weak reference.
class AsyncUploadRequestOperation : public Operation, public std::enable_shared_from_this<AsyncUploadRequestOperation>
{
    Q_OBJECT

public:
    using Timeouts = UploadTimeouts;

    explicit AsyncUploadRequestOperation(const AsyncUploadRequestConfiguration &configuration);
    // Only tests shorten the waits.
    AsyncUploadRequestOperation(const AsyncUploadRequestConfiguration &configuration, const Timeouts &timeouts);
    ~AsyncUploadRequestOperation() override;

    bool isAsynchronous() const override { return true; }
    void start() override;
    // Stops the transfer; the operation then reports the cancellation as a
    // failure, unless it had already reported.
    void cancel() override;

    const AsyncUploadRequestConfiguration &config() const { return m_config; }
    // Percent, 0 to 100 (beyond 100 once the envelopes are counted in): the
    // last progress computed. Readable from any thread.
    double lastKnownProgress() const { return m_lastKnownProgress.load(); }
    bool isUploadingAudioCD() const { return m_isUploadingAudioCD.load(); }
    // The bytes progress is measured against: the file's, or a CD track's raw audio.
    qint64 fileSize() const { return m_fileSize.load(); }
    bool didWriteFooter() const { return m_didWriteFooter.load(); }
    // Sectors of the CD track read so far.
    qint32 framesRead() const { return m_framesRead.load(); }

    // Writes "<file name>: <message>" to the log.
    void logMessage(const QString &message) const;
    static QString mimeTypeForPath(const QString &path);

Q_SIGNALS:
    // A CD track's reading, 0 to 1.
    void ripProgressChanged(double fraction);
    // Once per whole percent of the body sent, 0 to 1.
    void fileLoadProgressChanged(double fraction);
    void fileLoadFailed(const Error &error);
    void fileLoadSucceeded();

private:
    // Runs emitter on the main thread, keeping a shared operation alive until then.
    void emitOnMain(std::function<void()> emitter);
    // Claims the one final report; false when it was already issued.
    bool claimReport();
    void reportFailure(const Error &error);
    void reportSuccess();
    void finishOperation();
    void waitBeforeRetry();

    // Worker-thread steps of the transfer.
    void transfer(QNetworkRequest &request, const QString &bodyPath, qint64 bodySize);
    void handleUploadProgress(qint64 bytesSent, qint64 bytesTotal);
    void handleCompletion(QNetworkReply *reply);
    void checkStuck();
    void abortTransfer();
    void endSoon();

    // The CD path: rips and encodes the track into a file and leaves its
    // path and size for the body. Fails the operation (and returns false)
    // when the track cannot be read.
    bool beginReadingCD(QString *bodyPath, qint64 *bodySize);

    const AsyncUploadRequestConfiguration m_config;
    const Timeouts m_timeouts;

    std::atomic<bool> m_isUploadingAudioCD{false};
    std::atomic<bool> m_didWriteFooter{false};
    std::atomic<bool> m_didReport{false};
    std::atomic<bool> m_stopReadingCD{false};
    std::atomic<qint32> m_framesRead{0};
    // The CD track's FLAC file lives as long as its rip: kept until the
    // transfer is over, dropped (with the file) when the operation finishes.
    std::shared_ptr<TrackRipJob> m_ripJob;
    bool m_succeeded = false;
    std::atomic<double> m_lastKnownProgress{0};
    std::atomic<qint64> m_fileSize{0};
    quint64 m_lastProgress = 0;
    QByteArray m_headerData;
    QByteArray m_footerData;
    QByteArray m_responseData;
    qint64 m_didWriteFooterAtMs = 0; // monotonic clock
    qint64 m_lastActivityMs = 0;     // monotonic clock

    // The transfer's objects, on the worker thread while start() runs.
    QEventLoop *m_loop = nullptr;
    QNetworkReply *m_uploadTask = nullptr;
    UploadBodyDevice *m_body = nullptr;
    bool m_timedOut = false;
    bool m_bodyRefused = false;
    bool m_transferDone = false;
    qint64 m_abortAtMs = -1; // monotonic; the body gave out, abort if Qt has not ended by then

    // Lets cancel() reach the worker thread.
    QMutex m_workerLock;
    QWaitCondition m_retryWait;
    QObject *m_workerContext = nullptr; // under m_workerLock
};
