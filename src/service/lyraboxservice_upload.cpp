// The upload dispatch of the service client: one configuration and one
// upload operation per file, wired to the delegate.

#include "cd/plcvolumetype.h"
#include "core/formatting.h"
#include "core/logger.h"
#include "platform/operationqueue.h"
#include "protocol/clientfields.h"
#include "protocol/endpoints.h"
#include "protocol/transporterror.h"
#include "service/lyraboxservice.h"
#include "upload/asyncuploadrequestoperation.h"

#include <QDateTime>
#include <QFileInfo>
#include <QPointer>
#include <QUrl>

#include <memory>

QString LyraboxService::playlistPositionForFile(const QString &filePath)
{
    // A retried file keeps the position of its first attempt.
    if (const auto it = m_playlistOrder.constFind(filePath); it != m_playlistOrder.constEnd()) {
        return *it;
    }
    // The seconds within the current block of a million (the clock's text
    // without its first four digits), plus one per file handed out: later
    // files get higher positions, so the service can sort by them.
    const QString now = QString::number(quint64(QDateTime::currentSecsSinceEpoch()));
    const quint64 seconds = now.mid(4).toULongLong();
    const QString position = QString::number(seconds + m_playlistOrderIndex);
    ++m_playlistOrderIndex;
    m_playlistOrder.insert(filePath, position);
    return position;
}

void LyraboxService::uploadFile(const QString &filePath, const std::optional<PLCID3Tag> &ID3Tags, bool isRetry)
{
    runOnServiceThread([this, filePath, ID3Tags, isRetry] {
        Logger::log(QStringLiteral("Upload: %1").arg(nullable(filePath)));
        m_uploadProgresses.insert(filePath, LyraboxUploadProgress{});

        QString sanitizedFilePath = filePath;
        QString agentSuffix;
        if (ID3Tags) {
            sanitizedFilePath = QStringLiteral("/Volumes/%1/%2.flac")
                                    .arg(describeOptional(ID3Tags->album()), describeOptional(ID3Tags->title()));
            agentSuffix = QStringLiteral(" ripped");
        }

        AsyncUploadRequestConfiguration config;
        config.uploadURL = Endpoints::uploadURL().toString();
        config.filePath = filePath;
        config.sanitizedFilePath = sanitizedFilePath;
        config.userId = m_userId;
        config.userToken = m_userToken;
        config.clientName = ClientFields::client();
        config.deviceName = ClientFields::deviceName();
        config.userAgent = ClientFields::userAgent(agentSuffix);
        config.versionString = ClientFields::version();
        config.createPlaylistName = m_createPlaylistName;
        config.createTagName = m_createTagName;
        config.reuploadDuplicates = m_reuploadDuplicates;
        config.ID3Tags = ID3Tags;
        config.isRetry = isRetry;
        if (!m_createPlaylistName.isEmpty()) {
            config.playlistOrder = playlistPositionForFile(filePath);
        }

        auto operation = std::make_shared<AsyncUploadRequestOperation>(config);
        // The receivers hold the service and the operation weakly; they run
        // on the main thread.
        QPointer<LyraboxService> self(this);
        std::weak_ptr<AsyncUploadRequestOperation> weakOperation = operation;
        const QString fileName = QFileInfo(filePath).fileName();

        const auto failed = [self, weakOperation, filePath, fileName](const Error &error) {
            if (!self) {
                return;
            }
            const auto operation = weakOperation.lock();
            const double lastKnownProgress = operation ? operation->lastKnownProgress() : 0.0;
            Logger::log(QStringLiteral("%1 - errored (%2)").arg(fileName, QString::asprintf("%f", lastKnownProgress)));
            // A file on an external drive that loses the connection before a
            // single byte counted is most likely one the program may not read.
            if (!self->m_didShowNetworkDrivePermissionError && error.code() == TransportError::NetworkConnectionLost &&
                lastKnownProgress == 0.0 && PLCVolumeType::isExternalDrive(QUrl::fromLocalFile(filePath))) {
                Logger::log(QStringLiteral(
                    " - detected network connection lost error when uploading from external drive, notifying user"));
                self->m_didShowNetworkDrivePermissionError = true;
                LyraboxService *service = self;
                self->notifyDelegate(LyraboxServiceDelegate::Operation::DidExperienceExternalDriveError,
                                     [service](LyraboxServiceDelegate *delegate) {
                                         delegate->lyraboxDidExperienceExternalDriveError(service);
                                     });
            }
            LyraboxService *service = self;
            self->notifyDelegate(LyraboxServiceDelegate::Operation::DidFinishUpload,
                                 [service, filePath, error](LyraboxServiceDelegate *delegate) {
                                     delegate->lyraboxDidFinishUpload(service, filePath, error);
                                 });
        };
        const auto succeeded = [self, filePath] {
            if (!self) {
                return;
            }
            LyraboxService *service = self;
            self->notifyDelegate(LyraboxServiceDelegate::Operation::DidFinishUpload,
                                 [service, filePath](LyraboxServiceDelegate *delegate) {
                                     delegate->lyraboxDidFinishUpload(service, filePath, std::nullopt);
                                 });
        };
        // Progress goes to the delegate at once: the signal comes on the
        // main thread.
        const auto progressed = [self, filePath](double fraction) {
            if (self && self->m_delegate &&
                self->m_delegate->respondsToOperation(LyraboxServiceDelegate::Operation::DidUpdateUploadProgress)) {
                self->m_delegate->lyraboxDidUpdateUploadProgress(self, filePath, int(fraction * 100));
            }
        };
        const auto ripped = [self, filePath](double fraction) {
            if (self && self->m_delegate &&
                self->m_delegate->respondsToOperation(LyraboxServiceDelegate::Operation::DidUpdateRipProgress)) {
                self->m_delegate->lyraboxDidUpdateRipProgress(self, filePath, int(fraction * 100));
            }
        };
        connect(operation.get(), &AsyncUploadRequestOperation::fileLoadFailed, this, failed);
        connect(operation.get(), &AsyncUploadRequestOperation::fileLoadSucceeded, this, succeeded);
        connect(operation.get(), &AsyncUploadRequestOperation::fileLoadProgressChanged, this, progressed);
        connect(operation.get(), &AsyncUploadRequestOperation::ripProgressChanged, this, ripped);

        // No limit here: the session keeps as many uploads going as it wants.
        m_fileLoadOperationQueue->addOperation(operation);
    });
}
