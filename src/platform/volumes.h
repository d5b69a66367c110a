#pragma once

#include <QHash>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>

#include <optional>

struct udev;
struct udev_monitor;

// What the system knows about optical drives (udev) and mounted file systems
// (/proc/self/mountinfo). Every function may be called from any thread unless
// its comment says otherwise.
namespace Volumes {

// An optical drive as udev describes it.
struct OpticalDrive
{
    QString deviceNode; // "/dev/sr0"
    bool hasMedia = false;
    bool isCD = false; // any CD flavour: pressed, -R, -RW
    bool isDVD = false;
    bool isBD = false;
    int audioTrackCount = 0;
    int dataTrackCount = 0;

    // "CD-ROM", "DVD-ROM" or "BD-ROM" for the disc in the drive; empty when
    // the drive is empty or its medium is of another kind.
    QString mediaType() const;
    bool holdsAudioCD() const { return hasMedia && isCD && audioTrackCount > 0; }

    bool operator==(const OpticalDrive &other) const = default;
};

// The drive behind a set of udev properties; nothing unless ID_CDROM is "1".
std::optional<OpticalDrive> opticalDriveFromProperties(const QString &deviceNode,
                                                       const QHash<QString, QString> &properties);

// All optical drives, in udev's order. Nothing (and the reason in
// errorMessage) when udev cannot be asked at all.
std::optional<QList<OpticalDrive>> opticalDrives(QString *errorMessage = nullptr);

// The optical drive whose device node is path (symbolic links such as
// /dev/cdrom are followed), or nothing.
std::optional<OpticalDrive> opticalDriveAtPath(const QString &path);

// A mounted file system.
struct MountedVolume
{
    QString mountPoint;     // "/media/anna/MUSIC"
    QString source;         // "/dev/sdb1", or e.g. "tmpfs"
    QString fileSystemType; // "vfat"

    bool operator==(const MountedVolume &other) const = default;
};

// Parses the text of a mountinfo file; mount points and sources are unescaped
// ("\040" is a blank).
QList<MountedVolume> parseMountInfo(const QByteArray &text);

// The mounted file systems in the kernel's order; empty when they cannot be read.
QList<MountedVolume> mountedVolumes();

// The mounted volume holding path: the one with the longest mount point that
// is path itself or one of its parent folders. Nothing for a relative path.
std::optional<MountedVolume> volumeContainingPath(const QString &path, const QList<MountedVolume> &volumes);
std::optional<MountedVolume> volumeContainingPath(const QString &path);

// Mount-point prefixes of removable media: what the desktop's automounter
// (/media/, /run/media/) or the user (/mnt/) mounts there.
const QStringList &removableMountPrefixes();

// True when path begins with the mount point of a volume that is mounted
// under one of the removable prefixes. A plain text-prefix test: a volume at
// /media/Music also claims /media/Music2/a.flac.
bool isOnRemovableVolume(const QString &path, const QList<MountedVolume> &volumes);

// Opens the drive's tray or ejects its disc. Blocks for as long as the drive
// takes; false (and the reason in errorMessage) on failure.
bool ejectDrive(const QString &deviceNode, QString *errorMessage = nullptr);

// Announces optical drives and discs coming and going, as udev reports them.
// Lives on the main thread; without udev it simply never signals.
class VolumeMonitor : public QObject
{
    Q_OBJECT

public:
    // The process-wide monitor, made on the main thread at first use.
    static VolumeMonitor *shared();

    bool isActive() const { return m_monitor != nullptr; }

    ~VolumeMonitor() override;

signals:
    // A drive was added, or a disc was inserted into one.
    void diskAppeared(const QString &deviceNode);
    // A drive was removed, or its disc taken out.
    void diskDisappeared(const QString &deviceNode);

private:
    VolumeMonitor();
    void readEvents();

    ::udev *m_udev = nullptr;
    ::udev_monitor *m_monitor = nullptr;
    QHash<QString, bool> m_mediaPresent;
};

} // namespace Volumes
