#include "protocol/serviceanswer.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QLocale>

#include <cmath>

namespace ServiceAnswer {

std::optional<Envelope> readEnvelope(const QByteArray &body)
{
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(body, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        return std::nullopt;
    }
    Envelope envelope;
    envelope.object = document.object();
    envelope.result = truthValue(envelope.object.value("result"));
    envelope.message = textValue(envelope.object.value("message"));
    return envelope;
}

bool truthValue(const QJsonValue &value)
{
    if (value.isBool())
        return value.toBool();
    if (value.isDouble())
        return value.toDouble() != 0.0;
    if (!value.isString())
        return false;
    const QString text = value.toString();
    qsizetype i = 0;
    while (i < text.size() && text.at(i).isSpace())
        ++i;
    if (i < text.size() && (text.at(i) == QLatin1Char('+') || text.at(i) == QLatin1Char('-')))
        ++i;
    while (i < text.size() && text.at(i) == QLatin1Char('0'))
        ++i;
    if (i == text.size())
        return false;
    const QChar c = text.at(i);
    return c == QLatin1Char('Y') || c == QLatin1Char('y') || c == QLatin1Char('T') || c == QLatin1Char('t') ||
           (c >= QLatin1Char('1') && c <= QLatin1Char('9'));
}

QString textValue(const QJsonValue &value)
{
    if (value.isString())
        return value.toString();
    if (value.isDouble()) {
        // The text stands for the number in the form requests, so it must read
        // back as the same number: whole numbers in all their digits, others in
        // the shortest form that does. A cast to qint64 only where it fits.
        const double number = value.toDouble();
        constexpr double kTwoToThe63 = 9223372036854775808.0;
        if (std::trunc(number) != number)
            return QString::number(number, 'g', QLocale::FloatingPointShortest);
        if (number > -kTwoToThe63 && number < kTwoToThe63)
            return QString::number(qint64(number));
        return QString::number(number, 'f', 0);
    }
    if (value.isBool())
        return value.toBool() ? QStringLiteral("1") : QStringLiteral("0");
    return QString();
}

Credentials credentials(const QJsonObject &envelope)
{
    Credentials credentials;
    const QJsonObject user = envelope.value("user").toObject();
    const QJsonValue id = user.value("id");
    credentials.userId = textValue(id);
    credentials.userIdValue = id.isDouble() ? id : QJsonValue(credentials.userId);
    credentials.token = textValue(user.value("token"));
    for (const QJsonValue &format : envelope.value("supported").toArray()) {
        const QJsonValue extension = format.toObject().value("extension");
        if (extension.isString())
            credentials.supportedExtensions.append(extension.toString().mid(1).toLower());
    }
    return credentials;
}

QSet<QString> md5List(const QJsonObject &envelope)
{
    QSet<QString> digests;
    for (const QJsonValue &digest : envelope.value("md5").toArray()) {
        if (digest.isString())
            digests.insert(digest.toString());
    }
    return digests;
}

} // namespace ServiceAnswer
