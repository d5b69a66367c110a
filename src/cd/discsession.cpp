#include "cd/discsession.h"

#include "cd/plcaudiocdprocessor.h"
#include "cd/plcvolumetype.h"
#include "core/logger.h"
#include "core/paths.h"
#include "platform/discimages.h"

#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QMutexLocker>
#include <QTemporaryDir>
#include <QUrl>

namespace {

constexpr int kCDReadErrorCode = 1000;

// The open discs by device name. Opening and ejecting hold registryLock, so
// a disc is never opened twice nor ejected while it is being opened.
struct Registry
{
    QMutex lock;
    QHash<QString, std::shared_ptr<DiscSession>> sessions;
    DiscSession::DiscModeReader discModeReader;
};

Registry &registry()
{
    static Registry shared;
    return shared;
}

Error openingError(const char *message)
{
    return Error::errorWithMessage(QString::fromUtf8(message), kCDReadErrorCode);
}

// What is wrong with an image libcdio would not open: libcdio reads a cue's
// audio from the file of its own name with ".bin" (whatever its FILE line
// says), and refuses a sheet it cannot parse.
Error imageOpeningError(const QString &image)
{
    if (image.endsWith(QLatin1String(".cue"), Qt::CaseInsensitive)) {
        const QString bin = image.left(image.size() - 4) + QStringLiteral(".bin");
        if (!QFileInfo::exists(bin)) {
            return Error::errorWithMessage(
                QStringLiteral("The disc image's audio file %1 is missing.").arg(QFileInfo(bin).fileName()),
                kCDReadErrorCode);
        }
    }
    return Error::errorWithMessage(
        QStringLiteral("The disc image %1 could not be read: it is not a cue or toc sheet libcdio understands.")
            .arg(QFileInfo(image).fileName()),
        kCDReadErrorCode);
}

struct Candidate
{
    QString name;
    bool isImage = false;
};

// The device-opening steps up to the choice: the drives libcdio knows, then
// the inserted images, matched against the volume's device name.
std::optional<Candidate> chooseCandidate(const QString &volumePath, OptionalError *error)
{
    const QUrl url = QUrl::fromLocalFile(volumePath);
    if (volumePath.isEmpty() || !PLCVolumeType::isDiskAtURL(url)) {
        *error = openingError("Path is not a CD");
        return std::nullopt;
    }
    const QString bsdName = PLCVolumeType::BSDNameOfDiskAtURL(url);
    char **drives = cdio_get_devices(DRIVER_DEVICE);
    const QStringList images = DiscImages::list();
    if (!drives && images.isEmpty()) {
        *error = openingError("No attached devices found");
        return std::nullopt;
    }
    std::optional<Candidate> chosen;
    for (char **drive = drives; drive && *drive && !chosen && !bsdName.isEmpty(); ++drive) {
        const QString candidate = QString::fromLocal8Bit(*drive);
        if (candidate.contains(bsdName)) {
            chosen = Candidate{candidate, false};
        }
    }
    cdio_free_device_list(drives);
    for (const QString &image : images) {
        if (!chosen && !bsdName.isEmpty() && image.contains(bsdName)) {
            chosen = Candidate{image, true};
        }
    }
    if (!chosen) {
        *error = openingError("No CD found");
    }
    return chosen;
}

// The registry's session whose device is volumePath, or null.
std::shared_ptr<DiscSession> findLocked(Registry &r, const QString &volumePath)
{
    const QString normalized =
        DiscImages::isDiscImageFile(volumePath) ? DiscImages::normalizedPath(volumePath) : volumePath;
    for (auto it = r.sessions.cbegin(); it != r.sessions.cend(); ++it) {
        if (it.key() == normalized || (!normalized.isEmpty() && it.key().contains(normalized))) {
            return it.value();
        }
    }
    return nullptr;
}

} // namespace

DiscSession::~DiscSession()
{
    QMutexLocker locker(&m_useLock);
    closeLocked();
}

void DiscSession::closeLocked()
{
    if (m_handle) {
        cdio_destroy(m_handle);
    }
    m_handle = nullptr;
    m_imageCopy.reset();
}

CdIo_t *DiscSession::openHandle(const QString &path, driver_id_t driver)
{
    static QMutex parsing;
    QMutexLocker locker(&parsing);
    return cdio_open(QFile::encodeName(path).constData(), driver);
}

void DiscSession::setDiscModeReader(DiscModeReader reader)
{
    QMutexLocker locker(&registry().lock);
    registry().discModeReader = std::move(reader);
}

