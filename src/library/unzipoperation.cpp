#include "library/unzipoperation.h"

#include "core/logger.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QList>
#include <QThread>

#include <zip.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr qint64 kBufferSize = 1024 * 1024;
constexpr zip_uint64_t kMaximumLinkLength = 4096;

struct ZipDiscard
{
    void operator()(zip_t *archive) const { zip_discard(archive); }
};
struct ZipFileClose
{
    void operator()(zip_file_t *file) const { zip_fclose(file); }
};

struct Entry
{
    zip_uint64_t index = 0;
    QString name;
    QString relative; // the name cleaned: where it lands under the folder
    qint64 size = 0;
    time_t modified = 0;
    bool directory = false;
    bool symlink = false;
    QByteArray linkTarget;
};

QString errorForCode(int code)
{
    zip_error_t error;
    zip_error_init_with_code(&error, code);
    const QString text = QString::fromUtf8(zip_error_strerror(&error));
    zip_error_fini(&error);
    return text;
}

bool isInside(const QString &canonicalPath, const QString &canonicalRoot)
{
    return canonicalPath == canonicalRoot || canonicalPath.startsWith(canonicalRoot + u'/');
}

class Extraction
{
public:
    Extraction(const QString &archivePath, UnzipOperation &operation)
        : m_archivePath(archivePath), m_operation(operation)
    {}

    void run();

private:
    // `code`: the errno behind the failure, if any.
    bool fail(const QString &why, int code = 0);
    bool writeAll(int fd, const char *data, qint64 size);
    bool readEntries(zip_t *archive);
    bool makeDirectories(const QString &relativePath);
    bool writeFile(zip_t *archive, const Entry &entry, const QString &path);
    bool writeLink(const Entry &entry, const QString &path);

    QString m_archivePath;
    // Reports through its signals.
    UnzipOperation &m_operation;
    QString m_root;
    QString m_canonicalRoot;
    QList<Entry> m_entries;
    qint64 m_totalSize = 0;
    QByteArray m_buffer;
    // The test seam's budget; -1 without one.
    qint64 m_spaceLeft = -1;
};

bool Extraction::fail(const QString &why, int code)
{
    Logger::log(QStringLiteral("Unzip %1: %2").arg(QFileInfo(m_archivePath).fileName(), why));
    const bool full = code == ENOSPC || code == EDQUOT;
    const QString message =
        full ? QStringLiteral("The disk is full: the library could not be extracted into \"%1\". Free some space "
                              "and start the download again; it continues where it stopped.")
                   .arg(m_root)
             : QStringLiteral("A library segment could not be extracted (%1). Start the download again to fetch it "
                              "anew.")
                   .arg(why);
    Q_EMIT m_operation.failed(m_archivePath, Error::errorWithMessage(message, full ? ENOSPC : 0));
    return false;
}

// Writes everything or sets errno; the seam's budget runs out like a full disk.
bool Extraction::writeAll(int fd, const char *data, qint64 size)
{
    while (size > 0) {
        size_t chunk = size_t(size);
        if (m_spaceLeft >= 0) {
            if (m_spaceLeft == 0) {
                errno = ENOSPC;
                return false;
            }
            chunk = size_t(std::min<qint64>(size, m_spaceLeft));
        }
        const ssize_t written = ::write(fd, data, chunk);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            if (written == 0) {
                errno = ENOSPC;
            }
            return false;
        }
        if (m_spaceLeft >= 0) {
            m_spaceLeft -= written;
        }
        data += written;
        size -= written;
    }
    return true;
}

