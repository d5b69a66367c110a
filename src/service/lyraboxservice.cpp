#include "service/lyraboxservice.h"

#include "core/formatting.h"
#include "core/logger.h"
#include "platform/dispatch.h"
#include "platform/operationqueue.h"
#include "protocol/clientfields.h"
#include "protocol/endpoints.h"
#include "protocol/httpstatuscodemap.h"
#include "protocol/network.h"
#include "protocol/serviceanswer.h"
#include "protocol/transporterror.h"
#include "protocol/urlencoding.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QJsonDocument>
#include <QMutex>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QThread>
#include <QTimer>

namespace {

const char *const kTimedOutProperty = "pelicaneTimedOut";

// Every live service, so that a delegate going away can be forgotten by all of them.
QMutex &registryLock()
{
    static QMutex lock;
    return lock;
}

QSet<LyraboxService *> &registry()
{
    static QSet<LyraboxService *> services;
    return services;
}

QString authToken()
{
    const QString text = QStringLiteral("%1:%2:%3:%4")
                             .arg(ClientFields::deviceName(), ClientFields::version(), ClientFields::client(),
                                  ClientFields::userAgent());
    return QString::fromLatin1(QCryptographicHash::hash(text.toUtf8(), QCryptographicHash::Sha256).toHex());
}

} // namespace

LyraboxServiceDelegate::~LyraboxServiceDelegate()
{
    LyraboxService::forgetDelegate(this);
}

LyraboxService &LyraboxService::sharedService()
{
    static LyraboxService *const instance = [] {
        auto *service = new LyraboxService();
        // Owned by the application, on its thread, whichever thread asked first.
        if (QCoreApplication *app = QCoreApplication::instance()) {
            service->moveToThread(app->thread());
            service->setParent(app);
            QMetaObject::invokeMethod(
                app, [] { TransportError::watchReachability(); }, Qt::AutoConnection);
        }
        return service;
    }();
    return *instance;
}

LyraboxService::LyraboxService(QObject *parent)
    : QObject(parent), m_defaultSession(new QNetworkAccessManager(this)),
      m_fileLoadOperationQueue(std::make_unique<OperationQueue>())
{
    m_fileLoadOperationQueue->setName(QStringLiteral("fileLoadOperationQueue"));
    QMutexLocker locker(&registryLock());
    registry().insert(this);
}

LyraboxService::~LyraboxService()
{
    {
        QMutexLocker locker(&registryLock());
        registry().remove(this);
    }
    const QSet<QNetworkReply *> tasks = m_tasks;
    m_tasks.clear();
    for (QNetworkReply *reply : tasks) {
        reply->disconnect(this);
        reply->abort();
    }
}

void LyraboxService::forgetDelegate(LyraboxServiceDelegate *delegate)
{
    QMutexLocker locker(&registryLock());
    for (LyraboxService *service : std::as_const(registry())) {
        if (service->m_delegate == delegate)
            service->m_delegate = nullptr;
    }
}

void LyraboxService::runOnServiceThread(std::function<void()> fn)
{
    if (QThread::currentThread() == thread())
        fn();
    else
        QMetaObject::invokeMethod(this, std::move(fn), Qt::QueuedConnection);
}

void LyraboxService::notifyDelegate(LyraboxServiceDelegate::Operation required,
                                    const std::function<void(LyraboxServiceDelegate *)> &call)
{
    QPointer<LyraboxService> self(this);
    dispatchAsyncMain([self, required, call] {
        if (!self || !self->m_delegate || !self->m_delegate->respondsToOperation(required))
            return;
        call(self->m_delegate);
    });
}

void LyraboxService::loginWithEmail(const QString &email, const QString &password)
{
    runOnServiceThread([this, email, password] {
        Logger::log(QStringLiteral("Login (%1)").arg(nullable(email)));
        m_userId = QStringLiteral("");
        m_userIdValue = QStringLiteral("");
        m_userToken = QStringLiteral("");
        m_supportedFormatList.clear();
        QJsonObject body{{"mode", "status"},
                         {"email_address", email},
                         {"password", password},
                         {"supported_types", true},
                         {"auth_token", authToken()}};
        sendJSONRequest(body, [this, email](const Response &response) {
            OptionalError error = response.error;
            if (response.envelopeRead && response.result) {
                storeCredentials(response.envelope);
                Logger::log(QStringLiteral(" - Logged in: %1 (%2)").arg(nullable(email), nullable(m_userId)));
            } else if (response.envelopeRead && ServiceAnswer::truthValue(response.envelope.value("maintenance"))) {
                error = Error::maintenanceErrorWithMessage(response.message);
            }
            notifyDelegate(LyraboxServiceDelegate::Operation::DidLogin,
                           [this, error](LyraboxServiceDelegate *delegate) { delegate->lyraboxDidLogin(this, error); });
            logResponse(response);
        });
    });
}

