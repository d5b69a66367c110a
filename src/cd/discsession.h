#pragma once

#include "core/error.h"

#include <QMutex>
#include <QString>
#include <QStringList>

#include <cdio/cdio.h>

#include <atomic>
#include <functional>
#include <memory>

class QTemporaryDir;

// One open disc, a drive's device node or an inserted disc image, and the one
// libcdio handle on it. Everything that reads the disc goes through use(),
// one at a time; ejecting asks the running use to stop, waits for it, and
// only then lets the handle go. The handle never leaves use(), so nothing can
// hold it across a wait (a network lookup, a queued call) and find it freed.
//
// Sessions are shared: a disc opened twice is the same session, which lives
// until it is ejected or closed and every user has let go of it.
class DiscSession
{
public:
    ~DiscSession();
    DiscSession(const DiscSession &) = delete;
    DiscSession &operator=(const DiscSession &) = delete;

    // The session of the disc at volumePath, opened now unless it is open.
    // Null with an error of code 1000 when it cannot be opened: "Path is not
    // a CD", "No attached devices found", "No CD found", "No macOS driver
    // found." or "CD is not an Audio CD" (that disc stays open, so it can be
    // ejected).
    static std::shared_ptr<DiscSession> open(const QString &volumePath, OptionalError *error);

    // Ejects the disc at volumePath; with none, the one open disc or else the
    // default drive. An open disc's running use is stopped first. An image is
    // taken out of the list of inserted discs (libcdio cannot eject one).
    // Blocks until the drive has answered: call it from a worker.
    static OptionalError eject(const QString &volumePath = QString());

    // Lets every open disc go without ejecting it (tests, quitting); users
    // still holding a session find it closed.
    static void closeAll();

    // Lets go of the open discs that are none of volumes (taken out of a
    // drive behind our back), so a disc put in next is read afresh.
    static void closeAllBut(const QStringList &volumes);

    // cdio_open, one call at a time: libcdio's cue and toc parsers are not
    // safe to run on two threads at once.
    static CdIo_t *openHandle(const QString &path, driver_id_t driver);

    // Lets tests stand in a disc mode the images cannot have (a DVD, say);
    // an empty function restores the real reading.
    using DiscModeReader = std::function<discmode_t(CdIo_t *)>;
    static void setDiscModeReader(DiscModeReader reader);

    // The device name the disc was opened by (a device node, or the image's
    // normalized path), and whether it is an image.
    QString deviceName() const { return m_deviceName; }
    bool isImage() const { return m_isImage; }

    // Runs work with the handle while no other use runs. An error, without
    // running work, once the disc was ejected or closed.
    OptionalError use(const std::function<void(CdIo_t *disc)> &work);

    // Set while an eject waits for the running use: a long read stops at its
    // next sector.
    bool isStopRequested() const { return m_stopRequested.load(); }

private:
    DiscSession() = default;
    // Destroys the handle; the caller holds m_useLock.
    void closeLocked();

    mutable QMutex m_useLock;
    CdIo_t *m_handle = nullptr;
    QString m_deviceName;
    bool m_isImage = false;
    // Holds the copy of a toc with relative file names while its handle lives.
    std::unique_ptr<QTemporaryDir> m_imageCopy;
    std::atomic<bool> m_stopRequested{false};
    // The audio check's refusal, given again to each later opener.
    OptionalError m_refusal;
};
