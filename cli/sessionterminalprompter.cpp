#include "cli/sessionterminalprompter.h"

#include "cli/terminal.h"

#include <QTextStream>

int SessionTerminalPrompter::showAlertWithMessageText(const QString &messageText, const QString &informativeText,
                                                      const QString &, const QString &alternateButton, const QString &)
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
    // A track that failed, for the disc's reason or the service's, is skipped:
    // nobody is there to say when trying again would help.
    return alternateButton == QLatin1String("Skip Track") ? kAlertSecondButtonReturn : kAlertFirstButtonReturn;
}

void SessionTerminalPrompter::startWaitingAnimation(const QString &reason)
{
    if (reason != m_reason) {
        m_status.endLine();
        QTextStream(stderr) << reason << Qt::endl;
        m_reason = reason;
    }
}
