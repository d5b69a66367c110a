#pragma once

#include "support/devserverprocess.h"

#include <QString>
#include <QStringList>

// Helpers shared by the library download tests.
namespace LibraryTest {

using Identity = DevServerProcess::Session;

// "Track 001.mp3"...: the names seedTracks gives.
QString trackName(int number);

// Seeds `count` tracks of sizes around `averageSize` bytes; returns the server's records.
QJsonArray seedTracks(const DevServerProcess &server, int count, qint64 averageSize);

// The differences between the library and the files under `folder` ("download.json" aside):
// empty when the folder holds exactly the library, byte for byte.
QStringList compareWithLibrary(const DevServerProcess &server, const QString &folder);

// The files under a folder, relative, sorted; hidden files included.
QStringList filesUnder(const QString &folder);

QString logText();

} // namespace LibraryTest
