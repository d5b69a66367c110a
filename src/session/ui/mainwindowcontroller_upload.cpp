// The upload and result pages of the main window.
// First bodies: the upload run work completes this file.
#include "session/ui/mainwindowcontroller.h"

#include "platform/formatting.h"
#include "ui_MainWindowController.h"

void MainWindowController::connectUploadPages()
{
    m_ui->audioCDArtworkImageView->hide();
    m_ui->resultsRetryErrorsButton->hide();
    connect(m_session, &SessionModel::uploadStateChanged, this, [this] {
        m_ui->uploadButton->setText(m_session->isUploading() ? QStringLiteral("Pause Upload")
                                                             : QStringLiteral("Resume Upload"));
    });
    connect(m_ui->uploadButton, &QPushButton::clicked, m_session, &SessionModel::OnPauseUpload);
}

void MainWindowController::createUploadListState() {}

void MainWindowController::tearDownUploadListState() {}
