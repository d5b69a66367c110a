// The run as a whole: bytes sent of the total with speed and time left, the
// state of the connection, the rows a pause interrupted, and the record the
// Result page gives (cancelled or not, time taken, size sent, why files
// failed). It follows the run through the session's own signals, so the run
// logic itself stays as it is.
#include "session/sessionmodel.h"

#include "session/audiocdflow.h"

#include "core/formatting.h"

#include <QFileInfo>
#include <QPointer>
#include <QThreadPool>

namespace {

// How long an upload operation waits before it sends a failed file again.
constexpr qint64 kRetryWaitMilliseconds = 5000;

} // namespace

void SessionModel::connectRunRecord()
{
    m_record.clock.start();
    m_record.tick.setInterval(1000);
    connect(&m_record.tick, &QTimer::timeout, this, &SessionModel::refreshTransferProgress);
    connect(this, &SessionModel::mainPageTypeChanged, this, &SessionModel::runPageEntered);
    connect(this, &SessionModel::uploadStateChanged, this, &SessionModel::runListsChanged);
    connect(this, &SessionModel::uploadListViewChanged, this, &SessionModel::runRowsChanged);
    connect(this, &SessionModel::uploadListItemChanged, this, &SessionModel::runRowsChanged);
    connect(this, &SessionModel::uploadFinished, this, &SessionModel::runFileFinished);
    connect(this, &SessionModel::uploadRetrying, this, [this](const QString &, int attempt, const Error &) {
        m_record.connectionLostAt = m_record.clock.elapsed();
        m_record.retryAttempt = attempt;
        setConnection(Connection::Lost);
        emit connectionChanged(); // restarts the countdown when already lost
    });
    connect(this, &SessionModel::offlineChanged, this,
            [this](bool offline) { setConnection(offline ? Connection::Offline : Connection::Connected); });
}

void SessionModel::runPageEntered(quint32 type)
{
    const quint32 previous = m_record.page;
    m_record.page = type;
    if (type == MainPageTypeUpload && previous != MainPageTypeUpload) {
        // A new run, or the errors of the last one sent again.
        m_record.cancelled = false;
        m_record.notUploadedCount = 0;
        m_record.activeMilliseconds = 0;
        m_record.pausedRows.clear();
        m_record.lastRows.clear();
        for (const QString &path : m_files.ready()) {
            m_record.failureReasons.remove(path);
        }
        setConnection(Connection::Connected);
        measureRunFiles();
        m_record.meter.restart(m_record.clock.elapsed() / 1000.0);
        m_record.tick.start();
    } else if (type != MainPageTypeUpload && previous == MainPageTypeUpload) {
        if (m_record.wasUploading) {
            m_record.activeMilliseconds += m_record.activeSince.elapsed();
            m_record.wasUploading = false;
        }
        m_record.tick.stop();
        m_record.pausedRows.clear();
        setConnection(Connection::Connected);
        refreshTransferProgress();
    }
    if (type == MainPageTypeSearch) {
        // Start over: the next run begins with a clean record.
        m_record.failureReasons.clear();
        m_record.cancelled = false;
        m_record.sizes.clear();
        m_record.sizesKnown = false;
    }
}

