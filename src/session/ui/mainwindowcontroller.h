#pragma once

#include "session/sessionmodel.h"
#include "session/sessionprompter.h"

#include <QMainWindow>
#include <QMessageBox>
#include <QPointer>
#include <QTimer>

#include <memory>

class DownloadLibraryController;
class MainWindowCDPrompter;
class QLineEdit;
class RemoveFilePromptController;
class QModelIndex;
class FileListItemDelegate;
class FoundFilesTableModel;
class UploadListPresenter;

namespace Ui {
class MainWindowController;
}

// The main window: five pages (sign-in, folders, file list, upload, result)
// over one SessionModel, the waiting overlay above them and the log link
// below. It shows the session, forwards the user's actions to it and answers
// its prompts with modal alerts.
//
// Files by area: mainwindowcontroller.cpp (load, pages, overlay, alerts, log,
// sign-in), mainwindowcontroller_search.cpp (folder and list pages, disc
// watch controls), mainwindowcontroller_upload.cpp (upload and result pages).
class MainWindowController : public QMainWindow, public SessionPrompter
{
    Q_OBJECT

public:
    explicit MainWindowController(QWidget *parent = nullptr);
    ~MainWindowController() override;

    SessionModel *session() const { return m_session; }
    Ui::MainWindowController *ui() const { return m_ui.get(); }

    // Runs the window's set-up once (windowDidLoad), then shows the window.
    void showWindow();
    // The set-up, in its fixed order; safe to call more than once.
    void loadWindow();
    bool isWindowLoaded() const { return m_windowLoaded; }

    // --- Pages ---------------------------------------------------------------
    quint32 mainPageType() const { return m_session->mainPageType(); }
    void setMainPageType(quint32 type) { m_session->setMainPageType(type); }

    // --- Alerts and the waiting overlay (SessionPrompter) --------------------
    int showAlertWithMessageText(const QString &messageText, const QString &informativeText,
                                 const QString &defaultButton, const QString &alternateButton = QString(),
                                 const QString &otherButton = QString()) override;
    bool hasVisibleAlert() const override { return !m_visibleAlert.isNull(); }
    QMessageBox *visibleAlert() const { return m_visibleAlert; }
    void startWaitingAnimation(const QString &reason) override;
    void stopWaitingAnimation() override;
    void setupMaskContainerView();

    // Ticks every second from window load on (discoverAudioCDs).
    QTimer *audioCDMonitorTimer() { return &m_audioCDMonitorTimer; }

    // --- Log link ------------------------------------------------------------
    // The log's path and, when the log has reached 20 MiB, the clear button.
    virtual void setupLogFileButtons();
    void OnLogClicked();
    void OnClearLogClicked();

    // --- Sign-in -------------------------------------------------------------
    void OnLogin();
    // Return in the e-mail field goes on to the password; in the password
    // field it signs in.
    void OnEnterPressed(QLineEdit *field);
    void OnRememberMeChecked(bool checked);

    // --- Library download (mainwindowcontroller_library.cpp) ---------------
    // Asks for a folder and opens the download window on it.
    void OnDownloadLibrary();
    DownloadLibraryController *downloadLibraryWindow() const;

    // --- Upload and Result pages (mainwindowcontroller_upload.cpp) ---------
    void OnUploadFiles();
    void OnPauseUpload();
    void OnCancelUpload();
    void OnStartOver();
    void OnRetryErrors();
    void OnReuploadChecked(bool checked);
    UploadListPresenter *uploadListPresenter() const { return m_uploadListPresenter; }
    MainWindowCDPrompter *cdPrompter() const { return m_cdPrompter.get(); }

    // --- Folder and list pages (mainwindowcontroller_search.cpp) ------------
    // The folder chooser: folders only, several at once, new folders allowed.
    void OnBrowseFolder();
    void OnSearchFolder() { m_session->OnSearchFolder(); }
    // The files selected in the list.
    QStringList selectedFiles() const;
    // Asks (unless told not to), then takes the selected files off the list.
    void removeSelectedFiles();
    FoundFilesTableModel *filesTableModel() const { return m_filesTableModel; }
    FileListItemDelegate *filesTableDelegate() const { return m_filesTableDelegate; }
    // The remove prompt of the last click, while it is open.
    RemoveFilePromptController *removeFilePrompt() const;

signals:
    void windowWillClose();

protected:
    void closeEvent(QCloseEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;

private:
    void windowDidLoad();
    void connectLoginPage();
    void showPageArea(quint32 type);
    void centerOnScreen();

    // Page wiring of the other areas (mainwindowcontroller_search.cpp,
    // mainwindowcontroller_upload.cpp), run once before the set-up.
    void connectSearchPages();
    void connectUploadPages();
    void connectLibraryPage();
    // mainwindowcontroller_cd.cpp
    void connectCDControls();
    // Upload rows and the digest-check row, created during the set-up, and
    // put away when the window goes.
    void createUploadListState();
    void tearDownUploadListState();
    void updateUploadPageLabels();
    void updateTransferViews();
    void updateWindowTitle();
    // Asks before a run with files still to send is stopped; true to go on.
    bool confirmStoppingRun(const QString &question, const QString &action);
    void focusPage(quint32 type);

    std::unique_ptr<Ui::MainWindowController> m_ui;
    SessionModel *m_session = nullptr;
    QPointer<QMessageBox> m_visibleAlert;
    QPointer<DownloadLibraryController> m_downloadLibraryWindow;
    QTimer m_audioCDMonitorTimer;
    bool m_windowLoaded = false;
    FoundFilesTableModel *m_filesTableModel = nullptr;
    FileListItemDelegate *m_filesTableDelegate = nullptr;
    QPointer<RemoveFilePromptController> m_removeFilePrompt;
    UploadListPresenter *m_uploadListPresenter = nullptr;
    std::unique_ptr<MainWindowCDPrompter> m_cdPrompter;
};
