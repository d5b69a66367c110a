#pragma once

#include "core/error.h"

#include <QList>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <QVariant>

#include <optional>

namespace Volumes {
class VolumeMonitor;
}

// Questions about volumes: is this a CD, which device is behind it, does a
// path lie on removable media; ejecting and arrival/departure notices.
//
// An audio disc has no file system here, so the program models one: a disc
// volume is an optical drive's device node ("/dev/sr0") or a disc image file
// (".cue" with its ".bin", or ".toc") the user opened. Its files are
// "<volume>/<n> Audio Track.aiff" for each audio track n. A data disc that the
// system mounted is an ordinary folder and not a disc volume.
//
// Class operations only; all may be called from any thread.
class PLCVolumeType
{
public:
    enum class DiskDescriptionKey {
        MediaType,    // "CD-ROM", "DVD-ROM", "BD-ROM"; disc volumes only
        MediaBSDName, // the device node, or the image path for an image
        VolumePath,   // the disc volume, or the mount point holding the path
    };

    // The shared drive monitor, made once on first use; its signals say when
    // a drive or its disc comes or goes. Discs are ejected through
    // DiscSession, which waits for whatever reads them.
    static Volumes::VolumeMonitor *volumeMonitor();

    // The value of key for the disk behind url, or an invalid QVariant: always
    // for a URL that is not a file URL, for a path on no disk, or a key the
    // disk does not have.
    static QVariant descriptionForDiskKey(DiskDescriptionKey key, const QUrl &url);

    // True for a drive's device node while it holds a CD, and for a readable
    // disc image. Whether the disc carries audio is checked when it is opened.
    static bool isDiskAtURL(const QUrl &url);
    static bool isDiskAtPath(const QString &path) { return isDiskAtURL(QUrl::fromLocalFile(path)); }

    // The device behind the volume holding url; for an image, its path.
    static QString BSDNameOfDiskAtURL(const QUrl &url);

    // True when url lies on a volume mounted under /media/, /run/media/ or
    // /mnt/ (a plain text-prefix test against each mount point).
    static bool isExternalDrive(const QUrl &url);

    // --- Disc volumes --------------------------------------------------------

    // The disc volumes holding audio: drives with an audio CD (in udev's
    // order), then the inserted disc images (oldest first). error is set when
    // the drives cannot be listed; the images are listed anyway.
    struct DiscVolumeListing
    {
        QStringList volumes;
        OptionalError error;
    };
    static DiscVolumeListing discVolumes();

    // One track of a disc volume, as a file.
    struct TrackFile
    {
        QString path;        // "<volume>/<n> Audio Track.aiff"
        int trackNumber = 0; // the disc's own number
        qint64 size = 0;     // the track's audio in bytes (2352 a sector)
        bool operator==(const TrackFile &other) const = default;
    };
    // The audio tracks in ascending track order (never by name: "10" sorts
    // before "2"); nothing when url is no disc volume or its table of contents
    // cannot be read. Reads the disc, so it may take a moment on a drive.
    static std::optional<QList<TrackFile>> contentsOfDiskAtURL(const QUrl &url);

    // The name of track n's file: "3 Audio Track.aiff".
    static QString trackFileName(int trackNumber);

    // The track file at path if it exists on its disc, else nothing (reads
    // the disc's table of contents).
    static std::optional<TrackFile> trackFileAtPath(const QString &path);
    // The track number a track file's name gives, without asking the disc;
    // 0 for a name that is no track file's.
    static int trackNumberInPath(const QString &path);
};
