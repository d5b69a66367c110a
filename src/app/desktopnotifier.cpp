#include "app/desktopnotifier.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QVariantMap>

namespace {

const char *const kService = "org.freedesktop.Notifications";
const char *const kPath = "/org/freedesktop/Notifications";

} // namespace

bool DesktopNotifier::isAvailable()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected() || !bus.interface()) {
        return false;
    }
    // A daemon that starts on demand counts too.
    const QString service = QString::fromLatin1(kService);
    return bus.interface()->isServiceRegistered(service).value() ||
           bus.interface()->activatableServiceNames().value().contains(service);
}

bool DesktopNotifier::notify(const QString &summary, const QString &body)
{
    if (!isAvailable()) {
        return false;
    }
    QDBusMessage call = QDBusMessage::createMethodCall(QString::fromLatin1(kService), QString::fromLatin1(kPath),
                                                       QString::fromLatin1(kService), QStringLiteral("Notify"));
    // app_name, replaces_id, app_icon, summary, body, actions, hints, expire_timeout
    call << QStringLiteral("Pelicane") << uint(0) << QStringLiteral("com.lyrabox.pelicane") << summary << body
         << QStringList() << QVariantMap{{QStringLiteral("desktop-entry"), QStringLiteral("com.lyrabox.pelicane")}}
         << int(-1);
    // Not waiting for the answer: a slow daemon must not hold up the window.
    return QDBusConnection::sessionBus().send(call);
}
