#include "cli/sessionterminalprompter.h"

#include "cli/terminal.h"

#include <QTextStream>

int SessionTerminalPrompter::showAlertWithMessageText(const QString &messageText, const QString &informativeText,
                                                      const QString &, const QString &, const QString &)
{
    m_visible = true;
    m_status.endLine();
    QTextStream err(stderr);
    err << messageText;
    if (!informativeText.isEmpty()) {
        err << (messageText.isEmpty() ? "" : ": ") << informativeText;
    }
    err << Qt::endl;
    if (onAlert) {
        onAlert(messageText, informativeText);
    }
    m_visible = false;
    return messageText == QLatin1String("CD Rip Error") ? kAlertSecondButtonReturn : kAlertFirstButtonReturn;
}

void SessionTerminalPrompter::startWaitingAnimation(const QString &reason)
{
    if (reason != m_reason) {
        m_status.endLine();
        QTextStream(stderr) << reason << Qt::endl;
        m_reason = reason;
    }
}
