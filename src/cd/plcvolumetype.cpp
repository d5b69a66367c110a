#include "cd/plcvolumetype.h"

#include "cd/disclayout.h"
#include "cd/discsession.h"
#include "core/paths.h"
#include "platform/discimages.h"
#include "platform/volumes.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <cdio/cdio.h>

#include <memory>

namespace {

QString localPath(const QUrl &url)
{
    return url.isLocalFile() ? url.toLocalFile() : QString();
}

struct CdioCloser
{
    void operator()(CdIo_t *handle) const { cdio_destroy(handle); }
};

// An open handle on the disc volume, for reading its table of contents.
std::unique_ptr<CdIo_t, CdioCloser> openDiscVolume(const QString &volume)
{
    if (DiscImages::isDiscImageFile(volume)) {
        // libcdio finds a toc's files from the working folder; a copy naming
        // them absolutely is opened instead, whatever the working folder.
        QTemporaryDir copyFolder(Paths::temporaryPath(QStringLiteral("disc-XXXXXX")));
        QString openable = copyFolder.isValid() ? DiscImages::openablePath(volume, copyFolder.path()) : QString();
        if (openable.isEmpty()) {
            openable = volume;
        }
        return std::unique_ptr<CdIo_t, CdioCloser>(DiscSession::openHandle(openable, DRIVER_UNKNOWN));
    }
    const auto drive = Volumes::opticalDriveAtPath(volume);
    if (!drive || !drive->hasMedia) {
        return nullptr;
    }
    return std::unique_ptr<CdIo_t, CdioCloser>(DiscSession::openHandle(drive->deviceNode, DRIVER_DEVICE));
}

} // namespace

Volumes::VolumeMonitor *PLCVolumeType::volumeMonitor()
{
    return Volumes::VolumeMonitor::shared();
}

QVariant PLCVolumeType::descriptionForDiskKey(DiskDescriptionKey key, const QUrl &url)
{
    const QString path = localPath(url);
    if (path.isEmpty()) {
        return {};
    }
    if (const auto drive = Volumes::opticalDriveAtPath(path)) {
        switch (key) {
        case DiskDescriptionKey::MediaType: {
            const QString type = drive->mediaType();
            return type.isEmpty() ? QVariant() : QVariant(type);
        }
        case DiskDescriptionKey::MediaBSDName:
        case DiskDescriptionKey::VolumePath:
            return drive->deviceNode;
        }
        return {};
    }
    if (DiscImages::isDiscImageFile(path)) {
        switch (key) {
        case DiskDescriptionKey::MediaType:
            return QStringLiteral("CD-ROM");
        case DiskDescriptionKey::MediaBSDName:
        case DiskDescriptionKey::VolumePath:
            return DiscImages::normalizedPath(path);
        }
        return {};
    }
    // Any other existing path: the mounted file system holding it. Its media
    // type is left out on purpose, so a mounted data disc is scanned as a folder.
    if (!QFileInfo::exists(path)) {
        return {};
    }
    const auto volume = Volumes::volumeContainingPath(QFileInfo(path).absoluteFilePath());
    if (!volume) {
        return {};
    }
    switch (key) {
    case DiskDescriptionKey::MediaType:
        return {};
    case DiskDescriptionKey::MediaBSDName:
        return volume->source.startsWith(QLatin1String("/dev/")) ? QVariant(volume->source) : QVariant();
    case DiskDescriptionKey::VolumePath:
        return volume->mountPoint;
    }
    return {};
}

bool PLCVolumeType::isDiskAtURL(const QUrl &url)
{
    return descriptionForDiskKey(DiskDescriptionKey::MediaType, url).toString() == QLatin1String("CD-ROM");
}

QString PLCVolumeType::BSDNameOfDiskAtURL(const QUrl &url)
{
    return descriptionForDiskKey(DiskDescriptionKey::MediaBSDName, url).toString();
}

bool PLCVolumeType::isExternalDrive(const QUrl &url)
{
    const QString path = localPath(url);
    return !path.isEmpty() && Volumes::isOnRemovableVolume(path, Volumes::mountedVolumes());
}

PLCVolumeType::DiscVolumeListing PLCVolumeType::discVolumes()
{
    DiscVolumeListing listing;
    QString message;
    if (const auto drives = Volumes::opticalDrives(&message)) {
        for (const Volumes::OpticalDrive &drive : *drives) {
            if (drive.holdsAudioCD()) {
                listing.volumes.append(drive.deviceNode);
            }
        }
    } else {
        listing.error = Error::errorWithMessage(message);
    }
    listing.volumes.append(DiscImages::list());
    return listing;
}

QString PLCVolumeType::trackFileName(int trackNumber)
{
    return QString::number(trackNumber) + QStringLiteral(" Audio Track.aiff");
}

std::optional<QList<PLCVolumeType::TrackFile>> PLCVolumeType::contentsOfDiskAtURL(const QUrl &url)
{
    const QString path = localPath(url);
    if (path.isEmpty() || !isDiskAtURL(url)) {
        return std::nullopt;
    }
    const auto handle = openDiscVolume(path);
    if (!handle) {
        return std::nullopt;
    }
    const track_t first = cdio_get_first_track_num(handle.get());
    const track_t count = cdio_get_num_tracks(handle.get());
    if (first == CDIO_INVALID_TRACK || count == CDIO_INVALID_TRACK) {
        return std::nullopt;
    }
    // Track files are named after the volume path as given, so a track's
    // parent folder is the volume the caller knows.
    const QString volume = QDir::cleanPath(path);
    QList<TrackFile> tracks;
    for (int number = first; number < int(first) + int(count); ++number) {
        const auto track = track_t(number);
        if (cdio_get_track_format(handle.get(), track) != TRACK_FORMAT_AUDIO) {
            continue;
        }
        // The sectors a rip reads, so a track's size is what its rip gives.
        lsn_t start = 0;
        lsn_t last = 0;
        if (!DiscLayout::trackSectors(handle.get(), track, &start, &last) || last < start) {
            continue;
        }
        tracks.append(TrackFile{volume + QLatin1Char('/') + trackFileName(number), number,
                                qint64(last - start + 1) * CDIO_CD_FRAMESIZE_RAW});
    }
    return tracks;
}

int PLCVolumeType::trackNumberInPath(const QString &path)
{
    static const QLatin1String kSuffix(" Audio Track.aiff");
    const QString name = QFileInfo(path).fileName();
    if (!name.endsWith(kSuffix)) {
        return 0;
    }
    bool ok = false;
    const int number = name.left(name.size() - kSuffix.size()).toInt(&ok);
    return ok && number > 0 && number <= 99 ? number : 0;
}

std::optional<PLCVolumeType::TrackFile> PLCVolumeType::trackFileAtPath(const QString &path)
{
    const QFileInfo info(path);
    if (!info.fileName().endsWith(QLatin1String(" Audio Track.aiff"))) {
        return std::nullopt;
    }
    const QString volume = QDir::cleanPath(info.path());
    const auto tracks = contentsOfDiskAtURL(QUrl::fromLocalFile(volume));
    if (!tracks) {
        return std::nullopt;
    }
    const QString clean = QDir::cleanPath(path);
    for (const TrackFile &track : *tracks) {
        if (track.path == clean) {
            return track;
        }
    }
    return std::nullopt;
}
