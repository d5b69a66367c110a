#pragma once

#include <QElapsedTimer>
#include <QHash>
#include <QJsonValue>
#include <QMutex>
#include <QSet>
#include <QString>

#include <optional>

// Path -> MD5 digest, kept in "MD5Cache.json" in the data folder and trusted
// while the file's modification time is not later than the one stored with the
// digest. Every instance loads the file when it is made.
//
// save() never loses what another instance or process wrote meanwhile: it
// writes the file as it is on disk now with this instance's changes since its
// last save on top, under a lock file, through a temporary file renamed over
// the old one, so a crash or a second process never leaves a torn file.
// An instance may be used from several threads.
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
    // The process-wide instance when it has been made, else null (never loads).
    static MD5Cache *sharedCacheIfMade();

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
    // Merges this instance's changes into the cache file; failures are silent.
    void save();
    // Saves when there are changes and the last save (or the load) is at
    // least `seconds` old; true when it saved.
    bool saveIfDue(double seconds);
    // Entries set or dropped since the last save.
    bool hasUnsavedChanges() const;

    Dictionary cache() const;
    void setCache(const Dictionary &cache);

    // The file's contents read: nothing when it is not an object of entry
    // objects each with a numeric "ts" (a file of another shape counts as no
    // cache at all).
    static std::optional<Dictionary> parse(const QByteArray &json);
    // The file's contents for `cache`, keys in sorted order.
    static QByteArray serialize(const Dictionary &cache);

    // Where the cache file lives, or empty (after a log line) when the data
    // folder cannot be had. Computed on every call; the default constructor
    // uses a value computed once per process.
    static QString locateCacheFile();

    QString filePath() const { return m_filePath; }
    // Full writes of the file so far; the scale tests watch it.
    int saveCount() const;

private:
    // What identifies one version of the file on disk.
    struct Stamp
    {
        qint64 inode = -1;
        qint64 size = -1;
        qint64 mtimeNs = -1;
        bool operator==(const Stamp &other) const = default;
    };
    static Stamp stampOf(const QString &path);
    static std::optional<Dictionary> readFile(const QString &path);

    const QString m_filePath;
    mutable QMutex m_lock; // m_cache, m_changed, m_diskStamp, m_sinceSave, m_saveCount
    Dictionary m_cache;
    QSet<QString> m_changed; // set or dropped since the last save
    Stamp m_diskStamp;       // the file as this instance last read or wrote it
    QElapsedTimer m_sinceSave;
    int m_saveCount = 0;
    QMutex m_saveLock; // one save of this instance at a time
};
