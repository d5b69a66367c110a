#include "support/devserverprocess.h"

#include "protocol/clientfields.h"

#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QFile>
#include <QHostAddress>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QTcpSocket>

#include <sys/prctl.h>

#include <csignal>

namespace {

// Parses a whole answer in `data`; returns false while more bytes are needed.
bool parseAnswer(const QByteArray &data, LoopbackHttpResult &result, bool atEnd)
{
    const qsizetype headerEnd = data.indexOf("\r\n\r\n");
    const QList<QByteArray> lines = data.left(headerEnd).split('\n');
    const QList<QByteArray> statusLine = lines.first().trimmed().split(' ');
    if (headerEnd < 0 || statusLine.size() < 2) {
        return false;
    }
    LoopbackHttpResult parsed;
    parsed.status = statusLine.at(1).toInt();
    for (const QByteArray &line : lines.mid(1)) {
        const qsizetype colon = line.indexOf(':');
        if (colon > 0) {
            parsed.headers.append({line.left(colon).trimmed(), line.mid(colon + 1).trimmed()});
        }
    }
    parsed.body = data.mid(headerEnd + 4);
    bool ok = false;
    const qint64 length = parsed.header("Content-Length").toLongLong(&ok);
    if (ok ? parsed.body.size() < length : !atEnd) {
        return false;
    }
    parsed.body.truncate(ok ? length : parsed.body.size());
    result = parsed;
    return true;
}

} // namespace

QByteArray LoopbackHttpResult::header(const QByteArray &name) const
{
    for (const auto &[key, value] : headers) {
        if (key.compare(name, Qt::CaseInsensitive) == 0) {
            return value;
        }
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
    LoopbackHttpResult result;
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, port);
    if (!socket.waitForConnected(timeoutMs)) {
        result.connectionDropped = true;
        return result;
    }
    QByteArray head = method + ' ' + target + " HTTP/1.1\r\nHost: 127.0.0.1:" + QByteArray::number(port) +
                      "\r\nConnection: close\r\n";
    for (const auto &[name, value] : headers) {
        head += name + ": " + value + "\r\n";
    }
    if (!body.isEmpty() || method == "POST") {
        head += "Content-Length: " + QByteArray::number(body.size()) + "\r\n";
    }
    socket.write(head + "\r\n" + body);
    bool broken = false;
    while (!broken && socket.bytesToWrite() > 0) {
        broken = !socket.waitForBytesWritten(timeoutMs);
    }
    QByteArray data;
    for (;;) {
        data += socket.readAll();
        if (parseAnswer(data, result, false)) {
            return result;
        }
        if (socket.state() != QAbstractSocket::ConnectedState || !socket.waitForReadyRead(timeoutMs)) {
            data += socket.readAll();
            break;
        }
    }
    if (!broken && parseAnswer(data, result, true)) {
        return result;
    }
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

QJsonObject DevServerProcess::control(const QByteArray &method, const QByteArray &path, const QJsonObject &body) const
{
    const QByteArray json = body.isEmpty() ? QByteArray() : QJsonDocument(body).toJson(QJsonDocument::Compact);
    LoopbackHttpResult result =
        loopbackHttp(m_port, method, "/control/" + path, {{"Content-Type", "application/json"}}, json);
    if (result.status != 200)
        return {};
    return result.json();
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
