#pragma once

#include "core/error.h"
#include "upload/asyncuploadrequestconfiguration.h"

#include <QByteArray>
#include <QFile>
#include <QObject>
#include <QString>

// The states a stream reports to its readers.
enum class StreamStatus : qint64 {
    NotOpen = 0,
    Opening = 1,
    Open = 2,
    Reading = 3,
    Writing = 4,
    AtEnd = 5,
    Closed = 6,
    Error = 7,
};

// The multipart body of one upload, and a pull-style stream that produces it.
//
// The class functions build the two envelopes around the file's bytes: the
// start envelope holds every form field that precedes the file and the file
// part's header lines; the end envelope closes the file part, carries the
// credentials and the closing delimiter.
//
// An UploadStream object, when read, yields the start envelope, the file's
// bytes and then the end envelope, and tells about it through its signals,
// delivered on its own thread's event loop (a signalled source: many reads
// before a delivery make one delivery). It is not thread-safe: every call
// comes on the thread the object lives on.
class UploadStream : public QObject
{
    Q_OBJECT

public:
    // "---------------------------14737809831466499882746641449", for every
    // upload: fixed on purpose.
    static QString boundary();
    // By the path's extension; "application/octet-stream" when unknown.
    static QString mimeTypeForPath(const QString &path);
    static QByteArray beginMultipartDataUpload(const AsyncUploadRequestConfiguration &configuration);
    static QByteArray endMultipartDataUpload(const AsyncUploadRequestConfiguration &configuration);
    // The file name written into the file part, before percent-encoding:
    // "<title>.flac" for a CD track, else the path's last component.
    static QString uploadFileName(const AsyncUploadRequestConfiguration &configuration);

    // The file is found by parsing filePath as a URL, as it stands: a plain
    // absolute path works, and so does a "file://" URL, but a '#' or '?' in
    // a path cuts it short (such a file then reads as empty).
    explicit UploadStream(const AsyncUploadRequestConfiguration &configuration, QObject *parent = nullptr);
    ~UploadStream() override;

    void open();
    void close();

    // Copies up to maxLength bytes into buffer; the count, or -1 when the
    // file cannot be read. The start envelope comes in pieces of any size;
    // the end envelope only whole: a buffer smaller than what is left of it
    // gets 0, and the stream looks ended early.
    qint64 read(char *buffer, qint64 maxLength);
    bool hasBytesAvailable() const;

    StreamStatus streamStatus() const { return m_uploadStreamStatus; }
    // The file's error, if it could not be opened or read.
    OptionalError streamError() const;

    // Events are delivered only once the stream is scheduled on its thread's
    // event loop. The file is not affected.
    void scheduleInRunLoop();

    const AsyncUploadRequestConfiguration &configuration() const { return m_configuration; }

Q_SIGNALS:
    // Delivered in this order when several are pending. An event nobody is
    // connected to only writes "handle event: <code>" to the console, with
    // the codes 1, 2 and 16. A file that cannot be read raises no event: it
    // shows in streamError().
    void opened();
    void bytesAvailable();
    void endEncountered();

private:
    void runLoopRun();
    void deliver(void (UploadStream::*signal)(), int code);
    void signalSource();
    void postDelivery();

    bool m_didOpen = false;
    bool m_hasBytes = false;
    bool m_endReached = false;
    AsyncUploadRequestConfiguration m_configuration;
    QByteArray m_startData;
    QByteArray m_endData;
    quint64 m_startDataPosition = 0;
    quint64 m_endDataPosition = 0;
    QFile m_fileInputStream;
    bool m_fileUsable = false; // the URL named a local file
    StreamStatus m_uploadStreamStatus = StreamStatus::NotOpen;
    bool m_scheduled = false;
    bool m_sourceSignalled = false;
    bool m_deliveryPosted = false;
};
