#pragma once

#include <QString>

// Version of this build, set by the build system.
namespace AppInfo {
QString shortVersion(); // e.g. "1.0.0"
QString buildNumber();  // e.g. "57"
// Where users are sent when a problem persists.
QString supportAddress();
} // namespace AppInfo
