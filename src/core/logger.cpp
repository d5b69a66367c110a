#include "core/logger.h"

#include "core/paths.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QMutexLocker>

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

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
    } else {
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
    if (!QDir().mkpath(folder)) {
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

void Logger::logMessage(const QString &message)
{
    QMutexLocker locker(&m_lock);
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
        // Created empty when missing, then opened for writing at its end.
        m_writeHandle = ::open(path.constData(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (m_writeHandle < 0) {
            return;
        }
        ::lseek(m_writeHandle, 0, SEEK_END);
    }

    const QByteArray line = (timestamp() + QStringLiteral(": ") + message + QLatin1Char('\n')).toUtf8();
    off_t end = ::lseek(m_writeHandle, 0, SEEK_END);
    qint64 written = 0;
    while (written < line.size()) {
        const ssize_t n = ::write(m_writeHandle, line.constData() + written, size_t(line.size() - written));
        if (n <= 0) {
            break;
        }
        written += n;
    }
    ::fsync(m_writeHandle);
    m_position.store(qint64(end) + written);
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
    consoleWrite(line + u'\n');
}

void consoleWrite(const QString &text)
{
    std::fputs(text.toLocal8Bit().constData(), stderr);
    std::fflush(stderr);
}
