#include "session/md5checkoperation.h"

#include "cd/plcvolumetype.h"
#include "core/formatting.h"
#include "core/logger.h"
#include "fingerprint/filehash.h"
#include "fingerprint/md5cache.h"

#include <QDeadlineTimer>
#include <QFileInfo>
#include <QMetaObject>
#include <QMutex>
#include <QWaitCondition>

#include <memory>

Md5CheckOperation::Md5CheckOperation(QObject *context, const QStringList &snapshot, const QSet<QString> &knownDigests,
                                     const QString &firstRoot, Handlers handlers)
    : m_context(context), m_snapshot(snapshot), m_knownDigests(knownDigests), m_firstRoot(firstRoot),
      m_handlers(std::move(handlers))
{
    setName(QStringLiteral("MD5 check"));
}

void Md5CheckOperation::runOnMain(std::function<void()> fn)
{
    QObject *context = m_context.data();
    if (!context || !fn) {
        return;
    }
    QMetaObject::invokeMethod(context, std::move(fn), Qt::QueuedConnection);
}

bool Md5CheckOperation::runOnMainAndWait(std::function<void()> fn)
{
    QObject *context = m_context.data();
    if (!context) {
        return false;
    }
    struct HandOff
    {
        QMutex mutex;
        QWaitCondition done;
        bool taken = false;
        bool finished = false;
        bool abandoned = false;
    };
    auto handOff = std::make_shared<HandOff>();
    QMetaObject::invokeMethod(
        context,
        [handOff, fn = std::move(fn)] {
            {
                QMutexLocker locker(&handOff->mutex);
                if (handOff->abandoned) {
                    return;
                }
                handOff->taken = true;
            }
            fn();
            QMutexLocker locker(&handOff->mutex);
            handOff->finished = true;
            handOff->done.wakeAll();
        },
        Qt::QueuedConnection);

    QMutexLocker locker(&handOff->mutex);
    while (!handOff->finished) {
        if (!handOff->taken && (isCancelled() || m_context.isNull())) {
            handOff->abandoned = true;
            return false;
        }
        handOff->done.wait(&handOff->mutex, QDeadlineTimer(50));
    }
    return true;
}

void Md5CheckOperation::main()
{
    const Handlers handlers = m_handlers;

    // A disc's tracks are ripped on the way up; there is nothing to digest.
    if (!m_firstRoot.isEmpty() && PLCVolumeType::isDiskAtPath(m_firstRoot)) {
        runOnMain(handlers.audioCD);
        return;
    }

    runOnMain(handlers.began);

    MD5Cache cache;
    qint64 done = 0;
    const qint64 total = m_snapshot.size();

    for (const QString &path : std::as_const(m_snapshot)) {
        if (isCancelled()) {
            break;
        }
        std::optional<QString> md5 = cache.get(path);
        if (!md5) {
            md5 = FileHash::md5HashOfFileAtPath(path, [this] { return isCancelled(); });
            if (isCancelled()) {
                break; // the digest was cut short; the file is no answer
            }
            if (md5) {
                cache.set(path, *md5);
            }
            cache.saveIfDue(kSaveInterval);
        }
        const bool known = md5 && m_knownDigests.contains(*md5);
        if (known && m_handlers.logKnown) {
            Logger::log(QStringLiteral("%1 - skipped").arg(lastPathComponent(path)));
        }
        if (!runOnMainAndWait([checked = handlers.checked, path, known, done, total] {
                if (checked) {
                    checked(path, known, done, total);
                }
            })) {
            break;
        }
        ++done;
    }

    // Also after a cancel: what was digested is kept for the next pass.
    cache.save();
    const double progress = total == 0 ? 0.0 : double(done) / double(total);
    if (handlers.ended) {
        runOnMain([ended = handlers.ended, progress] { ended(progress); });
    }
}
