#include "core/paths.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QStorageInfo>

#include <unistd.h>

namespace Paths {

QString applicationIdentifier()
{
    return QStringLiteral("com.lyrabox.pelicane");
}

QString applicationSupportDirectory()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
}

QString dataDirectory()
{
    const QString base = applicationSupportDirectory();
    return base.isEmpty() ? QString() : base + QLatin1Char('/') + applicationIdentifier();
}

QString musicDirectory()
{
    const QString music = QStandardPaths::writableLocation(QStandardPaths::MusicLocation);
    return music.isEmpty() ? QDir::homePath() + QStringLiteral("/Music") : music;
}

QString temporaryDirectory()
{
    // A TMPDIR that names a missing folder must not send temporary files
    // into the working folder.
    const QString temp = QDir::tempPath();
    return !temp.isEmpty() && QDir(temp).exists() ? temp : QStringLiteral("/tmp");
}

QString temporaryPath(const QString &name)
{
    return QDir(temporaryDirectory())
        .filePath(QStringLiteral("pelicane-%1-%2").arg(QCoreApplication::applicationPid()).arg(name));
}

void removeTemporaryLeftovers()
{
    static const QRegularExpression kOurs(QStringLiteral("^pelicane-(\\d+)-"));
    const QDir temp(temporaryDirectory());
    for (const QFileInfo &entry : temp.entryInfoList({QStringLiteral("pelicane-*")},
                                                     QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot | QDir::Hidden)) {
        const QRegularExpressionMatch match = kOurs.match(entry.fileName());
        if (!match.hasMatch() || QFileInfo::exists(QStringLiteral("/proc/") + match.captured(1)) ||
            entry.ownerId() != ::getuid()) {
            continue;
        }
        if (entry.isDir() && !entry.isSymLink()) {
            QDir(entry.filePath()).removeRecursively();
        } else {
            QFile::remove(entry.filePath());
        }
    }
}

QString safeFileName(QString name, int maxBytes)
{
    static const QString kRefused = QStringLiteral("/\\:*?\"<>|");
    for (QChar &c : name) {
        if (kRefused.contains(c) || c.unicode() < 0x20) {
            c = u'_';
        }
    }
    name = name.trimmed();
    if (name.startsWith(u'.')) {
        name.replace(0, 1, u'_');
    }
    qsizetype bytes = 0;
    qsizetype end = 0;
    while (end < name.size()) {
        // A surrogate pair is one character of four bytes.
        const bool pair = name.at(end).isHighSurrogate() && end + 1 < name.size();
        const char32_t code = pair ? QChar::surrogateToUcs4(name.at(end), name.at(end + 1)) : name.at(end).unicode();
        const int width = code < 0x80 ? 1 : code < 0x800 ? 2 : code < 0x10000 ? 3 : 4;
        if (bytes + width > maxBytes) {
            break;
        }
        bytes += width;
        end += pair ? 2 : 1;
    }
    name.truncate(end);
    return name.trimmed();
}

bool isDiskFull(const QString &path)
{
    // A write that needs one more block fails with a few bytes still free.
    constexpr qint64 kFullBelow = qint64(256) * 1024;
    QFileInfo place(path);
    while (!place.exists() && !place.isRoot() && place.absolutePath() != place.absoluteFilePath()) {
        place = QFileInfo(place.absolutePath());
    }
    const QStorageInfo storage(place.absoluteFilePath());
    return storage.isValid() && storage.bytesAvailable() >= 0 && storage.bytesAvailable() < kFullBelow;
}

} // namespace Paths
