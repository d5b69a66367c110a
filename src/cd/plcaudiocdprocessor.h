#pragma once

#include "cd/discmetadata.h"
#include "core/error.h"

#include <QString>

#include <cdio/cdio.h>

#include <functional>

class QObject;

// Owns the one open CD device handle of the process: opens it for the disc
// the user chose (a drive's device node or an inserted disc image), checks
// that it holds a CD, hands it to the track reader and ejects the disc.
//
// The handle is replaced by each opening and released by eject or by the
// next opening. The callers order these calls (opening on the compiling
// thread, ripping after it, eject on the main thread); a lock only keeps the
// bookkeeping itself consistent.
class PLCAudioCDProcessor
{
public:
    // The open device handle, or null.
    static CdIo_t *cdio();

    // The device name the open handle was chosen by (a device node or an
    // image path); empty when none is open. The disc identifier is read
    // from it.
    static QString deviceName();

    // True when the open handle is a disc image rather than a drive.
    static bool isDiscImageOpen();

    // The device-opening steps for the disc at volumePath. Every failure is
    // an error with code 1000: "Path is not a CD", "No attached devices
    // found", "No CD found", "No macOS driver found." or "CD is not an Audio
    // CD" (after which the handle stays open).
    static OptionalError openDeviceForVolume(const QString &volumePath);

    // Ejects the disc. With no volume, or the open handle's volume, the
    // open disc is ejected (or the default drive when nothing is open); an
    // inserted image is simply taken out: its handle is destroyed and it
    // leaves the volume list. Another volume path ejects that disc.
    static OptionalError eject(const QString &volumePath = QString());

    // The audio check: any CD mode passes, and so does a disc whose track
    // count cannot be read (255); anything else is "CD is not an Audio CD".
    static OptionalError checkAudioDisc(discmode_t mode, track_t trackCount);

    // The error for a libcdio driver return code: none for 0 and above and
    // below -8, else the code's message (made without a code).
    static OptionalError errorForEjectCode(int code);

    // Lets tests stand in a disc mode the images cannot have (a DVD, say);
    // an empty function restores the real reading.
    using DiscModeReader = std::function<discmode_t(CdIo_t *)>;
    static void setDiscModeReader(DiscModeReader reader);

    // Closes the handle without ejecting anything.
    static void closeDevice();

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
