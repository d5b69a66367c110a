#pragma once

#include "cd/plcid3tag.h"
#include "core/error.h"

#include <QByteArray>

#include <optional>

// Writes a track's tag record into the bytes of an MP3 file as an ID3 v2.3
// tag. Stateless.
class ID3Writer
{
public:
    // The file's bytes with the tag written, or nothing with *error set when
    // the tag library cannot write it.
    static std::optional<QByteArray> write(const PLCID3Tag &tag, const QByteArray &data,
                                           OptionalError *error = nullptr);

    // The comment every tag carries.
    static QString comment();
};
