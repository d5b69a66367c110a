#include "fingerprint/md5cache.h"

#include "core/logger.h"
#include "core/paths.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <sys/stat.h>

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

MD5Cache &MD5Cache::sharedCache()
{
    static MD5Cache instance;
    return instance;
}

MD5Cache::MD5Cache() : MD5Cache(sharedCacheFile()) {}

MD5Cache::MD5Cache(const QString &filePath) : m_filePath(filePath)
{
    load();
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

void MD5Cache::load()
{
    m_cache.clear();
    if (m_filePath.isEmpty()) {
        return;
    }
    QFile file(m_filePath);
    if (!file.open(QIODevice::ReadOnly)) {
        return;
    }
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll());
    if (!document.isObject()) {
        return;
    }
    // Anything but an object of entry objects with a numeric "ts" is a file of
    // another shape, which counts as no cache at all.
    const QJsonObject object = document.object();
    Dictionary loaded;
    loaded.reserve(object.size());
    for (auto it = object.constBegin(); it != object.constEnd(); ++it) {
        if (!it.value().isObject()) {
            return;
        }
        const QJsonObject entry = it.value().toObject();
        const QJsonValue ts = entry.value(kTimestampKey);
        if (!ts.isDouble()) {
            return;
        }
        loaded.insert(it.key(), Entry{entry.value(kMD5Key), ts.toDouble()});
    }
    m_cache = std::move(loaded);
}

std::optional<QString> MD5Cache::get(const QString &path)
{
    const auto it = m_cache.find(path);
    if (it == m_cache.end()) {
        return std::nullopt;
    }
    const std::optional<double> modified = modificationTime(path);
    if (!modified || it->ts < *modified) {
        m_cache.erase(it);
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
    m_cache.insert(path, Entry{QJsonValue(md5), ts});
}

void MD5Cache::save()
{
    if (m_filePath.isEmpty()) {
        return;
    }
    // Inserting keys in sorted order appends to the object's storage, which
    // keeps building a cache of 100,000 entries linear.
    QStringList paths = m_cache.keys();
    std::sort(paths.begin(), paths.end());
    QJsonObject object;
    for (const QString &path : std::as_const(paths)) {
        const Entry &entry = *m_cache.constFind(path);
        QJsonObject value;
        if (!entry.md5.isUndefined()) {
            value.insert(kMD5Key, entry.md5);
        }
        value.insert(kTimestampKey, entry.ts);
        object.insert(path, value);
    }
    const QByteArray json = QJsonDocument(object).toJson(QJsonDocument::Compact);
    QFile file(m_filePath);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        return;
    }
    file.write(json);
}
