#pragma once

#include "cd/discmetadata.h"
#include "core/error.h"
#include "service/lyraboxservicedelegate.h"
#include "session/folderscan.h"
#include "session/sessionfilelists.h"
#include "session/sessionprompter.h"
#include "session/uploadrunrecord.h"
#include "session/uploadrunstate.h"

#include <QObject>
#include <QRect>
#include <QStringList>

class AudioCDFlow;
class LyraboxService;

// The pages of the main window. Other values may be stored but show nothing.
enum MainPageType : quint32 {
    MainPageTypeLogin = 0,
    MainPageTypeSearch = 1,
    MainPageTypeList = 2,
    MainPageTypeUpload = 3,
    MainPageTypeResult = 4,
};

// One user session: the page it is on, the sign-in, the folders to scan, the
// seven file lists of an upload run and its flags. It holds no widgets; the
// main window shows it and forwards the user's actions, and it asks the user
// through a SessionPrompter. Everything here runs on the main thread unless a
// comment says otherwise.
//
// The behaviour is spread over several files by area: sessionmodel.cpp (pages,
// lists, prompts, service callbacks of the sign-in and run start),
// sessionmodel_login.cpp (sign-in), sessionmodel_scan.cpp (folders, scan, disc
// watch), sessionmodel_list.cpp (taking files off the list),
// sessionmodel_upload.cpp (the run, results and retries) and
// sessionmodel_progress.cpp (overall progress, the connection and the run's
// record for the Result page).
class SessionModel : public QObject, public LyraboxServiceDelegate
{
    Q_OBJECT

public:
    explicit SessionModel(SessionPrompter *prompter = nullptr, QObject *parent = nullptr);
    ~SessionModel() override;

    // --- Prompts -------------------------------------------------------------
    SessionPrompter *prompter() const { return m_prompter; }
    void setPrompter(SessionPrompter *prompter) { m_prompter = prompter; }
    // Without a prompter an alert is written to standard error and answered
    // with the first button.
    int showAlert(const QString &messageText, const QString &informativeText, const QString &defaultButton,
                  const QString &alternateButton = QString(), const QString &otherButton = QString());
    bool hasVisibleAlert() const;
    void startWaitingAnimation(const QString &reason);
    void stopWaitingAnimation();

    // --- Pages ---------------------------------------------------------------
    quint32 mainPageType() const { return m_mainPageType; }
    // Stores the type; for one of the five pages also logs "SetPage(...)", runs
    // the page's set-up and then announces the page (mainPageTypeChanged).
    void setMainPageType(quint32 type);
    static QString pageName(quint32 type); // "Login" ... "Result"; empty for others

    // Page set-ups, run on entering the page.
    void setupSearchContainerView(); // sessionmodel_scan.cpp
    void setupListContainerView();   // sessionmodel_scan.cpp
    void setupUploadContainerView(); // sessionmodel_upload.cpp
    void setupResultContainerView(); // sessionmodel_upload.cpp

    // --- Window load ---------------------------------------------------------
    // Makes this session the delegate of the shared service client, and lets go.
    void attachToService();
    void detachFromService();
    // The saved folder, or the Music folder, as the first scan roots. A saved
    // folder that has vanished stays first, followed by the Music folder.
    void loadSearchFolderPath();
    // E-mail and Remember Me from the settings; with Remember Me, the
    // password from its store, which answers later (passwordLoaded).
    void loadCredentials();

    // --- Sign-in (sessionmodel_login.cpp) ------------------------------------
    // The sign-in fields as the user typed them; the window keeps them current.
    QString email() const { return m_email; }
    void setEmail(const QString &email) { m_email = email; }
    QString password() const { return m_password; }
    void setPassword(const QString &password) { m_password = password; }
    bool rememberMe() const { return m_rememberMe; }
    bool isLoggingIn() const { return m_isLoggingIn; }
    // Signs in with the fields as typed; both must be non-empty.
    void OnLogin();
    // Switching it off forgets the stored e-mail and password (the password
    // in whichever store holds it).
    void OnRememberMeChecked(bool checked);

