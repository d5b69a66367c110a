#pragma once

#include "session/sessionprompter.h"

#include <QString>

#include <functional>

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

    // Called after each alert is printed (SessionRun stops the run on some).
    std::function<void(const QString &message, const QString &informative)> onAlert;

protected:
    StatusLine &m_status;

private:
    bool m_visible = false;
    QString m_reason;
};
