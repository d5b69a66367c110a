#include "fingerprint/md5cache.h"

#include "core/logger.h"
#include "core/paths.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLockFile>
#include <QSaveFile>

#include <algorithm>
#include <atomic>
#include <sys/stat.h>
#include <utility>

namespace {

const QString kMD5Key = QStringLiteral("md5");
const QString kTimestampKey = QStringLiteral("ts");

// With the sub-second part (a double keeps it to a fraction of a microsecond),
// so a file rewritten within the same second still counts as changed.
std::optional<double> modificationTime(const QString &path)
{
    struct stat info;
    if (::stat(QFile::encodeName(path).constData(), &info) != 0) {
        return std::nullopt;
    }
    return double(info.st_mtim.tv_sec) + double(info.st_mtim.tv_nsec) / 1e9;
}

QString sharedCacheFile()
{
    static const QString path = MD5Cache::locateCacheFile();
    return path;
}

} // namespace

namespace {
std::atomic<MD5Cache *> g_sharedCache{nullptr};
}

MD5Cache &MD5Cache::sharedCache()
{
    static MD5Cache instance;
    g_sharedCache.store(&instance);
    return instance;
}

MD5Cache *MD5Cache::sharedCacheIfMade()
{
    return g_sharedCache.load();
}

MD5Cache::MD5Cache() : MD5Cache(sharedCacheFile()) {}

MD5Cache::MD5Cache(const QString &filePath) : m_filePath(filePath)
{
    m_sinceSave.start();
    if (m_filePath.isEmpty()) {
        return;
    }
    // The stamp first: a file replaced while it is read counts as changed.
    m_diskStamp = stampOf(m_filePath);
    if (std::optional<Dictionary> loaded = readFile(m_filePath)) {
        m_cache = std::move(*loaded);
    }
}

QString MD5Cache::locateCacheFile()
{
    const QString support = Paths::applicationSupportDirectory();
    if (support.isEmpty()) {
        Logger::log(QStringLiteral("MD5Cache: Could not get applicationSupportDirectory"));
        return {};
    }
    const QString folder = support + QLatin1Char('/') + Paths::applicationIdentifier();
    if (!QDir().mkpath(folder)) {
        Logger::log(QStringLiteral("MD5Cache: Could create directory at path: ") + folder);
        return {};
    }
    return folder + QStringLiteral("/MD5Cache.json");
}

MD5Cache::Stamp MD5Cache::stampOf(const QString &path)
{
    struct stat info;
    if (::stat(QFile::encodeName(path).constData(), &info) != 0) {
        return {};
    }
    return {qint64(info.st_ino), qint64(info.st_size), qint64(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec};
}

std::optional<MD5Cache::Dictionary> MD5Cache::readFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return std::nullopt;
    }
    return parse(file.readAll());
}

std::optional<MD5Cache::Dictionary> MD5Cache::parse(const QByteArray &json)
{
    const QJsonDocument document = QJsonDocument::fromJson(json);
    if (!document.isObject()) {
        return std::nullopt;
    }
    const QJsonObject object = document.object();
    Dictionary loaded;
    loaded.reserve(object.size());
    for (auto it = object.constBegin(); it != object.constEnd(); ++it) {
        if (!it.value().isObject()) {
            return std::nullopt;
        }
        const QJsonObject entry = it.value().toObject();
        const QJsonValue ts = entry.value(kTimestampKey);
        if (!ts.isDouble()) {
            return std::nullopt;
        }
        loaded.insert(it.key(), Entry{entry.value(kMD5Key), ts.toDouble()});
    }
    return loaded;
}

