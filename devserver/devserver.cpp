#include "devserver.h"

#include "accuraterip.h"
#include "discservices.h"
#include "multipartparser.h"
#include "uploadreceiver.h"
#include "zipstream.h"

#include <httplib.h>

#include <QCryptographicHash>
#include <QDateTime>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryFile>

#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>

namespace {

// Where the original Content-Type of a multipart request is kept (see the pre-routing
// handler in bind()).
const char *const kMultipartTypeHeader = "X-Lyrabox-Multipart-Type";
const char *const kMaintenanceMessage = "Lyrabox is undergoing maintenance. Please try again later.";
const char *const kInvalidSession = "Invalid user or token.";
const char *const kEndMarker = "EOF\n";
constexpr size_t kMaxSmallBody = 1024 * 1024;

QByteArray toBytes(const std::string &text)
{
    return QByteArray(text.data(), qsizetype(text.size()));
}

QString toText(const std::string &text)
{
    return QString::fromUtf8(text.data(), qsizetype(text.size()));
}

void sendJson(httplib::Response &res, int status, const QJsonObject &object)
{
    res.status = status;
    const QByteArray json = QJsonDocument(object).toJson(QJsonDocument::Compact);
    res.set_content(json.constData(), size_t(json.size()), "application/json");
}

void sendFailure(httplib::Response &res, int status, const QString &message)
{
    sendJson(res, status, QJsonObject{{"result", false}, {"message", message}});
}

QString reasonPhrase(int status)
{
    switch (status) {
    case 400:
        return "Bad Request";
    case 401:
        return "Unauthorized";
    case 403:
        return "Forbidden";
    case 404:
        return "Not Found";
    case 413:
        return "Payload Too Large";
    case 500:
        return "Internal Server Error";
    case 502:
        return "Bad Gateway";
    case 503:
        return "Service Unavailable";
    case 504:
        return "Gateway Timeout";
    }
    return "Error " + QString::number(status);
}

// Ends the connection of `req` at once, as a failing network would: the server's side is
// shut down and closed with a reset, so the client sees the connection lost rather than an
// answer. httplib does not hand the socket to handlers, so it is found by its peer address.
void dropConnection(const httplib::Request &req, int serverPort)
{
    DIR *dir = opendir("/proc/self/fd");
    if (!dir)
        return;
    while (dirent *entry = readdir(dir)) {
        char *end = nullptr;
        long fd = std::strtol(entry->d_name, &end, 10);
        if (!end || *end != '\0' || fd < 0)
            continue;
        sockaddr_storage peer{};
        socklen_t length = sizeof peer;
        if (getpeername(int(fd), reinterpret_cast<sockaddr *>(&peer), &length) != 0)
            continue;
        sockaddr_storage local{};
        socklen_t localLength = sizeof local;
        if (getsockname(int(fd), reinterpret_cast<sockaddr *>(&local), &localLength) != 0)
            continue;
        int peerPort = -1;
        int localPort = -1;
        if (peer.ss_family == AF_INET) {
            peerPort = ntohs(reinterpret_cast<sockaddr_in *>(&peer)->sin_port);
            localPort = ntohs(reinterpret_cast<sockaddr_in *>(&local)->sin_port);
        } else if (peer.ss_family == AF_INET6) {
            peerPort = ntohs(reinterpret_cast<sockaddr_in6 *>(&peer)->sin6_port);
            localPort = ntohs(reinterpret_cast<sockaddr_in6 *>(&local)->sin6_port);
        }
        if (peerPort != req.remote_port || localPort != serverPort)
            continue;
        linger reset{1, 0};
        setsockopt(int(fd), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        shutdown(int(fd), SHUT_RDWR);
        break;
    }
    closedir(dir);
}

// Reads a small request body. Bytes beyond `limit` are read and thrown away so the client
// still gets an answer; `tooLarge` tells. With `dropAfter` >= 0 the connection is dropped
// once that many bytes came in (or at the end of a shorter body); returns false then.
bool readSmallBody(const httplib::Request &req, const httplib::ContentReader &reader, std::string &body, bool *tooLarge,
                   qint64 dropAfter, int serverPort)
{
    *tooLarge = false;
    qint64 received = 0;
    bool dropped = false;
    bool ok = reader([&](const char *data, size_t length) {
        received += qint64(length);
        if (dropAfter >= 0 && received >= dropAfter) {
            dropped = true;
            return false;
        }
        if (body.size() + length > kMaxSmallBody)
            *tooLarge = true;
        else
            body.append(data, length);
        return true;
    });
    if (dropped || (ok && dropAfter >= 0)) {
        dropConnection(req, serverPort);
        return false;
    }
    return ok;
}

void applyLatency(const FaultPlan &plan)
{
    if (plan.latencyMs > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(plan.latencyMs));
}

// Answers with the fault's status or body when it has one. Returns true when it answered.
bool answerFault(httplib::Response &res, const FaultPlan &plan)
{
    if (plan.status == 0 && !plan.body)
        return false;
    const int status = plan.status == 0 ? 200 : plan.status;
    if (plan.body) {
        res.status = status;
        const QByteArray type = plan.contentType.isEmpty() ? QByteArray("text/plain") : plan.contentType;
        res.set_content(plan.body->constData(), size_t(plan.body->size()), type.constData());
    } else {
        sendFailure(res, status, plan.message.isEmpty() ? reasonPhrase(status) : plan.message);
    }
    return true;
}

// Splits an application/x-www-form-urlencoded body. Returns an error message, or empty.
QString parseForm(const std::string &body, QMap<QString, QString> &fields)
{
    size_t pos = 0;
    while (pos <= body.size()) {
        size_t amp = body.find('&', pos);
        std::string pair = body.substr(pos, amp == std::string::npos ? std::string::npos : amp - pos);
        pos = amp == std::string::npos ? body.size() + 1 : amp + 1;
        if (pair.empty())
            return "Empty form field";
        size_t equals = pair.find('=');
        if (equals == std::string::npos)
            return "Form field without a value";
        std::string key = pair.substr(0, equals);
        std::string value = pair.substr(equals + 1);
        std::replace(value.begin(), value.end(), '+', ' ');
        const QString name = UploadReceiver::percentDecoded(key);
        if (fields.contains(name))
            return "Field \"" + name + "\" is repeated";
        fields.insert(name, UploadReceiver::percentDecoded(value));
    }
    return {};
}

QString sha256Hex(const QString &text)
{
    return QString::fromLatin1(QCryptographicHash::hash(text.toUtf8(), QCryptographicHash::Sha256).toHex());
}

// Reads a user id sent as JSON text or number.
QString jsonId(const QJsonValue &value)
{
    if (value.isString())
        return value.toString();
    if (value.isDouble() && value.toDouble() == double(value.toInteger()))
        return QString::number(value.toInteger());
    return {};
}

// Names the tracks inside the archives: the uploaded file names, made unique across the
// whole library so that segments extracted into one folder never overwrite each other.
QStringList archiveNames(const QList<StoredFile> &files)
{
    QStringList names;
    QSet<QString> used;
    for (const StoredFile &file : files) {
        QString name = file.fileName;
        name.replace(QLatin1Char('/'), QLatin1Char('_'));
        if (name.isEmpty() || name == "." || name == "..")
            name = "track";
        QString candidate = name;
        const int dot = name.lastIndexOf(QLatin1Char('.'));
        const QString stem = dot > 0 ? name.left(dot) : name;
        const QString extension = dot > 0 ? name.mid(dot) : QString();
        for (int n = 2; used.contains(candidate.toLower()); ++n)
            candidate = stem + " (" + QString::number(n) + ")" + extension;
        used.insert(candidate.toLower());
        names.append(candidate);
    }
    return names;
}

} // namespace

DevServer::DevServer(Store &store) : m_store(store), m_server(std::make_unique<httplib::Server>()) {}

DevServer::~DevServer() = default;

QJsonObject DevServer::supportedFormats() const
{
    // Mixed case and leading dots, as the service sends them.
    QJsonArray list;
    for (const char *extension : {".MP3", ".m4a", ".AAC", ".FLAC", ".ogg", ".Wav", ".aiff", ".AIF", ".wma"})
        list.append(QJsonObject{{"extension", extension}});
    return QJsonObject{{"supported", list}};
}

int DevServer::bind(int port)
{
    httplib::Server &svr = *m_server;
    // Every upload and every kept-alive connection holds a worker for its whole life, and
    // the client runs up to six uploads plus its API calls at once.
    svr.new_task_queue = [] { return new httplib::ThreadPool(64); };
    svr.set_read_timeout(60);
    svr.set_write_timeout(60);
    svr.set_keep_alive_timeout(10);
    svr.set_keep_alive_max_count(1000);

    // httplib parses multipart bodies itself whenever the Content-Type says so, and only
    // into memory-friendly pieces without the strictness wanted here. Renaming the type
    // before routing hands the raw body to the upload handler, which parses it itself.
    svr.set_pre_routing_handler([](const httplib::Request &req, httplib::Response &) {
        auto &request = const_cast<httplib::Request &>(req);
        auto it = request.headers.find("Content-Type");
        if (it != request.headers.end()) {
            std::string lowered = it->second;
            std::transform(lowered.begin(), lowered.end(), lowered.begin(), ::tolower);
            if (lowered.rfind("multipart/", 0) == 0) {
                std::string original = it->second;
                request.headers.erase(it);
                request.headers.emplace("Content-Type", "application/octet-stream");
                request.headers.emplace(kMultipartTypeHeader, original);
            }
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });

    // Errors httplib raises itself (unknown path, unreadable request) get the JSON envelope too.
    svr.set_error_handler(httplib::Server::HandlerWithResponse([](const httplib::Request &, httplib::Response &res) {
        if (!res.body.empty() || res.content_length_ > 0)
            return httplib::Server::HandlerResponse::Unhandled;
        sendFailure(res, res.status, reasonPhrase(res.status));
        return httplib::Server::HandlerResponse::Handled;
    }));
    svr.set_exception_handler([](const httplib::Request &, httplib::Response &res, std::exception_ptr error) {
        QString message = "Internal error";
        try {
            std::rethrow_exception(error);
        } catch (const std::exception &e) {
            message += QString(": ") + e.what();
        } catch (...) {
        }
        sendFailure(res, 500, message);
    });
    svr.set_logger([this](const httplib::Request &req, const httplib::Response &res) {
        if (!m_quiet)
            std::fprintf(stderr, "%s %s %d\n", req.method.c_str(), req.path.c_str(), res.status);
    });

    svr.Post("/s/JSON/?", [this](const httplib::Request &req, httplib::Response &res,
                                 const httplib::ContentReader &reader) { handleJson(req, res, reader); });
    svr.Post("/upload/?", [this](const httplib::Request &req, httplib::Response &res,
                                 const httplib::ContentReader &reader) { handleUploadEndpoint(req, res, reader); });
    // Bodiless POSTs never reach the content-reader handlers.
    svr.Post("/(s/JSON|upload)/?", [](const httplib::Request &, httplib::Response &res) {
        sendFailure(res, 400, "The request has no body");
    });
    svr.Get("/download/?", [this](const httplib::Request &req, httplib::Response &res) { handleDownload(req, res); });

    svr.Get("/control/.*",
            [this](const httplib::Request &req, httplib::Response &res) { handleControl(req, res, std::string()); });
    svr.Delete("/control/.*",
               [this](const httplib::Request &req, httplib::Response &res) { handleControl(req, res, std::string()); });
    svr.Post("/control/.*",
             [this](const httplib::Request &req, httplib::Response &res, const httplib::ContentReader &reader) {
                 std::string body;
                 bool tooLarge = false;
                 if (!readSmallBody(req, reader, body, &tooLarge, -1, m_port))
                     return;
                 if (tooLarge)
                     return sendFailure(res, 413, "The request body is too large");
                 handleControl(req, res, body);
             });
    svr.Post("/control/.*",
             [this](const httplib::Request &req, httplib::Response &res) { handleControl(req, res, std::string()); });

    // The outside services of the CD road.
    DiscServices::registerRoutes(svr, m_store.dataDirectory());
    AccurateRipService::registerRoutes(svr, m_store.dataDirectory());

    if (port == 0)
        m_port = svr.bind_to_any_port("127.0.0.1");
    else
        m_port = svr.bind_to_port("127.0.0.1", port) ? port : -1;
    return m_port;
}

bool DevServer::run()
{
    return m_server->listen_after_bind();
}

void DevServer::stop()
{
    m_server->stop();
}

bool DevServer::receiveSmallRequest(Endpoint endpoint, const httplib::Request &req, httplib::Response &res,
                                    const httplib::ContentReader &reader, const char *contentType, std::string &body)
{
    const FaultPlan plan = m_faults.take(endpoint);
    bool tooLarge = false;
    if (!readSmallBody(req, reader, body, &tooLarge, plan.dropAfterBytes, m_port))
        return false;
    applyLatency(plan);
    if (answerFault(res, plan))
        return false;
    if (tooLarge) {
        sendFailure(res, 413, "The request body is too large");
        return false;
    }
    if (req.get_header_value("Content-Type").rfind(contentType, 0) != 0) {
        sendFailure(res, 400, "Content-Type must be " + QLatin1String(contentType));
        return false;
    }
    return true;
}

void DevServer::handleJson(const httplib::Request &req, httplib::Response &res, const httplib::ContentReader &reader)
{
    std::string body;
    if (!receiveSmallRequest(Endpoint::Json, req, res, reader, "application/json", body))
        return;

    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(toBytes(body), &parseError);
    if (!document.isObject())
        return sendFailure(res, 400, "The body is not a JSON object: " + parseError.errorString());
    const QJsonObject request = document.object();
    if (request.value("mode").toString() != "status")
        return sendFailure(res, 400, "Unknown mode \"" + request.value("mode").toString() + "\"");
    for (const char *key : {"client", "device_name", "user_agent", "version"}) {
        if (!request.value(QLatin1String(key)).isString())
            return sendFailure(res, 400, "Missing field \"" + QLatin1String(key) + "\"");
    }
    const QString client = request.value("client").toString();
    const QString deviceName = request.value("device_name").toString();
    const QString userAgent = request.value("user_agent").toString();
    const QString version = request.value("version").toString();
    if (toText(req.get_header_value("User-Agent")) != userAgent)
        return sendFailure(res, 400, "The User-Agent header differs from the user_agent field");

    auto signedIn = [&](const Account &account, bool withFormats, const QString &message) {
        QJsonObject answer{{"result", true},
                           {"message", message},
                           {"user", QJsonObject{{"id", account.userId}, {"token", account.token}}},
                           {"maintenance", false},
                           {"authenticated", true}};
        if (withFormats)
            answer.insert("supported", supportedFormats().value("supported"));
        sendJson(res, 200, answer);
    };

    if (request.contains("email_address")) {
        if (!request.value("email_address").isString() || !request.value("password").isString())
            return sendFailure(res, 400, "\"email_address\" and \"password\" must be strings");
        const QString expected = sha256Hex(deviceName + ":" + version + ":" + client + ":" + userAgent);
        if (request.value("auth_token").toString() != expected)
            return sendJson(res, 200, QJsonObject{{"result", false}, {"message", "This client is not authorised."}});
        if (m_maintenance)
            return sendJson(res, 200,
                            QJsonObject{{"result", false}, {"maintenance", true}, {"message", kMaintenanceMessage}});
        const QString email = request.value("email_address").toString();
        std::optional<Account> account = m_store.accountByEmail(email);
        if (!account || account->password != request.value("password").toString())
            return sendJson(res, 200,
                            QJsonObject{{"result", false},
                                        {"maintenance", false},
                                        {"message", "Invalid e-mail address or password."}});
        account = m_store.signIn(email);
        return signedIn(*account, request.value("supported_types").toBool(), "Signed in.");
    }

    if (request.contains("user_id")) {
        // The id goes back exactly as the sign-in answer gave it: a number here.
        if (!request.value("user_id").isDouble())
            return sendFailure(res, 400, "\"user_id\" must be the number the sign-in answer gave");
        const QString userId = jsonId(request.value("user_id"));
        if (userId.isEmpty() || !request.value("token").isString())
            return sendFailure(res, 400, "\"user_id\" and \"token\" are required");
        if (m_maintenance)
            return sendJson(res, 200,
                            QJsonObject{{"result", false},
                                        {"maintenance", true},
                                        {"authenticated", true},
                                        {"message", kMaintenanceMessage}});
        std::optional<Account> account = m_store.authenticate(userId, request.value("token").toString());
        if (!account)
            return sendJson(res, 200,
                            QJsonObject{{"result", false},
                                        {"authenticated", false},
                                        {"message", "Your session has expired. Please sign in again."}});
        return signedIn(*account, true, "Session is valid.");
    }
    sendFailure(res, 400, "A status request needs \"email_address\" or \"user_id\"");
}

void DevServer::handleUploadEndpoint(const httplib::Request &req, httplib::Response &res,
                                     const httplib::ContentReader &reader)
{
    if (req.has_header(kMultipartTypeHeader))
        return handleUpload(req, res, reader);
    handleList(req, res, reader);
}

void DevServer::handleList(const httplib::Request &req, httplib::Response &res, const httplib::ContentReader &reader)
{
    std::string body;
    if (!receiveSmallRequest(Endpoint::List, req, res, reader, "application/x-www-form-urlencoded", body))
        return;
    QMap<QString, QString> fields;
    if (QString error = parseForm(body, fields); !error.isEmpty())
        return sendFailure(res, 400, error);
    const QStringList keys{"user_id", "token", "client", "device_name", "user_agent", "version"};
    for (const QString &key : keys) {
        if (!fields.contains(key))
            return sendFailure(res, 400, "Missing field \"" + key + "\"");
    }
    for (auto it = fields.cbegin(); it != fields.cend(); ++it) {
        if (!keys.contains(it.key()))
            return sendFailure(res, 400, "Unexpected field \"" + it.key() + "\"");
    }
    if (m_maintenance)
        return sendJson(res, 200,
                        QJsonObject{{"result", false}, {"maintenance", true}, {"message", kMaintenanceMessage}});
    std::optional<Account> account = m_store.authenticate(fields.value("user_id"), fields.value("token"));
    if (!account)
        return sendJson(res, 200, QJsonObject{{"result", false}, {"message", kInvalidSession}});
    sendJson(res, 200,
             QJsonObject{{"result", true},
                         {"message", "OK"},
                         {"md5", QJsonArray::fromStringList(m_store.md5List(account->userId))}});
}

void DevServer::handleUpload(const httplib::Request &req, httplib::Response &res, const httplib::ContentReader &reader)
{
    const FaultPlan plan = m_faults.take(Endpoint::Upload);
    const std::string boundary = MultipartParser::boundaryFromContentType(req.get_header_value(kMultipartTypeHeader));
    UploadReceiver receiver(m_store, boundary, req.get_header_value("User-Agent"));
    const bool faulted = plan.status != 0 || plan.body.has_value();

    qint64 received = 0;
    bool dropped = false;
    bool ok = reader([&](const char *data, size_t length) {
        if (plan.dropAfterBytes >= 0 && received + qint64(length) >= plan.dropAfterBytes) {
            dropped = true;
            return false;
        }
        received += qint64(length);
        // A body that will be refused anyway is only read, never stored.
        if (!boundary.empty() && !faulted)
            receiver.feed(data, length);
        return true;
    });
    if (dropped || (ok && plan.dropAfterBytes >= 0)) {
        dropConnection(req, m_port);
        return;
    }
    if (!ok)
        return; // the client went away; the receiver removes its temporary file
    applyLatency(plan);
    if (answerFault(res, plan))
        return;
    if (boundary.empty())
        return sendFailure(res, 400, "The Content-Type has no usable multipart/form-data boundary");
    const UploadReceiver::Answer answer = receiver.finish(m_maintenance);
    sendJson(res, answer.status, answer.body);
}

void DevServer::handleDownload(const httplib::Request &req, httplib::Response &res)
{
    auto param = [&](const char *key) { return toText(req.get_param_value(key)); };
    bool hasRange = req.has_param("offset") || req.has_param("length");
    bool offsetOk = true;
    bool lengthOk = true;
    const qint64 offset = hasRange ? param("offset").toLongLong(&offsetOk) : 0;
    const qint64 length = hasRange ? param("length").toLongLong(&lengthOk) : -1;
    const Endpoint kind = hasRange && length == 0 ? Endpoint::Header : Endpoint::Segment;
    const FaultPlan plan = m_faults.take(kind);
    applyLatency(plan);
    if (plan.dropAfterBytes >= 0 && kind == Endpoint::Header)
        return dropConnection(req, m_port);
    if (answerFault(res, plan))
        return;

    if (param("mode") != "downloadlibrary" || param("container_type") != "library")
        return sendFailure(res, 400, "mode=downloadlibrary and container_type=library are required");
    for (const char *key : {"client", "device_name", "user_agent", "version"}) {
        if (!req.has_param(key))
            return sendFailure(res, 400, "Missing parameter \"" + QLatin1String(key) + "\"");
    }
    if (hasRange &&
        (!req.has_param("offset") || !req.has_param("length") || !offsetOk || !lengthOk || offset < 0 || length < 0))
        return sendFailure(res, 400, "offset and length must be whole numbers of 0 or more");
    if (m_maintenance)
        return sendFailure(res, 503, kMaintenanceMessage);
    std::optional<Account> account = m_store.authenticate(param("_user_id"), param("_token"));
    if (!account)
        return sendFailure(res, 401, kInvalidSession);

    const QList<StoredFile> files = m_store.files(account->userId);
    res.set_header("Total-Tracks", std::to_string(files.size()));
    if (kind == Endpoint::Header) {
        res.set_header("Estimated-Content-Length", "0");
        res.status = 200;
        res.set_content("", "application/zip");
        return;
    }

    const QStringList names = archiveNames(files);
    QList<ZipStream::Entry> entries;
    const qint64 first = std::min<qint64>(offset, files.size());
    const qint64 last = length < 0 ? files.size() : std::min<qint64>(files.size(), first + length);
    for (qint64 i = first; i < last; ++i) {
        const StoredFile &file = files.at(i);
        entries.append(ZipStream::Entry{names.at(i), file.storedPath, file.size, file.crc32, file.uploadedAt});
    }
    const bool marker = param("end_marker") == "1" && !plan.omitEndMarker;
    auto zip = std::make_shared<ZipStream>(entries, marker ? QByteArray(kEndMarker) : QByteArray());
    const qint64 total = zip->size();
    res.set_header("Estimated-Content-Length", std::to_string(total));
    res.status = 200;
    const qint64 dropAfter = plan.dropAfterBytes;
    const qint64 rate = plan.bytesPerSecond;
    res.set_content_provider(
        size_t(total), "application/zip",
        [zip, dropAfter, rate, sent = qint64(0),
         started = std::chrono::steady_clock::now()](size_t, size_t, httplib::DataSink &sink) mutable {
            std::vector<char> buffer(64 * 1024);
            qint64 want = qint64(buffer.size());
            if (rate > 0) {
                // A slow link: about twenty pieces a second, each sent no
                // sooner than the rate allows.
                want = std::clamp<qint64>(rate / 20, 1, want);
                std::this_thread::sleep_until(started + std::chrono::microseconds(sent * 1000000 / rate));
            }
            if (dropAfter >= 0)
                want = std::min(want, dropAfter - sent);
            if (want <= 0)
                return false; // the dropped-connection fault
            const qint64 n = zip->read(buffer.data(), want);
            if (n <= 0)
                return false;
            sent += n;
            return sink.write(buffer.data(), size_t(n));
        });
}

void DevServer::handleControl(const httplib::Request &req, httplib::Response &res, const std::string &body)
{
    const std::string action = req.path.substr(std::string("/control/").size());
    QJsonObject request;
    if (!body.empty()) {
        QJsonParseError parseError;
        QJsonDocument document = QJsonDocument::fromJson(toBytes(body), &parseError);
        if (!document.isObject())
            return sendFailure(res, 400, "The body is not a JSON object: " + parseError.errorString());
        request = document.object();
    }
    auto ok = [&](QJsonObject answer = {}) {
        answer.insert("result", true);
        sendJson(res, 200, answer);
    };
    auto accountFor = [&](const QString &email) -> std::optional<Account> {
        std::optional<Account> account = m_store.accountByEmail(email.isEmpty() ? Store::kDemoEmail : email);
        if (!account)
            sendFailure(res, 404, "No account " + email);
        return account;
    };
    const bool get = req.method == "GET";
    const bool post = req.method == "POST";

    if (action == "health" && get)
        return ok();
    if (action == "faults" && get)
        return ok(QJsonObject{{"faults", m_faults.list()}});
    if ((action == "faults" && req.method == "DELETE") || (action == "faults/clear" && post)) {
        m_faults.clear();
        return ok();
    }
    if (action == "faults" && post) {
        const QJsonArray rules =
            request.contains("rules") ? request.value("rules").toArray() : QJsonArray{QJsonValue(request)};
        for (const QJsonValue &rule : rules) {
            if (QString error = m_faults.add(rule.toObject()); !error.isEmpty())
                return sendFailure(res, 400, error);
        }
        return ok(QJsonObject{{"faults", m_faults.list()}});
    }
    if (action == "stats" && get)
        return ok(QJsonObject{{"requests", m_faults.requestCounts()}});
    if (action == "maintenance" && post) {
        if (!request.value("enabled").isBool())
            return sendFailure(res, 400, "\"enabled\" must be true or false");
        m_maintenance = request.value("enabled").toBool();
        return ok(QJsonObject{{"maintenance", bool(m_maintenance)}});
    }
    if (action == "accounts" && post) {
        const QString email = request.value("email").toString();
        if (email.isEmpty() || !request.value("password").isString())
            return sendFailure(res, 400, "\"email\" and \"password\" are required");
        Account account = m_store.createAccount(email, request.value("password").toString());
        return ok(QJsonObject{{"email", account.email}, {"user_id", account.userId}});
    }
    if (action == "revoke" && post) {
        if (!m_store.revokeToken(request.value("email").toString(Store::kDemoEmail)))
            return sendFailure(res, 404, "No such account");
        return ok();
    }
    if (action == "library" && get) {
        std::optional<Account> account = accountFor(toText(req.get_param_value("email")));
        if (!account)
            return;
        QJsonArray files;
        for (const StoredFile &file : account->files)
            files.append(file.toJson());
        return ok(QJsonObject{
            {"email", account->email}, {"user_id", account->userId}, {"token", account->token}, {"files", files}});
    }
    if (action == "seed" && post) {
        std::optional<Account> account = accountFor(request.value("email").toString());
        if (!account)
            return;
        QJsonArray stored;
        for (const QJsonValue &value : request.value("files").toArray()) {
            const QJsonObject seedFile = value.toObject();
            StoredFile file;
            file.fileName = seedFile.value("name").toString();
            if (file.fileName.isEmpty() || file.fileName.contains(QLatin1Char('/')))
                return sendFailure(res, 400, "Each seeded file needs a \"name\" without slashes");
            file.filePath = seedFile.value("file_path").toString("/Music/" + file.fileName);
            file.playlistName = seedFile.value("playlist_name").toString();
            file.tagName = seedFile.value("tag_name").toString();
            file.contentType = "application/octet-stream";

            QTemporaryFile temporary(m_store.incomingDirectory() + "/seed-XXXXXX");
            if (!temporary.open())
                return sendFailure(res, 500, "Cannot create a file in the data folder");
            QCryptographicHash md5(QCryptographicHash::Md5);
            uLong crc = crc32(0L, Z_NULL, 0);
            auto append = [&](const char *data, qint64 n) {
                md5.addData(QByteArrayView(data, n));
                crc = crc32(crc, reinterpret_cast<const Bytef *>(data), uInt(n));
                file.size += n;
                return temporary.write(data, n) == n;
            };
            bool written = true;
            if (seedFile.contains("path")) {
                QFile source(seedFile.value("path").toString());
                if (!source.open(QIODevice::ReadOnly))
                    return sendFailure(res, 400, "Cannot read " + source.fileName());
                std::vector<char> buffer(64 * 1024);
                qint64 n;
                while (written && (n = source.read(buffer.data(), qint64(buffer.size()))) > 0)
                    written = append(buffer.data(), n);
            } else if (seedFile.contains("content")) {
                const QByteArray content = seedFile.value("content").toString().toUtf8();
                written = append(content.constData(), content.size());
            } else {
                // Deterministic noise of the given size, different per name.
                const qint64 size = seedFile.value("size").toInteger(-1);
                if (size < 0)
                    return sendFailure(res, 400, "A seeded file needs \"path\", \"content\" or \"size\"");
                quint64 state = qHash(file.fileName) | 1;
                std::vector<char> buffer(64 * 1024);
                for (qint64 done = 0; written && done < size;) {
                    const qint64 n = std::min<qint64>(qint64(buffer.size()), size - done);
                    for (qint64 i = 0; i < n; ++i) {
                        state = state * 6364136223846793005ULL + 1442695040888963407ULL;
                        buffer[size_t(i)] = char(state >> 56);
                    }
                    written = append(buffer.data(), n);
                    done += n;
                }
            }
            if (!written || !temporary.flush())
                return sendFailure(res, 500, "Cannot write the seeded file");
            temporary.close();
            file.md5 = QString::fromLatin1(md5.result().toHex());
            file.crc32 = quint32(crc);
            QString error;
            if (m_store.addFile(account->userId, temporary.fileName(), file, true, &error) != Store::AddResult::Stored)
                return sendFailure(res, 500, "Cannot store the seeded file: " + error);
            stored.append(file.toJson());
        }
        return ok(QJsonObject{{"files", stored}});
    }
    sendFailure(res, 404, "Unknown control call " + toText(req.method) + " /control/" + toText(action));
}
