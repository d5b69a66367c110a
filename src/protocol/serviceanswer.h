#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QSet>
#include <QString>
#include <QStringList>

#include <optional>

// What the JSON API answers, read: the envelope every answer comes in and the
// fields the client takes from it. No network here, so any body can be read.
namespace ServiceAnswer {

struct Envelope
{
    QJsonObject object; // empty when the body is JSON but not an object
    bool result = false;
    QString message; // the envelope's `message`; null when absent
};

// Nothing when the body is not JSON.
std::optional<Envelope> readEnvelope(const QByteArray &body);

// The service's truth test for envelope values: true, a non-zero number, or
// text that starts (after blanks, a sign and zeros) with Y, y, T, t or a digit
// 1 to 9, as "1" does.
bool truthValue(const QJsonValue &value);

// A text field as the envelope sends it: numbers in a decimal form that reads
// back as the same number, booleans as "1" or "0", anything else a null string.
QString textValue(const QJsonValue &value);

// What a successful sign-in or verification hands over.
struct Credentials
{
    QString userId;
    QJsonValue userIdValue; // the id as given, number or text: sent back in that form
    QString token;
    QStringList supportedExtensions; // lower case, without the dot
};
Credentials credentials(const QJsonObject &envelope);

// The digests of the files already uploaded (the `md5` array's strings).
QSet<QString> md5List(const QJsonObject &envelope);

} // namespace ServiceAnswer
