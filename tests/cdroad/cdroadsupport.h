#pragma once

#include "support/devserverprocess.h"
#include "support/flactools.h"

#include <QHash>
#include <QJsonArray>
#include <QJsonObject>
#include <QString>

// What the CD-road tests read back from the local service: the stored files
// (FLAC files they read with support/flactools.h).

// The latest stored record of each file name.
inline QHash<QString, QJsonObject> storedFilesByName(const DevServerProcess &server)
{
    QHash<QString, QJsonObject> files;
    for (const QJsonValue &file : server.library().value(QStringLiteral("files")).toArray()) {
        files.insert(file.toObject().value(QStringLiteral("file_name")).toString(), file.toObject());
    }
    return files;
}

// The records stored (or stored again) since `before` was taken.
inline QHash<QString, QJsonObject> storedSince(const DevServerProcess &server,
                                               const QHash<QString, QJsonObject> &before)
{
    QHash<QString, QJsonObject> added;
    const QHash<QString, QJsonObject> now = storedFilesByName(server);
    for (auto it = now.cbegin(); it != now.cend(); ++it) {
        if (before.value(it.key()) != it.value()) {
            added.insert(it.key(), it.value());
        }
    }
    return added;
}
