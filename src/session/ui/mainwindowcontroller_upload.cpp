// The Upload and Result pages of the main window: their buttons, labels and
// rows over the session's run.
#include "session/ui/mainwindowcontroller.h"

#include "session/ui/uploadlistpresenter.h"
#include "ui_MainWindowController.h"
#include "widgets/tabcolumnlabel.h"

void MainWindowController::connectUploadPages()
{
    m_ui->audioCDArtworkImageView->hide();
    m_ui->resultsRetryErrorsButton->hide();
    m_ui->uploadStateLabel2->hide();
    // The result texts separate name and count by tabs; the counts line up
    // in one column.
    const QStringList names{QStringLiteral("Discovered:"), QStringLiteral("Uploaded:"), QStringLiteral("Skipped:"),
                            QStringLiteral("Errors:")};
    for (TabColumnLabel *label : {m_ui->discoveredLabel, m_ui->uploadedLabel, m_ui->skippedLabel, m_ui->errorsLabel}) {
        label->fitColumnTo(names);
    }

    connect(m_ui->beginUploadButton, &QPushButton::clicked, this, &MainWindowController::OnUploadFiles);
    connect(m_ui->uploadButton, &QPushButton::clicked, this, &MainWindowController::OnPauseUpload);
    connect(m_ui->cancelUploadButton, &QPushButton::clicked, this, &MainWindowController::OnCancelUpload);
    connect(m_ui->resultsRetryErrorsButton, &QPushButton::clicked, this, &MainWindowController::OnRetryErrors);
    for (QPushButton *button : {m_ui->listStartOverButton, m_ui->uploadStartOverButton, m_ui->resultsStartOverButton}) {
        connect(button, &QPushButton::clicked, this, &MainWindowController::OnStartOver);
    }
    // Only the user's clicks count, as with the other check boxes.
    connect(m_ui->reuploadCheckbox, &QCheckBox::clicked, this, &MainWindowController::OnReuploadChecked);

    connect(m_session, &SessionModel::uploadStateChanged, this, &MainWindowController::updateUploadPageLabels);
    connect(m_session, &SessionModel::audioCDArtworkVisibleChanged, m_ui->audioCDArtworkImageView,
            &QWidget::setVisible);
}

void MainWindowController::createUploadListState()
{
    if (!m_uploadListPresenter) {
        m_uploadListPresenter = new UploadListPresenter(m_session, m_ui->uploadListView, this);
    }
    // The box starts as the layout has it; the service follows it.
    m_session->OnReuploadChecked(m_ui->reuploadCheckbox->isChecked());
    updateUploadPageLabels();
}

void MainWindowController::tearDownUploadListState()
{
    if (m_uploadListPresenter) {
        m_uploadListPresenter->clear();
    }
    m_session->md5CheckOperationQueue().cancelAllOperations();
}

void MainWindowController::updateUploadPageLabels()
{
    m_ui->uploadStateLabel->setText(m_session->uploadStateLabelText());
    m_ui->uploadStateLabel2->setText(m_session->uploadStateLabel2Text());
    m_ui->uploadStateLabel2->setHidden(m_session->isUploadStateLabel2Hidden());
    m_ui->uploadButton->setText(m_session->uploadButtonTitle());

    m_ui->discoveredLabel->setText(m_session->discoveredLabelText());
    m_ui->uploadedLabel->setText(m_session->uploadedLabelText());
    m_ui->skippedLabel->setText(m_session->skippedLabelText());
    m_ui->errorsLabel->setText(m_session->errorsLabelText());
    m_ui->resultsRetryErrorsButton->setVisible(m_session->isResultsRetryErrorsButtonVisible());
}

void MainWindowController::OnUploadFiles()
{
    m_session->OnUploadFiles(m_ui->uploadThreadCountField->text(), m_ui->playlistNameField->text(),
                             m_ui->tagNameField->text());
}

void MainWindowController::OnPauseUpload()
{
    m_session->OnPauseUpload();
}

void MainWindowController::OnCancelUpload()
{
    m_session->OnCancelUpload();
}

void MainWindowController::OnStartOver()
{
    m_session->OnStartOver();
}

void MainWindowController::OnRetryErrors()
{
    m_session->OnRetryErrors();
}

void MainWindowController::OnReuploadChecked(bool checked)
{
    m_session->OnReuploadChecked(checked);
}