void SessionModel::measureRunFiles()
{
    // Taking the size of a hundred thousand files is disk work: off the main
    // thread, while the run starts.
    QStringList paths;
    for (FileList list : {FileList::Found, FileList::Ready, FileList::Uploading, FileList::Retry, FileList::Completed,
                          FileList::Skipped, FileList::Errored}) {
        paths += m_files.list(list).toList();
    }
    const quint64 ticket = ++m_record.sizesTicket;
    m_record.sizesKnown = false;
    QPointer<SessionModel> self(this);
    QThreadPool::globalInstance()->start([self, paths, ticket, trackSizes = m_cdFlow->trackSizes()] {
        QHash<QString, qint64> sizes;
        sizes.reserve(paths.size());
        for (const QString &path : paths) {
            const QFileInfo info(path);
            sizes.insert(path, info.isFile() ? info.size() : trackSizes.value(path));
        }
        QMetaObject::invokeMethod(
            self.data(),
            [self, sizes = std::move(sizes), ticket]() mutable {
                if (!self || ticket != self->m_record.sizesTicket) {
                    return;
                }
                UploadRunRecord &record = self->m_record;
                record.sizes = std::move(sizes);
                record.sizesKnown = true;
                record.allBytes = 0;
                for (qint64 size : std::as_const(record.sizes)) {
                    record.allBytes += size;
                }
                record.completed = {};
                record.skipped = {};
                record.errored = {};
                self->refreshTransferProgress();
            },
            Qt::QueuedConnection);
    });
}

void SessionModel::sumTail(UploadRunRecord::TailSum &sum, const OrderedPathSet &list)
{
    if (list.size() < sum.count) {
        sum = {};
    }
    for (qsizetype i = sum.count; i < list.size(); ++i) {
        sum.bytes += m_record.sizes.value(list.at(i));
    }
    sum.count = list.size();
}

void SessionModel::runListsChanged()
{
    const bool uploading = m_isUploading && m_mainPageType == MainPageTypeUpload;
    if (uploading != m_record.wasUploading) {
        if (uploading) {
            m_record.activeSince.start();
            m_record.pausedRows.clear();
            emit uploadListViewChanged();
        } else {
            m_record.activeMilliseconds += m_record.activeSince.elapsed();
            if (m_mainPageType == MainPageTypeUpload) {
                // Paused: the rows that were in flight stay, marked, and lead
                // the ready list again.
                m_record.pausedRows.clear();
                for (UploadListItem row : std::as_const(m_record.lastRows)) {
                    if (m_files.ready().contains(row.filePath()) || m_files.retry().contains(row.filePath())) {
                        row.setPaused(true);
                        m_record.pausedRows.append(row);
                    }
                }
                emit uploadListViewChanged();
            }
            if (m_record.connection == Connection::Lost) {
                setConnection(Connection::Connected);
            }
        }
        m_record.wasUploading = uploading;
        m_record.meter.restart(m_record.clock.elapsed() / 1000.0);
    }
    refreshTransferProgress();
}

void SessionModel::runRowsChanged()
{
    if (!m_run.uploadListItems.isEmpty()) {
        m_record.lastRows = m_run.uploadListItems;
    }
    if (m_record.connection == Connection::Lost) {
        // A file moving again means the service answers again.
        for (const UploadListItem &row : m_run.uploadListItems) {
            if (row.progress() > 0 && m_files.uploading().contains(row.filePath())) {
                setConnection(Connection::Connected);
                break;
            }
        }
    }
    refreshTransferProgress();
}

void SessionModel::runFileFinished(const QString &filePath, const OptionalError &error)
{
    if (!error) {
        m_record.failureReasons.remove(filePath);
        if (m_record.connection != Connection::Connected) {
            setConnection(Connection::Connected);
        }
        return;
    }
    if (error->isCancelled()) {
        return;
    }
    // Lost connections and offline are told by their own signals.
    m_record.failureReasons.insert(filePath, error->localizedDescription());
}

void SessionModel::setConnection(Connection connection)
{
    if (m_record.connection != connection) {
        m_record.connection = connection;
        emit connectionChanged();
    }
}

QString SessionModel::connectionText() const
{
    switch (m_record.connection) {
    case Connection::Connected:
        return QString();
    case Connection::Offline:
        return QStringLiteral("Offline: the upload is paused. Resume it once the connection is back.");
    case Connection::Lost: {
        const qint64 waited = m_record.clock.elapsed() - m_record.connectionLostAt;
        const qint64 seconds = (kRetryWaitMilliseconds - waited + 999) / 1000;
        QString text = seconds > 0 ? QStringLiteral("Connection lost, retrying in %1 s…").arg(seconds)
                                   : QStringLiteral("Connection lost, retrying…");
        if (m_record.retryAttempt > 1) {
            text += QStringLiteral(" (attempt %1 of %2)").arg(m_record.retryAttempt + 1).arg(kMaxAttemptsPerFile);
        }
        return text;
    }
    }
    return QString();
}

