#include "platform/paths.h"

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
    return QDir::tempPath();
}

} // namespace Paths
