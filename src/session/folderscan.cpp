#include "session/folderscan.h"

#include "core/formatting.h"
#include "core/logger.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <sys/stat.h>
#include <vector>

namespace {

bool isAscii(const QByteArray &bytes)
{
    for (const char c : bytes) {
        if (static_cast<unsigned char>(c) >= 0x80) {
            return false;
        }
    }
    return true;
}

QByteArray extensionOfName(const QByteArray &name)
{
    const qsizetype dot = name.lastIndexOf('.');
    return dot < 0 ? QByteArray() : name.mid(dot + 1);
}

} // namespace

FolderScan::FolderScan(const QStringList &supportedFormats)
{
    for (const QString &format : supportedFormats) {
        m_formats.insert(format);
        const QByteArray bytes = format.toUtf8();
        // Only formats that some lower-case ASCII extension can equal.
        if (isAscii(bytes) && bytes == bytes.toLower()) {
            m_asciiFormats.push_back(bytes);
        }
    }
}

QString FolderScan::lowerCaseExtension(const QString &path)
{
    const QString name = lastPathComponent(path);
    const qsizetype dot = name.lastIndexOf(QLatin1Char('.'));
    return dot < 0 ? QString() : name.mid(dot + 1).toLower();
}

bool FolderScan::isPackageName(const QByteArray &name)
{
    // Folders that macOS shows as single files; copied libraries and projects
    // keep their media inside, which is not the user's music.
    static const QSet<QByteArray> packages{
        "app",       "bundle",        "framework", "plugin",       "kext",          "component",    "pkg",
        "mpkg",      "band",          "logicx",    "logic",        "photoslibrary", "photolibrary", "aplibrary",
        "fcpbundle", "imovielibrary", "tvlibrary", "musiclibrary", "theater",       "rtfd",         "pages",
        "numbers",   "key",           "xcodeproj", "vst",          "vst3",          "aaxplugin",    "mtpkg"};
    const QByteArray extension = extensionOfName(name).toLower();
    return !extension.isEmpty() && packages.contains(extension);
}

QString FolderScan::walkErrorDescription(const QString &path, int errorNumber)
{
    const QString name = lastPathComponent(path);
    switch (errorNumber) {
    case EACCES:
    case EPERM:
        return QStringLiteral("The folder “%1” couldn’t be opened because you don’t have permission to view it.")
            .arg(name);
    case ENOENT:
        return QStringLiteral("The folder “%1” couldn’t be opened because there is no such folder.").arg(name);
    default:
        return QStringLiteral("The folder “%1” couldn’t be opened. (%2)")
            .arg(name, QString::fromLocal8Bit(std::strerror(errorNumber)));
    }
}

bool FolderScan::isSupported(const QByteArray &name) const
{
    // No allocation on this path: it runs for every entry of the tree.
    const qsizetype dot = name.lastIndexOf('.');
    const char *extension = dot < 0 ? name.constData() + name.size() : name.constData() + dot + 1;
    const qsizetype length = name.size() - (extension - name.constData());
    bool ascii = true;
    for (qsizetype i = 0; i < length && ascii; ++i) {
        ascii = static_cast<unsigned char>(extension[i]) < 0x80;
    }
    if (!ascii) {
        return m_formats.contains(QFile::decodeName(QByteArray(extension, length)).toLower());
    }
    for (const QByteArray &format : m_asciiFormats) {
        if (format.size() == length && qstrnicmp(extension, format.constData(), length) == 0) {
            return true;
        }
    }
    return false;
}

FolderScan::FileRule FolderScan::applyFileRule(const QString &path, const FileSink &sink, EntryKind kind) const
{
    const QString extension = lowerCaseExtension(path);
    if (path.startsWith(QLatin1Char('.'))) {
        // Cloud placeholders (".iCloud") only exist where a cloud drive puts
        // them; nothing here asks for their download.
        return FileRule::Hidden;
    }
    if (!m_formats.contains(extension)) {
        return FileRule::Unsupported;
    }
    return applyRestOfRule(path, sink, kind);
}

