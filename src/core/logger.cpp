#include "core/logger.h"

#include "core/paths.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QMutexLocker>
#include <QRegularExpression>

#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString kRedacted = QStringLiteral("<redacted>");

// Tokens and passwords in a URL's query or a form ("_token=...", "password=...")
// and in JSON ("token":"...").
const QRegularExpression
    kQuerySecret(QStringLiteral("((?:^|[?&;,\\s\"'(])(?:_?token|_?password|user_token|passwd)=)[^&;,\\s\"')]+"),
                 QRegularExpression::CaseInsensitiveOption);
const QRegularExpression kJsonSecret(QStringLiteral("(\"(?:_?token|password|user_token)\"\\s*:\\s*\")[^\"]*\""),
                                     QRegularExpression::CaseInsensitiveOption);

} // namespace

QString Logger::redacted(const QString &message) const
{
    QMutexLocker locker(&m_lock);
    QString text = message;
    for (const QString &secret : m_secrets) {
        text.replace(secret, kRedacted);
    }
    if (text.contains(QLatin1String("oken")) || text.contains(QLatin1String("assw"))) {
        text.replace(kQuerySecret, QStringLiteral("\\1") + kRedacted);
        text.replace(kJsonSecret, QStringLiteral("\\1") + kRedacted + QLatin1Char('"'));
    }
    return text;
}

void Logger::addSecret(const QString &secret)
{
    // Short values would blank out ordinary words.
    if (secret.size() < 8) {
        return;
    }
    QMutexLocker locker(&m_lock);
    if (!m_secrets.contains(secret)) {
        m_secrets.append(secret);
    }
}

Logger &Logger::shared()
{
    static Logger instance;
    return instance;
}

QString Logger::timestamp()
{
    return QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss")) + QStringLiteral(" +0000");
}

void Logger::setAlertHandler(AlertHandler handler)
{
    QMutexLocker locker(&m_lock);
    m_alertHandler = std::move(handler);
}

void Logger::showAlert(const QString &message, const QString &button)
{
    if (m_alertHandler) {
        m_alertHandler(message, button);
    } else if (!m_alertsShown.contains(message)) {
        // Without a window the alert is a line on standard error, and a
        // folder that cannot be made would otherwise repeat it on every line
        // logged.
        m_alertsShown.insert(message);
        std::fprintf(stderr, "%s [%s]\n", qPrintable(message), qPrintable(button));
    }
}

QUrl Logger::fileURL()
{
    QMutexLocker locker(&m_lock);
    if (m_logFileURL.isValid()) {
        return m_logFileURL;
    }
    const QString supportDir = Paths::applicationSupportDirectory();
    if (supportDir.isEmpty()) {
        showAlert(QStringLiteral("appSupportURL == nil"), QStringLiteral("ok (1)"));
        return {};
    }
    const QString folder = supportDir + QLatin1Char('/') + Paths::applicationIdentifier();
    // Owner-only: the folder holds the log, the digest cache and crash reports.
    if (!QDir().mkpath(folder) || ::chmod(QFile::encodeName(folder).constData(), 0700) != 0) {
        showAlert(QStringLiteral("You don’t have permission to save the file “%1” in the folder “%2”.")
                      .arg(Paths::applicationIdentifier(), QFileInfo(supportDir).fileName()),
                  QStringLiteral("ok (2)"));
        return {};
    }
    m_logFileURL = QUrl::fromLocalFile(folder + QStringLiteral("/Pelicane.log"));
    return m_logFileURL;
}

void Logger::setLogFileURL(const QUrl &url)
{
    QMutexLocker locker(&m_lock);
    m_logFileURL = url;
}

void Logger::setEchoToStandardError(bool echo)
{
    m_echo = echo;
}

void Logger::logMessage(const QString &rawMessage)
{
    QMutexLocker locker(&m_lock);
    const QString message = redacted(rawMessage);
    if (m_echo) {
        const QByteArray echo = message.toUtf8() + '\n';
        std::fwrite(echo.constData(), 1, size_t(echo.size()), stderr);
        std::fflush(stderr);
    }

    if (m_writeHandle < 0) {
        const QUrl url = fileURL();
        if (!url.isValid()) {
            return;
        }
        const QByteArray path = QFile::encodeName(url.toLocalFile());
        // Created empty and owner-only when missing; opened for appending,
        // so the window and pelicane-cli writing at once never overwrite each
        // other's lines. A file left readable by an older version is closed up.
        m_writeHandle = ::open(path.constData(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        if (m_writeHandle < 0) {
            return;
        }
        ::fchmod(m_writeHandle, 0600);
    }

    // One write per line: with O_APPEND the kernel puts it whole at the end.
    const QByteArray line = (timestamp() + QStringLiteral(": ") + message + QLatin1Char('\n')).toUtf8();
    qint64 written = 0;
    while (written < line.size()) {
        const ssize_t n = ::write(m_writeHandle, line.constData() + written, size_t(line.size() - written));
        if (n <= 0) {
            break;
        }
        written += n;
    }
    ::fsync(m_writeHandle);
    struct stat info;
    if (::fstat(m_writeHandle, &info) == 0) {
        m_position.store(qint64(info.st_size));
    }
}

void Logger::clear()
{
    QMutexLocker locker(&m_lock);
    if (m_writeHandle < 0) {
        return;
    }
    if (::ftruncate(m_writeHandle, 0) == 0) {
        ::lseek(m_writeHandle, 0, SEEK_SET);
        m_position.store(0);
    }
}

qint64 Logger::size() const
{
    // Read without the lock on purpose: only the window reads it, once.
    return m_writeHandle < 0 ? 0 : m_position.load();
}

void consoleLog(const QString &line)
{
    Logger::log(line);
}

void consoleWrite(const QString &text)
{
    for (const QStringView line : QStringView(text).split(u'\n', Qt::SkipEmptyParts)) {
        Logger::log(line.toString());
    }
}
