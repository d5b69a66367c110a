#include "captureserver.h"

#include <QHostAddress>
#include <QTcpSocket>

QByteArray CaptureServer::Request::header(const QByteArray &name) const
{
    for (const auto &[key, value] : headers) {
        if (key.compare(name, Qt::CaseInsensitive) == 0)
            return value;
    }
    return {};
}

CaptureServer::CaptureServer(QObject *parent) : QObject(parent)
{
    connect(&m_server, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket *socket = m_server.nextPendingConnection()) {
            socket->setParent(this);
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] { readFrom(socket); });
            connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        }
    });
}

bool CaptureServer::listen()
{
    return m_server.listen(QHostAddress::LocalHost, 0);
}

QString CaptureServer::url(const QString &path) const
{
    return QStringLiteral("http://127.0.0.1:%1%2").arg(port()).arg(path);
}

void CaptureServer::respond(int status, const QByteArray &body, const QByteArray &contentType)
{
    m_status = status;
    m_body = body;
    m_contentType = contentType;
}

void CaptureServer::readFrom(QTcpSocket *socket)
{
    // Requests on one connection come one after the other; the buffer lives on the socket.
    QByteArray buffer = socket->property("buffer").toByteArray() + socket->readAll();
    for (;;) {
        const qsizetype headerEnd = buffer.indexOf("\r\n\r\n");
        if (headerEnd < 0)
            break;
        Request request;
        const QList<QByteArray> lines = buffer.left(headerEnd).split('\n');
        const QList<QByteArray> first = lines.first().trimmed().split(' ');
        request.method = first.value(0);
        request.target = first.value(1);
        qint64 length = 0;
        for (qsizetype i = 1; i < lines.size(); ++i) {
            const QByteArray line = lines.at(i).trimmed();
            const qsizetype colon = line.indexOf(':');
            if (colon <= 0)
                continue;
            request.headers.append({line.left(colon).trimmed(), line.mid(colon + 1).trimmed()});
        }
        length = request.header("Content-Length").toLongLong();
        if (buffer.size() < headerEnd + 4 + length)
            break;
        request.body = buffer.mid(headerEnd + 4, length);
        buffer.remove(0, headerEnd + 4 + length);
        m_requests.append(request);
        if (m_hold)
            continue;
        socket->write("HTTP/1.1 " + QByteArray::number(m_status) + " Answer\r\nContent-Type: " + m_contentType +
                      "\r\nContent-Length: " + QByteArray::number(m_body.size()) + "\r\n\r\n" + m_body);
    }
    socket->setProperty("buffer", buffer);
}
