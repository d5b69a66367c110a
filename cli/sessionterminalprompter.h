#pragma once

#include "session/sessionprompter.h"

#include <QString>

#include <functional>

class QObject;
class SessionModel;
class StatusLine;

// Answers the session's prompts on the terminal by the documented defaults:
// every message is printed to standard error and answered with its first
// button, except "CD Rip Error", which skips the track.
class SessionTerminalPrompter : public SessionPrompter
{
public:
    explicit SessionTerminalPrompter(StatusLine &status) : m_status(status) {}

    int showAlertWithMessageText(const QString &messageText, const QString &informativeText, const QString &,
                                 const QString &, const QString &) override;
    bool hasVisibleAlert() const override { return m_visible; }
    void startWaitingAnimation(const QString &reason) override;
    // The reason stays, so that the same step announced twice in a row (the
    // list read, then the session check) shows once.
    void stopWaitingAnimation() override {}

    std::function<void(const QString &message, const QString &informative)> onAlert;

    // How a command's run stops: an alert titled as one of startFailures, or
    // an expired session, ends it with notStarted (through finish); "Upload
    // Error" while *running (the session has paused the run) cancels it, so it
    // ends with what is done. *stopReason says why. Calls come one turn later,
    // on context's thread.
    void stopRunOn(SessionModel &session, QObject *context, const QStringList &startFailures, int notStarted,
                   std::function<void(int)> finish, QString *stopReason, const bool *running);

protected:
    StatusLine &m_status;

private:
    bool m_visible = false;
    QString m_reason;
};
