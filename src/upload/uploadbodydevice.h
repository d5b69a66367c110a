#pragma once

#include <QByteArray>
#include <QFile>
#include <QIODevice>
#include <QString>

#include <atomic>
#include <functional>

// The request body of one upload: the start envelope, the file read in
// pieces, and the end envelope, as one random-access device of known size.
// Qt needs a size to stream a body without buffering it whole; with it and
// QNetworkRequest::DoNotBufferUploadDataAttribute memory stays flat whatever
// the file's size.
//
// The body is produced once. Qt rewinds a random-access body to send it
// again after a dropped connection; this device refuses any rewind once bytes
// have gone out, logs it and announces it, and the upload ends instead.
//
// The file must keep the size it had when the body was made: a file that
// turns out shorter or longer fails the body (the announced length would be
// wrong).
//
// Lives on, and is read from, the thread of the network manager that sends
// it; the counters may be read from any thread.
class UploadBodyDevice : public QIODevice
{
    Q_OBJECT

public:
    using LogFunction = std::function<void(const QString &message)>;

    UploadBodyDevice(const QByteArray &header, const QString &filePath, qint64 fileSize, const QByteArray &footer,
                     LogFunction log, QObject *parent = nullptr);
    ~UploadBodyDevice() override;

    // Opens the file too; false (and the file's error in errorString) when
    // it cannot be opened.
    bool open(OpenMode mode) override;
    void close() override;
    bool isSequential() const override { return false; }
    qint64 size() const override;
    // Only to where the body stands, or anywhere before any byte went out.
    bool seek(qint64 pos) override;

    // What is left of each envelope to hand out; they shrink as the body
    // goes.
    qint64 headerBytesRemaining() const { return m_headerRemaining.load(); }
    qint64 footerBytesRemaining() const { return m_footerRemaining.load(); }
    bool didWriteFooter() const { return m_didWriteFooter.load(); }
    bool bodyStarted() const { return m_bodyStarted.load(); }

signals:
    // The last byte of the end envelope was handed out.
    void footerWritten();
    // A rewind after bytes had gone out was refused.
    void newBodyRequested();
    // The file could not be read, or changed size; detail says why.
    void sourceFailed(const QString &detail);

protected:
    qint64 readData(char *data, qint64 maxSize) override;
    qint64 writeData(const char *data, qint64 maxSize) override;

private:
    qint64 fail(const QString &detail, qint64 handedOut);

    const QByteArray m_header;
    const QByteArray m_footer;
    const qint64 m_fileSize;
    QFile m_file;
    LogFunction m_log;
    std::atomic<qint64> m_headerRemaining;
    std::atomic<qint64> m_footerRemaining;
    std::atomic<bool> m_didWriteFooter{false};
    std::atomic<bool> m_bodyStarted{false};
    qint64 m_handedOut = 0; // the furthest position handed out
    bool m_failed = false;
    QString m_pendingFailure;
};
