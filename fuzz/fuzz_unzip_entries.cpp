// Library segment archives as the extraction meets them: the entries' names,
// kinds and link targets decide where each one lands, and nothing may land
// outside the library folder.
//
// The input is a zip archive as it is when it starts with "PK"; otherwise one
// entry per line, "<kind><name>\t<content>", the kind one of f (a file),
// d (a folder entry), l (a symbolic link, its content the target) or D (a file
// whose mode says folder). "\xHH" in a name stands for that byte, so any name
// can be written. The entries are stored with libzip as named; libzip neither
// cleans nor checks names, as an attacker's archive would not either.
#include "fuzzcheck.h"

#include "core/logger.h"
#include "library/unzipoperation.h"

#include <QDir>
#include <QFile>
#include <QHash>
#include <QSet>
#include <QStringDecoder>
#include <QTemporaryDir>
#include <QUrl>

#include <zip.h>

#include <cstdint>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct Entry
{
    enum Kind { File, Directory, Link, FileMarkedDirectory } kind = File;
    QByteArray name;
    QByteArray content;
};

const QByteArray kKept = QByteArrayLiteral("not to be touched");

QTemporaryDir &sandbox()
{
    static QTemporaryDir folder;
    return folder;
}

int hexDigit(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

QByteArray unescape(const QByteArray &text)
{
    QByteArray bytes;
    for (qsizetype i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size() && text[i + 1] == 'x' && hexDigit(text[i + 2]) >= 0 &&
            hexDigit(text[i + 3]) >= 0) {
            bytes.append(char(hexDigit(text[i + 2]) * 16 + hexDigit(text[i + 3])));
            i += 3;
        } else {
            bytes.append(text[i]);
        }
    }
    return bytes;
}

QList<Entry> readEntryLines(const QByteArray &input)
{
    QList<Entry> entries;
    for (const QByteArray &line : input.split('\n')) {
        if (line.isEmpty()) {
            continue;
        }
        Entry entry;
        switch (line[0]) {
        case 'd':
            entry.kind = Entry::Directory;
            break;
        case 'l':
            entry.kind = Entry::Link;
            break;
        case 'D':
            entry.kind = Entry::FileMarkedDirectory;
            break;
        default:
            entry.kind = Entry::File;
        }
        const qsizetype tab = line.indexOf('\t');
        entry.name = unescape(line.mid(1, tab < 0 ? -1 : tab - 1));
        entry.content = tab < 0 ? QByteArray() : line.mid(tab + 1);
        entries.append(entry);
    }
    return entries;
}

// Stores the entries in order and returns those stored, named as libzip reads
// them back; those libzip refuses (a name already taken, an empty one) are
// left out.
QList<Entry> writeArchive(const QString &path, const QList<Entry> &entries)
{
    QList<Entry> stored;
    zip_t *archive = zip_open(QFile::encodeName(path).constData(), ZIP_CREATE | ZIP_TRUNCATE, nullptr);
    FUZZ_CHECK(archive != nullptr);
    for (const Entry &entry : entries) {
        if (entry.kind == Entry::Directory) {
            if (zip_dir_add(archive, entry.name.constData(), 0) >= 0) {
                Entry added = entry;
                if (!added.name.endsWith('/')) {
                    added.name.append('/');
                }
                stored.append(added);
            }
            continue;
        }
        // libzip copies the content when the archive is closed; the list keeps it alive until then.
        zip_source_t *source =
            zip_source_buffer(archive, entry.content.constData(), zip_uint64_t(entry.content.size()), 0);
        const zip_int64_t index = zip_file_add(archive, entry.name.constData(), source, 0);
        if (index < 0) {
            zip_source_free(source);
            continue;
        }
        zip_set_file_compression(archive, zip_uint64_t(index), ZIP_CM_STORE, 0);
        mode_t mode = S_IFREG | 0644;
        if (entry.kind == Entry::Link) {
            mode = S_IFLNK | 0777;
        } else if (entry.kind == Entry::FileMarkedDirectory) {
            mode = S_IFDIR | 0755;
        }
        FUZZ_CHECK(zip_file_set_external_attributes(archive, zip_uint64_t(index), 0, ZIP_OPSYS_UNIX,
                                                    zip_uint32_t(mode) << 16) == 0);
        stored.append(entry);
    }
    FUZZ_CHECK(zip_close(archive) == 0);
    if (stored.isEmpty()) {
        return stored; // libzip writes no file for an empty archive
    }

    // The names as a reader gets them: libzip decodes a name stored without
    // the UTF-8 flag as CP437, so control characters come back as glyphs.
    archive = zip_open(QFile::encodeName(path).constData(), ZIP_RDONLY, nullptr);
    FUZZ_CHECK(archive != nullptr && zip_get_num_entries(archive, 0) == stored.size());
    for (qsizetype i = 0; i < stored.size(); ++i) {
        const char *name = zip_get_name(archive, zip_uint64_t(i), 0);
        FUZZ_CHECK(name != nullptr);
        stored[i].name = QByteArray(name);
    }
    zip_discard(archive);
    return stored;
}