QByteArray MD5Cache::serialize(const Dictionary &cache)
{
    // Inserting keys in sorted order appends to the object's storage, which
    // keeps building a cache of 100,000 entries linear.
    QStringList paths = cache.keys();
    std::sort(paths.begin(), paths.end());
    QJsonObject object;
    for (const QString &path : std::as_const(paths)) {
        const Entry &entry = *cache.constFind(path);
        QJsonObject value;
        if (!entry.md5.isUndefined()) {
            value.insert(kMD5Key, entry.md5);
        }
        value.insert(kTimestampKey, entry.ts);
        object.insert(path, value);
    }
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

MD5Cache::Dictionary MD5Cache::cache() const
{
    QMutexLocker locker(&m_lock);
    return m_cache;
}

void MD5Cache::setCache(const Dictionary &cache)
{
    QMutexLocker locker(&m_lock);
    for (auto it = m_cache.constBegin(); it != m_cache.constEnd(); ++it) {
        m_changed.insert(it.key());
    }
    for (auto it = cache.constBegin(); it != cache.constEnd(); ++it) {
        m_changed.insert(it.key());
    }
    m_cache = cache;
}

bool MD5Cache::hasUnsavedChanges() const
{
    QMutexLocker locker(&m_lock);
    return !m_changed.isEmpty();
}

int MD5Cache::saveCount() const
{
    QMutexLocker locker(&m_lock);
    return m_saveCount;
}

std::optional<QString> MD5Cache::get(const QString &path)
{
    QMutexLocker locker(&m_lock);
    const auto it = m_cache.find(path);
    if (it == m_cache.end()) {
        return std::nullopt;
    }
    const std::optional<double> modified = modificationTime(path);
    if (!modified || it->ts < *modified) {
        m_cache.erase(it);
        m_changed.insert(path);
        return std::nullopt;
    }
    // A file whose time moved backwards keeps its digest: only a later time
    // proves a change.
    if (!it->md5.isString()) {
        return std::nullopt;
    }
    return it->md5.toString();
}

void MD5Cache::set(const QString &path, const QString &md5)
{
    const std::optional<double> modified = modificationTime(path);
    const double ts = modified ? *modified : double(QDateTime::currentMSecsSinceEpoch()) / 1000.0;
    QMutexLocker locker(&m_lock);
    m_cache.insert(path, Entry{QJsonValue(md5), ts});
    m_changed.insert(path);
}

bool MD5Cache::saveIfDue(double seconds)
{
    {
        QMutexLocker locker(&m_lock);
        if (m_changed.isEmpty() || m_sinceSave.elapsed() < qint64(seconds * 1000)) {
            return false;
        }
    }
    save();
    return true;
}

void MD5Cache::save()
{
    if (m_filePath.isEmpty()) {
        return;
    }
    QMutexLocker saving(&m_saveLock);
    // Other processes (the window and pelicane-cli) take turns through the
    // lock file; one that cannot be had in time still gets an atomic write.
    QLockFile lockFile(m_filePath + QStringLiteral(".lock"));
    lockFile.setStaleLockTime(30000);
    const bool locked = lockFile.tryLock(10000);

    Dictionary merged;
    QSet<QString> changed;
    {
        QMutexLocker locker(&m_lock);
        changed = std::exchange(m_changed, {});
        merged = m_cache;
        m_sinceSave.restart();
    }
    const Stamp onDisk = stampOf(m_filePath);
    bool diskChanged = false;
    if (onDisk != m_diskStamp && onDisk.inode >= 0) {
        // Someone else saved since this instance last looked: their file is
        // the base, and only what this instance changed goes on top.
        if (std::optional<Dictionary> disk = readFile(m_filePath)) {
            for (const QString &path : std::as_const(changed)) {
                const auto mine = merged.constFind(path);
                if (mine == merged.constEnd()) {
                    disk->remove(path);
                } else {
                    disk->insert(path, *mine);
                }
            }
            merged = std::move(*disk);
            diskChanged = true;
        }
    }

    const QByteArray json = serialize(merged);
    QSaveFile file(m_filePath);
    file.setDirectWriteFallback(false);
    const bool written = file.open(QIODevice::WriteOnly) && file.write(json) == json.size() && file.commit();
    if (locked) {
        lockFile.unlock();
    }

    QMutexLocker locker(&m_lock);
    if (!written) {
        // Kept for the next save.
        m_changed.unite(changed);
        return;
    }
    ++m_saveCount;
    m_diskStamp = stampOf(m_filePath);
    if (diskChanged) {
        // What the others stored becomes visible here too, except where this
        // instance changed the entry while the file was written.
        for (auto it = merged.constBegin(); it != merged.constEnd(); ++it) {
            if (!m_changed.contains(it.key())) {
                m_cache.insert(it.key(), it.value());
            }
        }
    }
}
