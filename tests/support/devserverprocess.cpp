#include "support/devserverprocess.h"

#include "protocol/clientfields.h"

#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QFile>
#include <QHostAddress>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QTcpSocket>
#include <QUrl>

#include <sys/prctl.h>

#include <csignal>
#include <cstring>
#include <vector>

namespace {

// Parses a whole answer in `data`; returns false while more bytes are needed.
bool parseAnswer(const QByteArray &data, LoopbackHttpResult &result, bool atEnd)
{
    const qsizetype headerEnd = data.indexOf("\r\n\r\n");
    if (headerEnd < 0)
        return false;
    const QList<QByteArray> lines = data.left(headerEnd).split('\n');
    const QList<QByteArray> statusLine = lines.first().trimmed().split(' ');
    if (statusLine.size() < 2)
        return false;
    LoopbackHttpResult parsed;
    parsed.status = statusLine.at(1).toInt();
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const QByteArray line = lines.at(i).trimmed();
        const qsizetype colon = line.indexOf(':');
        if (colon > 0)
            parsed.headers.append({line.left(colon).trimmed(), line.mid(colon + 1).trimmed()});
    }
    const QByteArray body = data.mid(headerEnd + 4);
    bool ok = false;
    const qint64 length = parsed.header("Content-Length").toLongLong(&ok);
    if (ok) {
        if (body.size() < length)
            return false;
        parsed.body = body.left(length);
    } else {
        if (!atEnd)
            return false;
        parsed.body = body;
    }
    parsed.bytesSent = result.bytesSent;
    result = parsed;
    return true;
}

} // namespace

QByteArray LoopbackHttpResult::header(const QByteArray &name) const
{
    for (const auto &[key, value] : headers) {
        if (key.compare(name, Qt::CaseInsensitive) == 0)
            return value;
    }
    return {};
}

QJsonObject LoopbackHttpResult::json() const
{
    return QJsonDocument::fromJson(body).object();
}

LoopbackHttpResult loopbackHttp(quint16 port, const QByteArray &method, const QByteArray &target,
                                const LoopbackHeaders &headers, const QByteArray &body, int timeoutMs)
{
    qint64 offset = 0;
    return loopbackHttpStream(
        port, method, target, headers, body.size(),
        [&](char *out, qint64 maximum) {
            const qint64 n = std::min<qint64>(maximum, body.size() - offset);
            std::memcpy(out, body.constData() + offset, size_t(n));
            offset += n;
            return n;
        },
        timeoutMs);
}

LoopbackHttpResult loopbackHttpStream(quint16 port, const QByteArray &method, const QByteArray &target,
                                      const LoopbackHeaders &headers, qint64 length,
                                      const LoopbackBodyProducer &producer, int timeoutMs)
{
    LoopbackHttpResult result;
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, port);
    if (!socket.waitForConnected(timeoutMs)) {
        result.connectionDropped = true;
        return result;
    }
    QByteArray head = method + ' ' + target + " HTTP/1.1\r\nHost: 127.0.0.1:" + QByteArray::number(port) +
                      "\r\nConnection: close\r\n";
    bool hasLength = false;
    for (const auto &[name, value] : headers) {
        head += name + ": " + value + "\r\n";
        hasLength = hasLength || name.compare("Content-Length", Qt::CaseInsensitive) == 0;
    }
    if (!hasLength && (length > 0 || method == "POST"))
        head += "Content-Length: " + QByteArray::number(length) + "\r\n";
    head += "\r\n";
    socket.write(head);

    std::vector<char> buffer(256 * 1024);
    qint64 produced = 0;
    bool broken = false;
    while (produced < length && !broken) {
        const qint64 n = producer(buffer.data(), std::min<qint64>(qint64(buffer.size()), length - produced));
        if (n <= 0)
            break;
        if (socket.write(buffer.data(), n) != n) {
            broken = true;
            break;
        }
        produced += n;
        while (socket.bytesToWrite() > 1024 * 1024) {
            if (!socket.waitForBytesWritten(timeoutMs)) {
                broken = true;
                break;
            }
        }
    }
    while (!broken && socket.bytesToWrite() > 0) {
        if (!socket.waitForBytesWritten(timeoutMs))
            broken = true;
    }
    result.bytesSent = produced - socket.bytesToWrite();

    QByteArray data;
    for (;;) {
        data += socket.readAll();
        if (parseAnswer(data, result, false))
            return result;
        if (socket.state() != QAbstractSocket::ConnectedState || !socket.waitForReadyRead(timeoutMs)) {
            data += socket.readAll();
            break;
        }
    }
    if (!broken && parseAnswer(data, result, true))
        return result;
    result.connectionDropped = true;
    return result;
}

