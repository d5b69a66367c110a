#include "core/paths.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QStandardPaths>

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

} // namespace Paths