    // --- Folders and disc watch (sessionmodel_scan.cpp) ----------------------
    QStringList searchFolderPath() const { return m_searchFolderPath; }
    void setSearchFolderPath(const QStringList &paths) { m_searchFolderPath = paths; }
    // The path field's text: the first root for fewer than two roots, else
    // "Multiple Folders". Announced through searchFolderPathTextChanged.
    QString searchFolderPathText() const;
    void updateSearchFolderPath();
    QStringList foundDisks() const { return m_foundDisks; }
    void setFoundDisks(const QStringList &disks) { m_foundDisks = disks; }
    // Every second while the window is up, and on entering the Search page
    // (forced: the disc controls are shown afresh even when the discs are
    // the same).
    void discoverAudioCDs(bool force = false);
    // The path field was edited: its text becomes the one root.
    void OnPathChanged(const QString &text);
    // Folders chosen in the folder chooser become the roots; the last one is
    // remembered for the next start.
    void chooseSearchFolders(const QStringList &paths);
    // Scans searchFolderPath, or starts the CD flow when its first path is a disc.
    void OnSearchFolder();
    // Scans paths in the background and adds what it finds to foundFiles.
    void appendFilesAtPath(const QStringList &paths);
    // The Cancel button of a running scan: stops it and goes back to the
    // Search page with the folders as they were chosen.
    void OnCancelSearch();
    // What files and folders dropped on the window do, by page.
    void filesDropped(const QStringList &paths);
    // List page state, announced by the signals below.
    QString fileCountLabelText() const { return m_fileCountLabelText; }
    bool isFileSearchInProgress() const { return m_fileSearchInProgress; }
    // Folders or files the last finished scan could not read.
    qint64 scanErrorCount() const { return m_scanErrorCount; }
    bool isBeginUploadEnabled() const { return m_beginUploadEnabled; }
    // Takes one file off the list (a click on its row).
    void removeFoundFile(const QString &path);
    // Takes files off the list and keeps the count above it true
    // (sessionmodel_list.cpp).
    void removeFoundFiles(const QStringList &paths);
    // Lets tests wait for background scans.
    FolderScanRunner &folderScanRunner() { return m_folderScanRunner; }

    // --- CD flow (audiocdflow.cpp) -------------------------------------------
    AudioCDFlow *cdFlow() const { return m_cdFlow; }
    // The album data is confirmed: the tracks in the ready list go up, one
    // at a time.
    void beginAudioCDRun();

    // --- The seven file lists ------------------------------------------------
    // Read-only views; every change goes through fileLists()' named moves,
    // which keep each path in at most one list.
    const SessionFileLists &fileLists() const { return m_files; }
    SessionFileLists &fileLists() { return m_files; }
    const OrderedPathSet &foundFiles() const { return m_files.found(); }
    const OrderedPathSet &readyFiles() const { return m_files.ready(); }
    const OrderedPathSet &uploadingFiles() const { return m_files.uploading(); }
    const OrderedPathSet &skippedFiles() const { return m_files.skipped(); }
    const OrderedPathSet &erroredFiles() const { return m_files.errored(); }
    const OrderedPathSet &completedFiles() const { return m_files.completed(); }
    const OrderedPathSet &retryFiles() const { return m_files.retry(); }

    // --- Flags ---------------------------------------------------------------
    bool isUploading() const { return m_isUploading; }
    void setIsUploading(bool uploading) { m_isUploading = uploading; }
    // Read by the scan before every entry, from its own thread.
    bool isFileSearchCanceled() const { return m_isFileSearchCanceled.loadRelaxed() != 0; }
    void setIsFileSearchCanceled(bool canceled) { m_isFileSearchCanceled.storeRelaxed(canceled ? 1 : 0); }

    // --- The run (sessionmodel_upload.cpp) -----------------------------------
    // Pause while running, resume while paused.
    void OnPauseUpload();
    // Starts the digest check of foundFiles once the session is verified.
    void startMd5CheckPhase();

