#pragma once

#include "core/transfermeter.h"
#include "session/uploadlistitem.h"

#include <QElapsedTimer>
#include <QHash>
#include <QList>
#include <QString>
#include <QTimer>

// What the session keeps about a run beyond its file lists, for the overall
// progress and the Result page: file sizes, running byte sums, the rows a
// pause interrupted, how the run ended, how long it took and why files failed.
struct UploadRunRecord
{
    // File sizes, taken off the main thread when a run starts. Files not yet
    // measured count as 0 bytes.
    QHash<QString, qint64> sizes;
    bool sizesKnown = false;
    quint64 sizesTicket = 0;
    // Bytes of every file of the run when the sizes arrived.
    qint64 allBytes = 0;

    // Sums over lists that only grow at their end during a run; a list that
    // shrank is summed afresh.
    struct TailSum
    {
        qsizetype count = 0;
        qint64 bytes = 0;
    };
    TailSum completed;
    TailSum skipped;
    TailSum errored;

    TransferMeter meter;
    QElapsedTimer clock;
    QTimer tick;

    // Time spent uploading, pauses left out.
    qint64 activeMilliseconds = 0;
    QElapsedTimer activeSince;
    bool wasUploading = false;
    quint32 page = 0;

    // The last rows in flight, and those a pause interrupted.
    QList<UploadListItem> lastRows;
    QList<UploadListItem> pausedRows;

    bool cancelled = false;
    qint64 notUploadedCount = 0;
    // The last failure of each file, by path.
    QHash<QString, QString> failureReasons;

    // Lost: a transport failure was reported and the file waits for its
    // retry. Offline: the run paused because the machine is offline.
    enum class Connection { Connected, Lost, Offline };
    Connection connection = Connection::Connected;
    qint64 connectionLostAt = 0; // clock milliseconds
    int retryAttempt = 0;        // attempts of the file that failed last
};
