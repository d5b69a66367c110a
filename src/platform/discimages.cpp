#include "platform/discimages.h"

#include <QDir>
#include <QFileInfo>
#include <QMutex>
#include <QMutexLocker>

namespace {

QMutex &registryLock()
{
    static QMutex lock;
    return lock;
}

QStringList &registry()
{
    static QStringList images;
    return images;
}

} // namespace

bool DiscImages::isDiscImageFile(const QString &path)
{
    if (path.isEmpty()) {
        return false;
    }
    const QFileInfo info(path);
    const QString suffix = info.suffix().toLower();
    if (suffix != QLatin1String("cue") && suffix != QLatin1String("toc")) {
        return false;
    }
    return info.isFile() && info.isReadable();
}

QString DiscImages::normalizedPath(const QString &path)
{
    if (path.isEmpty()) {
        return QString();
    }
    return QDir::cleanPath(QFileInfo(path).absoluteFilePath());
}

bool DiscImages::insert(const QString &path)
{
    if (!isDiscImageFile(path)) {
        return false;
    }
    const QString normalized = normalizedPath(path);
    QMutexLocker locker(&registryLock());
    if (!registry().contains(normalized)) {
        registry().append(normalized);
    }
    return true;
}

bool DiscImages::eject(const QString &path)
{
    const QString normalized = normalizedPath(path);
    QMutexLocker locker(&registryLock());
    return registry().removeAll(normalized) > 0;
}

bool DiscImages::contains(const QString &path)
{
    const QString normalized = normalizedPath(path);
    QMutexLocker locker(&registryLock());
    return !normalized.isEmpty() && registry().contains(normalized);
}

QStringList DiscImages::list()
{
    QMutexLocker locker(&registryLock());
    return registry();
}

void DiscImages::clear()
{
    QMutexLocker locker(&registryLock());
    registry().clear();
}
