// The JSON API's answers as the client reads them: the envelope, the
// credentials a sign-in hands over and the list of digests already uploaded.
#include "fuzzcheck.h"

#include "protocol/serviceanswer.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <cstdint>

namespace {

std::string show(const QJsonValue &value)
{
    return QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact).toStdString();
}

// A text field stands for the value it came from: the form requests send it
// in place of the value, so a number must read back as the same number.
void checkText(const QJsonValue &value, const QString &text)
{
    if (value.isDouble()) {
        bool ok = false;
        const double back = text.toDouble(&ok);
        FUZZ_CHECK_SAY(ok && back == value.toDouble(), show(value) + " became \"" + text.toStdString() + "\"");
    } else if (value.isString()) {
        FUZZ_CHECK(text == value.toString());
    } else if (value.isBool()) {
        FUZZ_CHECK(text == (value.toBool() ? QLatin1String("1") : QLatin1String("0")));
    } else {
        FUZZ_CHECK(text.isNull());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray body = QByteArray::fromRawData(reinterpret_cast<const char *>(data), qsizetype(size));
    const std::optional<ServiceAnswer::Envelope> envelope = ServiceAnswer::readEnvelope(body);
    if (!envelope) {
        return 0;
    }
    const QJsonObject &object = envelope->object;
    FUZZ_CHECK(envelope->result == ServiceAnswer::truthValue(object.value("result")));
    checkText(object.value("message"), envelope->message);

    const ServiceAnswer::Credentials credentials = ServiceAnswer::credentials(object);
    const QJsonValue id = object.value("user").toObject().value("id");
    checkText(id, credentials.userId);
    checkText(object.value("user").toObject().value("token"), credentials.token);
    // The id goes back in the form it came in: a number as the same number,
    // anything else as its text.
    if (id.isDouble()) {
        FUZZ_CHECK(credentials.userIdValue.isDouble() && credentials.userIdValue.toDouble() == id.toDouble());
    } else {
        FUZZ_CHECK(credentials.userIdValue.isString() && credentials.userIdValue.toString() == credentials.userId);
    }
    // ... and survives the verification request's body.
    const QByteArray request = QJsonDocument(QJsonObject{{"user_id", credentials.userIdValue}}).toJson();
    FUZZ_CHECK_SAY(QJsonDocument::fromJson(request).object().value("user_id") == credentials.userIdValue,
                   request.toStdString());

    // The digest list has no invariant of its own beyond the sanitizers'.
    const QSet<QString> digests = ServiceAnswer::md5List(object);
    FUZZ_CHECK(digests.size() <= object.value("md5").toArray().size());
    return 0;
}
