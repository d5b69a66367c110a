#include "cd/plcaudiocdprocessor.h"

#include "cd/plcvolumetype.h"
#include "core/logger.h"
#include "platform/discimages.h"

#include <QMutex>
#include <QMutexLocker>
#include <QTemporaryDir>
#include <QUrl>

#include <memory>

#include <cstdio>
#include <cstring>

namespace {

constexpr int kCDReadErrorCode = 1000;

struct DeviceState
{
    QMutex lock;
    CdIo_t *handle = nullptr;
    QString deviceName;
    bool isImage = false;
    // Holds the copy of a toc with relative file names while its handle lives.
    std::unique_ptr<QTemporaryDir> imageCopy;
    PLCAudioCDProcessor::DiscModeReader discModeReader;
};

DeviceState &state()
{
    static DeviceState deviceState;
    return deviceState;
}

Error openingError(const char *message)
{
    return Error::errorWithMessage(QString::fromUtf8(message), kCDReadErrorCode);
}

// Destroys the handle; the caller holds the lock.
void destroyHandleLocked(DeviceState &s)
{
    if (s.handle) {
        cdio_destroy(s.handle);
    }
    s.handle = nullptr;
    s.deviceName.clear();
    s.isImage = false;
    s.imageCopy.reset();
}

} // namespace

CdIo_t *PLCAudioCDProcessor::cdio()
{
    QMutexLocker locker(&state().lock);
    return state().handle;
}

QString PLCAudioCDProcessor::deviceName()
{
    QMutexLocker locker(&state().lock);
    return state().deviceName;
}

bool PLCAudioCDProcessor::isDiscImageOpen()
{
    QMutexLocker locker(&state().lock);
    return state().handle && state().isImage;
}

void PLCAudioCDProcessor::setDiscModeReader(DiscModeReader reader)
{
    QMutexLocker locker(&state().lock);
    state().discModeReader = std::move(reader);
}

void PLCAudioCDProcessor::closeDevice()
{
    QMutexLocker locker(&state().lock);
    destroyHandleLocked(state());
}

OptionalError PLCAudioCDProcessor::checkAudioDisc(discmode_t mode, track_t trackCount)
{
    // Lenient on purpose: every CD mode passes (a data CD too), and so does a
    // disc whose table of contents cannot be read.
    if (cdio_is_discmode_cdrom(mode) || trackCount == CDIO_INVALID_TRACK) {
        return std::nullopt;
    }
    return openingError("CD is not an Audio CD");
}

OptionalError PLCAudioCDProcessor::openDeviceForVolume(const QString &volumePath)
{
    DeviceState &s = state();
    QMutexLocker locker(&s.lock);

    if (s.handle) {
        consoleLog(QStringLiteral("Destroying old cdio object"));
        destroyHandleLocked(s);
    }

    const QUrl url = QUrl::fromLocalFile(volumePath);
    if (volumePath.isEmpty() || !PLCVolumeType::isDiskAtURL(url)) {
        return openingError("Path is not a CD");
    }

    // For an image, the image path plays the device name.
    const QString bsdName = PLCVolumeType::BSDNameOfDiskAtURL(url);

    // The candidates: the drives libcdio knows, then the inserted images.
    char **drives = cdio_get_devices(DRIVER_DEVICE);
    const QStringList images = DiscImages::list();
    if (!drives && images.isEmpty()) {
        return openingError("No attached devices found");
    }
    QStringList candidates;
    for (char **drive = drives; drive && *drive; ++drive) {
        candidates.append(QString::fromLocal8Bit(*drive));
    }
    bool candidateIsImage = false;
    QString chosen;
    if (!bsdName.isEmpty()) {
        for (const QString &candidate : candidates) {
            if (candidate.contains(bsdName)) {
                chosen = candidate;
                break;
            }
        }
        if (chosen.isEmpty()) {
            for (const QString &image : images) {
                if (image.contains(bsdName)) {
                    chosen = image;
                    candidateIsImage = true;
                    break;
                }
            }
        }
    }
    if (chosen.isEmpty()) {
        cdio_free_device_list(drives);
        return openingError("No CD found");
    }

    QString openPath = chosen;
    if (candidateIsImage) {
        s.imageCopy = std::make_unique<QTemporaryDir>();
        openPath = s.imageCopy->isValid() ? DiscImages::openablePath(chosen, s.imageCopy->path()) : QString();
        if (openPath.isEmpty()) {
            openPath = chosen;
        }
    }
    const QByteArray chosenName = openPath.toLocal8Bit();
    CdIo_t *handle = cdio_open(chosenName.constData(), candidateIsImage ? DRIVER_UNKNOWN : DRIVER_DEVICE);
    cdio_free_device_list(drives);
    if (!handle) {
        s.imageCopy.reset();
        return openingError("No macOS driver found.");
    }
    s.handle = handle;
    s.deviceName = chosen;
    s.isImage = candidateIsImage;

    const discmode_t mode = s.discModeReader ? s.discModeReader(handle) : cdio_get_discmode(handle);
    // The handle stays open on refusal; the next opening or eject releases it.
    return checkAudioDisc(mode, cdio_get_num_tracks(handle));
}

OptionalError PLCAudioCDProcessor::errorForEjectCode(int code)
{
    if (code >= 0 || code < -8) {
        return std::nullopt;
    }
    // Indexed by code + 8: the messages of -8 up to -1.
    static const char *const messages[] = {"MMC sense data", "No Driver", "Bad pointer", "Bad parameter",
                                           "Not permitted",  "Uninit",    "Unsupported", "Error"};
    return Error::errorWithMessage(QString::fromUtf8(messages[code + 8]));
}

OptionalError PLCAudioCDProcessor::eject(const QString &volumePath)
{
    DeviceState &s = state();
    QMutexLocker locker(&s.lock);

    const bool isImagePath = !volumePath.isEmpty() && DiscImages::isDiscImageFile(volumePath);
    const QString normalized = isImagePath ? DiscImages::normalizedPath(volumePath) : volumePath;
    const bool targetsOpenDisc =
        volumePath.isEmpty() || (s.handle && (normalized == s.deviceName || s.deviceName.contains(normalized)));

    if (!targetsOpenDisc) {
        if (isImagePath || DiscImages::contains(volumePath)) {
            DiscImages::eject(normalized);
            return std::nullopt;
        }
        const QByteArray device = volumePath.toLocal8Bit();
        return errorForEjectCode(cdio_eject_media_drive(device.constData()));
    }

    if (s.handle && s.isImage) {
        // libcdio cannot eject an image ("Unsupported"); taking it out is the
        // whole of ejecting it.
        DiscImages::eject(s.deviceName);
        destroyHandleLocked(s);
        return std::nullopt;
    }

    int code;
    if (s.handle) {
        // libcdio releases and clears the handle when the eject succeeds.
        code = cdio_eject_media(&s.handle);
        if (!s.handle) {
            s.deviceName.clear();
            s.isImage = false;
        }
    } else {
        char *device = cdio_get_default_device(nullptr);
        code = cdio_eject_media_drive(device);
        cdio_free(device);
    }
    return errorForEjectCode(code);
}
