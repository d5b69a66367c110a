// The CD controls of the main window: the Search page's CD buttons, the CD
// prompts, and the artwork beside the rows of a CD run.
#include "session/ui/mainwindowcontroller.h"

#include "session/ui/mainwindowcdprompter.h"
#include "ui_MainWindowController.h"
#include "widgets/aspectfillimageview.h"

void MainWindowController::connectCDControls()
{
    m_cdPrompter = std::make_unique<MainWindowCDPrompter>(this);
    m_session->setAudioCDPrompter(m_cdPrompter.get());
    connect(m_ui->searchUploadCDButton, &QPushButton::clicked, m_session, &SessionModel::OnBeginUploadCD);
    connect(m_ui->searchEjectCDButton, &QPushButton::clicked, m_session, &SessionModel::OnEjectCD);
    connect(m_session, &SessionModel::audioCDArtworkChanged, this, [this](const QByteArray &artwork) {
        QPixmap image = AspectFillImageView::pixmapFromData(artwork);
        if (image.isNull()) {
            image = AspectFillImageView::defaultArtwork();
        }
        QLabel *view = m_ui->audioCDArtworkImageView;
        view->setPixmap(AspectFillImageView::aspectFilled(image, view->minimumSize()));
    });
}
