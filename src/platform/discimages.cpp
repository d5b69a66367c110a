#include "platform/discimages.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMutex>
#include <QMutexLocker>
#include <QRegularExpression>
#include <QSaveFile>

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

// A toc line naming a file: FILE, AUDIOFILE or DATAFILE, then the quoted name.
const QRegularExpression &tocFileLine()
{
    static const QRegularExpression line(QStringLiteral("^(\\s*(?:FILE|AUDIOFILE|DATAFILE)\\s+)\"([^\"]*)\"(.*)$"));
    return line;
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

QString DiscImages::openablePath(const QString &path, const QString &temporaryFolder)
{
    if (!isTocPath(path)) {
        return path;
    }
    QFile toc(path);
    if (!toc.open(QIODevice::ReadOnly)) {
        return path; // libcdio reports the failure when it opens it
    }
    const QDir folder = QFileInfo(path).absoluteDir();
    QStringList lines = QString::fromLatin1(toc.readAll()).split(QLatin1Char('\n'));
    bool relative = false;
    for (QString &line : lines) {
        const QRegularExpressionMatch match = tocFileLine().match(line);
        if (match.hasMatch() && QFileInfo(match.captured(2)).isRelative()) {
            line = match.captured(1) + QLatin1Char('"') + folder.absoluteFilePath(match.captured(2)) +
                   QLatin1Char('"') + match.captured(3);
            relative = true;
        }
    }
    if (!relative) {
        return path;
    }
    const QString copyPath = QDir(temporaryFolder).absoluteFilePath(QFileInfo(path).fileName());
    QSaveFile copy(copyPath);
    if (!QDir().mkpath(temporaryFolder) || !copy.open(QIODevice::WriteOnly) ||
        copy.write(lines.join(QLatin1Char('\n')).toLatin1()) < 0 || !copy.commit()) {
        return QString();
    }
    return copyPath;
}
