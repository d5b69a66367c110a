#pragma once

#include "app/logger.h"
#include "session/sessionprompter.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>

#include <functional>

// Answers the session's alerts from a script and records what was asked.
class RunPrompter : public SessionPrompter
{
public:
    struct Alert
    {
        QString message, informative;
        QStringList buttons;
    };
    QList<Alert> alerts;
    QList<int> answers;  // taken from the front; 1000 when empty
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
            auto during = std::exchange(whileAlertShows, {});
            during();
            alertVisible = false;
        }
        return answers.isEmpty() ? kAlertFirstButtonReturn : answers.takeFirst();
    }
    bool hasVisibleAlert() const override { return alertVisible; }
    void startWaitingAnimation(const QString &reason) override { overlay << QStringLiteral("start:") + reason; }
    void stopWaitingAnimation() override { overlay << QStringLiteral("stop"); }

    QStringList alertTitles() const
    {
        QStringList titles;
        for (const Alert &alert : alerts) {
            titles << alert.message;
        }
        return titles;
    }
};

// The log's lines without their date prefix ("yyyy-MM-dd HH:mm:ss +0000: ").
inline QStringList logLines()
{
    QFile file(Logger::logFileURL().toLocalFile());
    if (!file.open(QIODevice::ReadOnly)) {
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

// The lines of the last block that starts with `first` and has `count` lines.
inline QStringList lastLogBlock(const QString &first, int count)
{
    const QStringList lines = logLines();
    const qsizetype start = lines.lastIndexOf(first);
    if (start < 0) {
        return {};
    }
    return lines.mid(start, count);
}

// The stored files of a library answer (DevServerProcess::library()) by digest.
inline QStringList libraryDigests(const QJsonObject &library)
{
    QStringList digests;
    for (const QJsonValue &file : library.value(QStringLiteral("files")).toArray()) {
        digests << file.toObject().value(QStringLiteral("md5")).toString();
    }
    return digests;
}

inline QStringList libraryFilePaths(const QJsonObject &library)
{
    QStringList paths;
    for (const QJsonValue &file : library.value(QStringLiteral("files")).toArray()) {
        paths << file.toObject().value(QStringLiteral("file_path")).toString();
    }
    return paths;
}
