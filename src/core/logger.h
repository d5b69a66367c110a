#pragma once

#include <QRecursiveMutex>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <atomic>
#include <functional>

// The program's one log file. Every line is synced to disk before the call
// returns, so the file tells what happened even after a crash. The file is
// owner-only and never holds a token or password.
//
// The static functions are the shortcuts the whole program uses; they go to
// the shared instance. (C++ cannot overload on staticness, so the instance
// operations carry slightly different names.)
class Logger
{
public:
    // Shows a modal alert; installed by the application once widgets exist.
    // Without one, alerts go to standard error.
    using AlertHandler = std::function<void(const QString &message, const QString &button)>;

    static Logger &shared();

    static void log(const QString &message) { shared().logMessage(message); }
    static QUrl logFileURL() { return shared().fileURL(); }
    static void clearLog() { shared().clear(); }
    static qint64 logSize() { return shared().size(); }

    void logMessage(const QString &message);
    QUrl fileURL();
    void setLogFileURL(const QUrl &url);
    void clear();
    qint64 size() const;

    void setAlertHandler(AlertHandler handler);
    // Every line is echoed to standard error unless turned off; a terminal
    // front end that draws its own progress turns it off.
    void setEchoToStandardError(bool echo);

    // A value never to be written out (a session token): every line has it
    // replaced. Tokens and passwords in query, form and JSON text are
    // replaced whatever their value.
    void addSecret(const QString &secret);
    // The message as it is written: secrets replaced by "<redacted>".
    QString redacted(const QString &message) const;

    // The date prefix of every line, e.g. "2026-11-14 23:43:41 +0000".
    static QString timestamp();

    Logger(const Logger &) = delete;
    Logger &operator=(const Logger &) = delete;

private:
    Logger() = default;
    void showAlert(const QString &message, const QString &button);

    mutable QRecursiveMutex m_lock;
    QUrl m_logFileURL;
    int m_writeHandle = -1;
    std::atomic<qint64> m_position{0};
    AlertHandler m_alertHandler;
    QSet<QString> m_alertsShown; // the alerts written to standard error
    QStringList m_secrets;
    std::atomic<bool> m_echo{true};
};

// The engines' console lines (the ripper's "Track 1 ripped!", a lookup's
// failure details). They go to the log like any other line, so they reach
// standard error only where the log is echoed: always in the window, with
// --verbose in pelicane-cli, whose terminal is for its own output.
// consoleLog takes one line; consoleWrite takes text as a C engine prints it
// and logs each of its lines, a part without a line feed as a line too.
void consoleLog(const QString &line);
void consoleWrite(const QString &text);
