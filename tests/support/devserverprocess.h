#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QPair>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>
#include <QUrl>

#include <memory>

// One HTTP exchange on the loopback interface, made with a blocking socket so that it never
// runs the caller's event loop (tests keep full control over when queued callbacks arrive).
struct LoopbackHttpResult
{
    int status = 0; // 0: no complete answer arrived
    QList<QPair<QByteArray, QByteArray>> headers;
    QByteArray body;
    bool connectionDropped = false; // the connection ended before a whole answer

    QByteArray header(const QByteArray &name) const;
    QJsonObject json() const;
};

using LoopbackHeaders = QList<QPair<QByteArray, QByteArray>>;

LoopbackHttpResult loopbackHttp(quint16 port, const QByteArray &method, const QByteArray &target,
                                const LoopbackHeaders &headers = {}, const QByteArray &body = {},
                                int timeoutMs = 60000);

// Runs lyrabox-devserver for a test: on a free loopback port, with a data folder of its own,
// and with PELICANE_API_URL, PELICANE_UPLOAD_URL and PELICANE_DOWNLOAD_URL of this process
// pointing at it. The server is killed when the object goes away. Set LYRABOX_DEVSERVER_LOG
// in the environment to see its request log.
class DevServerProcess
{
public:
    DevServerProcess();
    ~DevServerProcess();
    DevServerProcess(const DevServerProcess &) = delete;
    DevServerProcess &operator=(const DevServerProcess &) = delete;

    // Starts the server; with an empty `dataDirectory`, in a temporary folder of its own.
    bool start(const QString &dataDirectory = QString());
    void stop();
    QString errorString() const { return m_error; }

    quint16 port() const { return m_port; }
    QString baseUrl() const { return QStringLiteral("http://127.0.0.1:") + QString::number(m_port); }
    QString apiUrl() const { return baseUrl() + QStringLiteral("/s/JSON/"); }
    QString uploadUrl() const { return baseUrl() + QStringLiteral("/upload/"); }
    QString downloadUrl() const { return baseUrl() + QStringLiteral("/download/"); }
    QString dataDirectory() const { return m_dataDirectory; }
    qint64 processId() const { return m_process ? m_process->processId() : 0; }

    // The demo account signed in through the JSON API as the program does;
    // both empty when the sign-in failed.
    struct Session
    {
        QString userId;
        QString token;
    };
    Session signInDemo() const;

    // Control calls. Each returns the answer's JSON (empty object when the call failed).
    QJsonObject control(const QByteArray &method, const QByteArray &path, const QJsonObject &body = {}) const;
    bool succeeds(const QByteArray &path, const QJsonObject &body) const
    {
        return control("POST", path, body).value(QStringLiteral("result")).toBool();
    }
    bool addFault(const QJsonObject &rule) const { return succeeds("faults", rule); }
    bool clearFaults() const { return succeeds("faults/clear", {}); }
    bool setMaintenance(bool enabled) const { return succeeds("maintenance", {{"enabled", enabled}}); }
    bool revokeToken(const QString &email = QString::fromLatin1(kDemoEmail)) const
    {
        return succeeds("revoke", {{"email", email}});
    }
    bool createAccount(const QString &email, const QString &password) const
    {
        return succeeds("accounts", {{"email", email}, {"password", password}});
    }
    // The account's `user_id`, current `token` and stored `files`.
    QJsonObject library(const QString &email = QString::fromLatin1(kDemoEmail)) const
    {
        return control("GET", "library?email=" + QUrl::toPercentEncoding(email));
    }
    // Adds files to the library (see devserver/README.md); returns their stored records.
    QJsonArray seed(const QJsonArray &files, const QString &email = QString::fromLatin1(kDemoEmail)) const
    {
        return control("POST", "seed", {{"email", email}, {"files", files}}).value(QStringLiteral("files")).toArray();
    }
    // Requests seen per kind: json, list, upload, header, segment.
    QJsonObject requestCounts() const { return control("GET", "stats").value(QStringLiteral("requests")).toObject(); }

    static constexpr const char *kDemoEmail = "demo@lyrabox.test";
    static constexpr const char *kDemoPassword = "demo";

    static QString programPath();

private:
    std::unique_ptr<QTemporaryDir> m_temporary;
    std::unique_ptr<QProcess> m_process;
    QString m_dataDirectory;
    QString m_error;
    quint16 m_port = 0;
};
