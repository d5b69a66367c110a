#pragma once

#include <QByteArray>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QThreadPool>

#include <atomic>
#include <functional>
#include <vector>

// The folder scan without a window: walks the roots and passes every path
// through the per-file rule, which keeps the music files of supported types.
// Used by the session, pelicane-cli and the benchmarks.
//
// The walk goes depth first in the order the file system lists each folder,
// includes hidden entries, does not follow symbolic links to folders (a link
// is one entry, judged by what it points to) and does not descend into
// packages (bundle folders such as "Song.band"). Only regular files are kept:
// a FIFO, socket or device (or a link to one) would never read to an end. A
// folder that cannot be read is a walk error: it is logged, counted, and the
// walk goes on.
class FolderScan
{
public:
    // Which step of the per-file rule decided about a path.
    enum class FileRule {
        Hidden,      // the path begins with "."
        Unsupported, // not a supported extension (not logged)
        Trashed,     // "Skipping trashed file: %@"
        Directory,   // "Skipping directory: %@"
        Special,     // "Skipping special file: %@" (a FIFO, socket or device)
        Added,       // handed to the sink
        NonExistent, // "Skipping non-existent file: %@"
    };

    // What the walk already knows about an entry, which spares a stat().
    // File is a regular file; Special a FIFO, socket or device.
    enum class EntryKind { Unknown, Directory, File, Special };

    using FileSink = std::function<void(const QString &path)>;
    using CancelCheck = std::function<bool()>;

    struct Outcome
    {
        bool finished = false; // false: abandoned because the cancel check said so
        qint64 errorCount = 0;
    };

    // supportedFormats: the extensions that count, compared with each file's
    // lower-case extension.
    explicit FolderScan(const QStringList &supportedFormats);

    // Scans the roots in order. A root that is an existing folder (a symbolic
    // link to one included) is walked; any other root goes through the
    // per-file rule itself. isCanceled is asked before every entry; once it
    // answers true the scan stops at once. Kept files go to sink in the order
    // they are met; the sink drops repeats.
    Outcome scan(const QStringList &roots, const FileSink &sink, const CancelCheck &isCanceled = {}) const;

    // The per-file rule for one path, with its log line.
    FileRule applyFileRule(const QString &path, const FileSink &sink, EntryKind kind = EntryKind::Unknown) const;

    // The path's extension in lower case ("MP3" -> "mp3"); empty when none.
    static QString lowerCaseExtension(const QString &path);

    // True for a folder name the walk does not descend into.
    static bool isPackageName(const QByteArray &name);

    // The message of a walk error on path.
    static QString walkErrorDescription(const QString &path, int errorNumber);

private:
    bool walk(const QByteArray &folder, const FileSink &sink, const CancelCheck &isCanceled, qint64 &errorCount) const;
    bool isSupported(const QByteArray &name) const;
    // The rule from the alias test on, for a path whose extension passed.
    FileRule applyRestOfRule(const QString &path, const FileSink &sink, EntryKind kind) const;

    QSet<QString> m_formats;
    std::vector<QByteArray> m_asciiFormats; // lower case; few, so a list is fastest
};

// Runs scan tasks on worker threads of its own for an owner that may go
// away first: its destructor tells the running tasks to stop (they ask
// isStopping() between entries) and waits for them.
class FolderScanRunner
{
public:
    FolderScanRunner();
    ~FolderScanRunner();
    FolderScanRunner(const FolderScanRunner &) = delete;
    FolderScanRunner &operator=(const FolderScanRunner &) = delete;

    void start(std::function<void()> task);
    bool isStopping() const { return m_stopping.load(std::memory_order_relaxed); }
    // Waits until no task runs; for tests and shutdown.
    bool waitForDone(int msecs = -1) { return m_pool.waitForDone(msecs); }

private:
    QThreadPool m_pool;
    std::atomic<bool> m_stopping{false};
};
