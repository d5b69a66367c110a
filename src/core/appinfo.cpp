#include "core/appinfo.h"

#include "pelicane_version.h"

namespace AppInfo {

QString shortVersion()
{
    return QStringLiteral(PELICANE_VERSION);
}

QString buildNumber()
{
    return QStringLiteral(PELICANE_BUILD_NUMBER);
}

} // namespace AppInfo
