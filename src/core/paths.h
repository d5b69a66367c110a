#pragma once

#include <QString>

// Where the program keeps its files.
namespace Paths {

// Names the data folder and the error domain.
QString applicationIdentifier();

// The per-user application-support folder (XDG data home), or empty when the
// system has none.
QString applicationSupportDirectory();

// applicationSupportDirectory() + "/" + applicationIdentifier(); empty when there is none.
QString dataDirectory();

QString musicDirectory();
QString temporaryDirectory();

} // namespace Paths
