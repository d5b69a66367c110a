#include "librarytestsupport.h"

#include "app/logger.h"
#include "service/core/clientfields.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace LibraryTest {

Identity signIn(const DevServerProcess &server)
{
    const QString agent = ClientFields::userAgent();
    const QStringList fields{ClientFields::deviceName(), ClientFields::version(), ClientFields::client(), agent};
    const QJsonObject request{
        {"mode", "status"},
        {"email_address", DevServerProcess::kDemoEmail},
        {"password", DevServerProcess::kDemoPassword},
        {"device_name", fields[0]},
        {"version", fields[1]},
        {"client", fields[2]},
        {"user_agent", agent},
        {"supported_types", true},
        {"auth_token",
         QString::fromLatin1(QCryptographicHash::hash(fields.join(':').toUtf8(), QCryptographicHash::Sha256).toHex())},
    };
    const LoopbackHttpResult answer = loopbackHttp(
        server.port(), "POST", "/s/JSON/", {{"Content-Type", "application/json"}, {"User-Agent", agent.toUtf8()}},
        QJsonDocument(request).toJson(QJsonDocument::Compact));
    const QJsonObject user = answer.json().value("user").toObject();
    return Identity{user.value("id").toVariant().toString(), user.value("token").toString()};
}

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
