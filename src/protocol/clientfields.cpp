#include "protocol/clientfields.h"

#include "core/appinfo.h"

namespace ClientFields {

QString client()
{
    return QStringLiteral("pelicane mac");
}

QString deviceName()
{
    return QStringLiteral("Pelicane for Mac %1").arg(AppInfo::shortVersion());
}

QString userAgent(const QString &suffix)
{
    return QStringLiteral("Lyrabox %1 %2 (%3)%4")
        .arg(client(), AppInfo::shortVersion(), AppInfo::buildNumber(), suffix);
}

QString version()
{
    return QStringLiteral("%1 (%2)").arg(AppInfo::shortVersion(), AppInfo::buildNumber());
}

} // namespace ClientFields
