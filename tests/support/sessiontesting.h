#pragma once

// Helpers of the tests that drive a SessionModel or read the log: a prompter
// that answers from a script and records what was asked, and the log's lines.

#include "core/logger.h"
#include "session/sessionprompter.h"

#include <QFile>
#include <QList>
#include <QStringList>

#include <functional>
#include <utility>

class ScriptedPrompter : public SessionPrompter
{
public:
    struct Alert
    {
        QString message, informative;
        QStringList buttons;
    };
    QList<Alert> alerts;
    QList<int> answers;  // taken from the front; the first button when empty
    QStringList overlay; // "start:<reason>" / "stop"
    bool alertVisible = false;
    // Runs while an alert is "up", so tests can deliver callbacks meanwhile.
    std::function<void()> whileAlertShows;

    int showAlertWithMessageText(const QString &messageText, const QString &informativeText,
                                 const QString &defaultButton, const QString &alternateButton,
                                 const QString &otherButton) override
    {
        QStringList buttons;
        for (const QString &b : {defaultButton, alternateButton, otherButton}) {
            if (!b.isEmpty()) {
                buttons << b;
            }
        }
        alerts.append({messageText, informativeText, buttons});
        if (whileAlertShows) {
            alertVisible = true;
            std::exchange(whileAlertShows, {})();
            alertVisible = false;
        }
        return answers.isEmpty() ? kAlertFirstButtonReturn : answers.takeFirst();
    }
    bool hasVisibleAlert() const override { return alertVisible; }
    void startWaitingAnimation(const QString &reason) override { overlay << QStringLiteral("start:") + reason; }
    void stopWaitingAnimation() override { overlay << QStringLiteral("stop"); }

    QStringList titles() const
    {
        QStringList result;
        for (const Alert &alert : alerts) {
            result << alert.message;
        }
        return result;
    }
};

// The log's messages without their "yyyy-MM-dd HH:mm:ss +0000: " prefix,
// from byte `from` of the file on.
inline QStringList logLines(qint64 from = 0)
{
    QFile file(Logger::logFileURL().toLocalFile());
    if (!file.open(QIODevice::ReadOnly) || !file.seek(from)) {
        return {};
    }
    QStringList lines;
    for (const QByteArray &line : file.readAll().split('\n')) {
        if (line.size() > 27) {
            lines << QString::fromUtf8(line.mid(27));
        }
    }
    return lines;
}

// The log lines written since it was made.
struct LogWatch
{
    qint64 start = Logger::logSize();
    QStringList lines() const { return logLines(start); }
};

// The `count` lines of the last block that starts with `first`.
inline QStringList lastLogBlock(const QString &first, int count)
{
    const QStringList lines = logLines();
    const qsizetype start = lines.lastIndexOf(first);
    return start < 0 ? QStringList() : lines.mid(start, count);
}
