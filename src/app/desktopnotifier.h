#pragma once

#include <QString>

// Tells the desktop something happened, through the freedesktop
// notification service on the session bus. Where the session has no such
// service (no bus, or no notification daemon) it does nothing and says so.
class DesktopNotifier
{
public:
    // True when the message was handed to the notification service.
    static bool notify(const QString &summary, const QString &body);
    static bool isAvailable();
};
