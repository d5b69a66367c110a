#pragma once

#include <QString>

// Reason phrases of HTTP status codes, for messages such as
// "Service Unavailable (503)".
namespace HTTPStatusCodeMap {

// The phrase, or a null string for a code without one.
QString descriptionForCode(unsigned code);

// The message of a failure by status: "Service Unavailable (503)".
QString errorText(int code);
// The number of codes known.
int count();

} // namespace HTTPStatusCodeMap
