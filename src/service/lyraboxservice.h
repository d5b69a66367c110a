#pragma once

#include "cd/plcid3tag.h"
#include "core/error.h"
#include "service/lyraboxservicedelegate.h"

#include <QHash>
#include <QJsonObject>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <functional>
#include <memory>

class OperationQueue;
class QNetworkAccessManager;
class QNetworkReply;
class QNetworkRequest;

// The progress record of one dispatched upload.
struct LyraboxUploadProgress
{
    QNetworkReply *request = nullptr; // not filled by the service
    quint64 bytesUploaded = 0;
    int lastPercent = 0; // not filled by the service
};

// The program's one client of the Lyrabox service: sign-in and verification on the JSON API,
// the list of digests already uploaded, the upload settings and the queue of uploads.
//
// The object lives on the main thread, and so do its network requests; every delegate
// callback is still queued, so it arrives one turn of the event loop after the state it
// reports was stored. Public calls made from another thread are carried over to the main
// thread. A caller must not start two sign-ins at once.
class LyraboxService : public QObject
{
    Q_OBJECT

public:
    // The process-wide instance, made on first use.
    static LyraboxService &sharedService();

    // Instances of their own are for tests; the program uses sharedService().
    explicit LyraboxService(QObject *parent = nullptr);
    // Cancels whatever is still in flight; no callback follows.
    ~LyraboxService() override;

    LyraboxServiceDelegate *delegate() const { return m_delegate; }
    void setDelegate(LyraboxServiceDelegate *delegate) { m_delegate = delegate; }

    // Signs in; answers with lyraboxDidLogin().
    void loginWithEmail(const QString &email, const QString &password);
    // Checks the stored credentials; answers with lyraboxDidVerifyLogin() or
    // lyraboxDidReceiveAuthorizationError().
    void verifyLogin();
    // Fetches the digests of the files already uploaded; answers with lyraboxDidReadMd5List().
    void readMd5List();
    // Cancels every request in flight, at the next turn of the event loop. Each cancelled
    // request reports to the delegate with the cancellation error.
    void stopService();
    // Cancels every queued and running upload, then stopService(), then forgets the
    // uploads' progress records.
    void stopUploads();
    // For quitting, on the service's thread: cancels every upload and request
    // at once and waits (running queued work meanwhile) until the uploads have
    // ended or `timeoutMs` has passed. Returns whether all ended.
    bool shutdown(int timeoutMs = 1500);
    // Forgets the playlist and tag settings and the playlist positions handed out.
    void reset();

    // The live lists (not copies): lower-case extensions without the dot, and the digests.
    const QStringList &getSupportedFormatList() const { return m_supportedFormatList; }
    const QSet<QString> &getMd5List() const { return m_md5List; }

    QString userId() const { return m_userId; }
    void setUserId(const QString &userId)
    {
        m_userId = userId;
        m_userIdValue = userId;
    }
    QString userToken() const { return m_userToken; }
    void setUserToken(const QString &userToken);

    // Upload settings the session sets before a run. A null name means none.
    uint simultaneousUploadCount() const { return m_simultaneousUploadCount; }
    void setSimultaneousUploadCount(uint count) { m_simultaneousUploadCount = count; }
    QString createPlaylistName() const { return m_createPlaylistName; }
    void setCreatePlaylistName(const QString &name) { m_createPlaylistName = name; }
    QString createTagName() const { return m_createTagName; }
    void setCreateTagName(const QString &name) { m_createTagName = name; }
    bool reuploadDuplicates() const { return m_reuploadDuplicates; }
    void setReuploadDuplicates(bool reupload) { m_reuploadDuplicates = reupload; }