DevServerProcess::DevServerProcess() = default;

DevServerProcess::~DevServerProcess()
{
    stop();
}

QString DevServerProcess::programPath()
{
    if (qEnvironmentVariableIsSet("LYRABOX_DEVSERVER"))
        return qEnvironmentVariable("LYRABOX_DEVSERVER");
#ifdef LYRABOX_DEVSERVER_PATH
    return QStringLiteral(LYRABOX_DEVSERVER_PATH);
#else
    return QStringLiteral("lyrabox-devserver");
#endif
}

bool DevServerProcess::start(const QString &dataDirectory)
{
    stop();
    m_error.clear();
    if (dataDirectory.isEmpty()) {
        m_temporary = std::make_unique<QTemporaryDir>();
        if (!m_temporary->isValid()) {
            m_error = "cannot create a temporary data folder";
            return false;
        }
        m_dataDirectory = m_temporary->path();
    } else {
        m_dataDirectory = dataDirectory;
    }

    m_process = std::make_unique<QProcess>();
    m_process->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    // A test that crashes must not leave the server behind (holding ctest's output pipe).
    m_process->setChildProcessModifier([] { prctl(PR_SET_PDEATHSIG, SIGKILL); });
    QStringList arguments{"--port", "0", "--data", m_dataDirectory};
    if (!qEnvironmentVariableIsSet("LYRABOX_DEVSERVER_LOG"))
        arguments << "--quiet";
    m_process->start(programPath(), arguments);
    if (!m_process->waitForStarted(30000)) {
        m_error = "cannot start " + programPath() + ": " + m_process->errorString();
        m_process.reset();
        return false;
    }
    // The first line says where it listens.
    QElapsedTimer timer;
    timer.start();
    while (!m_process->canReadLine()) {
        const qint64 left = 30000 - timer.elapsed();
        if (left <= 0 || !m_process->waitForReadyRead(int(left))) {
            m_error = "lyrabox-devserver did not report its address";
            stop();
            return false;
        }
    }
    const QString line = QString::fromUtf8(m_process->readLine()).trimmed();
    const QRegularExpressionMatch match =
        QRegularExpression("^listening on http://127\\.0\\.0\\.1:(\\d+)$").match(line);
    if (!match.hasMatch()) {
        m_error = "unexpected first line from lyrabox-devserver: " + line;
        stop();
        return false;
    }
    m_port = quint16(match.captured(1).toUInt());
    qputenv("PELICANE_API_URL", apiUrl().toUtf8());
    qputenv("PELICANE_UPLOAD_URL", uploadUrl().toUtf8());
    qputenv("PELICANE_DOWNLOAD_URL", downloadUrl().toUtf8());
    return true;
}

void DevServerProcess::stop()
{
    if (m_process) {
        m_process->kill();
        m_process->waitForFinished(30000);
        m_process.reset();
    }
    if (m_port != 0 && qEnvironmentVariable("PELICANE_API_URL") == apiUrl()) {
        qunsetenv("PELICANE_API_URL");
        qunsetenv("PELICANE_UPLOAD_URL");
        qunsetenv("PELICANE_DOWNLOAD_URL");
    }
    m_port = 0;
}