    // --- The run, its results and retries (sessionmodel_upload.cpp) ----------
    static constexpr int kMaxSimultaneousUploads = 6;
    // Failures in a row (codes of 1 and more) that stop a run.
    static constexpr qint64 kSimultaneousErrorLimit = 50;
    // Attempts per file that fail for transport reasons before it counts as
    // errored, so a file that always breaks off or a server that stays down
    // cannot keep a run going for ever. Offline pauses instead.
    static constexpr int kMaxAttemptsPerFile = 10;
    static constexpr int kOfflineCode = -1009;
    // The upload answer of a session the service no longer accepts.
    static constexpr int kNotAuthenticatedStatus = 401;
    // True from an offline failure until the run is resumed or a file gets through.
    bool isOffline() const { return m_run.offline; }
    int failedAttempts(const QString &filePath) const { return m_run.failedAttempts.value(filePath); }
    // The List page's upload button, with the texts of its simultaneous-count,
    // playlist and tag fields. A count that is not a number reads as 0.
    void OnUploadFiles(const QString &threadCountText, const QString &playlistName, const QString &tagName);
    void OnCancelUpload();
    void OnStartOver();
    // Checked means files the library already holds are skipped.
    void OnReuploadChecked(bool checked);
    void OnRetryErrors();
    void beginUploading();
    void md5CheckedWithProgress(double progress);
    void uploadNextFile();
    void updateUploadState();
    void updateUploadListView();
    void showUploadResult();
    // The first row whose filePath is filePath, or null.
    UploadListItem *uploadListItemForFilePath(const QString &filePath);
    const QList<UploadListItem> &uploadListItems() const { return m_run.uploadListItems; }
    const UploadListItem &md5CheckProgressItem() const { return m_run.md5CheckProgressItem; }
    bool isMd5CheckProgressItemOnScreen() const { return m_run.md5CheckProgressItemOnScreen; }
    // Where row index sits in an upload area of the given width, from its
    // top; index -1 is the check row. Rows shift down one while it shows.
    static QRect uploadListRowFrame(qsizetype index, bool checkRowOnScreen, int width);
    OperationQueue &md5CheckOperationQueue() { return m_run.md5CheckOperationQueue; }
    // The labels as last filled: the Upload page's two by updateUploadState(),
    // the Result page's by setupResultContainerView().
    QString uploadStateLabelText() const { return m_run.uploadStateText; }
    QString uploadStateLabel2Text() const { return m_run.skippedStateText; }
    bool isUploadStateLabel2Hidden() const { return m_run.skippedStateHidden; }
    QString uploadButtonTitle() const
    {
        return m_isUploading ? QStringLiteral("Pause Upload") : QStringLiteral("Resume Upload");
    }
    QString discoveredLabelText() const { return m_run.discoveredText; }
    QString uploadedLabelText() const { return m_run.uploadedText; }
    QString skippedLabelText() const { return m_run.skippedText; }
    QString errorsLabelText() const { return m_run.errorsText; }
    bool isResultsRetryErrorsButtonVisible() const { return m_run.retryErrorsButtonVisible; }
    qint64 foundFilesCountCache() const { return m_run.foundFilesCountCache; }
    qint64 simultaneousErrors() const { return m_run.simultaneousErrors; }
    // The CD artwork beside the rows; shown only during a CD run.
    bool isAudioCDArtworkVisible() const { return m_run.audioCDArtworkVisible; }
    void setAudioCDArtworkVisible(bool visible);
    QHash<QString, PLCID3Tag> &audioCDID3Tags() { return m_run.audioCDID3Tags; }
    static int leadingIntValue(const QString &text);
    // Seconds between two saves of the shared digest cache during a run; the
    // run's end, a pause and quitting save what is left.
    static constexpr double kDigestCacheSaveInterval = 3.0;
    // Abandons the digests under way, waits for their workers and saves the
    // shared digest cache (quit).
    void saveDigestCacheNow();

    // --- Overall progress and the run's record (sessionmodel_progress.cpp) ---
    using Connection = UploadRunRecord::Connection;
    // Bytes sent of the total, speed and time left; see TransferMeter.
    const TransferMeter &progressMeter() const { return m_record.meter; }
    bool areFileSizesKnown() const { return m_record.sizesKnown; }
    // The run's progress in whole percent: by bytes once the sizes are known,
    // by files before (and for runs whose files have no size, such as a CD).
    int overallPercent() const;
    // "12.5 MB of 40.0 MB", then the speed and the time left when known.
    QString transferText() const;
    Connection connection() const { return m_record.connection; }
    // "Connection lost, retrying in 5 s…" and the like; empty while connected.
    QString connectionText() const;
    // The rows the last pause interrupted, shown marked while paused.
    const QList<UploadListItem> &pausedListItems() const { return m_record.pausedRows; }
    // On the Upload page with files still to send, paused or not.
    bool isRunInProgress() const;
    // Cancel that remembers it: the Result page then says so.
    void cancelRun();
    bool wasRunCancelled() const { return m_record.cancelled; }
    qint64 notUploadedCount() const { return m_record.notUploadedCount; }
    // Time spent uploading in the last run, pauses left out.
    qint64 runDurationSeconds() const;
    qint64 bytesUploaded() const { return m_record.completed.bytes; }
    // The errored files with the reason each failed, in list order.
    QList<std::pair<QString, QString>> failedFiles() const;
    // The Result page's headline and its line on time and size.
    QString resultTitleText() const;
    QString resultDetailsText() const;