FolderScan::FileRule FolderScan::applyRestOfRule(const QString &path, const FileSink &sink, EntryKind kind) const
{
    if (path.contains(QLatin1String("/.Trash/"))) {
        Logger::log(QStringLiteral("Skipping trashed file: ") + lastPathComponent(path));
        return FileRule::Trashed;
    }
    if (kind == EntryKind::Unknown) {
        // Follows symbolic links: a link is judged by what it points to.
        struct stat info;
        if (::stat(QFile::encodeName(path).constData(), &info) == 0) {
            kind = S_ISDIR(info.st_mode)   ? EntryKind::Directory
                   : S_ISREG(info.st_mode) ? EntryKind::File
                                           : EntryKind::Special;
        }
    }
    if (kind == EntryKind::Directory) {
        Logger::log(QStringLiteral("Skipping directory: ") + lastPathComponent(path));
        return FileRule::Directory;
    }
    if (kind == EntryKind::Special) {
        // Hashing or sending one would wait for a writer, or never end.
        Logger::log(QStringLiteral("Skipping special file: ") + lastPathComponent(path));
        return FileRule::Special;
    }
    if (kind == EntryKind::File) {
        if (sink) {
            sink(path);
        }
        return FileRule::Added;
    }
    Logger::log(QStringLiteral("Skipping non-existent file: ") + lastPathComponent(path));
    return FileRule::NonExistent;
}

FolderScan::Outcome FolderScan::scan(const QStringList &roots, const FileSink &sink,
                                     const CancelCheck &isCanceled) const
{
    Outcome outcome;
    for (const QString &root : roots) {
        if (isCanceled && isCanceled()) {
            return outcome;
        }
        QByteArray encoded = QFile::encodeName(root);
        struct stat info;
        if (!encoded.isEmpty() && ::stat(encoded.constData(), &info) == 0 && S_ISDIR(info.st_mode)) {
            while (encoded.size() > 1 && encoded.endsWith('/')) {
                encoded.chop(1);
            }
            if (!walk(encoded, sink, isCanceled, outcome.errorCount)) {
                return outcome;
            }
        } else {
            applyFileRule(root, sink);
        }
    }
    outcome.finished = true;
    return outcome;
}

bool FolderScan::walk(const QByteArray &folder, const FileSink &sink, const CancelCheck &isCanceled,
                      qint64 &errorCount) const
{
    const auto reportError = [&errorCount](const QByteArray &path, int errorNumber) {
        const QString decoded = QFile::decodeName(path);
        Logger::log(QStringLiteral("Scan error (%1): %2").arg(decoded, walkErrorDescription(decoded, errorNumber)));
        ++errorCount;
    };

    // The folder is read whole and closed before descending, so deep trees
    // hold one descriptor at a time. Names go into one buffer: no allocation
    // per entry.
    struct Entry
    {
        qsizetype offset;
        qsizetype length;
        unsigned char type;
    };
    std::vector<Entry> entries;
    QByteArray names;
    DIR *dir = ::opendir(folder.constData());
    if (!dir) {
        reportError(folder, errno);
        return true;
    }
    for (;;) {
        errno = 0;
        const dirent *entry = ::readdir(dir);
        if (!entry) {
            if (errno != 0) {
                reportError(folder, errno);
            }
            break;
        }
        const char *name = entry->d_name;
        if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) {
            continue;
        }
        const auto length = qsizetype(std::strlen(name));
        entries.push_back(Entry{names.size(), length, entry->d_type});
        names.append(name, length);
    }
    ::closedir(dir);

    QByteArray path = folder;
    if (path != "/") {
        path += '/';
    }
    const qsizetype prefixLength = path.size();
    for (const Entry &entry : entries) {
        if (isCanceled && isCanceled()) {
            return false;
        }
        const QByteArray name = QByteArray::fromRawData(names.constData() + entry.offset, entry.length);
        path.truncate(prefixLength);
        path.append(name);
        unsigned char type = entry.type;
        if (type == DT_UNKNOWN) {
            struct stat info;
            if (::lstat(path.constData(), &info) == 0) {
                type = IFTODT(info.st_mode);
            }
        }
        // Unsupported names never reach the rule: it would skip them without a
        // word anyway, and this spares decoding most of a tree's paths.
        if (isSupported(name) && !path.startsWith('.')) {
            const EntryKind kind = type == DT_DIR                         ? EntryKind::Directory
                                   : type == DT_REG                       ? EntryKind::File
                                   : type == DT_LNK || type == DT_UNKNOWN ? EntryKind::Unknown
                                                                          : EntryKind::Special;
            // Extension and leading "." (a relative root) are checked above.
            applyRestOfRule(QFile::decodeName(path), sink, kind);
        }
        if (type == DT_DIR && !isPackageName(name)) {
            if (!walk(path, sink, isCanceled, errorCount)) {
                return false;
            }
        }
    }
    return true;
}

FolderScanRunner::FolderScanRunner()
{
    // A scan mostly waits for the disk; two at once (a drop while one runs)
    // are allowed, more are queued.
    m_pool.setMaxThreadCount(2);
    m_pool.setExpiryTimeout(5000);
}

FolderScanRunner::~FolderScanRunner()
{
    m_stopping.store(true, std::memory_order_relaxed);
    m_pool.waitForDone();
}

void FolderScanRunner::start(std::function<void()> task)
{
    m_pool.start(std::move(task));
}
