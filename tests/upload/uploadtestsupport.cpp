#include "uploadtestsupport.h"

#include "protocol/clientfields.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QFile>
#include <QHostAddress>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTest>
#include <QThread>

AsyncUploadRequestConfiguration uploadConfiguration(const QString &uploadURL, const QString &path,
                                                    const Credentials &credentials)
{
    AsyncUploadRequestConfiguration c;
    c.uploadURL = uploadURL;
    c.filePath = path;
    c.sanitizedFilePath = path;
    c.userId = credentials.userId;
    c.userToken = credentials.token;
    c.clientName = ClientFields::client();
    c.deviceName = ClientFields::deviceName();
    c.userAgent = ClientFields::userAgent();
    c.versionString = ClientFields::version();
    return c;
}

bool writePatternFile(const QString &path, qint64 size, quint32 seed)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        return false;
    }
    QByteArray block(1 << 20, '\0');
    quint32 state = seed * 2654435761u + 1;
    qint64 left = size;
    while (left > 0) {
        const qint64 n = std::min<qint64>(left, block.size());
        for (qint64 i = 0; i < n; i += 4) {
            state = state * 1664525u + 1013904223u;
            std::memcpy(block.data() + i, &state, size_t(std::min<qint64>(4, n - i)));
        }
        if (file.write(block.constData(), n) != n) {
            return false;
        }
        left -= n;
    }
    return true;
}

QByteArray md5OfFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return {};
    }
    QCryptographicHash hash(QCryptographicHash::Md5);
    hash.addData(&file);
    return hash.result().toHex();
}

std::shared_ptr<AsyncUploadRequestOperation>
makeReportingOperation(const AsyncUploadRequestConfiguration &configuration, UploadReports *reports,
                       const AsyncUploadRequestOperation::Timeouts &timeouts)
{
    auto operation = std::make_shared<AsyncUploadRequestOperation>(configuration, timeouts);
    auto onMain = [reports] {
        reports->offMainThread |= QThread::currentThread() != QCoreApplication::instance()->thread();
    };
    operation->ripProgressBlock = [reports, onMain](double fraction) {
        onMain();
        reports->rip << fraction;
        reports->events << QStringLiteral("rip");
    };
    operation->fileLoadProgressBlock = [reports, onMain](double fraction) {
        onMain();
        reports->progress << fraction;
        reports->events << QStringLiteral("upload");
    };
    operation->fileLoadSucceededBlock = [reports, onMain] {
        onMain();
        ++reports->successes;
    };
    operation->fileLoadFailedBlock = [reports, onMain](const Error &error) {
        onMain();
        reports->failures << error;
    };
    return operation;
}

bool settle(OperationQueue &queue, const std::shared_ptr<AsyncUploadRequestOperation> &operation,
            const UploadReports &reports, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    while ((reports.finals() == 0 || !operation->isFinished()) && timer.elapsed() < timeoutMs) {
        QTest::qWait(20);
    }
    queue.waitUntilAllOperationsAreFinished();
    QTest::qWait(300);
    return reports.finals() == 1;
}

ScriptedHttpServer::ScriptedHttpServer(QObject *parent) : QObject(parent)
{
    connect(&m_server, &QTcpServer::newConnection, this, &ScriptedHttpServer::accept);
}

bool ScriptedHttpServer::listen()
{
    return m_server.listen(QHostAddress::LocalHost, 0);
}

QString ScriptedHttpServer::url() const
{
    return QStringLiteral("http://127.0.0.1:%1/upload/").arg(m_server.serverPort());
}

void ScriptedHttpServer::accept()
{
    while (QTcpSocket *socket = m_server.nextPendingConnection()) {
        if (m_socket) {
            // One exchange per test: a second connection is a resend.
            m_socket->disconnect(this);
            m_socket->deleteLater();
        }
        m_socket = socket;
        m_buffer.clear();
        m_headers.clear();
        m_headersDone = false;
        m_answered = false;
        m_bodyReceived = 0;
        m_contentLength = -1;
        connect(socket, &QTcpSocket::readyRead, this, &ScriptedHttpServer::readMore);
        readMore();
    }
}

void ScriptedHttpServer::resume()
{
    mode = Mode::Answer;
    readMore();
}

void ScriptedHttpServer::readMore()
{
    if (!m_socket) {
        return;
    }
    if (!m_headersDone) {
        m_buffer += m_socket->readAll();
        const qsizetype end = m_buffer.indexOf("\r\n\r\n");
        if (end < 0) {
            return;
        }
        m_headers = m_buffer.left(end);
        m_headersDone = true;
        static const QRegularExpression length(QStringLiteral("(?i)\\r\\ncontent-length:\\s*(\\d+)"));
        const auto match = length.match(QString::fromLatin1(m_headers));
        m_contentLength = match.hasMatch() ? match.captured(1).toLongLong() : 0;
        m_bodyReceived = m_buffer.size() - end - 4;
        m_buffer.clear();
    }
    m_bodyReceived += m_socket->readAll().size();
    if (bodyComplete() && mode == Mode::Answer && !m_answered) {
        m_answered = true;
        m_socket->write("HTTP/1.1 " + QByteArray::number(status) +
                        " Whatever\r\nContent-Type: application/json\r\n"
                        "Content-Length: " +
                        QByteArray::number(answerBody.size()) + "\r\nConnection: close\r\n\r\n" + answerBody);
        m_socket->disconnectFromHost();
    }
}
