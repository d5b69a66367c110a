#pragma once

#include <QElapsedTimer>
#include <QHash>
#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

class SessionModel;

// What pelicane-cli shows while files go up: files done and remaining, the
// rate in bytes per second over the last few seconds, and the time left at
// that rate.
class UploadProgressMeter
{
public:
    explicit UploadProgressMeter(const SessionModel *session);

    // Notes the sizes of the files the run starts with.
    void begin();
    // A file was reported uploaded.
    void fileCompleted(const QString &path);
    // Takes a sample of the bytes sent so far; call it about once a second.
    void sample();

    qint64 bytesSent() const;
    qint64 bytesRemaining() const;
    // Bytes per second over the window, or -1 while there is too little to tell.
    double rate() const;
    // Seconds left at the current rate, or -1 when unknown.
    qint64 secondsLeft() const;

    // "Uploaded 12 of 300 files, 288 remaining | 3.4 MB/s | 1:23 left".
    QString line() const;

    static QString formatBytes(double bytes);
    // "0:42", "1:23:45".
    static QString formatDuration(qint64 seconds);

private:
    qint64 sizeOf(const QString &path);
    qint64 settledBytes() const;

    const SessionModel *m_session;
    QHash<QString, qint64> m_sizes;
    qint64 m_totalBytes = 0;
    qint64 m_completedBytes = 0;
    QElapsedTimer m_clock;
    // (milliseconds since begin, bytes sent) over the last window.
    QList<QPair<qint64, qint64>> m_samples;
};
