#pragma once

#include "cd/discmetadata.h"
#include "core/error.h"

#include <QString>

#include <cdio/cdio.h>

#include <functional>

class QObject;

// The CD's metadata and the checks of opening one; the disc itself is
// opened, read and ejected through DiscSession.
class PLCAudioCDProcessor
{
public:
    // The audio check: any CD mode passes, and so does a disc whose track
    // count cannot be read (255); anything else is "CD is not an Audio CD".
    static OptionalError checkAudioDisc(discmode_t mode, track_t trackCount);

    // The error for a libcdio driver return code: none for 0 and above and
    // below -8, else the code's message (made without a code).
    static OptionalError errorForEjectCode(int code);

    // --- Disc metadata (discmetadata.cpp) ------------------------------------

    using ProgressCallback = std::function<void(int stage)>;

    // Opens the disc at volumePath and compiles one tag record per track
    // path (entry i is the disc's i-th track): MusicBrainz first, then
    // CD-TEXT, then artwork, then default titles. Blocks; the progress
    // callback runs on the calling thread.
    static DiscMetadata compileDiscMetadata(const QString &volumePath, const QStringList &trackPaths,
                                            const DiscMetadataOptions &options = {},
                                            const ProgressCallback &progressCallback = {});

    // The same as a thread-pool task: progress and the one completion are
    // queued to context's thread (and dropped if context is gone).
    static void compileDiscMetadataInBackground(const QString &volumePath, const QStringList &trackPaths,
                                                const DiscMetadataOptions &options, QObject *context,
                                                ProgressCallback progressCallback,
                                                std::function<void(const DiscMetadata &)> completion);

    // The records alone, as the session takes them; error is set beside a
    // result too.
    static std::optional<ID3TagDictionary> ID3TagsForPath(const QString &volumePath, const QStringList &trackPaths,
                                                          OptionalError *error,
                                                          const ProgressCallback &progressCallback);

    // Merges tag into the record for path: a field is taken only where the
    // record has none (an empty text counts as one), a year also over 0;
    // artwork is never merged.
    static void updateTags(ID3TagDictionary &tags, const QString &path, const PLCID3Tag &tag);

    // The text of a C string, nothing for a null pointer.
    static std::optional<QString> stringWithUTF8String(const char *text);
};
