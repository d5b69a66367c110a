#include "library/downloadlibraryoperation.h"

#include "core/logger.h"
#include "library/segmenttransfer.h"
#include "protocol/endpoints.h"

#include <QEventLoop>
#include <QMutexLocker>

DownloadLibraryOperation::DownloadLibraryOperation() = default;

DownloadLibraryOperation::~DownloadLibraryOperation() = default;

void DownloadLibraryOperation::main()
{
    Logger::log(QStringLiteral("DownloadLibrary(%1, %2, %3)")
                    .arg(m_offset)
                    .arg(m_length)
                    .arg(m_header ? QStringLiteral("header") : QStringLiteral("chunk")));

    SegmentTransfer::Request request;
    request.url = Endpoints::libraryDownloadURL(m_userId, m_token, Endpoints::LibrarySegment{m_offset, m_length});
    request.header = m_header;
    request.offset = m_offset;
    request.length = m_length;
    request.downloadTo = m_downloadToURL.toLocalFile();

    QEventLoop loop;
    bool ended = false;
    SegmentTransfer::Outcome outcome;
    SegmentTransfer transfer(request);
    connect(&transfer, &SegmentTransfer::progressChanged, &transfer, [this, &transfer](qint64 total, qint64 speed) {
        m_estimatedBytes = transfer.estimatedBytes();
        Q_EMIT progressChanged(total, speed);
    });
    connect(&transfer, &SegmentTransfer::ended, &loop, [&](const SegmentTransfer::Outcome &result) {
        outcome = result;
        ended = true;
        loop.quit();
    });
    {
        QMutexLocker locker(&m_transferLock);
        m_transfer = &transfer;
    }
    transfer.start();
    // A cancel that came before m_transfer was set found nothing to stop.
    if (isCancelled()) {
        transfer.cancel();
    }
    if (!ended) {
        loop.exec();
    }
    {
        QMutexLocker locker(&m_transferLock);
        m_transfer = nullptr;
    }

    m_completionHandled = true;
    m_estimatedBytes = outcome.estimatedBytes;
    if (outcome.trackCount) {
        m_trackCount = outcome.trackCount;
        return;
    }
    m_downloadedFileURL = outcome.file;
    m_error = outcome.error;
    m_writeFailed = outcome.writeFailed;
    Logger::log(QStringLiteral("Response: %1 - StatusCode: %2, Result: %3, Canceled: %4, Message: %5")
                    .arg(outcome.requestURL)
                    .arg(outcome.status)
                    .arg(outcome.transportOK ? QStringLiteral("True") : QStringLiteral("False"))
                    .arg(m_error && m_error->code() == -999 ? QStringLiteral("True") : QStringLiteral("False"))
                    .arg(m_error ? m_error->localizedDescription() : QStringLiteral("nil")));
}

void DownloadLibraryOperation::cancel()
{
    Operation::cancel();
    QMutexLocker locker(&m_transferLock);
    if (m_transfer) {
        // The transfer belongs to the queue's thread: it stops there.
        QMetaObject::invokeMethod(m_transfer, &SegmentTransfer::cancel, Qt::QueuedConnection);
    }
}
