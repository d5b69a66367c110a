#include "protocol/urlencoding.h"

#include <QUrl>

QString URLEncodedString(const QString &text)
{
    return QString::fromLatin1(QUrl::toPercentEncoding(text));
}

QString legacyEscape(const QString &text)
{
    return QString::fromLatin1(QUrl::toPercentEncoding(text, QByteArrayLiteral("!$&'()*+,;=:/?#[]@%")));
}

QString queryAllowedEscape(const QString &text)
{
    // The query may hold any sub-delimiter, ":", "@", "/" and "?".
    return QString::fromLatin1(QUrl::toPercentEncoding(text, QByteArrayLiteral("!$&'()*+,;=:@/?")));
}