// What one extraction reported.
struct Recorder
{
    void listen(UnzipOperation &operation)
    {
        QObject::connect(&operation, &UnzipOperation::began, [this] { ++begun; });
        QObject::connect(&operation, &UnzipOperation::totalSizeKnown,
                         [this](const QString &, qint64 size) { total = size; });
        QObject::connect(&operation, &UnzipOperation::bytesWritten, [this](const QString &, qint64 bytes) {
            FUZZ_CHECK(begun == 1 && ended == 0);
            written += bytes;
        });
        QObject::connect(&operation, &UnzipOperation::ended, [this] { ++ended; });
        QObject::connect(&operation, &UnzipOperation::failed, [this] { ++failed; });
    }

    int begun = 0;
    int ended = 0;
    int failed = 0;
    qint64 total = -1;
    qint64 written = 0;
};

void removeTree(const QString &path)
{
    nftw(
        QFile::encodeName(path).constData(),
        [](const char *file, const struct stat *, int, struct FTW *) { return ::remove(file) == 0 ? 0 : -1; }, 16,
        FTW_DEPTH | FTW_PHYS);
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("\0unreadable", 11);
}

// What a folder holds, its own entries only.
QStringList namesIn(const QString &folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
}

struct Found
{
    QHash<QString, QByteArray> files; // relative path -> content
    QStringList links;                // relative paths
};

// Walks the library folder without following links: everything seen is
// physically inside it.
void walk(const QString &root, const QString &relative, Found &found)
{
    const QString folder = relative.isEmpty() ? root : root + u'/' + relative;
    for (const QString &name : namesIn(folder)) {
        const QString inner = relative.isEmpty() ? name : relative + u'/' + name;
        const QString path = root + u'/' + inner;
        struct stat info;
        FUZZ_CHECK(::lstat(QFile::encodeName(path).constData(), &info) == 0);
        if (S_ISLNK(info.st_mode)) {
            found.links.append(inner);
        } else if (S_ISDIR(info.st_mode)) {
            walk(root, inner, found);
        } else {
            FUZZ_CHECK_SAY(S_ISREG(info.st_mode), inner.toStdString());
            found.files.insert(inner, readFile(path));
        }
    }
}

bool isInside(const QString &path, const QString &root)
{
    return path == root || path.startsWith(root + u'/');
}

bool isValidUtf8(const QByteArray &bytes)
{
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString text = decoder(bytes);
    return !decoder.hasError() && !bytes.contains('\0') && text.toUtf8() == bytes;
}