    // State of the upload dispatch.
    QHash<QString, LyraboxUploadProgress> &uploadProgresses() { return m_uploadProgresses; }
    QHash<QString, QString> &playlistOrder() { return m_playlistOrder; }
    uint playlistOrderIndex() const { return m_playlistOrderIndex; }
    void setPlaylistOrderIndex(uint index) { m_playlistOrderIndex = index; }
    bool didShowNetworkDrivePermissionError() const { return m_didShowNetworkDrivePermissionError; }
    void setDidShowNetworkDrivePermissionError(bool shown) { m_didShowNetworkDrivePermissionError = shown; }
    OperationQueue *fileLoadOperationQueue() const { return m_fileLoadOperationQueue.get(); }

    // Upload dispatch (lyraboxservice_upload.cpp).

    // Queues one upload. ID3Tags are given for a CD track only (its path
    // names the track on the disc); isRetry makes the upload wait 5 seconds
    // first. Answers with lyraboxDidFinishUpload() once, with progress
    // (lyraboxDidUpdateUploadProgress(), lyraboxDidUpdateRipProgress()) before
    // that, and at most once per process with
    // lyraboxDidExperienceExternalDriveError().
    void uploadFile(const QString &filePath, const std::optional<PLCID3Tag> &ID3Tags = std::nullopt,
                    bool isRetry = false);

    // How long a request may go without any byte moving before it fails as timed out.
    // Tests shorten it.
    int requestTimeoutMs() const { return m_requestTimeoutMs; }
    void setRequestTimeoutMs(int milliseconds) { m_requestTimeoutMs = milliseconds; }

    // Forgets `delegate` in every service (called when a delegate is destroyed).
    static void forgetDelegate(LyraboxServiceDelegate *delegate);

private:
    // Aborts every request in flight; on the service thread.
    void abortTasks();

    // What the classification of a response found.
    struct Response
    {
        QUrl url; // as the request was sent
        OptionalError error;
        bool result = false;
        int statusCode = 0;        // 0 when no HTTP answer arrived
        bool envelopeRead = false; // the body was a JSON envelope
        QJsonObject envelope;
        QString message; // the envelope's `message`; null when absent
    };
    using ResponseHandler = std::function<void(const Response &response)>;

    void sendJSONRequest(QJsonObject body, ResponseHandler handler);
    void sendFormRequest(ResponseHandler handler);
    void startRequest(const QNetworkRequest &request, const QByteArray &body, ResponseHandler handler);
    Response classify(QNetworkReply *reply, bool timedOut) const;
    void logResponse(const Response &response) const;
    // Stores `user` and appends the extensions of `supported`.
    void storeCredentials(const QJsonObject &envelope);
    // The playlist position of a file: the one it was given, or a new one.
    QString playlistPositionForFile(const QString &filePath);

    // Queues a delegate callback to the main thread; it is sent if, by then, the delegate
    // implements `required`.
    void notifyDelegate(LyraboxServiceDelegate::Operation required,
                        const std::function<void(LyraboxServiceDelegate *)> &call);
    // Runs fn on this object's thread, at once when already there.
    void runOnServiceThread(std::function<void()> fn);

    LyraboxServiceDelegate *m_delegate = nullptr;
    QNetworkAccessManager *m_defaultSession = nullptr;
    QSet<QNetworkReply *> m_tasks;
    int m_requestTimeoutMs = 150000;

    uint m_simultaneousUploadCount = 3;
    QString m_userId = QStringLiteral("");
    // The id as the sign-in answer gave it, number or text: sent back in that form.
    QJsonValue m_userIdValue = QStringLiteral("");
    QString m_userToken = QStringLiteral("");
    QStringList m_supportedFormatList;
    QSet<QString> m_md5List;
    QHash<QString, LyraboxUploadProgress> m_uploadProgresses;
    std::unique_ptr<OperationQueue> m_fileLoadOperationQueue;
    QHash<QString, QString> m_playlistOrder;
    uint m_playlistOrderIndex = 0;
    QString m_createPlaylistName;
    QString m_createTagName;
    bool m_reuploadDuplicates = false;
    bool m_didShowNetworkDrivePermissionError = false;
};
