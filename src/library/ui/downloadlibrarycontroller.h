#pragma once

#include "library/downloadlibrarymodel.h"

#include <QDialog>
#include <QUrl>

#include <functional>
#include <memory>

namespace Ui {
class DownloadLibraryController;
}

// The library download window: shows a DownloadLibraryModel, answers its
// questions with modal alerts, and closes itself when the download is
// aborted or done. The title bar has no buttons; Cancel (or Close once the
// library is in place) is the way out.
// The run stops when the controller is destroyed, which is the business of
// whoever owns it (typically from its willClose handler).
class DownloadLibraryController : public QDialog, public DownloadLibraryPrompter
{
    Q_OBJECT

public:
    // URL: the chosen folder; the library goes into "My Lyrabox Library" in it.
    DownloadLibraryController(const QUrl &URL, const QString &userId, const QString &userToken,
                              QWidget *parent = nullptr);
    ~DownloadLibraryController() override;

    Ui::DownloadLibraryController *ui() const { return m_ui.get(); }
    DownloadLibraryModel *model() const { return m_model.get(); }
    QUrl URL() const { return m_model->URL(); }

    // Called when the window is about to close.
    void setWillClose(std::function<void()> handler) { m_willClose = std::move(handler); }
    // Opens a folder in the file browser; replaceable so tests need no desktop.
    void setFolderOpener(std::function<void(const QUrl &)> opener) { m_folderOpener = std::move(opener); }

    void OnCancel() { m_model->OnCancel(); }
    void OnErrorInfo() { m_model->OnErrorInfo(); }

    int showAlert(const QString &title, const QString &text, const QStringList &buttons,
                  Appearance appearance) override;

public slots:
    // Escape: the same as Cancel while the download runs; closes once it is done.
    void reject() override;

protected:
    void closeEvent(QCloseEvent *event) override;

private:
    void windowDidLoad();
    void updateView();
    void closeWindow();

    std::unique_ptr<Ui::DownloadLibraryController> m_ui;
    std::unique_ptr<DownloadLibraryModel> m_model;
    std::function<void()> m_willClose;
    std::function<void(const QUrl &)> m_folderOpener;
    bool m_closing = false;
    bool m_inCloseEvent = false;
    int m_errorCountShown = 0;
    int m_completedAtError = 0;
};
