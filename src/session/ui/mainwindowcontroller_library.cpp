// The library download from the folder page: the folder chooser, the
// download window and the button that stands for it while it is open.
#include "session/ui/mainwindowcontroller.h"

#include "library/ui/downloadlibrarycontroller.h"
#include "service/lyraboxservice.h"
#include "ui_MainWindowController.h"

#include <QFileDialog>
#include <QGuiApplication>
#include <QScreen>

void MainWindowController::connectLibraryPage()
{
    connect(m_ui->downloadLibraryButton, &QPushButton::clicked, this, &MainWindowController::OnDownloadLibrary);
}

DownloadLibraryController *MainWindowController::downloadLibraryWindow() const
{
    return m_downloadLibraryWindow;
}

void MainWindowController::OnDownloadLibrary()
{
    QFileDialog chooser(this);
    chooser.setFileMode(QFileDialog::Directory);
    chooser.setOption(QFileDialog::ShowDirsOnly, true);
    chooser.setAcceptMode(QFileDialog::AcceptOpen);
    if (chooser.exec() != QDialog::Accepted || chooser.selectedUrls().isEmpty()) {
        return;
    }
    const QUrl folder = chooser.selectedUrls().first();

    const LyraboxService &service = LyraboxService::sharedService();
    auto *window = new DownloadLibraryController(folder, service.userId(), service.userToken(), this);
    m_downloadLibraryWindow = window;
    window->setWillClose([this, window] {
        m_ui->downloadLibraryButton->setEnabled(true);
        m_ui->downloadLibraryButton->setText(QStringLiteral("Start Download"));
        // The run ends with its window.
        window->deleteLater();
    });
    window->show();
    if (const QScreen *screen = window->screen() ? window->screen() : QGuiApplication::primaryScreen()) {
        QRect frame = window->frameGeometry();
        frame.moveCenter(screen->availableGeometry().center());
        window->move(frame.topLeft());
    }
    window->raise();
    window->activateWindow();
    m_ui->downloadLibraryButton->setEnabled(false);
    m_ui->downloadLibraryButton->setText(QStringLiteral("Downloading..."));
}
