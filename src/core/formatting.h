#pragma once

#include <QString>
#include <QStringList>

// Text forms shared by log lines and labels.

// An absent value prints as "(null)".
inline QString nullable(const QString &value)
{
    return value.isNull() ? QStringLiteral("(null)") : value;
}

// A list printed into a message: ("/a/b", "/c d").
QString formatPathList(const QStringList &paths);

// The last component of a path, trailing slashes ignored: "/a/b/" -> "b".
QString lastPathComponent(const QString &path);

// 12345 -> "12,345", whatever the locale.
QString groupedNumber(qint64 number);
