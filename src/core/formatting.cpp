#include "core/formatting.h"

QString formatPathList(const QStringList &paths)
{
    QStringList quoted;
    quoted.reserve(paths.size());
    for (const QString &path : paths) {
        quoted << QLatin1Char('"') + path + QLatin1Char('"');
    }
    return QLatin1Char('(') + quoted.join(QStringLiteral(", ")) + QLatin1Char(')');
}

QString groupedNumber(qint64 number)
{
    const bool negative = number < 0;
    QString digits = QString::number(negative ? -number : number);
    for (qsizetype i = digits.size() - 3; i > 0; i -= 3) {
        digits.insert(i, QLatin1Char(','));
    }
    return negative ? QLatin1Char('-') + digits : digits;
}

QString lastPathComponent(const QString &path)
{
    qsizetype end = path.size();
    while (end > 1 && path.at(end - 1) == QLatin1Char('/')) {
        --end;
    }
    const qsizetype slash = path.lastIndexOf(QLatin1Char('/'), end - 1);
    return path.mid(slash + 1, end - slash - 1);
}
