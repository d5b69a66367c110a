#include "platform/discimages.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMutex>
#include <QMutexLocker>
#include <QRegularExpression>
#include <QSaveFile>

#include <optional>
#include <utility>

namespace {

QMutex &registryLock()
{
    static QMutex lock;
    return lock;
}

QStringList &registry()
{
    static QStringList images;
    return images;
}

// Where a toc line names a file, read the way libcdio reads it: the line ends
// at a NUL or at "//"; the first word (split at blanks) is the keyword; after
// FILE, AUDIOFILE or DATAFILE and the one character that ends it, quotes and
// tabs are skipped and the name runs to the next quote, tab or line break.
// {start, end} of the name, or nothing when the line names no file.
std::optional<std::pair<qsizetype, qsizetype>> tocFileName(const QByteArray &line)
{
    qsizetype length = line.size();
    if (const qsizetype nul = line.indexOf('\0'); nul >= 0) {
        length = nul;
    }
    if (const qsizetype comment = line.left(length).indexOf("//"); comment >= 0) {
        length = comment;
    }
    const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
    const auto endsName = [](char c) { return c == '"' || c == '\t' || c == '\n' || c == '\r'; };
    qsizetype i = 0;
    while (i < length && blank(line[i])) {
        ++i;
    }
    const qsizetype keyword = i;
    while (i < length && !blank(line[i])) {
        ++i;
    }
    const QByteArray word = line.mid(keyword, i - keyword);
    if (word != "FILE" && word != "AUDIOFILE" && word != "DATAFILE") {
        return std::nullopt;
    }
    ++i;
    while (i < length && endsName(line[i])) {
        ++i;
    }
    const qsizetype start = i;
    while (i < length && !endsName(line[i])) {
        ++i;
    }
    if (i == start) {
        return std::nullopt;
    }
    return std::make_pair(start, i);
}

bool isTocPath(const QString &path)
{
    return QFileInfo(path).suffix().compare(QLatin1String("toc"), Qt::CaseInsensitive) == 0;
}

} // namespace

bool DiscImages::isDiscImageFile(const QString &path)
{
    if (path.isEmpty()) {
        return false;
    }
    const QFileInfo info(path);
    const QString suffix = info.suffix().toLower();
    if (suffix != QLatin1String("cue") && suffix != QLatin1String("toc")) {
        return false;
    }
    return info.isFile() && info.isReadable();
}

QString DiscImages::normalizedPath(const QString &path)
{
    if (path.isEmpty()) {
        return QString();
    }
    return QDir::cleanPath(QFileInfo(path).absoluteFilePath());
}

bool DiscImages::insert(const QString &path)
{
    if (!isDiscImageFile(path)) {
        return false;
    }
    const QString normalized = normalizedPath(path);
    QMutexLocker locker(&registryLock());
    if (!registry().contains(normalized)) {
        registry().append(normalized);
    }
    return true;
}

bool DiscImages::eject(const QString &path)
{
    const QString normalized = normalizedPath(path);
    QMutexLocker locker(&registryLock());
    return registry().removeAll(normalized) > 0;
}

bool DiscImages::contains(const QString &path)
{
    const QString normalized = normalizedPath(path);
    QMutexLocker locker(&registryLock());
    return !normalized.isEmpty() && registry().contains(normalized);
}

QStringList DiscImages::list()
{
    QMutexLocker locker(&registryLock());
    return registry();
}

void DiscImages::clear()
{
    QMutexLocker locker(&registryLock());
    registry().clear();
}

bool DiscImages::holdsBigEndianAudio(const QString &imagePath)
{
    QFile file(imagePath);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        return false;
    }
    if (isTocPath(imagePath)) {
        return true;
    }
    // FILE "name" TYPE, or FILE name TYPE: the type is the last word.
    static const QRegularExpression fileLine(QStringLiteral("^\\s*FILE\\s+.*\\s(\\S+)\\s*$"),
                                             QRegularExpression::CaseInsensitiveOption);
    while (!file.atEnd()) {
        const QString line = QString::fromLatin1(file.readLine()).trimmed();
        const QRegularExpressionMatch match = fileLine.match(line);
        if (match.hasMatch()) {
            return match.captured(1).compare(QLatin1String("MOTOROLA"), Qt::CaseInsensitive) == 0;
        }
    }
    return false;
}

namespace {

// libcdio reads a cue sheet's audio from the file of the sheet's own name with
// ".bin", whatever its FILE line says. A sheet with one FILE that names
// another existing file is copied into temporaryFolder beside a link of that
// name to the file.
QString openableCuePath(const QString &path, const QString &temporaryFolder)
{
    const QFileInfo sheet(path);
    if (QFileInfo::exists(sheet.absolutePath() + u'/' + sheet.completeBaseName() + QStringLiteral(".bin"))) {
        return path;
    }
    QFile cue(path);
    if (!cue.open(QIODevice::ReadOnly)) {
        return path;
    }
    // FILE "name" TYPE, or FILE name TYPE.
    static const QRegularExpression fileLine(QStringLiteral("^\\s*FILE\\s+(?:\"([^\"]*)\"|(\\S+))\\s+\\S+\\s*$"),
                                             QRegularExpression::CaseInsensitiveOption);
    QStringList names;
    while (!cue.atEnd()) {
        const QRegularExpressionMatch match = fileLine.match(QString::fromUtf8(cue.readLine()).trimmed());
        if (match.hasMatch()) {
            names.append(match.captured(1).isEmpty() ? match.captured(2) : match.captured(1));
        }
    }
    if (names.size() != 1) {
        return path; // libcdio reads one audio file per sheet
    }
    const QString audio = QDir(sheet.absolutePath()).absoluteFilePath(names.first());
    if (!QFileInfo(audio).isFile() || !QDir().mkpath(temporaryFolder)) {
        return path;
    }
    const QString copyPath = QDir(temporaryFolder).absoluteFilePath(sheet.fileName());
    const QString link = QDir(temporaryFolder).absoluteFilePath(sheet.completeBaseName() + QStringLiteral(".bin"));
    if (!QFile::copy(path, copyPath) || !QFile::link(audio, link)) {
        return QString();
    }
    return copyPath;
}

} // namespace

QString DiscImages::openablePath(const QString &path, const QString &temporaryFolder)
{
    if (!isTocPath(path)) {
        return openableCuePath(path, temporaryFolder);
    }
    QFile toc(path);
    if (!toc.open(QIODevice::ReadOnly)) {
        return path; // libcdio reports the failure when it opens it
    }
    // Bytes throughout, as the file system names files: the sheet's text and
    // the folder's name need not be in any one encoding.
    const QByteArray folder = QFile::encodeName(QFileInfo(path).absolutePath());
    QList<QByteArray> lines = toc.readAll().split('\n');
    bool relative = false;
    for (QByteArray &line : lines) {
        const auto name = tocFileName(line);
        if (!name || line[name->first] == '/') {
            continue;
        }
        line.insert(name->first, folder + '/');
        relative = true;
    }
    if (!relative) {
        return path;
    }
    // A name libcdio would cut short cannot be given to it.
    if (folder.contains("//") || folder.contains('"') || folder.contains('\t') || folder.contains('\r') ||
        folder.contains('\n')) {
        return QString();
    }
    QString copyPath = QDir(temporaryFolder).absoluteFilePath(QFileInfo(path).fileName());
    QSaveFile copy(copyPath);
    if (!QDir().mkpath(temporaryFolder) || !copy.open(QIODevice::WriteOnly) || copy.write(lines.join('\n')) < 0 ||
        !copy.commit()) {
        return QString();
    }
    return copyPath;
}