void SessionModel::refreshTransferProgress()
{
    if (m_record.sizesKnown) {
        sumTail(m_record.completed, m_files.completed());
        sumTail(m_record.skipped, m_files.skipped());
        sumTail(m_record.errored, m_files.errored());
    }
    qint64 inFlight = 0;
    for (const UploadListItem &row : m_run.uploadListItems) {
        if (m_files.uploading().contains(row.filePath()) && !row.isRip()) {
            inFlight += m_record.sizes.value(row.filePath()) * row.progress() / 100;
        }
    }
    const qint64 total = m_record.sizesKnown ? m_record.allBytes - m_record.skipped.bytes - m_record.errored.bytes : 0;
    const qint64 done = m_record.sizesKnown ? m_record.completed.bytes + inFlight : 0;
    m_record.meter.update(done, total, m_record.clock.elapsed() / 1000.0);
    if (m_record.connection == Connection::Lost) {
        emit connectionChanged(); // the countdown
    }
    emit transferProgressChanged();
}

int SessionModel::overallPercent() const
{
    const int byBytes = m_record.meter.percent();
    if (byBytes >= 0) {
        return byBytes;
    }
    const qint64 completed = m_files.completed().size();
    const qint64 total = completed + m_files.remaining() + m_files.retry().size();
    return total == 0 ? 0 : int(completed * 100 / total);
}

QString SessionModel::transferText() const
{
    if (!m_record.sizesKnown) {
        return QStringLiteral("Measuring files…");
    }
    if (!m_isUploading) {
        return m_record.meter.amountText() + QStringLiteral(" — paused");
    }
    return m_record.meter.progressText();
}

bool SessionModel::isRunInProgress() const
{
    return m_mainPageType == MainPageTypeUpload && (m_files.remaining() > 0 || !m_files.retry().isEmpty());
}

void SessionModel::cancelRun()
{
    if (m_mainPageType == MainPageTypeUpload) {
        m_record.cancelled = true;
        m_record.notUploadedCount = m_files.remaining() + m_files.retry().size();
    }
    OnCancelUpload();
    // The Result page was set up before the record was complete.
    emit uploadStateChanged();
}

qint64 SessionModel::runDurationSeconds() const
{
    qint64 milliseconds = m_record.activeMilliseconds;
    if (m_record.wasUploading) {
        milliseconds += m_record.activeSince.elapsed();
    }
    return (milliseconds + 500) / 1000;
}

QList<std::pair<QString, QString>> SessionModel::failedFiles() const
{
    QList<std::pair<QString, QString>> files;
    for (const QString &path : m_files.errored()) {
        files.append({path, m_record.failureReasons.value(path)});
    }
    return files;
}

QString SessionModel::resultTitleText() const
{
    if (m_record.cancelled) {
        const qint64 count = m_record.notUploadedCount;
        return QStringLiteral("Upload cancelled: %1 %2 not uploaded")
            .arg(groupedNumber(count), count == 1 ? QStringLiteral("file was") : QStringLiteral("files were"));
    }
    return m_files.errored().isEmpty() ? QStringLiteral("Upload finished")
                                       : QStringLiteral("Upload finished with errors");
}

QString SessionModel::resultDetailsText() const
{
    QString text = QStringLiteral("Time taken: %1").arg(TransferMeter::formatDuration(runDurationSeconds()));
    if (m_record.sizesKnown) {
        text += QStringLiteral("   Size sent: %1").arg(TransferMeter::formatBytes(m_record.completed.bytes));
    }
    return text;
}
