#pragma once

#include "platform/operationqueue.h"
#include "support/devserverprocess.h"
#include "support/logtesting.h"
#include "upload/asyncuploadrequestoperation.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

// Helpers of the upload tests and benchmarks.

using Credentials = DevServerProcess::Session;

// A configuration as the service client fills it, for the file at path.
AsyncUploadRequestConfiguration uploadConfiguration(const QString &uploadURL, const QString &path,
                                                    const Credentials &credentials);

// Writes size bytes of a deterministic pattern (seed varies it).
bool writePatternFile(const QString &path, qint64 size, quint32 seed = 1);
QByteArray md5OfFile(const QString &path);

// What one upload operation reported, in the order it came.
struct UploadReports
{
    QList<double> rip;      // a CD track's rip progress
    QList<double> progress; // the upload's
    QStringList events;     // "rip" and "upload"
    int successes = 0;
    QList<Error> failures;
    bool offMainThread = false; // a report came on another thread

    int finals() const { return successes + int(failures.size()); }
    // The one failure's code (0 when the outcome was not exactly one failure).
    int failureCode() const { return successes == 0 && failures.size() == 1 ? failures.first().code() : 0; }
};

// An operation that reports into `reports`.
std::shared_ptr<AsyncUploadRequestOperation>
makeReportingOperation(const AsyncUploadRequestConfiguration &configuration, UploadReports *reports,
                       const AsyncUploadRequestOperation::Timeouts &timeouts = {});

// Waits for the final report and the end of the operation, then a while
// longer for a second report that must not come. True when exactly one came.
bool settle(OperationQueue &queue, const std::shared_ptr<AsyncUploadRequestOperation> &operation,
            const UploadReports &reports, int timeoutMs = 60000);
