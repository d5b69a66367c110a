// The CD controls of the main window: the Search page's CD buttons, the CD
// prompts, and the artwork beside the rows of a CD run.
#include "session/ui/mainwindowcontroller.h"

#include "session/audiocdflow.h"
#include "session/ui/mainwindowcdprompter.h"
#include "ui_MainWindowController.h"
#include "widgets/aspectfillimageview.h"

void MainWindowController::connectCDControls()
{
    m_cdPrompter = std::make_unique<MainWindowCDPrompter>(this);
    AudioCDFlow *flow = m_session->cdFlow();
    flow->setPrompter(m_cdPrompter.get());
    connect(m_ui->searchUploadCDButton, &QPushButton::clicked, flow, &AudioCDFlow::OnBeginUploadCD);
    connect(m_ui->searchEjectCDButton, &QPushButton::clicked, flow, &AudioCDFlow::OnEjectCD);
    // A lookup can wait half a minute for an answer: its overlay can be left.
    connect(m_ui->waitingCancelButton, &QPushButton::clicked, flow, &AudioCDFlow::cancelLookup);
    connect(flow, &AudioCDFlow::lookingUpChanged, this, [this](bool lookingUp) {
        m_ui->waitingCancelButton->setVisible(lookingUp);
        if (lookingUp) {
            m_ui->waitingCancelButton->setFocus(Qt::OtherFocusReason);
        }
    });
    connect(flow, &AudioCDFlow::artworkChanged, this, [this](const QByteArray &artwork) {
        QPixmap image = AspectFillImageView::pixmapFromData(artwork);
        if (image.isNull()) {
            image = AspectFillImageView::defaultArtwork();
        }
        QLabel *view = m_ui->audioCDArtworkImageView;
        view->setPixmap(AspectFillImageView::aspectFilled(image, view->minimumSize()));
    });
}
