// Disc image sheets as the program opens them. libcdio resolves a toc's file
// names against the working folder, so the program hands it a copy with the
// names made absolute; a cue's names are resolved against the cue's own folder
// and the cue is handed over as it is.
//
// The input is the sheet's text, tried as "disc.toc" and as "disc.cue" in a
// folder whose name is not Latin-1 and holds a few track files. The copy must
// name every file libcdio will read by an absolute path to the same file the
// original names from its own folder, change nothing else, and libcdio must
// accept the copy, read from another working folder, exactly when it accepts
// the original read from the sheet's folder.
#include "fuzzcheck.h"

#include "platform/discimages.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <cdio/cdio.h>
#include <cdio/logging.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct Places
{
    QTemporaryDir root;
    QString sheets;    // holds the sheets and the track files
    QString copies;    // where the program writes its copy
    QString elsewhere; // an empty working folder
    QByteArray start;  // the working folder to come back to
};

Places &places()
{
    static Places places;
    return places;
}

void writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    FUZZ_CHECK(file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size());
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    FUZZ_CHECK(file.open(QIODevice::ReadOnly));
    return file.readAll();
}

void quiet(cdio_log_level_t, const char *) {}

// A line as libcdio reads it: cut at the first NUL (and in a toc at "//"),
// the keyword is the first word (split at blanks), and a file keyword's name
// is the run after the keyword's delimiter, with quotes and tabs skipped
// first, up to the next quote, tab or line break.
struct FileLine
{
    bool isFile = false;
    QByteArray name;
    qsizetype nameEnd = 0;
};

enum class Sheet { Toc, Cue };

