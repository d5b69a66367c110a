#include "session/audiocdprompter.h"

#include <QRegularExpression>

qint64 AudioCDPrompter::discNumberFromText(const QString &text)
{
    static const QRegularExpression pattern(QStringLiteral("\\A[+-]?[0-9]+\\z"));
    if (!pattern.match(text).hasMatch()) {
        return 1;
    }
    bool ok = false;
    // toLongLong takes no "+"; the sign is checked above.
    const qint64 value = (text.startsWith(QLatin1Char('+')) ? text.mid(1) : text).toLongLong(&ok);
    return ok ? value : 1;
}
