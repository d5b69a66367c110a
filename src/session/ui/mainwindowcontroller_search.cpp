// The folder and file-list pages of the main window.
// First bodies: the folder scan work completes this file.
#include "session/ui/mainwindowcontroller.h"

#include "ui_MainWindowController.h"

void MainWindowController::connectSearchPages()
{
    connect(m_session, &SessionModel::searchFolderPathTextChanged, m_ui->searchFolderPathTextField,
            &QLineEdit::setText);
    connect(m_ui->searchFolderPathTextField, &QLineEdit::textEdited, this,
            [this](const QString &text) { m_session->setSearchFolderPath({text}); });
    connect(m_session, &SessionModel::foundDisksChanged, this, [this](const QStringList &disks) {
        const bool found = !disks.isEmpty();
        m_ui->searchEjectCDButton->setVisible(found);
        m_ui->searchUploadCDButton->setVisible(found);
        m_ui->searchCDFoundTextField->setVisible(found);
    });
    connect(m_session, &SessionModel::mainPageTypeChanged, this, [this](quint32 type) {
        if (type == MainPageTypeSearch) {
            m_ui->downloadLibraryButton->setText(QStringLiteral("Start Download"));
        }
    });
    m_ui->searchEjectCDButton->hide();
    m_ui->searchUploadCDButton->hide();
    m_ui->searchCDFoundTextField->hide();
}
