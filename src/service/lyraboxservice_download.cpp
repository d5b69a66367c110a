// The single-request library download: the whole library as one zip.
#include "service/lyraboxservice.h"

#include "core/formatting.h"
#include "core/logger.h"
#include "library/downloadspeedmeter.h"
#include "protocol/endpoints.h"
#include "protocol/httpstatuscodemap.h"
#include "protocol/transporterror.h"

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QTemporaryFile>

namespace {

constexpr int kTimeoutMilliseconds = 150 * 1000;
constexpr qint64 kReadBufferSize = 1024 * 1024;

} // namespace

// One running download: its own network manager, the body streamed into a
// temporary file beside its final place.
struct LyraboxService::DownloadLibraryTask
{
    std::unique_ptr<QNetworkAccessManager> session;
    QNetworkReply *reply = nullptr;
    std::unique_ptr<QTemporaryFile> file;
    QUrl destination;
    DownloadLibraryProgress progress;
    DownloadLibraryCompletion completion;
    DownloadSpeedMeter speed;
    QElapsedTimer clock;
    qint64 totalBytesWritten = 0;
    OptionalError writeError;
    bool completionHandled = false;

    ~DownloadLibraryTask()
    {
        if (reply) {
            reply->disconnect();
            reply->abort();
        }
    }

    // Hands the outcome on once.
    void complete(const std::optional<QUrl> &url, const OptionalError &error)
    {
        if (completionHandled) {
            return;
        }
        completionHandled = true;
        if (completion) {
            completion(url, error);
        }
    }
};

void LyraboxService::downloadLibraryWithURL(const QUrl &destination, DownloadLibraryProgress progress,
                                            DownloadLibraryCompletion completion)
{
    Logger::log(QStringLiteral("DownloadLibrary"));
    const QUrl url = Endpoints::libraryDownloadURL(m_userId, m_userToken);
    Logger::log(QStringLiteral("GET: %1").arg(url.toString(QUrl::FullyEncoded)));

    // One at a time: a download still running is cancelled (and reports so).
    cancelDownloadLibrary();
    auto task = std::make_shared<DownloadLibraryTask>();
    task->destination = destination;
    task->progress = std::move(progress);
    task->completion = std::move(completion);
    task->session = std::make_unique<QNetworkAccessManager>();
    m_downloadLibraryTask = task;
    m_downloadLibraryEstimatedBytes = 0;

    QNetworkRequest request(url);
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    request.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
    request.setTransferTimeout(kTimeoutMilliseconds);
    QNetworkReply *reply = task->session->get(request);
    reply->setReadBufferSize(kReadBufferSize);
    task->reply = reply;
    task->clock.start();
    DownloadLibraryTask *raw = task.get();

    connect(reply, &QNetworkReply::metaDataChanged, reply, [this, raw] {
        if (raw->file) {
            return;
        }
        m_downloadLibraryEstimatedBytes = raw->reply->rawHeader("Estimated-Content-Length").toLongLong();
        // Beside its final place when the destination exists, so the move is a rename.
        const QString folder =
            QFileInfo(raw->destination.toLocalFile()).isDir() ? raw->destination.toLocalFile() : QDir::tempPath();
        raw->file = std::make_unique<QTemporaryFile>(QDir(folder).filePath(QStringLiteral(".Library-XXXXXX.zip")));
        if (!raw->file->open()) {
            raw->writeError = Error::errorWithMessage(raw->file->errorString());
            raw->reply->abort();
        }
    });
    connect(reply, &QNetworkReply::readyRead, reply, [this, raw] { writeDownloadLibraryData(raw); });
    connect(reply, &QNetworkReply::finished, reply, [this, raw] {
        // Keep the task alive until the outcome is handed on.
        const std::shared_ptr<DownloadLibraryTask> keep = std::move(m_downloadLibraryTask);
        writeDownloadLibraryData(raw);
        QNetworkReply *finished = raw->reply;
        raw->reply = nullptr;
        // The reply is still reporting: its manager goes later, with it.
        raw->session.release()->deleteLater();

        const QVariant status = finished->attribute(QNetworkRequest::HttpStatusCodeAttribute);
        if (raw->writeError) {
            raw->complete(std::nullopt, raw->writeError);
        } else if (finished->error() != QNetworkReply::NoError &&
                   finished->error() < QNetworkReply::ContentAccessDenied) {
            raw->complete(std::nullopt,
                          TransportError::errorForNetworkError(finished->error(), finished->errorString()));
        } else if (status.isValid() && status.toInt() != 200) {
            raw->complete(std::nullopt, Error::errorWithMessage(HTTPStatusCodeMap::errorText(status.toInt())));
        } else {
            const QString folder =
                QDir(raw->destination.toLocalFile())
                    .filePath(QStringLiteral("LyraboxLibrary-%1").arg(QDateTime::currentSecsSinceEpoch()));
            const QString target = QDir(folder).filePath(QStringLiteral("Library.zip"));
            if (!raw->file) { // an empty body
                raw->file = std::make_unique<QTemporaryFile>();
                raw->file->open();
            }
            raw->file->close();
            if (QDir().mkpath(folder) && raw->file->rename(target)) {
                raw->file->setAutoRemove(false);
                raw->complete(QUrl::fromLocalFile(target), std::nullopt);
            } else {
                raw->complete(std::nullopt, Error::errorWithMessage(raw->file->errorString()));
            }
        }
    });
}

void LyraboxService::writeDownloadLibraryData(DownloadLibraryTask *task)
{
    while (task->file && !task->writeError && task->reply && task->reply->bytesAvailable() > 0) {
        const QByteArray data = task->reply->read(kReadBufferSize);
        if (task->file->write(data) != data.size()) {
            task->writeError = Error::errorWithMessage(task->file->errorString());
            task->reply->abort();
            return;
        }
        task->totalBytesWritten += data.size();
        const qint64 speed = task->speed.addWrite(data.size(), task->totalBytesWritten, task->clock.elapsed() / 1000.0);
        const double fraction = m_downloadLibraryEstimatedBytes < 1
                                    ? -1.0
                                    : double(task->totalBytesWritten) / double(m_downloadLibraryEstimatedBytes);
        if (task->progress) {
            task->progress(fraction, speed);
        }
    }
}

void LyraboxService::cancelDownloadLibrary()
{
    const std::shared_ptr<DownloadLibraryTask> task = std::move(m_downloadLibraryTask);
    if (!task) {
        return;
    }
    if (task->reply) {
        task->reply->disconnect();
        task->reply->abort();
        task->reply = nullptr;
        // This may be called from the task's own progress report.
        task->session.release()->deleteLater();
    }
    task->complete(std::nullopt,
                   TransportError::errorForNetworkError(QNetworkReply::OperationCanceledError, QString()));
}
