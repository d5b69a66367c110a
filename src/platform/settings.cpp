#include "platform/settings.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMutex>
#include <QSettings>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QMutex settingsLock;

QSettings &store()
{
    static QSettings *settings = [] {
        auto *s = new QSettings(QSettings::IniFormat, QSettings::UserScope, QStringLiteral("lyrabox"),
                                QStringLiteral("pelicane"));
        // Create the file owner-only before anything is written to it; later
        // saves replace it and keep its permissions.
        const QString path = s->fileName();
        QDir().mkpath(QFileInfo(path).absolutePath());
        const int fd = ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        if (fd >= 0) {
            ::close(fd);
        }
        return s;
    }();
    return *settings;
}

void save(QSettings &s)
{
    s.sync();
    QFile::setPermissions(s.fileName(), QFileDevice::ReadOwner | QFileDevice::WriteOwner);
}

} // namespace

namespace Settings {

QVariant value(const char *key, const QVariant &defaultValue)
{
    QMutexLocker locker(&settingsLock);
    return store().value(QLatin1String(key), defaultValue);
}

bool contains(const char *key)
{
    QMutexLocker locker(&settingsLock);
    return store().contains(QLatin1String(key));
}

QString string(const char *key)
{
    const QVariant v = value(key);
    return v.isValid() ? v.toString() : QString();
}

bool boolean(const char *key)
{
    return value(key, false).toBool();
}

void setValue(const char *key, const QVariant &value)
{
    QMutexLocker locker(&settingsLock);
    store().setValue(QLatin1String(key), value);
    save(store());
}

void remove(const char *key)
{
    QMutexLocker locker(&settingsLock);
    store().remove(QLatin1String(key));
    save(store());
}

QString fileName()
{
    QMutexLocker locker(&settingsLock);
    return store().fileName();
}

} // namespace Settings