bool blank(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// The first word from `from` on, as libcdio splits words.
QByteArray wordAt(const QByteArray &line, qsizetype from)
{
    qsizetype i = from;
    while (i < line.size() && blank(line[i])) {
        ++i;
    }
    const qsizetype start = i;
    while (i < line.size() && !blank(line[i]) && line[i] != '\0') {
        ++i;
    }
    return line.mid(start, i - start);
}

FileLine readLine(QByteArray line, Sheet sheet)
{
    if (const qsizetype nul = line.indexOf('\0'); nul >= 0) {
        line.truncate(nul);
    }
    if (const qsizetype comment = line.indexOf("//"); comment >= 0 && sheet == Sheet::Toc) {
        line.truncate(comment);
    }
    const auto endsName = [](char c) { return c == '"' || c == '\t' || c == '\n' || c == '\r'; };
    qsizetype i = 0;
    while (i < line.size() && blank(line[i])) {
        ++i;
    }
    const qsizetype keywordStart = i;
    while (i < line.size() && !blank(line[i])) {
        ++i;
    }
    const QByteArray keyword = line.mid(keywordStart, i - keywordStart);
    FileLine result;
    result.isFile = keyword == "FILE" || (sheet == Sheet::Toc && (keyword == "AUDIOFILE" || keyword == "DATAFILE"));
    if (!result.isFile || i >= line.size()) {
        return result;
    }
    ++i; // the delimiter after the keyword
    while (i < line.size() && endsName(line[i])) {
        ++i;
    }
    const qsizetype nameStart = i;
    while (i < line.size() && !endsName(line[i])) {
        ++i;
    }
    result.name = line.mid(nameStart, i - nameStart);
    result.nameEnd = i;
    return result;
}

bool tocAccepted(const QString &sheet, const QString &workingFolder)
{
    FUZZ_CHECK(::chdir(QFile::encodeName(workingFolder).constData()) == 0);
    const bool accepted = cdio_is_tocfile(QFile::encodeName(sheet).constData());
    FUZZ_CHECK(::chdir(places().start.constData()) == 0);
    return accepted;
}

void checkToc(const QByteArray &text)
{
    const Places &at = places();
    const QString sheet = at.sheets + QStringLiteral("/disc.toc");
    writeFile(sheet, text);
    const QString openable = DiscImages::openablePath(sheet, at.copies);
    FUZZ_CHECK(!openable.isEmpty());
    const QByteArray result = readFile(openable);

    // Line for line the same, but for the names of files, each now absolute
    // and naming what the original named from the sheet's folder.
    const QList<QByteArray> before = text.split('\n');
    const QList<QByteArray> after = result.split('\n');
    FUZZ_CHECK_SAY(before.size() == after.size(), result.left(300).toStdString());
    const QByteArray folder = QFile::encodeName(at.sheets);
    for (qsizetype i = 0; i < before.size(); ++i) {
        const FileLine original = readLine(before[i], Sheet::Toc);
        const FileLine copy = readLine(after[i], Sheet::Toc);
        if (!original.isFile) {
            FUZZ_CHECK_SAY(after[i] == before[i],
                           "\"" + before[i].toStdString() + "\" became \"" + after[i].toStdString() + "\"");
            continue;
        }
        FUZZ_CHECK(copy.isFile);
        const QByteArray expected =
            original.name.isEmpty() || original.name.startsWith('/') ? original.name : folder + '/' + original.name;
        FUZZ_CHECK_SAY(copy.name == expected, "\"" + before[i].toStdString() + "\" became \"" + after[i].toStdString() +
                                                  "\", not naming \"" + expected.toStdString() + "\"");
    }

    FUZZ_CHECK_SAY(tocAccepted(sheet, at.sheets) == tocAccepted(openable, at.elsewhere),
                   "libcdio reads the copy differently: " + result.left(300).toStdString());
    if (openable != sheet) {
        FUZZ_CHECK(QFile::remove(openable));
    }
}

void checkCue(const QByteArray &text)
{
    const Places &at = places();
    const QString sheet = at.sheets + QStringLiteral("/disc.cue");
    writeFile(sheet, text);
    // Handed over as it is, or, when its one FILE names another file that is
    // there, copied beside a link of the name libcdio reads the audio from.
    const QString openable = DiscImages::openablePath(sheet, at.copies);
    if (openable != sheet) {
        const QFileInfo link(at.copies + QStringLiteral("/disc.bin"));
        FUZZ_CHECK(openable == at.copies + QStringLiteral("/disc.cue"));
        FUZZ_CHECK(link.isSymLink() && QFileInfo(link.symLinkTarget()).isFile());
        FUZZ_CHECK(QFile::remove(openable) && QFile::remove(link.filePath()));
    }
    FUZZ_CHECK(QDir(at.copies).isEmpty());

    // The byte order is the type word after the first FILE line's name, for a
    // sheet libcdio takes.
    const bool bigEndian = DiscImages::holdsBigEndianAudio(sheet);
    char *bin = cdio_is_cuefile(QFile::encodeName(sheet).constData());
    if (!bin) {
        return;
    }
    std::free(bin);
    for (const QByteArray &line : text.split('\n')) {
        const FileLine file = readLine(line, Sheet::Cue);
        if (!file.isFile) {
            continue;
        }
        // Only a disc libcdio can open is ripped: the file must be there.
        const QByteArray track = file.name.startsWith('/') ? file.name : QFile::encodeName(at.sheets) + '/' + file.name;
        struct stat info;
        if (file.name.isEmpty() || ::stat(track.constData(), &info) != 0 || !S_ISREG(info.st_mode)) {
            break;
        }
        // A type is defined for the form FILE "name" TYPE only: the quote,
        // blanks, one word and nothing after it but blanks.
        const QByteArray type = wordAt(line, file.nameEnd + 1);
        const qsizetype typeAt = line.indexOf(type, file.nameEnd + 1);
        const bool wellFormed = file.nameEnd < line.size() && line[file.nameEnd] == '"' && !type.isEmpty() &&
                                blank(line[file.nameEnd + 1]) && wordAt(line, typeAt + type.size()).isEmpty() &&
                                !line.contains('\0');
        if (wellFormed) {
            // In any case, as other cue readers take it.
            FUZZ_CHECK_SAY(bigEndian == (type.toUpper() == "MOTOROLA"), "\"" + line.toStdString() + "\"");
        }
        break;
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    Places &at = places();
    if (!at.root.isValid()) {
        return 1;
    }
    cdio_log_set_handler(quiet);
    char *start = ::getcwd(nullptr, 0);
    at.start = start ? QByteArray(start) : QByteArray("/");
    std::free(start);
    // A folder name a user may well have, not writable in Latin-1.
    at.sheets = at.root.filePath(QStringLiteral("Диски 音楽 ü"));
    at.copies = at.root.filePath(QStringLiteral("copies"));
    at.elsewhere = at.root.filePath(QStringLiteral("elsewhere"));
    for (const QString &folder : QStringList{at.sheets + QStringLiteral("/sub"), at.copies, at.elsewhere}) {
        FUZZ_CHECK(QDir().mkpath(folder));
    }
    const char *tracks[] = {"a.bin", "b b.bin", ":c.bin", "sub/d.bin"};
    int sectors = 3;
    for (const char *track : tracks) {
        writeFile(at.sheets + u'/' + QString::fromUtf8(track), QByteArray(2352 * sectors++, '\0'));
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray text(reinterpret_cast<const char *>(data), qsizetype(size));
    checkToc(text);
    checkCue(text);
    return 0;
}