// Reads and checks every entry before anything is written, so an archive with
// one unsafe name leaves nothing behind.
bool Extraction::readEntries(zip_t *archive)
{
    const zip_int64_t count = zip_get_num_entries(archive, 0);
    for (zip_int64_t i = 0; i < count; ++i) {
        zip_stat_t stat;
        zip_stat_init(&stat);
        if (zip_stat_index(archive, zip_uint64_t(i), 0, &stat) != 0 || !(stat.valid & ZIP_STAT_NAME)) {
            return fail(QStringLiteral("unreadable entry %1: %2").arg(i).arg(QString::fromUtf8(zip_strerror(archive))));
        }
        Entry entry;
        entry.index = zip_uint64_t(i);
        entry.name = QString::fromUtf8(stat.name);
        entry.size = (stat.valid & ZIP_STAT_SIZE) ? qint64(stat.size) : 0;
        entry.modified = (stat.valid & ZIP_STAT_MTIME) ? stat.mtime : 0;
        zip_uint8_t system = 0;
        zip_uint32_t attributes = 0;
        if (zip_file_get_external_attributes(archive, entry.index, 0, &system, &attributes) == 0 &&
            system == ZIP_OPSYS_UNIX) {
            const mode_t mode = attributes >> 16;
            entry.symlink = S_ISLNK(mode);
            entry.directory = S_ISDIR(mode);
        }
        entry.directory = entry.directory || entry.name.endsWith(u'/');

        if (!UnzipOperation::isSafeEntryName(entry.name)) {
            return fail(
                QStringLiteral("refused entry \"%1\": it would land outside the library folder").arg(entry.name));
        }
        if (entry.symlink) {
            if (entry.size <= 0 || zip_uint64_t(entry.size) > kMaximumLinkLength) {
                return fail(QStringLiteral("refused symbolic link \"%1\": bad target length").arg(entry.name));
            }
            std::unique_ptr<zip_file_t, ZipFileClose> file(zip_fopen_index(archive, entry.index, 0));
            entry.linkTarget.resize(entry.size);
            if (!file || zip_fread(file.get(), entry.linkTarget.data(), zip_uint64_t(entry.size)) != entry.size) {
                return fail(QStringLiteral("unreadable symbolic link \"%1\"").arg(entry.name));
            }
            if (!UnzipOperation::isSafeLinkTarget(entry.name, QString::fromUtf8(entry.linkTarget))) {
                return fail(
                    QStringLiteral("refused symbolic link \"%1\" to \"%2\": it points outside the library folder")
                        .arg(entry.name, QString::fromUtf8(entry.linkTarget)));
            }
        }
        // A name that cleans to "." names the folder itself: nothing to write,
        // so nothing to count either (a link so named is still checked).
        entry.relative = QDir::cleanPath(entry.name);
        if (entry.relative == QLatin1String(".")) {
            continue;
        }
        if (!entry.symlink && !entry.directory) {
            m_totalSize += entry.size;
        }
        m_entries.append(entry);
    }
    return true;
}

// Creates the folders of a relative path one by one, refusing any that an
// existing link would lead out of the library folder.
bool Extraction::makeDirectories(const QString &relativePath)
{
    QString path = m_root;
    const QStringList parts = relativePath.split(u'/', Qt::SkipEmptyParts);
    for (const QString &part : parts) {
        path += u'/' + part;
        const QByteArray native = QFile::encodeName(path);
        if (::mkdir(native.constData(), 0755) != 0 && errno != EEXIST) {
            return fail(
                QStringLiteral("cannot create folder \"%1\": %2").arg(path, QString::fromLocal8Bit(strerror(errno))));
        }
        const QFileInfo info(path);
        if (!info.isDir() || !isInside(info.canonicalFilePath(), m_canonicalRoot)) {
            return fail(QStringLiteral("refused \"%1\": not a folder inside the library folder").arg(relativePath));
        }
    }
    return true;
}

bool Extraction::writeFile(zip_t *archive, const Entry &entry, const QString &path)
{
    // A fresh name beside the final one (created exclusively, so never through
    // a link), renamed over it once whole.
    const qsizetype slash = path.lastIndexOf(u'/');
    QByteArray temporary = QFile::encodeName(path.left(slash + 1)) + ".temp-XXXXXX";
    const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) {
        const int code = errno;
        return fail(QStringLiteral("cannot write \"%1\": %2").arg(entry.name, QString::fromLocal8Bit(strerror(code))),
                    code);
    }
    ::fchmod(fd, 0644);
    const auto abandon = [&](const QString &why, int code) {
        ::close(fd);
        ::unlink(temporary.constData());
        return why.isEmpty() ? false : fail(why, code);
    };
    std::unique_ptr<zip_file_t, ZipFileClose> file(zip_fopen_index(archive, entry.index, 0));
    if (!file) {
        return abandon(
            QStringLiteral("cannot read \"%1\": %2").arg(entry.name, QString::fromUtf8(zip_strerror(archive))), 0);
    }
    for (;;) {
        if (m_operation.isCancelled()) {
            return abandon(QString(), 0);
        }
        const zip_int64_t read = zip_fread(file.get(), m_buffer.data(), zip_uint64_t(m_buffer.size()));
        if (read < 0) {
            return abandon(QStringLiteral("cannot read \"%1\": %2")
                               .arg(entry.name, QString::fromUtf8(zip_file_strerror(file.get()))),
                           0);
        }
        if (read == 0) {
            break;
        }
        if (!writeAll(fd, m_buffer.constData(), read)) {
            const int code = errno;
            return abandon(
                QStringLiteral("cannot write \"%1\": %2").arg(entry.name, QString::fromLocal8Bit(strerror(code))),
                code);
        }
        Q_EMIT m_operation.bytesWritten(m_archivePath, read);
    }
    if (entry.modified > 0) {
        const struct timespec times[2] = {{entry.modified, 0}, {entry.modified, 0}};
        ::futimens(fd, times);
    }
    if (::close(fd) != 0) {
        const int code = errno;
        ::unlink(temporary.constData());
        return fail(QStringLiteral("cannot write \"%1\": %2").arg(entry.name, QString::fromLocal8Bit(strerror(code))),
                    code);
    }
    if (::rename(temporary.constData(), QFile::encodeName(path).constData()) != 0) {
        const int code = errno;
        ::unlink(temporary.constData());
        return fail(QStringLiteral("cannot write \"%1\": %2").arg(entry.name, QString::fromLocal8Bit(strerror(code))),
                    code);
    }
    return true;
}