void LyraboxService::verifyLogin()
{
    runOnServiceThread([this] {
        Logger::log(QStringLiteral("VerifyLogin"));
        QJsonObject body{{"mode", "status"}, {"user_id", m_userIdValue}, {"token", m_userToken}};
        sendJSONRequest(body, [this](const Response &response) {
            // A request that failed before an envelope was read says nothing about the
            // session: a network failure is never taken for a lost sign-in.
            bool authenticated = true;
            if (response.envelopeRead) {
                authenticated = ServiceAnswer::truthValue(response.envelope.value("authenticated"));
                if (response.result)
                    storeCredentials(response.envelope);
            }
            if (authenticated) {
                const OptionalError error = response.error;
                notifyDelegate(
                    LyraboxServiceDelegate::Operation::DidVerifyLogin,
                    [this, error](LyraboxServiceDelegate *delegate) { delegate->lyraboxDidVerifyLogin(this, error); });
            } else {
                notifyDelegate(
                    LyraboxServiceDelegate::Operation::DidReceiveAuthorizationError,
                    [this](LyraboxServiceDelegate *delegate) { delegate->lyraboxDidReceiveAuthorizationError(this); });
            }
            logResponse(response);
        });
    });
}

void LyraboxService::readMd5List()
{
    runOnServiceThread([this] {
        Logger::log(QStringLiteral("ReadMD5List"));
        m_md5List.clear();
        sendFormRequest([this](const Response &response) {
            if (response.envelopeRead && response.result)
                m_md5List.unite(ServiceAnswer::md5List(response.envelope));
            const OptionalError error = response.error;
            // Sent only to a delegate that also implements the sign-in callback; kept so on
            // purpose, as the session relies on both together.
            notifyDelegate(
                LyraboxServiceDelegate::Operation::DidLogin,
                [this, error](LyraboxServiceDelegate *delegate) { delegate->lyraboxDidReadMd5List(this, error); });
            logResponse(response);
        });
    });
}

void LyraboxService::stopService()
{
    QPointer<LyraboxService> self(this);
    QMetaObject::invokeMethod(
        this,
        [self] {
            if (self)
                self->abortTasks();
        },
        Qt::QueuedConnection);
}

void LyraboxService::abortTasks()
{
    const QSet<QNetworkReply *> tasks = m_tasks;
    for (QNetworkReply *reply : tasks) {
        // An earlier abort may have finished (and removed) it meanwhile.
        if (m_tasks.contains(reply))
            reply->abort();
    }
}

void LyraboxService::stopUploads()
{
    runOnServiceThread([this] {
        m_fileLoadOperationQueue->cancelAllOperations();
        // At once, not queued once more: a request made right after the
        // pause (the resume's verification) must not be caught by it.
        abortTasks();
        m_uploadProgresses.clear();
    });
}

