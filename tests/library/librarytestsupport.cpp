#include "librarytestsupport.h"

#include "core/logger.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace LibraryTest {

QString trackName(int number)
{
    return QStringLiteral("Track %1.mp3").arg(number, 3, 10, QLatin1Char('0'));
}

QJsonArray seedTracks(const DevServerProcess &server, int count, qint64 averageSize)
{
    QJsonArray files;
    for (int i = 0; i < count; ++i) {
        // Sizes spread from half to one and a half times the average.
        files.append(QJsonObject{{"name", trackName(i + 1)},
                                 {"size", averageSize / 2 + (averageSize * ((i * 37) % 101)) / 100}});
    }
    return server.seed(files);
}

static QByteArray contents(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QStringList compareWithLibrary(const DevServerProcess &server, const QString &folder)
{
    QStringList differences;
    QStringList present = filesUnder(folder);
    present.removeAll(QStringLiteral("download.json"));
    for (const QJsonValue &value : server.library().value("files").toArray()) {
        const QString name = value.toObject().value("file_name").toString();
        if (!present.removeOne(name)) {
            differences.append(QStringLiteral("missing: ") + name);
        } else if (contents(QDir(folder).filePath(name)) !=
                   contents(value.toObject().value("stored_path").toString())) {
            differences.append(QStringLiteral("differs: ") + name);
        }
    }
    for (const QString &extra : std::as_const(present)) {
        differences.append(QStringLiteral("extra: ") + extra);
    }
    return differences;
}

QStringList filesUnder(const QString &folder)
{
    QStringList files;
    QDirIterator it(folder, QDir::Files | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        files.append(QDir(folder).relativeFilePath(it.next()));
    }
    files.sort();
    return files;
}

QString logText()
{
    return QString::fromUtf8(contents(Logger::logFileURL().toLocalFile()));
}

} // namespace LibraryTest
