// The upload run, its results and retries.
// First bodies: the upload run work completes this file.
#include "session/sessionmodel.h"

void SessionModel::setupUploadContainerView()
{
    m_isUploading = true;
    emit uploadStateChanged();
}

void SessionModel::setupResultContainerView()
{
    emit uploadStateChanged();
}

void SessionModel::OnPauseUpload()
{
    if (m_isUploading) {
        // Interrupted files lead the ready list again, in their order.
        while (!m_uploadingFiles.isEmpty()) {
            m_readyFiles.prepend(m_uploadingFiles.takeLast());
        }
        m_isUploading = false;
    } else {
        m_isUploading = true;
    }
    emit uploadStateChanged();
}

void SessionModel::startMd5CheckPhase()
{
    while (!m_foundFiles.isEmpty()) {
        m_readyFiles.append(m_foundFiles.takeFirst());
    }
    emit uploadStateChanged();
}

void SessionModel::lyraboxDidFinishUpload(LyraboxService *service, const QString &filePath, const OptionalError &error)
{
    Q_UNUSED(service);
    m_uploadingFiles.removeOne(filePath);
    if (!error) {
        m_completedFiles.append(filePath);
    } else if (error->code() >= 1) {
        m_erroredFiles.append(filePath);
    }
    emit uploadStateChanged();
}

void SessionModel::lyraboxDidUpdateUploadProgress(LyraboxService *service, const QString &filePath, int progress)
{
    Q_UNUSED(service);
    Q_UNUSED(filePath);
    Q_UNUSED(progress);
}

void SessionModel::lyraboxDidUpdateRipProgress(LyraboxService *service, const QString &filePath, int progress)
{
    Q_UNUSED(service);
    Q_UNUSED(filePath);
    Q_UNUSED(progress);
}

void SessionModel::lyraboxDidExperienceExternalDriveError(LyraboxService *service)
{
    Q_UNUSED(service);
}
