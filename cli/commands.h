#pragma once

#include <QStringList>

// Sub-commands of pelicane-cli; args are what follows the command's name.
// Each returns the process exit status.
int runUploadCommand(const QStringList &args);
int runDownloadLibraryCommand(const QStringList &args);
int runDiscInfoCommand(const QStringList &args);
int runRipCommand(const QStringList &args);
int runUploadCDCommand(const QStringList &args);
