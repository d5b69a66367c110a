#pragma once

#include "core/error.h"
#include "platform/operationqueue.h"

#include <QMutex>
#include <QString>
#include <QUrl>

#include <optional>

class SegmentTransfer;

// One request to the library-download endpoint, run by an OperationQueue. A
// header request only learns how many tracks the library holds; a chunk
// request streams `length` tracks from `offset` as a zip archive into
// `downloadToURL`, as ".temp-<offset / length>.zip", and checks the end marker
// that proves it arrived whole.
//
// Synchronous: main() runs the transfer in an event loop of its own on the
// queue's thread, and emits progressChanged there (connect directly to keep
// up with it, or queued). The outcome is known once the operation has
// finished (read it from the completion handler, which runs on the same
// thread): the track count for a header request, the file or the error for a
// chunk.
class DownloadLibraryOperation : public Operation
{
    Q_OBJECT

public:
    DownloadLibraryOperation();
    ~DownloadLibraryOperation() override;

    // Set these before the operation is queued.
    void setUserId(const QString &userId) { m_userId = userId; }
    void setToken(const QString &token) { m_token = token; }

    bool isHeaderRequest() const { return m_header; }
    void setHeaderRequest(bool header) { m_header = header; }

    qint64 offset() const { return m_offset; }
    void setOffset(qint64 offset) { m_offset = offset; }
    qint64 length() const { return m_length; }
    void setLength(qint64 length) { m_length = length; }

    void setDownloadToURL(const QUrl &folder) { m_downloadToURL = folder; }

    // The outcome. An operation cancelled before it started has none.
    bool completionHandled() const { return m_completionHandled; }
    std::optional<qint64> trackCount() const { return m_trackCount; }
    std::optional<QUrl> downloadedFileURL() const { return m_downloadedFileURL; }
    OptionalError error() const { return m_error; }
    // The error is the destination's: the body could not be stored there.
    bool writeFailed() const { return m_writeFailed; }
    // Known from the response on, when progressChanged is emitted too.
    std::optional<qint64> estimatedBytes() const { return m_estimatedBytes; }

    // A running request then ends with the cancellation error (code -999).
    void cancel() override;

Q_SIGNALS:
    void progressChanged(qint64 totalBytesWritten, qint64 bytesPerSecond);

protected:
    void main() override;

private:
    QString m_userId;
    QString m_token;
    bool m_header = false;
    qint64 m_offset = 0;
    qint64 m_length = 0;
    QUrl m_downloadToURL;

    bool m_completionHandled = false;
    std::optional<qint64> m_trackCount;
    std::optional<QUrl> m_downloadedFileURL;
    std::optional<qint64> m_estimatedBytes;
    OptionalError m_error;
    bool m_writeFailed = false;

    // The running transfer, for cancel() from another thread.
    QMutex m_transferLock;
    SegmentTransfer *m_transfer = nullptr;
};
