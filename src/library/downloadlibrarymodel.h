#pragma once

#include "core/error.h"
#include "core/transfermeter.h"
#include "library/unzipoperation.h"
#include "platform/operationqueue.h"

#include <QElapsedTimer>
#include <QHash>
#include <QMap>
#include <QMutex>
#include <QObject>
#include <QTimer>
#include <QUrl>

#include <memory>
#include <optional>

class DownloadLibraryOperation;

// Puts a question to the user. Answers 1000, 1001 or 1002 for the first,
// second or third button. The window answers with a modal alert; the command
// line answers by itself.
class DownloadLibraryPrompter
{
public:
    enum class Appearance { Default, Dark };

    virtual ~DownloadLibraryPrompter() = default;
    virtual int showAlert(const QString &title, const QString &text, const QStringList &buttons,
                          Appearance appearance) = 0;
};

// What the download window shows; the window mirrors it on every change.
struct DownloadLibraryViewState
{
    QString actionText;
    QString progressText;
    bool progressTextHidden = false;
    bool progressDeterminate = false;
    double progressValue = 0; // 0.0 to 1.0 when determinate
    QString cancelTitle = QStringLiteral("Cancel");
    bool cancelEnabled = true;
    bool cancelIsDefault = false; // answers the Return key
    bool errorInfoVisible = false;
    QString errorInfoText;
};

// Downloads the signed-in user's whole library into "My Lyrabox Library"
// inside the chosen folder: a header request learns the track count, then one
// chunk request per run of at most 50 tracks, one at a time, each extracted
// (one at a time too) while the next one downloads. A failed chunk is retried
// after 5 seconds, without limit, except when the destination cannot be
// written: that ends the run, as it does before anything is fetched. After a
// minute without an answer from the service the user is told, once a minute,
// that it is still being tried.
// "download.json" records the end of the chunks extracted without a gap from
// the start, so a later run resumes at the first chunk not fully extracted; a
// failed extraction holds it back even when later chunks extract. ".temp-*"
// files an earlier run left are removed first.
//
// Widget-free: the download window and the command line both drive it. Lives
// on the main thread; destroying it stops the transfer and the extraction.
class DownloadLibraryModel : public QObject
{
    Q_OBJECT

public:
    static constexpr qint64 kChunkLength = 50;
    static constexpr int kRetryDelayMilliseconds = 5000;
    static constexpr qint64 kSilenceNoticeMilliseconds = 60 * 1000;

    DownloadLibraryModel(const QUrl &URL, const QString &userId, const QString &userToken,
                         DownloadLibraryPrompter *prompter, QObject *parent = nullptr);
    ~DownloadLibraryModel() override;

    // The folder name inside the chosen one, and the resume record's name.
    static QString libraryFolderName() { return QStringLiteral("My Lyrabox Library"); }
    static QString resumeRecordName() { return QStringLiteral("download.json"); }
    // The chunks (offset, length) that cover tracks start..count-1.
    static QList<std::pair<qint64, qint64>> chunksFrom(qint64 start, qint64 count);
    // The record's count, or none when it is missing or unreadable.
    static std::optional<qint64> readResumeRecord(const QString &destination);
    // Why nothing can be written into the destination (made when missing),
    // naming the folder at fault; none when a file can be made there.
    static OptionalError destinationProblem(const QString &destination);

    // Logs the start and sends the header request.
    void start();

    // The Cancel button: asks before aborting a running download; once the
    // download is complete it opens the folder. Emits closeRequested to close.
    void OnCancel();
    // The info button beside the error line.
    void OnErrorInfo();

    QUrl URL() const { return m_URL; }
    QString destinationPath() const;

    qint64 totalTrackCount() const { return m_totalTrackCount; }
    int downloadsCompleted() const { return m_downloadsCompleted; }
    qint64 unzipTotalSize() const { return m_unzipTotalSize; }
    qint64 unzipTotalBytesWritten() const { return m_unzipTotalBytesWritten; }
    bool isComplete() const { return m_isComplete; }
    int downloadErrorCount() const { return m_downloadErrorCount; }

    // The chunk being downloaded: its offset, bytes so far, the size the
    // service announced (or -1) and the speed (-1 in its first second).
    qint64 currentOffset() const { return m_currentOffset; }
    qint64 currentBytes() const { return m_currentBytes; }
    qint64 currentEstimatedBytes() const { return m_currentEstimatedBytes; }
    qint64 currentSpeed() const { return m_currentSpeed; }

    const DownloadLibraryViewState &viewState() const { return m_view; }

