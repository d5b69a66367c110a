#pragma once

#include "core/error.h"
#include "library/downloadspeedmeter.h"

#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QUrl>

#include <memory>
#include <optional>

class QFile;
class QNetworkAccessManager;
class QNetworkReply;

// One GET to the library-download endpoint, on the thread that made it: its
// own network manager, the reply, and the partial file the body streams into.
// A header request stops at the response headers; a segment's body is moved
// into place as its chunk file once it has arrived whole, end marker checked.
// It ends exactly once, with `ended`. Both signals are emitted on its thread.
class SegmentTransfer : public QObject
{
    Q_OBJECT

public:
    struct Request
    {
        QUrl url;
        bool header = false;
        qint64 offset = 0;
        qint64 length = 0;
        QString downloadTo;
    };

    struct Outcome
    {
        std::optional<qint64> trackCount; // a header request that was answered
        std::optional<QUrl> file;
        OptionalError error;
        int status = 0;
        bool transportOK = true;
        bool writeFailed = false; // the body could not be stored or moved into place
        std::optional<qint64> estimatedBytes;
        QString requestURL; // as sent, or "nil"
    };

    explicit SegmentTransfer(Request request);
    ~SegmentTransfer() override;

    void start();
    // Ends the transfer; it then ends with the cancellation error (-999).
    void cancel();

    // Known once the response headers have arrived.
    std::optional<qint64> estimatedBytes() const { return m_estimatedBytes; }

Q_SIGNALS:
    void progressChanged(qint64 totalBytesWritten, qint64 bytesPerSecond);
    void ended(const SegmentTransfer::Outcome &outcome);

private:
    void responseReceived();
    void writeAvailableData();
    void taskCompleted();
    bool openPartialFile();
    bool bodyCutShort() const;
    OptionalError moveIntoPlace(std::optional<QUrl> *downloadedFile);
    void finish(Outcome outcome);
    QString chunkPath() const;

    Request m_request;

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
