#pragma once

#include "cd/plcid3tag.h"
#include "platform/operationqueue.h"
#include "session/uploadlistitem.h"

#include <QHash>
#include <QList>
#include <QSet>
#include <QString>
#include <QThreadPool>

#include <atomic>
#include <memory>

// What an upload run keeps besides the seven file lists (see SessionModel).
struct UploadRunState
{
    UploadRunState();
    ~UploadRunState();

    // The digest check: one operation at a time, the old one cancelled first.
    OperationQueue md5CheckOperationQueue;
    UploadListItem md5CheckProgressItem;
    bool md5CheckProgressItemOnScreen = false;

    // The rows of files in flight, in the order they were started.
    QList<UploadListItem> uploadListItems;

    qint64 foundFilesCountCache = 0;
    // Failures in a row with a code of 1 or more, across runs.
    qint64 simultaneousErrors = 0;

    // Failed attempts per file for transport reasons (offline excepted); the
    // run gives a file up at the bound.
    QHash<QString, int> failedAttempts;
    // Files refused as not authenticated once; after the session proved
    // valid, a second refusal counts as the file's own failure.
    QSet<QString> refusedAfterVerification;
    // The last upload failed because the machine is offline.
    bool offline = false;

    // Shown during a CD run; its visibility is what marks one.
    bool audioCDArtworkVisible = false;
    QHash<QString, PLCID3Tag> audioCDID3Tags;

    // Files in uploadingFiles whose fresh digest is being taken. A result
    // whose ticket no longer matches (paused meanwhile) is dropped.
    struct PendingDigest
    {
        quint64 ticket = 0;
        bool isRetry = false;
    };
    QHash<QString, PendingDigest> pendingDigests;
    quint64 nextDigestTicket = 1;
    // Set when quitting: a digest under way is abandoned, not waited for.
    // Declared before the pool, which waits for its tasks when it goes.
    std::atomic<bool> digestsStopping{false};
    QThreadPool digestPool;

    // The labels as last filled.
    QString uploadStateText;
    QString skippedStateText;
    bool skippedStateHidden = true;
    QString discoveredText;
    QString uploadedText;
    QString skippedText;
    QString errorsText;
    bool retryErrorsButtonVisible = false;
};
