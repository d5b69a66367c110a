#pragma once

#include "core/error.h"

#include <QByteArray>
#include <QString>

#include <optional>

// What the library-download endpoint answers, read: the headers it sends and
// the end marker that proves a segment arrived whole.
namespace SegmentAnswer {

// ".temp-" + chunk index + ".zip": the name a segment's archive is kept under.
QString chunkFileName(qint64 offset, qint64 length);
// Checks that the file ends with "EOF\n" and cuts those four bytes off.
OptionalError validateEndMarker(const QString &path);
// An `Estimated-Content-Length` value: an optional sign and digits; an empty
// value is 0; anything else is none.
std::optional<qint64> parseEstimatedLength(const QByteArray &value);
// A `Total-Tracks` value read as an integer: 0 when missing or not a number.
qint64 parseTrackCount(const QByteArray &value);

} // namespace SegmentAnswer