bool LyraboxService::shutdown(int timeoutMs)
{
    m_fileLoadOperationQueue->cancelAllOperations();
    abortTasks();
    m_uploadProgresses.clear();
    // The operations end on their own threads; their last reports come here
    // and are let run, so no worker waits for a main thread that has stopped.
    const QDeadlineTimer deadline(timeoutMs);
    while (!m_fileLoadOperationQueue->operations().isEmpty()) {
        if (deadline.hasExpired()) {
            Logger::log(QStringLiteral("Quit: %1 uploads did not end in time")
                            .arg(m_fileLoadOperationQueue->operations().size()));
            return false;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QThread::msleep(5);
    }
    return true;
}

void LyraboxService::reset()
{
    m_createPlaylistName = QString();
    m_createTagName = QString();
    m_playlistOrder.clear();
    m_playlistOrderIndex = 0;
}

void LyraboxService::sendJSONRequest(QJsonObject body, ResponseHandler handler)
{
    const QUrl url = Endpoints::apiURL();
    Logger::log(QStringLiteral("POST: %1").arg(url.toString()));
    const QString userAgent = ClientFields::userAgent();
    body.insert("client", ClientFields::client());
    body.insert("device_name", ClientFields::deviceName());
    body.insert("user_agent", userAgent);
    body.insert("version", ClientFields::version());

    QNetworkRequest request = Network::makeRequest(url, userAgent);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    startRequest(request, QJsonDocument(body).toJson(QJsonDocument::Compact), std::move(handler));
}

void LyraboxService::sendFormRequest(ResponseHandler handler)
{
    const QUrl url = Endpoints::uploadURL();
    Logger::log(QStringLiteral("POST: %1").arg(url.toString()));
    const QString body = QStringLiteral("user_id=%1&token=%2&client=%3&device_name=%4&user_agent=%5&version=%6")
                             .arg(nullable(m_userId), nullable(m_userToken), legacyEscape(ClientFields::client()),
                                  legacyEscape(ClientFields::deviceName()), legacyEscape(ClientFields::userAgent()),
                                  legacyEscape(ClientFields::version()));
    // This one goes without a User-Agent of ours.
    QNetworkRequest request = Network::makeRequest(url, QString());
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/x-www-form-urlencoded"));
    startRequest(request, body.toUtf8(), std::move(handler));
}

void LyraboxService::startRequest(const QNetworkRequest &prepared, const QByteArray &body, ResponseHandler handler)
{
    // Qt reports its own transfer time-out as a cancellation; the timer below says "timed out".
    QNetworkReply *reply = m_defaultSession->post(prepared, body);
    m_tasks.insert(reply);

    auto *timer = new QTimer(reply);
    timer->setSingleShot(true);
    timer->setInterval(m_requestTimeoutMs);
    connect(timer, &QTimer::timeout, reply, [reply] {
        reply->setProperty(kTimedOutProperty, true);
        reply->abort();
    });
    auto activity = [timer] { timer->start(); };
    connect(reply, &QNetworkReply::uploadProgress, timer, activity);
    connect(reply, &QNetworkReply::downloadProgress, timer, activity);
    timer->start();

    connect(reply, &QNetworkReply::finished, this, [this, reply, handler = std::move(handler)] {
        m_tasks.remove(reply);
        const Response response = classify(reply, reply->property(kTimedOutProperty).toBool());
        reply->deleteLater();
        handler(response);
    });
}

LyraboxService::Response LyraboxService::classify(QNetworkReply *reply, bool timedOut) const
{
    Response response;
    response.url = reply->request().url();
    const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    response.statusCode = status.isValid() ? status.toInt() : 0;

    if (timedOut) {
        response.error = TransportError::errorForNetworkError(QNetworkReply::TimeoutError, reply->errorString());
        return response;
    }
    if (OptionalError transport = TransportError::errorForReply(reply)) {
        response.error = transport;
        return response;
    }
    if (response.statusCode != 200) {
        response.error = Error::errorWithMessage(HTTPStatusCodeMap::errorText(response.statusCode));
        return response;
    }
    const std::optional<ServiceAnswer::Envelope> envelope = ServiceAnswer::readEnvelope(reply->readAll());
    if (!envelope) {
        // The wording and code the service's other clients show for an unreadable answer.
        response.error = Error::withDomain(QStringLiteral("NSCocoaErrorDomain"), 3840,
                                           QStringLiteral("The data couldn’t be read because it isn’t in the "
                                                          "correct format."));
        return response;
    }
    response.envelopeRead = true;
    response.envelope = envelope->object;
    response.result = envelope->result;
    response.message = envelope->message;
    if (!response.result)
        response.error = Error::errorWithMessage(response.message);
    return response;
}

void LyraboxService::logResponse(const Response &response) const
{
    const bool cancelled = response.error && response.error->code() == TransportError::Cancelled;
    Logger::log(QStringLiteral("Response: %1 - StatusCode: %2, Result: %3, Canceled: %4, Message: %5")
                    .arg(response.url.toString(), QString::number(response.statusCode),
                         response.result ? QStringLiteral("True") : QStringLiteral("False"),
                         cancelled ? QStringLiteral("True") : QStringLiteral("False"),
                         response.error ? response.error->localizedDescription() : nullable(response.message)));
}

void LyraboxService::setUserToken(const QString &userToken)
{
    m_userToken = userToken;
    Logger::shared().addSecret(userToken);
}

void LyraboxService::storeCredentials(const QJsonObject &envelope)
{
    const ServiceAnswer::Credentials credentials = ServiceAnswer::credentials(envelope);
    m_userId = credentials.userId;
    m_userIdValue = credentials.userIdValue;
    m_userToken = credentials.token;
    Logger::shared().addSecret(m_userToken);
    m_supportedFormatList.append(credentials.supportedExtensions);
}
