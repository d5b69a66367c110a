#pragma once

#include "core/error.h"

#include <QObject>
#include <QString>
#include <QUrl>

#include <functional>
#include <memory>
#include <optional>

class QThread;
class DownloadLibraryWorker;
struct DownloadProgressState;

// One request to the library-download endpoint. A header request (one with a
// `totalTrackCount` handler) only learns how many tracks the library holds; a
// chunk request streams `length` tracks from `offset` as a zip archive into
// `downloadToURL`, as ".temp-<offset / length>.zip", and checks the end marker
// that proves it arrived whole.
//
// The transfer runs on a thread of its own; every handler is called on the
// main thread. The outcome is handed on exactly once: the track count for a
// header request, the completion handler for a chunk.
class DownloadLibraryOperation : public QObject
{
    Q_OBJECT

public:
    using TotalTrackCountHandler = std::function<void(qint64 count)>;
    using ProgressHandler =
        std::function<void(DownloadLibraryOperation *operation, qint64 totalBytesWritten, qint64 bytesPerSecond)>;
    using CompletionHandler = std::function<void(
        DownloadLibraryOperation *operation, const std::optional<QUrl> &downloadedFileURL, const OptionalError &error)>;

    explicit DownloadLibraryOperation(QObject *parent = nullptr);
    ~DownloadLibraryOperation() override;

    QString userId() const { return m_userId; }
    void setUserId(const QString &userId) { m_userId = userId; }
    QString token() const { return m_token; }
    void setToken(const QString &token) { m_token = token; }

    // Set only for a header request.
    void setTotalTrackCount(TotalTrackCountHandler handler) { m_totalTrackCount = std::move(handler); }
    bool isHeaderRequest() const { return bool(m_totalTrackCount); }

    qint64 offset() const { return m_offset; }
    void setOffset(qint64 offset) { m_offset = offset; }
    qint64 length() const { return m_length; }
    void setLength(qint64 length) { m_length = length; }

    QUrl downloadToURL() const { return m_downloadToURL; }
    void setDownloadToURL(const QUrl &folder) { m_downloadToURL = folder; }

    void setProgress(ProgressHandler handler) { m_progress = std::move(handler); }
    void setCompletion(CompletionHandler handler) { m_completion = std::move(handler); }

    // Known once the outcome has been handed on.
    bool completionHandled() const { return m_completionHandled; }
    std::optional<QUrl> downloadedFileURL() const { return m_downloadedFileURL; }
    std::optional<qint64> estimatedBytes() const { return m_estimatedBytes; }
    OptionalError error() const { return m_error; }

    bool isExecuting() const { return m_executing; }
    bool isFinished() const { return m_finished; }
    bool isCancelled() const { return m_cancelled; }

    // Builds and starts the request. Call once, on the main thread.
    void start();
    // Cancels the running request; it then completes with the cancellation
    // error (code -999). An operation cancelled before it started finishes at
    // once without a completion.
    void cancel();

    // ".temp-" + chunk index + ".zip".
    static QString chunkFileName(qint64 offset, qint64 length);
    // The endpoint, "?" and the query of a request.
    static QUrl requestURL(const QString &userId, const QString &token, qint64 offset, qint64 length);
    // Checks that the file ends with "EOF\n" and cuts those four bytes off.
    static OptionalError validateEndMarker(const QString &path);
    // An `Estimated-Content-Length` value: an optional sign and digits; an
    // empty value is 0; anything else is none.
    static std::optional<qint64> parseEstimatedLength(const QByteArray &value);
    // A `Total-Tracks` value read as an integer: 0 when missing or not a number.
    static qint64 parseTrackCount(const QByteArray &value);

Q_SIGNALS:
    void executingChanged(bool executing);
    void finishedChanged(bool finished);

private:
    friend class DownloadLibraryWorker;

    void setExecuting(bool executing);
    void setFinished(bool finished);
    void stopWorker();

    // Reports from the worker, on the main thread.
    void didReceiveTrackCount(qint64 count, std::optional<qint64> estimatedBytes);
    void didReceiveResponse(std::optional<qint64> estimatedBytes);
    void didWriteData();
    void didComplete(const std::optional<QUrl> &file, const OptionalError &error, int status, bool transportOK,
                     std::optional<qint64> estimatedBytes, const QString &requestURL);

    QString m_userId;
    QString m_token;
    TotalTrackCountHandler m_totalTrackCount;
    qint64 m_offset = 0;
    qint64 m_length = 0;
    QUrl m_downloadToURL;
    ProgressHandler m_progress;
    CompletionHandler m_completion;

    bool m_completionHandled = false;
    std::optional<QUrl> m_downloadedFileURL;
    std::optional<qint64> m_estimatedBytes;
    OptionalError m_error;
    bool m_executing = false;
    bool m_finished = false;
    bool m_cancelled = false;

    std::shared_ptr<DownloadProgressState> m_progressState;
    QThread *m_thread = nullptr;
    DownloadLibraryWorker *m_worker = nullptr;
};
