#include "library/segmentanswer.h"

#include "core/logger.h"

#include <QFile>

namespace {

const QByteArray kEndMarker = QByteArrayLiteral("EOF\n");

QString incompleteDownloadMessage()
{
    return QStringLiteral("Incomplete download.");
}

} // namespace

namespace SegmentAnswer {

QString chunkFileName(qint64 offset, qint64 length)
{
    const qint64 index = length > 0 ? offset / length : 0;
    return QStringLiteral(".temp-%1.zip").arg(index);
}

OptionalError validateEndMarker(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadWrite | QIODevice::ExistingOnly)) {
        Logger::log(QStringLiteral("Could not open file to validate end marker"));
        return Error::errorWithMessage(incompleteDownloadMessage());
    }
    const qint64 size = file.size();
    QByteArray tail;
    if (size >= kEndMarker.size() && file.seek(size - kEndMarker.size())) {
        tail = file.read(kEndMarker.size());
    }
    if (tail != kEndMarker || !file.resize(size - kEndMarker.size())) {
        Logger::log(QStringLiteral("Unable to validate data, no end marker found"));
        return Error::errorWithMessage(incompleteDownloadMessage());
    }
    return std::nullopt;
}

std::optional<qint64> parseEstimatedLength(const QByteArray &value)
{
    if (value.isEmpty()) {
        return 0;
    }
    qsizetype i = (value.front() == '+' || value.front() == '-') ? 1 : 0;
    if (i == value.size()) {
        return std::nullopt;
    }
    for (qsizetype j = i; j < value.size(); ++j) {
        if (value[j] < '0' || value[j] > '9') {
            return std::nullopt;
        }
    }
    bool ok = false;
    const qint64 number = value.toLongLong(&ok);
    return ok ? std::optional<qint64>(number) : std::nullopt;
}

qint64 parseTrackCount(const QByteArray &value)
{
    // Leading blanks, a sign and the digits that follow; the rest is ignored.
    const QByteArray text = value.trimmed();
    qsizetype end = (!text.isEmpty() && (text.front() == '+' || text.front() == '-')) ? 1 : 0;
    while (end < text.size() && text[end] >= '0' && text[end] <= '9') {
        ++end;
    }
    bool ok = false;
    const qint64 count = text.left(end).toLongLong(&ok);
    return ok ? count : 0;
}

} // namespace SegmentAnswer
