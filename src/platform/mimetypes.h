#pragma once

#include <QString>

// MIME type sent with an upload, by file extension (case-insensitive, no dot).
QString mimeTypeForExtension(const QString &extension);
