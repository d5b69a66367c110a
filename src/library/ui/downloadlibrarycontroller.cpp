#include "library/ui/downloadlibrarycontroller.h"

#include "ui_DownloadLibraryController.h"
#include "widgets/alert.h"

#include <QCloseEvent>
#include <QDesktopServices>
#include <QPushButton>

namespace {

constexpr int kProgressSteps = 1000;

} // namespace

DownloadLibraryController::DownloadLibraryController(const QUrl &URL, const QString &userId, const QString &userToken,
                                                     QWidget *parent)
    : QDialog(parent), m_ui(std::make_unique<Ui::DownloadLibraryController>()),
      m_model(std::make_unique<DownloadLibraryModel>(URL, userId, userToken, this)),
      m_folderOpener([this](const QUrl &folder) {
          if (!QDesktopServices::openUrl(folder)) {
              // Without a file manager nothing opens; the user still needs the place.
              runAlert(this,
                       {windowTitle(), QStringLiteral("The folder could not be opened."),
                        QStringLiteral("No file manager could be started. Your library is in:\n%1")
                            .arg(folder.toLocalFile())},
                       {QStringLiteral("OK")});
          }
      })
{
    m_ui->setupUi(this);
    windowDidLoad();
}

DownloadLibraryController::~DownloadLibraryController() = default;

void DownloadLibraryController::windowDidLoad()
{
    // A window of its own, without close, minimise and zoom buttons.
    setWindowFlags(Qt::Window | Qt::CustomizeWindowHint | Qt::WindowTitleHint);
    setModal(false);

    connect(m_ui->cancelButton, &QPushButton::clicked, this, &DownloadLibraryController::OnCancel);
    connect(m_ui->closeButton, &QPushButton::clicked, this, &DownloadLibraryController::closeWindow);
    connect(m_ui->errorInfoButton, &QToolButton::clicked, this, &DownloadLibraryController::OnErrorInfo);
    connect(m_model.get(), &DownloadLibraryModel::viewStateChanged, this, &DownloadLibraryController::updateView);
    connect(m_model.get(), &DownloadLibraryModel::openFolderRequested, this, [this](const QUrl &folder) {
        if (m_folderOpener) {
            m_folderOpener(folder);
        }
    });
    connect(m_model.get(), &DownloadLibraryModel::closeRequested, this, &DownloadLibraryController::closeWindow);
    updateView();
    m_model->start();
}

void DownloadLibraryController::updateView()
{
    const DownloadLibraryViewState &view = m_model->viewState();
    m_ui->actionTextField->setText(view.actionText);
    m_ui->progressTextField->setText(view.progressText);
    m_ui->progressTextField->setVisible(!view.progressTextHidden);
    if (m_model->isComplete()) {
        // Finished: a full bar, not a busy one.
        m_ui->progressIndicator->setRange(0, kProgressSteps);
        m_ui->progressIndicator->setValue(kProgressSteps);
    } else if (view.progressDeterminate) {
        m_ui->progressIndicator->setRange(0, kProgressSteps);
        m_ui->progressIndicator->setValue(int(view.progressValue * kProgressSteps));
    } else {
        m_ui->progressIndicator->setRange(0, 0);
    }
    m_ui->cancelButton->setText(view.cancelTitle);
    m_ui->cancelButton->setEnabled(view.cancelEnabled);
    // Return presses the button once it reads "Open Folder".
    m_ui->cancelButton->setDefault(view.cancelIsDefault);
    // Once the library is in place "Open Folder" opens it; leaving without
    // opening anything needs a button of its own.
    m_ui->closeButton->setVisible(m_model->isComplete());
    // The error line stays only until a segment arrives after it: the retry
    // worked, and the download goes on normally.
    if (m_model->downloadErrorCount() != m_errorCountShown) {
        m_errorCountShown = m_model->downloadErrorCount();
        m_completedAtError = m_model->downloadsCompleted();
    }
    // A run that ended incomplete or stopped keeps its reason on screen.
    const bool recovered = !m_model->isIncomplete() && !m_model->hasFailed() &&
                           (m_model->downloadsCompleted() > m_completedAtError || m_model->isComplete());
    const bool errorVisible = view.errorInfoVisible && !recovered;
    m_ui->errorInfoTextField->setText(view.errorInfoText);
    m_ui->errorInfoTextField->setVisible(errorVisible);
    m_ui->errorInfoButton->setVisible(errorVisible);
}

int DownloadLibraryController::showAlert(const QString &title, const QString &text, const QStringList &buttons,
                                         Appearance appearance)
{
    // A yes/no question here is whether to throw the download away: Return
    // keeps it going.
    const bool cautious = buttons.size() == 2 && buttons.last() == QStringLiteral("No");
    return runAlert(this, {title, title, text, cautious}, buttons, appearance == Appearance::Dark);
}

void DownloadLibraryController::reject()
{
    if (m_model->isComplete()) {
        closeWindow(); // not "Open Folder"
    } else {
        OnCancel();
    }
}

void DownloadLibraryController::closeEvent(QCloseEvent *event)
{
    if (!m_closing) {
        // Closing by the window manager asks like Cancel does, and once the
        // download is done it just closes.
        m_inCloseEvent = true;
        if (m_model->isComplete()) {
            closeWindow();
        } else {
            OnCancel();
        }
        m_inCloseEvent = false;
    }
    if (!m_closing) {
        event->ignore();
        return;
    }
    event->accept();
    // Last: the handler may schedule this controller's deletion.
    if (m_willClose) {
        m_willClose();
    }
}

void DownloadLibraryController::closeWindow()
{
    m_closing = true;
    if (!m_inCloseEvent) {
        close();
    }
}
