#include "platform/volumes.h"

#include "platform/dispatch.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QSocketNotifier>
#include <QThread>

#include <libudev.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/cdrom.h>
#include <memory>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Volumes {

namespace {

struct UdevDeleter
{
    void operator()(udev *handle) const { udev_unref(handle); }
    void operator()(udev_device *device) const { udev_device_unref(device); }
    void operator()(udev_enumerate *enumerate) const { udev_enumerate_unref(enumerate); }
};
using UdevPtr = std::unique_ptr<udev, UdevDeleter>;
using UdevDevicePtr = std::unique_ptr<udev_device, UdevDeleter>;
using UdevEnumeratePtr = std::unique_ptr<udev_enumerate, UdevDeleter>;

QHash<QString, QString> propertiesOf(udev_device *device)
{
    QHash<QString, QString> properties;
    udev_list_entry *entry = nullptr;
    udev_list_entry_foreach(entry, udev_device_get_properties_list_entry(device))
    {
        properties.insert(QString::fromUtf8(udev_list_entry_get_name(entry)),
                          QString::fromUtf8(udev_list_entry_get_value(entry)));
    }
    return properties;
}

std::optional<OpticalDrive> driveOf(udev_device *device)
{
    const char *node = udev_device_get_devnode(device);
    if (!node) {
        return std::nullopt;
    }
    return opticalDriveFromProperties(QFile::decodeName(node), propertiesOf(device));
}

bool anyFlagWithPrefix(const QHash<QString, QString> &properties, QLatin1StringView prefix)
{
    for (auto it = properties.constBegin(); it != properties.constEnd(); ++it) {
        if (it.key().startsWith(prefix) && it.value() == QLatin1String("1")) {
            return true;
        }
    }
    return false;
}

// "\040" and friends: mountinfo escapes blanks, tabs, new lines and backslashes.
QString unescapeMountField(const QByteArray &field)
{
    QByteArray out;
    out.reserve(field.size());
    for (qsizetype i = 0; i < field.size(); ++i) {
        const char c = field.at(i);
        if (c == '\\' && i + 3 < field.size()) {
            const QByteArray digits = field.mid(i + 1, 3);
            bool ok = false;
            const int value = digits.toInt(&ok, 8);
            if (ok && digits.size() == 3) {
                out.append(char(value));
                i += 3;
                continue;
            }
        }
        out.append(c);
    }
    return QFile::decodeName(out);
}

} // namespace

QString OpticalDrive::mediaType() const
{
    if (!hasMedia) {
        return {};
    }
    if (isCD) {
        return QStringLiteral("CD-ROM");
    }
    if (isDVD) {
        return QStringLiteral("DVD-ROM");
    }
    if (isBD) {
        return QStringLiteral("BD-ROM");
    }
    return {};
}

std::optional<OpticalDrive> opticalDriveFromProperties(const QString &deviceNode,
                                                       const QHash<QString, QString> &properties)
{
    if (properties.value(QStringLiteral("ID_CDROM")) != QLatin1String("1")) {
        return std::nullopt;
    }
    OpticalDrive drive;
    drive.deviceNode = deviceNode;
    drive.hasMedia = properties.value(QStringLiteral("ID_CDROM_MEDIA")) == QLatin1String("1");
    if (drive.hasMedia) {
        drive.isCD = anyFlagWithPrefix(properties, QLatin1StringView("ID_CDROM_MEDIA_CD"));
        drive.isDVD = anyFlagWithPrefix(properties, QLatin1StringView("ID_CDROM_MEDIA_DVD"));
        drive.isBD = anyFlagWithPrefix(properties, QLatin1StringView("ID_CDROM_MEDIA_BD"));
        drive.audioTrackCount = properties.value(QStringLiteral("ID_CDROM_MEDIA_TRACK_COUNT_AUDIO")).toInt();
        drive.dataTrackCount = properties.value(QStringLiteral("ID_CDROM_MEDIA_TRACK_COUNT_DATA")).toInt();
    }
    return drive;
}

std::optional<QList<OpticalDrive>> opticalDrives(QString *errorMessage)
{
    const UdevPtr context(udev_new());
    if (!context) {
        if (errorMessage) {
            *errorMessage = QStringLiteral("The device manager (udev) is not available.");
        }
        return std::nullopt;
    }
    const UdevEnumeratePtr enumerate(udev_enumerate_new(context.get()));
    if (!enumerate || udev_enumerate_add_match_subsystem(enumerate.get(), "block") < 0 ||
        udev_enumerate_add_match_property(enumerate.get(), "ID_CDROM", "1") < 0 ||
        udev_enumerate_scan_devices(enumerate.get()) < 0) {
        if (errorMessage) {
            *errorMessage = QStringLiteral("The optical drives could not be listed: %1")
                                .arg(QString::fromLocal8Bit(std::strerror(errno)));
        }
        return std::nullopt;
    }
    QList<OpticalDrive> drives;
    udev_list_entry *entry = nullptr;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(enumerate.get()))
    {
        const UdevDevicePtr device(udev_device_new_from_syspath(context.get(), udev_list_entry_get_name(entry)));
        if (!device) {
            continue; // gone since the scan
        }
        if (const auto drive = driveOf(device.get())) {
            drives.append(*drive);
        }
    }
    return drives;
}

std::optional<OpticalDrive> opticalDriveAtPath(const QString &path)
{
    if (path.isEmpty()) {
        return std::nullopt;
    }
    struct stat info;
    if (::stat(QFile::encodeName(path).constData(), &info) != 0 || !S_ISBLK(info.st_mode)) {
        return std::nullopt;
    }
    const UdevPtr context(udev_new());
    if (!context) {
        return std::nullopt;
    }
    const UdevDevicePtr device(udev_device_new_from_devnum(context.get(), 'b', info.st_rdev));
    if (!device) {
        return std::nullopt;
    }
    return driveOf(device.get());
}