bool Extraction::writeLink(const Entry &entry, const QString &path)
{
    const QByteArray native = QFile::encodeName(path);
    struct stat existing;
    if (::lstat(native.constData(), &existing) == 0 && !S_ISDIR(existing.st_mode)) {
        ::unlink(native.constData());
    }
    if (::symlink(entry.linkTarget.constData(), native.constData()) != 0) {
        return fail(QStringLiteral("cannot create symbolic link \"%1\": %2")
                        .arg(entry.name, QString::fromLocal8Bit(strerror(errno))));
    }
    return true;
}

void Extraction::run()
{
    int code = 0;
    std::unique_ptr<zip_t, ZipDiscard> archive(
        zip_open(QFile::encodeName(m_archivePath).constData(), ZIP_RDONLY, &code));
    if (!archive) {
        fail(QStringLiteral("cannot open the archive: %1").arg(errorForCode(code)));
        return;
    }
    m_root = QFileInfo(m_archivePath).absolutePath();
    m_canonicalRoot = QFileInfo(m_root).canonicalFilePath();
    if (!readEntries(archive.get())) {
        return;
    }

    Q_EMIT m_operation.began(m_archivePath);
    Q_EMIT m_operation.totalSizeKnown(m_archivePath, m_totalSize);
    m_buffer.resize(kBufferSize);
    bool seamSet = false;
    const qint64 space = qEnvironmentVariableIntValue("PELICANE_TEST_EXTRACT_SPACE", &seamSet);
    m_spaceLeft = seamSet ? std::max<qint64>(0, space) : -1;
    const int delay = qEnvironmentVariableIntValue("PELICANE_TEST_EXTRACT_DELAY_MS");
    for (const Entry &entry : std::as_const(m_entries)) {
        if (delay > 0) {
            QThread::msleep(delay);
        }
        if (m_operation.isCancelled()) {
            return;
        }
        const QString &relative = entry.relative;
        if (entry.directory) {
            if (!makeDirectories(relative)) {
                return;
            }
            continue;
        }
        const qsizetype slash = relative.lastIndexOf(u'/');
        if (slash > 0 && !makeDirectories(relative.left(slash))) {
            return;
        }
        const QString path = m_root + u'/' + relative;
        if (!(entry.symlink ? writeLink(entry, path) : writeFile(archive.get(), entry, path))) {
            return;
        }
    }
    if (!m_operation.isCancelled()) {
        Q_EMIT m_operation.ended(m_archivePath);
    }
}

} // namespace

UnzipOperation::UnzipOperation(QString item) : m_item(std::move(item)) {}

void UnzipOperation::main()
{
    Extraction(m_item, *this).run();
}

bool UnzipOperation::isSafeEntryName(const QString &name)
{
    if (name.isEmpty() || name.startsWith(u'/') || name.contains(QChar(0))) {
        return false;
    }
    const QStringList parts = name.split(u'/');
    return !parts.contains(QStringLiteral(".."));
}

// A link may only lead downwards from its own folder: without "..", and not
// absolute, no chain of such links can resolve to a place outside.
bool UnzipOperation::isSafeLinkTarget(const QString &linkName, const QString &target)
{
    if (!isSafeEntryName(linkName) || target.isEmpty() || target.startsWith(u'/') || target.contains(QChar(0))) {
        return false;
    }
    return !target.split(u'/').contains(QStringLiteral(".."));
}
