#include "protocol/httpstatuscodemap.h"

#include <QHash>

namespace {

// The wording is kept as the service's clients have always shown it
// ("Non-authoritative Information", "Request-URI Too Long"); 306 and 425
// have no row on purpose.
const QHash<QString, QString> &table()
{
    static const QHash<QString, QString> map = {
        {QStringLiteral("100"), QStringLiteral("Continue")},
        {QStringLiteral("101"), QStringLiteral("Switching Protocols")},
        {QStringLiteral("102"), QStringLiteral("Processing")},
        {QStringLiteral("200"), QStringLiteral("OK")},
        {QStringLiteral("201"), QStringLiteral("Created")},
        {QStringLiteral("202"), QStringLiteral("Accepted")},
        {QStringLiteral("203"), QStringLiteral("Non-authoritative Information")},
        {QStringLiteral("204"), QStringLiteral("No Content")},
        {QStringLiteral("205"), QStringLiteral("Reset Content")},
        {QStringLiteral("206"), QStringLiteral("Partial Content")},
        {QStringLiteral("207"), QStringLiteral("Multi-Status")},
        {QStringLiteral("208"), QStringLiteral("Already Reported")},
        {QStringLiteral("226"), QStringLiteral("IM Used")},
        {QStringLiteral("300"), QStringLiteral("Multiple Choices")},
        {QStringLiteral("301"), QStringLiteral("Moved Permanently")},
        {QStringLiteral("302"), QStringLiteral("Found")},
        {QStringLiteral("303"), QStringLiteral("See Other")},
        {QStringLiteral("304"), QStringLiteral("Not Modified")},
        {QStringLiteral("305"), QStringLiteral("Use Proxy")},
        {QStringLiteral("307"), QStringLiteral("Temporary Redirect")},
        {QStringLiteral("308"), QStringLiteral("Permanent Redirect")},
        {QStringLiteral("400"), QStringLiteral("Bad Request")},
        {QStringLiteral("401"), QStringLiteral("Unauthorized")},
        {QStringLiteral("402"), QStringLiteral("Payment Required")},
        {QStringLiteral("403"), QStringLiteral("Forbidden")},
        {QStringLiteral("404"), QStringLiteral("Not Found")},
        {QStringLiteral("405"), QStringLiteral("Method Not Allowed")},
        {QStringLiteral("406"), QStringLiteral("Not Acceptable")},
        {QStringLiteral("407"), QStringLiteral("Proxy Authentication Required")},
        {QStringLiteral("408"), QStringLiteral("Request Timeout")},
        {QStringLiteral("409"), QStringLiteral("Conflict")},
        {QStringLiteral("410"), QStringLiteral("Gone")},
        {QStringLiteral("411"), QStringLiteral("Length Required")},
        {QStringLiteral("412"), QStringLiteral("Precondition Failed")},
        {QStringLiteral("413"), QStringLiteral("Payload Too Large")},
        {QStringLiteral("414"), QStringLiteral("Request-URI Too Long")},
        {QStringLiteral("415"), QStringLiteral("Unsupported Media Type")},
        {QStringLiteral("416"), QStringLiteral("Requested Range Not Satisfiable")},
        {QStringLiteral("417"), QStringLiteral("Expectation Failed")},
        {QStringLiteral("418"), QStringLiteral("I'm a teapot")},
        {QStringLiteral("421"), QStringLiteral("Misdirected Request")},
        {QStringLiteral("422"), QStringLiteral("Unprocessable Entity")},
        {QStringLiteral("423"), QStringLiteral("Locked")},
        {QStringLiteral("424"), QStringLiteral("Failed Dependency")},
        {QStringLiteral("426"), QStringLiteral("Upgrade Required")},
        {QStringLiteral("428"), QStringLiteral("Precondition Required")},
        {QStringLiteral("429"), QStringLiteral("Too Many Requests")},
        {QStringLiteral("431"), QStringLiteral("Request Header Fields Too Large")},
        {QStringLiteral("444"), QStringLiteral("Connection Closed Without Response")},
        {QStringLiteral("451"), QStringLiteral("Unavailable For Legal Reasons")},
        {QStringLiteral("499"), QStringLiteral("Client Closed Request")},
        {QStringLiteral("500"), QStringLiteral("Internal Server Error")},
        {QStringLiteral("501"), QStringLiteral("Not Implemented")},
        {QStringLiteral("502"), QStringLiteral("Bad Gateway")},
        {QStringLiteral("503"), QStringLiteral("Service Unavailable")},
        {QStringLiteral("504"), QStringLiteral("Gateway Timeout")},
        {QStringLiteral("505"), QStringLiteral("HTTP Version Not Supported")},
        {QStringLiteral("506"), QStringLiteral("Variant Also Negotiates")},
        {QStringLiteral("507"), QStringLiteral("Insufficient Storage")},
        {QStringLiteral("508"), QStringLiteral("Loop Detected")},
        {QStringLiteral("510"), QStringLiteral("Not Extended")},
        {QStringLiteral("511"), QStringLiteral("Network Authentication Required")},
        {QStringLiteral("599"), QStringLiteral("Network Connect Timeout Error")},
    };
    return map;
}

} // namespace

namespace HTTPStatusCodeMap {

QString descriptionForCode(unsigned code)
{
    return table().value(QString::number(code));
}

int count()
{
    return int(table().size());
}

} // namespace HTTPStatusCodeMap

QString HTTPStatusCodeMap::errorText(int code)
{
    const QString description = descriptionForCode(unsigned(code));
    return QStringLiteral("%1 (%2)").arg(description.isNull() ? QStringLiteral("(null)") : description).arg(code);
}
