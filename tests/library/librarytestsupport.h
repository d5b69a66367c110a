#pragma once

#include "support/devserverprocess.h"

#include <QHash>
#include <QString>
#include <QStringList>

// Helpers shared by the library download tests.
namespace LibraryTest {

struct Identity
{
    QString userId;
    QString token;
};

// Signs the demo account in through the JSON API, as the program does, and
// returns its user id and token (empty on failure).
Identity signIn(const DevServerProcess &server,
                const QString &email = QString::fromLatin1(DevServerProcess::kDemoEmail),
                const QString &password = QString::fromLatin1(DevServerProcess::kDemoPassword));

// Seeds `count` tracks named "Track 001.mp3"... of varied sizes around
// `averageSize` bytes; returns the server's records.
QJsonArray seedTracks(const DevServerProcess &server, int count, qint64 averageSize);

// The names the library holds mapped to the paths of their stored bytes.
QHash<QString, QString> storedTracks(const DevServerProcess &server);

// Compares every file of the library with the files under `folder` (ignoring
// "download.json"). Returns the differences, empty when the folder holds
// exactly the library, byte for byte.
QStringList compareWithLibrary(const DevServerProcess &server, const QString &folder);

// Whether two files hold the same bytes.
bool sameContents(const QString &a, const QString &b);

// The files under a folder, relative, sorted; hidden files included.
QStringList filesUnder(const QString &folder);

// The log written so far.
QString logText();

} // namespace LibraryTest
