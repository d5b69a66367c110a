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

Identity signIn(const DevServerProcess &server, const QString &email, const QString &password)
{
    const QString client = ClientFields::client();
    const QString deviceName = ClientFields::deviceName();
    const QString userAgent = ClientFields::userAgent();
    const QString version = ClientFields::version();
    const QByteArray authToken =
        QCryptographicHash::hash((deviceName + u':' + version + u':' + client + u':' + userAgent).toUtf8(),
                                 QCryptographicHash::Sha256)
            .toHex();
    const QJsonObject request{{"mode", "status"},          {"email_address", email},
                              {"password", password},      {"auth_token", QString::fromLatin1(authToken)},
                              {"supported_types", true},   {"client", client},
                              {"device_name", deviceName}, {"user_agent", userAgent},
                              {"version", version}};
    const LoopbackHttpResult answer = loopbackHttp(
        server.port(), "POST", "/s/JSON/", {{"Content-Type", "application/json"}, {"User-Agent", userAgent.toUtf8()}},
        QJsonDocument(request).toJson(QJsonDocument::Compact));
    const QJsonObject user = answer.json().value("user").toObject();
    return Identity{user.value("id").toVariant().toString(), user.value("token").toString()};
}

QJsonArray seedTracks(const DevServerProcess &server, int count, qint64 averageSize)
{
    QJsonArray files;
    for (int i = 0; i < count; ++i) {
        // Sizes spread from half to one and a half times the average.
        const qint64 size = averageSize / 2 + (averageSize * ((i * 37) % 101)) / 100;
        files.append(
            QJsonObject{{"name", QStringLiteral("Track %1.mp3").arg(i + 1, 3, 10, QLatin1Char('0'))}, {"size", size}});
    }
    return server.seed(files);
}

QHash<QString, QString> storedTracks(const DevServerProcess &server)
{
    QHash<QString, QString> tracks;
    const QJsonArray files = server.library().value("files").toArray();
    for (const QJsonValue &value : files) {
        const QJsonObject file = value.toObject();
        tracks.insert(file.value("file_name").toString(), file.value("stored_path").toString());
    }
    return tracks;
}

bool sameContents(const QString &a, const QString &b)
{
    QFile first(a);
    QFile second(b);
    if (!first.open(QIODevice::ReadOnly) || !second.open(QIODevice::ReadOnly) || first.size() != second.size()) {
        return false;
    }
    while (!first.atEnd()) {
        if (first.read(1 << 20) != second.read(1 << 20)) {
            return false;
        }
    }
    return true;
}

QStringList filesUnder(const QString &folder)
{
    QStringList files;
    QDirIterator it(folder, QDir::Files | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    const QDir root(folder);
    while (it.hasNext()) {
        files.append(root.relativeFilePath(it.next()));
    }
    files.sort();
    return files;
}

QStringList compareWithLibrary(const DevServerProcess &server, const QString &folder)
{
    QStringList differences;
    const QHash<QString, QString> tracks = storedTracks(server);
    QStringList present = filesUnder(folder);
    present.removeAll(QStringLiteral("download.json"));
    for (auto it = tracks.cbegin(); it != tracks.cend(); ++it) {
        const QString path = QDir(folder).filePath(it.key());
        if (!present.removeOne(it.key())) {
            differences.append(QStringLiteral("missing: ") + it.key());
        } else if (!sameContents(path, it.value())) {
            differences.append(QStringLiteral("differs: ") + it.key());
        }
    }
    for (const QString &extra : std::as_const(present)) {
        differences.append(QStringLiteral("extra: ") + extra);
    }
    return differences;
}

QString logText()
{
    QFile file(Logger::logFileURL().toLocalFile());
    if (!file.open(QIODevice::ReadOnly)) {
        return {};
    }
    return QString::fromUtf8(file.readAll());
}

} // namespace LibraryTest
