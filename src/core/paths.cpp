#include "core/paths.h"

#include <QDir>
#include <QStandardPaths>

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

} // namespace Paths
