#pragma once

#include <QHash>
#include <QJsonValue>
#include <QString>

#include <optional>

// Path -> MD5 digest, kept in "MD5Cache.json" in the data folder and trusted
// while the file's modification time is not later than the one stored with the
// digest. Every instance loads the file when it is made; save() writes that
// instance's whole dictionary over the file, so the last one to save wins.
// No lock: use an instance from one thread at a time.
class MD5Cache
{
public:
    struct Entry
    {
        QJsonValue md5; // text when written by this program
        double ts = 0;  // modification time, seconds since 1970 UTC
        bool operator==(const Entry &other) const = default;
    };
    using Dictionary = QHash<QString, Entry>;

    // The process-wide instance, made and loaded on first use.
    static MD5Cache &sharedCache();

    // Loads the cache file of the data folder.
    MD5Cache();
    // Loads (and saves to) the given file; an empty path gives a cache in
    // memory only.
    explicit MD5Cache(const QString &filePath);

    // The stored digest of the file, or nothing when there is no entry or the
    // file changed (or vanished) since; a stale entry is dropped.
    std::optional<QString> get(const QString &path);
    // Stores the digest with the file's current modification time.
    void set(const QString &path, const QString &md5);
    // Writes the whole dictionary to the cache file; failures are silent.
    void save();

    const Dictionary &cache() const { return m_cache; }
    void setCache(const Dictionary &cache) { m_cache = cache; }

    // Where the cache file lives, or empty (after a log line) when the data
    // folder cannot be had. Computed on every call; the default constructor
    // uses a value computed once per process.
    static QString locateCacheFile();

    QString filePath() const { return m_filePath; }

private:
    void load();

    QString m_filePath;
    Dictionary m_cache;
};
