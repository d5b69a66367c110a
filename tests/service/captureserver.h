#pragma once

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QPair>
#include <QTcpServer>

class QTcpSocket;

// A one-purpose HTTP server on 127.0.0.1 for the service client's tests: it records each
// request exactly as it came over the wire and answers with whatever the test set up
// (or holds the request unanswered). Runs on the test's event loop.
class CaptureServer : public QObject
{
    Q_OBJECT

public:
    struct Request
    {
        QByteArray method;
        QByteArray target;
        QList<QPair<QByteArray, QByteArray>> headers;
        QByteArray body;

        QByteArray header(const QByteArray &name) const;
    };

    explicit CaptureServer(QObject *parent = nullptr);

    bool listen();
    quint16 port() const { return m_server.serverPort(); }
    QString url(const QString &path) const;

    // The next answers; the last one set is repeated.
    void respond(int status, const QByteArray &body, const QByteArray &contentType = "application/json");
    // Keeps requests unanswered (the client has to give up or cancel).
    void setHold(bool hold) { m_hold = hold; }

    const QList<Request> &requests() const { return m_requests; }

private:
    void readFrom(QTcpSocket *socket);

    QTcpServer m_server;
    QList<Request> m_requests;
    int m_status = 200;
    QByteArray m_body = "{}";
    QByteArray m_contentType = "application/json";
    bool m_hold = false;
};
