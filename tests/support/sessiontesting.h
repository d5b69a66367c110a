#pragma once

// Helpers of the tests that drive a SessionModel or read the log: a prompter
// that answers from a script and records what was asked, and the log's lines
// (logtesting.h).

#include "session/sessionprompter.h"
#include "support/logtesting.h"

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