QList<MountedVolume> parseMountInfo(const QByteArray &text)
{
    QList<MountedVolume> volumes;
    for (const QByteArray &line : text.split('\n')) {
        const QList<QByteArray> fields = line.split(' ');
        // id parent major:minor root mount-point options [optional...] - type source super-options
        const qsizetype separator = fields.indexOf(QByteArrayLiteral("-"), 6);
        if (fields.size() < 5 || separator < 0 || separator + 2 >= fields.size()) {
            continue;
        }
        MountedVolume volume;
        volume.mountPoint = unescapeMountField(fields.at(4));
        volume.fileSystemType = unescapeMountField(fields.at(separator + 1));
        volume.source = unescapeMountField(fields.at(separator + 2));
        volumes.append(volume);
    }
    return volumes;
}

QList<MountedVolume> mountedVolumes()
{
    // Not QFile::readAll: proc files report a size of 0.
    QFile file(QStringLiteral("/proc/self/mountinfo"));
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
        return {};
    }
    QByteArray text;
    char buffer[16384];
    qint64 count = 0;
    while ((count = file.read(buffer, sizeof buffer)) > 0) {
        text.append(buffer, count);
    }
    return parseMountInfo(text);
}

std::optional<MountedVolume> volumeContainingPath(const QString &path, const QList<MountedVolume> &volumes)
{
    if (!path.startsWith(QLatin1Char('/'))) {
        return std::nullopt;
    }
    const QString clean = QDir::cleanPath(path);
    std::optional<MountedVolume> best;
    for (const MountedVolume &volume : volumes) {
        const QString &mount = volume.mountPoint;
        const bool contains = mount == QLatin1String("/") || clean == mount ||
                              (clean.startsWith(mount) && clean.at(mount.size()) == QLatin1Char('/'));
        // Later mounts on the same point hide earlier ones, so ">=".
        if (contains && (!best || mount.size() >= best->mountPoint.size())) {
            best = volume;
        }
    }
    return best;
}

std::optional<MountedVolume> volumeContainingPath(const QString &path)
{
    return volumeContainingPath(path, mountedVolumes());
}

const QStringList &removableMountPrefixes()
{
    static const QStringList prefixes{QStringLiteral("/media/"), QStringLiteral("/run/media/"),
                                      QStringLiteral("/mnt/")};
    return prefixes;
}

bool isOnRemovableVolume(const QString &path, const QList<MountedVolume> &volumes)
{
    for (const MountedVolume &volume : volumes) {
        if (volume.mountPoint.isEmpty()) {
            continue;
        }
        for (const QString &prefix : removableMountPrefixes()) {
            if (volume.mountPoint.startsWith(prefix) && path.startsWith(volume.mountPoint)) {
                return true;
            }
        }
    }
    return false;
}

bool ejectDrive(const QString &deviceNode, QString *errorMessage)
{
    const int fd = ::open(QFile::encodeName(deviceNode).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0 || ::ioctl(fd, CDROMEJECT, 0) != 0) {
        if (errorMessage) {
            *errorMessage = QString::fromLocal8Bit(std::strerror(errno));
        }
        if (fd >= 0) {
            ::close(fd);
        }
        return false;
    }
    ::close(fd);
    return true;
}

VolumeMonitor *VolumeMonitor::shared()
{
    static VolumeMonitor *monitor = [] {
        VolumeMonitor *made = nullptr;
        // The socket notifier belongs to the thread that makes it: the main one.
        dispatchSyncMain([&made] { made = new VolumeMonitor(); });
        return made;
    }();
    return monitor;
}

VolumeMonitor::VolumeMonitor()
{
    m_udev = udev_new();
    if (!m_udev) {
        return;
    }
    m_monitor = udev_monitor_new_from_netlink(m_udev, "udev");
    if (!m_monitor || udev_monitor_filter_add_match_subsystem_devtype(m_monitor, "block", "disk") < 0 ||
        udev_monitor_enable_receiving(m_monitor) < 0) {
        if (m_monitor) {
            udev_monitor_unref(m_monitor);
            m_monitor = nullptr;
        }
        return;
    }
    if (const auto drives = opticalDrives()) {
        for (const OpticalDrive &drive : *drives) {
            m_mediaPresent.insert(drive.deviceNode, drive.hasMedia);
        }
    }
    auto *notifier = new QSocketNotifier(udev_monitor_get_fd(m_monitor), QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &VolumeMonitor::readEvents);
}

VolumeMonitor::~VolumeMonitor()
{
    if (m_monitor) {
        udev_monitor_unref(m_monitor);
    }
    if (m_udev) {
        udev_unref(m_udev);
    }
}

void VolumeMonitor::readEvents()
{
    while (udev_device *raw = udev_monitor_receive_device(m_monitor)) {
        const UdevDevicePtr device(raw);
        const QString action = QString::fromUtf8(udev_device_get_action(raw));
        const std::optional<OpticalDrive> drive = driveOf(raw);
        if (!drive) {
            continue;
        }
        const bool hadMedia = m_mediaPresent.value(drive->deviceNode, false);
        if (action == QLatin1String("remove")) {
            m_mediaPresent.remove(drive->deviceNode);
            emit diskDisappeared(drive->deviceNode);
            continue;
        }
        m_mediaPresent.insert(drive->deviceNode, drive->hasMedia);
        if (action == QLatin1String("add") || (drive->hasMedia && !hadMedia)) {
            emit diskAppeared(drive->deviceNode);
        } else if (!drive->hasMedia && hadMedia) {
            emit diskDisappeared(drive->deviceNode);
        }
    }
}

} // namespace Volumes
