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
// "<temporary folder>/pelicane-<process id>-<name>": whose file it is can be
// told after a crash.
QString temporaryPath(const QString &name);
// Removes what processes that no longer run left in the temporary folder
// (a rip's FLAC file, a disc image's copy), so a crash costs no disk space
// for good.
void removeTemporaryLeftovers();

// `name` as one file name: folder separators, control characters and the
// characters other systems refuse become "_", a leading dot too, and it is
// cut on a character boundary to at most `maxBytes` bytes of UTF-8 (file
// systems count bytes, and 255 of them is the usual limit).
QString safeFileName(QString name, int maxBytes);

// After a write under `path` failed: whether the file system holding it (or
// its nearest existing folder) has no room left, so the user can be told
// "the disk is full" rather than a library's state name.
bool isDiskFull(const QString &path);

} // namespace Paths