bool leadsOut(const QByteArray &name)
{
    return name.startsWith('/') || name.split('/').contains("..");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    if (!sandbox().isValid()) {
        return 1;
    }
    // The log goes into the sandbox, quietly: never into the user's log.
    Logger::shared().setEchoToStandardError(false);
    Logger::shared().setLogFileURL(QUrl::fromLocalFile(sandbox().filePath(QStringLiteral("log"))));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static int runs = 0;
    if (++runs % 1000 == 0) {
        Logger::clearLog();
    }
    const QByteArray input(reinterpret_cast<const char *>(data), qsizetype(size));

    // run/outside is the library folder's neighbour, run/library the folder
    // the segment is extracted into, under the name segments have.
    const QString run = sandbox().filePath(QStringLiteral("run"));
    removeTree(run);
    const QString outside = run + QStringLiteral("/outside");
    const QString library = run + QStringLiteral("/library");
    FUZZ_CHECK(QDir().mkpath(outside) && QDir().mkpath(library));
    {
        QFile kept(outside + QStringLiteral("/kept"));
        FUZZ_CHECK(kept.open(QIODevice::WriteOnly) && kept.write(kKept) == kKept.size());
    }
    const QString archiveName = QStringLiteral(".temp-0.zip");
    const QString archive = library + u'/' + archiveName;

    const bool raw = input.startsWith("PK");
    QList<Entry> stored;
    if (raw) {
        QFile file(archive);
        FUZZ_CHECK(file.open(QIODevice::WriteOnly) && file.write(input) == input.size());
    } else {
        stored = writeArchive(archive, readEntryLines(input));
    }
    const QByteArray archiveBytes = readFile(archive);

    Recorder recorder;
    {
        UnzipOperation operation(archive);
        recorder.listen(operation);
        operation.start();
    }

    // It ends once, one way or the other.
    FUZZ_CHECK(recorder.ended + recorder.failed == 1);
    FUZZ_CHECK(recorder.begun <= 1 && (recorder.ended == 0 || recorder.begun == 1));

    // Nothing outside the library folder changed.
    QStringList besideRun = namesIn(sandbox().path());
    besideRun.removeOne(QStringLiteral("log"));
    FUZZ_CHECK(besideRun == QStringList({QStringLiteral("run")}));
    FUZZ_CHECK(namesIn(run) == QStringList({QStringLiteral("library"), QStringLiteral("outside")}));
    FUZZ_CHECK(namesIn(outside) == QStringList({QStringLiteral("kept")}));
    FUZZ_CHECK(readFile(outside + QStringLiteral("/kept")) == kKept);

    // No link inside leads out of it, now or once its target exists.
    const QString root = QFileInfo(library).canonicalFilePath();
    Found found;
    walk(root, QString(), found);
    for (const QString &link : std::as_const(found.links)) {
        const QString path = root + u'/' + link;
        char buffer[4096];
        const ssize_t length = ::readlink(QFile::encodeName(path).constData(), buffer, sizeof buffer);
        FUZZ_CHECK(length > 0);
        const QByteArray written(buffer, length);
        FUZZ_CHECK_SAY(!written.startsWith('/'), link.toStdString() + " -> " + written.toStdString());
        const QString lexical = QDir::cleanPath(QFileInfo(path).absolutePath() + u'/' + QFile::decodeName(written));
        FUZZ_CHECK_SAY(isInside(lexical, root), link.toStdString() + " -> " + written.toStdString());
        const QString resolved = QFileInfo(path).canonicalFilePath();
        FUZZ_CHECK_SAY(resolved.isEmpty() || isInside(resolved, root),
                       link.toStdString() + " -> " + resolved.toStdString());
    }

    if (raw) {
        return 0;
    }

    // An entry named out of the folder, or a link pointing out, fails the
    // whole archive before anything is written.
    bool refused = false;
    for (const Entry &entry : std::as_const(stored)) {
        if (!isValidUtf8(entry.name)) {
            continue;
        }
        refused = refused || leadsOut(entry.name) ||
                  (entry.kind == Entry::Link && isValidUtf8(entry.content) && leadsOut(entry.content));
    }
    if (refused) {
        FUZZ_CHECK(recorder.failed == 1 && recorder.begun == 0);
        FUZZ_CHECK(namesIn(library) == QStringList({archiveName}));
        FUZZ_CHECK(readFile(archive) == archiveBytes);
    }

    // A whole extraction of plain files and folders leaves each file's last
    // entry under its name, every byte counted, and nothing else: no
    // temporary file behind.
    bool plain = recorder.ended == 1;
    for (const Entry &entry : std::as_const(stored)) {
        plain = plain && isValidUtf8(entry.name) && (entry.kind == Entry::File || entry.kind == Entry::Directory);
    }
    if (!plain) {
        return 0;
    }
    FUZZ_CHECK(recorder.written == recorder.total);
    QHash<QString, QByteArray> expected;
    expected.insert(archiveName, archiveBytes);
    for (const Entry &entry : std::as_const(stored)) {
        // A name ending in "/" is a folder's, whatever the entry says.
        const QString name = QDir::cleanPath(QString::fromUtf8(entry.name));
        if (entry.kind == Entry::File && !entry.name.endsWith('/') && name != QLatin1String(".")) {
            expected.insert(name, entry.content);
        }
    }
    FUZZ_CHECK(found.links.isEmpty());
    FUZZ_CHECK_SAY(found.files == expected, QStringList(found.files.keys()).join(u' ').toStdString() + " / " +
                                                QStringList(expected.keys()).join(u' ').toStdString());
    return 0;
}
