#pragma once

#include <QString>

// Percent-encodes as UTF-8 everything but letters, digits and "-._~": the
// reserved characters "!*'();:@&=+$,/?%#[]" are escaped too. For values put
// into query strings by hand.
QString URLEncodedString(const QString &text);

// The older form escaping: escapes blanks and characters that are never
// legal in a URL, but leaves reserved ones such as "(", ")", "&" and "=".
QString legacyEscape(const QString &text);

// Encodes with the URL-query-allowed set: "(57)" stays as it is.
QString queryAllowedEscape(const QString &text);