    // Every chunk was handled but some could not be extracted.
    bool isIncomplete() const { return m_incomplete; }
    // Ended for good: no track count, or a destination
    // that cannot be written.
    bool hasFailed() const { return m_failed; }

Q_SIGNALS:
    void viewStateChanged();
    void closeRequested();
    void openFolderRequested(const QUrl &folder);
    // The header request ended without a track count (the service was unreachable).
    void configurationFailed(const Error &error);
    // Nothing can be written into the destination; the run has stopped.
    void destinationFailed(const Error &error);
    // The service has not answered for another whole minute; the download goes on trying.
    void serviceSilent(const QString &notice);
    void chunkDownloaded(qint64 offset, qint64 length, const QString &archivePath);
    void chunkFailed(qint64 offset, qint64 length, const Error &error);
    // After the archive is removed and the record written.
    void chunkExtracted(qint64 offset, qint64 length);
    void extractionFailed(const QString &archivePath, const Error &error);
    // Exactly one of these ends a run whose header arrived: every track is in
    // place, or some segment could not be extracted (the first such error).
    void completed();
    void incomplete(const Error &error);

private:
    struct Extraction
    {
        qint64 offset = 0;
        qint64 length = 0;
    };
    enum class ChunkState { Waiting, Extracted, Failed };
    struct ChunkProgress;

    std::shared_ptr<DownloadLibraryOperation> makeChunkOperation(qint64 offset, qint64 length);
    void addToDownloadQueue(std::shared_ptr<DownloadLibraryOperation> operation, Operation::QueuePriority priority);
    // On the download queue's thread, before it starts the next request.
    void downloadEnded(DownloadLibraryOperation *operation);
    void headerEnded(std::optional<qint64> count, const OptionalError &error);
    void trackCountReceived(qint64 count);
    void chunkStarted(qint64 offset);
    void chunkProgress(ChunkProgress &progress);
    void chunkFinished(qint64 offset, qint64 length, const std::optional<QUrl> &file, const OptionalError &error,
                       const OptionalError &unwritable);
    void stopForDestination(const Error &error);
    void addToUnzipQueue(const QString &archivePath, qint64 offset, qint64 length);

    // An extraction's reports, on the main thread.
    void unzipBegan(const QString &archivePath);
    void unzipTotalSizeKnown(const QString &archivePath, qint64 totalSize);
    void unzipBytesWritten(const QString &archivePath, qint64 bytesWritten);
    void unzipEnded(const QString &archivePath);
    void unzipFailed(const QString &archivePath, const Error &error);
    void finishIfAllHandled();
    static void removeLeftovers(const QString &destination);
    bool everythingExtracted() const;
    void writeResumeRecord(qint64 count);
    void showDone();
    void updateDownloadProgress();
    void measureTransfer();
    void changeView();

    QUrl m_URL;
    QString m_userId;
    QString m_userToken;
    DownloadLibraryPrompter *m_prompter;

    // One request at a time; a retry goes in front, after a pause.
    OperationQueue m_downloadQueue;
    QTimer m_resumeTimer;
    // Held while a retry is queued, so none slips in once destruction began.
    QMutex m_retryLock;
    bool m_stopping = false;
    bool m_chunkRunning = false;

    // One extraction at a time, in the order the chunks arrive.
    OperationQueue m_unzipQueue;
    QHash<QString, Extraction> m_extractions; // by archive path
    // Every scheduled chunk by offset; the record counts the run of Extracted
    // ones from the first.
    QMap<qint64, std::pair<qint64, ChunkState>> m_chunks;
    qint64 m_recorded = 0;
    OptionalError m_extractionError;
    bool m_incomplete = false;
    bool m_failed = false;

    qint64 m_totalTrackCount = 0;
    int m_downloadsScheduled = 0;
    int m_downloadsCompleted = 0;
    int m_unzipsCompleted = 0;
    qint64 m_unzipTotalSize = 0;
    qint64 m_unzipTotalBytesWritten = 0;
    bool m_isComplete = false;
    OptionalError m_downloadError;
    int m_downloadErrorCount = 0;

    qint64 m_currentOffset = -1;
    qint64 m_currentBytes = 0;
    qint64 m_currentEstimatedBytes = -1;
    qint64 m_currentSpeed = -1;
    bool m_extractingShown = false;

    // By bytes over the whole run (measureTransfer): done of the total, the
    // averaged speed and the time left. The total weighs segments not yet
    // announced at the bytes per track of those that were, so it is an
    // estimate until the last one has announced its size.
    qint64 m_runTracks = 0;      // tracks this run downloads
    qint64 m_finishedTracks = 0; // of segments downloaded
    qint64 m_finishedBytes = 0;
    bool m_totalEstimated = true;
    TransferMeter m_meter;
    QElapsedTimer m_clock;
    // Once a second while downloading, so speed and time left follow a stall.
    QTimer m_meterTick;
    // Since the service last answered anything; the whole minutes told.
    QElapsedTimer m_lastAnswer;
    qint64 m_silentMinutesTold = 0;

    DownloadLibraryViewState m_view;
};