QString DevServerProcess::baseUrl() const
{
    return "http://127.0.0.1:" + QString::number(m_port);
}

QString DevServerProcess::apiUrl() const
{
    return baseUrl() + "/s/JSON/";
}

QString DevServerProcess::uploadUrl() const
{
    return baseUrl() + "/upload/";
}

QString DevServerProcess::downloadUrl() const
{
    return baseUrl() + "/download/";
}

qint64 DevServerProcess::processId() const
{
    return m_process ? m_process->processId() : 0;
}

static qint64 statusField(qint64 pid, const char *field)
{
    QFile file("/proc/" + QString::number(pid) + "/status");
    if (pid <= 0 || !file.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : file.readAll().split('\n')) {
        if (line.startsWith(field))
            return line.mid(qsizetype(qstrlen(field))).trimmed().split(' ').first().toLongLong();
    }
    return -1;
}

qint64 DevServerProcess::residentKiB() const
{
    return statusField(processId(), "VmRSS:");
}

qint64 DevServerProcess::peakResidentKiB() const
{
    return statusField(processId(), "VmHWM:");
}

QJsonObject DevServerProcess::control(const QByteArray &method, const QByteArray &path, const QJsonObject &body) const
{
    const QByteArray json = body.isEmpty() ? QByteArray() : QJsonDocument(body).toJson(QJsonDocument::Compact);
    LoopbackHttpResult result =
        loopbackHttp(m_port, method, "/control/" + path, {{"Content-Type", "application/json"}}, json);
    if (result.status != 200)
        return {};
    return result.json();
}

bool DevServerProcess::addFault(const QJsonObject &rule) const
{
    return control("POST", "faults", rule).value("result").toBool();
}

bool DevServerProcess::clearFaults() const
{
    return control("DELETE", "faults").value("result").toBool();
}

bool DevServerProcess::setMaintenance(bool enabled) const
{
    return control("POST", "maintenance", {{"enabled", enabled}}).value("result").toBool();
}

bool DevServerProcess::revokeToken(const QString &email) const
{
    return control("POST", "revoke", {{"email", email}}).value("result").toBool();
}

bool DevServerProcess::createAccount(const QString &email, const QString &password) const
{
    return control("POST", "accounts", {{"email", email}, {"password", password}}).value("result").toBool();
}

QJsonObject DevServerProcess::library(const QString &email) const
{
    return control("GET", "library?email=" + QUrl::toPercentEncoding(email));
}

QJsonArray DevServerProcess::seed(const QJsonArray &files, const QString &email) const
{
    return control("POST", "seed", {{"email", email}, {"files", files}}).value("files").toArray();
}

QJsonObject DevServerProcess::requestCounts() const
{
    return control("GET", "stats").value("requests").toObject();
}

DevServerProcess::Session DevServerProcess::signInDemo() const
{
    const QString agent = ClientFields::userAgent();
    const QStringList fields{ClientFields::deviceName(), ClientFields::version(), ClientFields::client(), agent};
    const QJsonObject request{
        {"mode", "status"},
        {"email_address", kDemoEmail},
        {"password", kDemoPassword},
        {"device_name", fields[0]},
        {"version", fields[1]},
        {"client", fields[2]},
        {"user_agent", agent},
        {"supported_types", true},
        {"auth_token",
         QString::fromLatin1(QCryptographicHash::hash(fields.join(':').toUtf8(), QCryptographicHash::Sha256).toHex())},
    };
    const LoopbackHttpResult answer =
        loopbackHttp(m_port, "POST", "/s/JSON/", {{"Content-Type", "application/json"}, {"User-Agent", agent.toUtf8()}},
                     QJsonDocument(request).toJson(QJsonDocument::Compact));
    const QJsonObject user = answer.json().value("user").toObject();
    return {user.value("id").toVariant().toString(), user.value("token").toString()};
}