std::shared_ptr<DiscSession> DiscSession::open(const QString &volumePath, OptionalError *error)
{
    OptionalError ignored;
    OptionalError &failure = error ? *error : ignored;
    failure.reset();
    Registry &r = registry();
    QMutexLocker locker(&r.lock);

    const std::optional<Candidate> chosen = chooseCandidate(volumePath, &failure);
    if (!chosen) {
        return nullptr;
    }
    if (const std::shared_ptr<DiscSession> open = r.sessions.value(chosen->name)) {
        failure = open->m_refusal;
        return failure ? nullptr : open;
    }

    std::shared_ptr<DiscSession> session(new DiscSession);
    QString openPath = chosen->name;
    if (chosen->isImage) {
        session->m_imageCopy = std::make_unique<QTemporaryDir>(Paths::temporaryPath(QStringLiteral("disc-XXXXXX")));
        openPath = session->m_imageCopy->isValid()
                       ? DiscImages::openablePath(chosen->name, session->m_imageCopy->path())
                       : QString();
        if (openPath.isEmpty()) {
            openPath = chosen->name;
        }
    }
    session->m_handle = openHandle(openPath, chosen->isImage ? DRIVER_UNKNOWN : DRIVER_DEVICE);
    if (!session->m_handle) {
        failure = chosen->isImage ? imageOpeningError(chosen->name) : openingError("No macOS driver found.");
        return nullptr;
    }
    session->m_deviceName = chosen->name;
    session->m_isImage = chosen->isImage;
    const discmode_t mode =
        r.discModeReader ? r.discModeReader(session->m_handle) : cdio_get_discmode(session->m_handle);
    session->m_refusal = PLCAudioCDProcessor::checkAudioDisc(mode, cdio_get_num_tracks(session->m_handle));
    Logger::log(QStringLiteral("Opened disc: ") + chosen->name);
    r.sessions.insert(chosen->name, session);
    failure = session->m_refusal;
    return failure ? nullptr : session;
}

OptionalError DiscSession::use(const std::function<void(CdIo_t *)> &work)
{
    QMutexLocker locker(&m_useLock);
    if (!m_handle) {
        return Error::errorWithMessage(QStringLiteral("The disc was ejected."), kCDReadErrorCode);
    }
    work(m_handle);
    return std::nullopt;
}

OptionalError DiscSession::eject(const QString &volumePath)
{
    Registry &r = registry();
    QMutexLocker locker(&r.lock);
    std::shared_ptr<DiscSession> session = findLocked(r, volumePath);
    if (!session && volumePath.isEmpty() && r.sessions.size() == 1) {
        session = r.sessions.begin().value();
    }
    if (!session) {
        if (!volumePath.isEmpty() && (DiscImages::isDiscImageFile(volumePath) || DiscImages::contains(volumePath))) {
            DiscImages::eject(DiscImages::normalizedPath(volumePath));
            return std::nullopt;
        }
        QByteArray device = volumePath.toLocal8Bit();
        if (volumePath.isEmpty()) {
            char *fallback = cdio_get_default_device(nullptr);
            device = fallback ? QByteArray(fallback) : QByteArray();
            cdio_free(fallback);
        }
        return PLCAudioCDProcessor::errorForEjectCode(
            cdio_eject_media_drive(device.isEmpty() ? nullptr : device.constData()));
    }

    // The running read stops at its next sector; then the handle is ours.
    session->m_stopRequested = true;
    QMutexLocker use(&session->m_useLock);
    r.sessions.remove(session->m_deviceName);
    if (session->m_isImage) {
        DiscImages::eject(session->m_deviceName);
        session->closeLocked();
        return std::nullopt;
    }
    // libcdio releases and clears the handle when the eject succeeds.
    const int code = cdio_eject_media(&session->m_handle);
    session->closeLocked();
    return PLCAudioCDProcessor::errorForEjectCode(code);
}

void DiscSession::closeAll()
{
    closeAllBut({});
}

void DiscSession::closeAllBut(const QStringList &volumes)
{
    Registry &r = registry();
    QMutexLocker locker(&r.lock);
    for (auto it = r.sessions.begin(); it != r.sessions.end();) {
        const std::shared_ptr<DiscSession> session = it.value();
        if (volumes.contains(session->m_deviceName)) {
            ++it;
            continue;
        }
        session->m_stopRequested = true;
        QMutexLocker use(&session->m_useLock);
        session->closeLocked();
        it = r.sessions.erase(it);
    }
}
