#include "cli/sessionterminalprompter.h"

#include "cli/terminal.h"
#include "session/sessionmodel.h"

#include <QTextStream>
#include <QTimer>

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

void SessionTerminalPrompter::stopRunOn(SessionModel &session, QObject *context, const QStringList &startFailures,
                                        int notStarted, std::function<void(int)> finish, QString *stopReason,
                                        const bool *running)
{
    onAlert = [&session, context, startFailures, notStarted, finish, stopReason, running](const QString &message,
                                                                                          const QString &informative) {
        if (startFailures.contains(message)) {
            QTimer::singleShot(0, context, [finish, notStarted] { finish(notStarted); });
        } else if (message == QLatin1String("Upload Error") && *running) {
            *stopReason = informative;
            QTimer::singleShot(0, context, [&session] { session.OnCancelUpload(); });
        }
    };
    QObject::connect(&session, &SessionModel::sessionExpired, context, [context, notStarted, finish, stopReason] {
        *stopReason = QStringLiteral("session expired");
        QTimer::singleShot(0, context, [finish, notStarted] { finish(notStarted); });
    });
}