    // --- Service callbacks ---------------------------------------------------
    void lyraboxDidLogin(LyraboxService *service, const OptionalError &error) override;
    void lyraboxDidReceiveAuthorizationError(LyraboxService *service) override;
    void lyraboxDidVerifyLogin(LyraboxService *service, const OptionalError &error) override;
    void lyraboxDidReadMd5List(LyraboxService *service, const OptionalError &error) override;
    // sessionmodel_upload.cpp
    void lyraboxDidFinishUpload(LyraboxService *service, const QString &filePath, const OptionalError &error) override;
    void lyraboxDidUpdateUploadProgress(LyraboxService *service, const QString &filePath, int progress) override;
    void lyraboxDidUpdateRipProgress(LyraboxService *service, const QString &filePath, int progress) override;
    void lyraboxDidExperienceExternalDriveError(LyraboxService *service) override;

signals:
    // A page was entered (after its set-up); the window shows its area.
    void mainPageTypeChanged(quint32 type);
    // The remembered password arrived from its store (loadCredentials).
    void passwordLoaded(const QString &password);
    // The sign-in request went out (true) or was answered (false).
    void loggingInChanged(bool loggingIn);
    void searchFolderPathTextChanged(const QString &text);
    void foundDisksChanged(const QStringList &disks);
    // Search page set up: the CD controls are hidden, the download button is
    // "Start Download" and the drop handler is installed.
    void searchContainerViewSetUp();
    // List page set up: the thread-count field goes back to 3 and the table reloads.
    void listContainerViewSetUp();
    void fileCountLabelTextChanged(const QString &text);
    void fileSearchInProgressChanged(bool inProgress);
    // Files found so far by the running scan (0 when it starts).
    void fileSearchCountChanged(qint64 count);
    // A scan added these files to foundFiles, in this order.
    void foundFilesAdded(const QStringList &paths);
    // A scan's worker stopped because it was told to, having found `found` files.
    void fileSearchAbandoned(qint64 found);
    void beginUploadEnabledChanged(bool enabled);
    // A file left foundFiles at row (the row as it was before).
    void foundFileRemoved(qsizetype row);
    // The run's lists changed; the window refreshes its counts and rows.
    void uploadStateChanged();
    // Rows came or went, or the check row was shown or hidden.
    void uploadListViewChanged();
    // Lay the rows out again (updateUploadListView).
    void uploadListViewLayoutChanged();
    // One row's progress or label changed.
    void uploadListItemChanged(const QString &filePath);
    void md5CheckProgressItemChanged();
    void audioCDArtworkVisibleChanged(bool visible);
    // The "Upload Ended" block was written (showUploadResult).
    void uploadEnded();
    // The service reported the end of one file's upload, before it is filed.
    void uploadFinished(const QString &filePath, const OptionalError &error);
    // The connection failed for one file, which goes again: attempt `attempt`
    // of kMaxAttemptsPerFile failed with `error` ("connection lost, retrying").
    void uploadRetrying(const QString &filePath, int attempt, const Error &error);
    // The run paused because the machine is offline (true), or that is over.
    void offlineChanged(bool offline);
    // The service no longer accepts the session: the run is paused and the
    // sign-in page is up. Emitted before the alert.
    void sessionExpired();
    // Bytes, speed or time left changed (also once a second during a run).
    void transferProgressChanged();
    void connectionChanged();

private:
    void setLoggingIn(bool loggingIn);

    SessionPrompter *m_prompter = nullptr;
    quint32 m_mainPageType = MainPageTypeLogin;

    QString m_email;
    QString m_password;
    bool m_rememberMe = false;
    bool m_isLoggingIn = false;

    QStringList m_searchFolderPath;
    QStringList m_foundDisks;

    SessionFileLists m_files;

    bool m_isUploading = false;
    QAtomicInt m_isFileSearchCanceled{0};

    // The scan (sessionmodel_scan.cpp).
    void setFileCountLabelText(const QString &text);
    void setFileSearchInProgress(bool inProgress);
    void setBeginUploadEnabled(bool enabled);
    void mergeFoundFiles(const QStringList &paths, quint64 epoch);
    void finishFileSearch(quint64 epoch, qint64 errorCount);
    QString m_fileCountLabelText;
    bool m_fileSearchInProgress = false;
    bool m_beginUploadEnabled = false;
    quint64 m_scanEpoch = 0;
    qint64 m_scanErrorCount = 0;
    // Declared after the cancel flag it reads, so it stops its scans first.
    FolderScanRunner m_folderScanRunner;

    AudioCDFlow *m_cdFlow = nullptr;

    // sessionmodel_upload.cpp
    void setMd5CheckProgressItemOnScreen(bool onScreen);
    void setOffline(bool offline);
    void saveDigestCacheSoon();
    void freshDigestTaken(const QString &path, quint64 ticket, const std::optional<QString> &md5);
    void removeUploadListItem(const QString &filePath);
    void clearUploadListItems();
    UploadRunState m_run;

    // sessionmodel_progress.cpp
    void connectRunRecord();
    void runPageEntered(quint32 type);
    void runListsChanged();
    void runRowsChanged();
    void runFileFinished(const QString &filePath, const OptionalError &error);
    void measureRunFiles();
    void sumTail(UploadRunRecord::TailSum &sum, const OrderedPathSet &list);
    void refreshTransferProgress();
    void setConnection(Connection connection);
    UploadRunRecord m_record;
};
