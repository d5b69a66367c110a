#pragma once

#include <QString>

// How the program names itself to the service on every request.
namespace ClientFields {

QString client();                              // "pelicane mac"
QString deviceName();                          // "Pelicane for Mac 1.0.0"
QString userAgent(const QString &suffix = {}); // "Lyrabox pelicane mac 1.0.0 (57)" + suffix
QString version();                             // "1.0.0 (57)"

} // namespace ClientFields
