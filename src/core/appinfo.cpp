#include "core/appinfo.h"

#include "pelicane_version.h"

namespace AppInfo {

QString shortVersion()
{
    return QStringLiteral(PELICANE_VERSION);
}

QString supportAddress()
{
    return QStringLiteral("support@lyrabox.com");
}

QString buildNumber()
{
    return QStringLiteral(PELICANE_BUILD_NUMBER);
}

} // namespace AppInfo
