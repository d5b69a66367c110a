// The Upload and Result pages of the main window: their buttons, labels and
// rows over the session's run.
#include "session/ui/mainwindowcontroller.h"

#include "session/audiocdflow.h"

#include "core/formatting.h"

#include "session/ui/uploadlistpresenter.h"
#include "ui_MainWindowController.h"
#include "widgets/alert.h"
#include "widgets/tabcolumnlabel.h"

#include <QClipboard>
#include <QGuiApplication>

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
    connect(m_session, &SessionModel::transferProgressChanged, this, &MainWindowController::updateTransferViews);
    connect(m_session, &SessionModel::connectionChanged, this, [this] {
        const QString text = m_session->connectionText();
        m_ui->connectionLabel->setText(text);
        m_ui->connectionLabel->setHidden(text.isEmpty());
    });
    m_ui->connectionLabel->hide();
    connect(m_ui->copyFailedFilesButton, &QPushButton::clicked, this,
            [this] { QGuiApplication::clipboard()->setText(m_ui->failedFilesView->toPlainText()); });
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

    m_ui->resultTitleLabel->setText(m_session->resultTitleText());
    m_ui->resultDetailsLabel->setText(m_session->resultDetailsText());
    QStringList failed;
    // A CD run lists every track with how its rip was checked; a folder run
    // the files that failed.
    const QList<std::pair<QString, QString>> tracks = m_session->cdFlow()->trackVerdicts();
    for (const auto &[path, reason] : tracks.isEmpty() ? m_session->failedFiles() : tracks) {
        failed << (reason.isEmpty() ? path : QStringLiteral("%1 — %2").arg(path, reason));
    }
    m_ui->failedFilesLabel->setText(tracks.isEmpty() ? QStringLiteral("Files that failed, and why:")
                                                     : QStringLiteral("Tracks, and how each rip was checked:"));
    const bool anyFailed = !failed.isEmpty();
    if (m_ui->failedFilesView->toPlainText() != failed.join(QLatin1Char('\n'))) {
        m_ui->failedFilesView->setPlainText(failed.join(QLatin1Char('\n')));
    }
    m_ui->failedFilesLabel->setVisible(anyFailed);
    m_ui->copyFailedFilesButton->setVisible(anyFailed);
    m_ui->failedFilesView->setVisible(anyFailed);
    m_ui->resultSpacer->changeSize(0, 0, QSizePolicy::Minimum, anyFailed ? QSizePolicy::Fixed : QSizePolicy::Expanding);
    m_ui->resultLayout->invalidate();
    updateTransferViews();
}

void MainWindowController::updateTransferViews()
{
    const int percent = m_session->overallPercent();
    m_ui->overallProgressBar->setValue(percent);
    m_ui->transferLabel->setText(m_session->transferText());
    updateWindowTitle();
}

void MainWindowController::updateWindowTitle()
{
    QString title = QStringLiteral("Pelicane");
    if (m_session->mainPageType() == MainPageTypeUpload) {
        const int percent = m_session->overallPercent();
        title = m_session->isUploading() ? QStringLiteral("%1% — Pelicane").arg(percent)
                                         : QStringLiteral("Paused at %1% — Pelicane").arg(percent);
    }
    if (windowTitle() != title) {
        setWindowTitle(title);
    }
}

bool MainWindowController::confirmStoppingRun(const QString &question, const QString &action)
{
    if (!m_session->isRunInProgress()) {
        return true;
    }
    const qint64 left = m_session->fileLists().remaining() + m_session->retryFiles().size();
    const QString detail =
        QStringLiteral("%1 %2 not been uploaded yet.")
            .arg(groupedNumber(left), left == 1 ? QStringLiteral("file has") : QStringLiteral("files have"));
    // Return and Escape both keep the run going: only a deliberate click stops it.
    const int answer = runAlert(this, {QStringLiteral("Pelicane"), question, detail, true},
                                {action, QStringLiteral("Keep Uploading")}, true, &m_visibleAlert);
    return answer == kAlertFirstButtonReturn;
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
    if (confirmStoppingRun(QStringLiteral("Cancel the upload?"), QStringLiteral("Cancel Upload"))) {
        m_session->cancelRun();
    }
}

void MainWindowController::OnStartOver()
{
    if (confirmStoppingRun(QStringLiteral("Stop the upload and start over?"), QStringLiteral("Start Over"))) {
        m_session->OnStartOver();
    }
}

void MainWindowController::OnRetryErrors()
{
    m_session->OnRetryErrors();
}

void MainWindowController::OnReuploadChecked(bool checked)
{
    m_session->OnReuploadChecked(checked);
}
