#include "discservices.h"

#include <httplib.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <chrono>
#include <thread>

namespace {

const char *const kDiscogsKey = "qWeRtYuIoPaSdFgHjKlZ";
const char *const kDiscogsSecret = "AbCdEfGhIjKlMnOpQrStUvWxYzAbCdEf";

QString toText(const std::string &text)
{
    return QString::fromUtf8(text.data(), qsizetype(text.size()));
}

// One path component from the request; never a way out of the data folder.
bool isSafeName(const QString &name)
{
    return !name.isEmpty() && name != QLatin1String(".") && name != QLatin1String("..") &&
           !name.contains(QLatin1Char('/')) && !name.contains(QLatin1Char('\\'));
}

const char *contentTypeOf(const QString &path)
{
    const QString suffix = QFileInfo(path).suffix().toLower();
    if (suffix == QLatin1String("xml")) {
        return "application/xml; charset=utf-8";
    }
    if (suffix == QLatin1String("json")) {
        return "application/json";
    }
    if (suffix == QLatin1String("jpg") || suffix == QLatin1String("jpeg")) {
        return "image/jpeg";
    }
    if (suffix == QLatin1String("png")) {
        return "image/png";
    }
    if (suffix == QLatin1String("bmp")) {
        return "image/bmp";
    }
    if (suffix == QLatin1String("gif")) {
        return "image/gif";
    }
    if (suffix == QLatin1String("html") || suffix == QLatin1String("htm")) {
        return "text/html; charset=utf-8";
    }
    return "application/octet-stream";
}

void sendText(httplib::Response &res, int status, const QByteArray &body, const char *type)
{
    res.status = status;
    res.set_content(body.constData(), size_t(body.size()), type);
}

// Answers with the file, or false when there is none.
bool sendFile(httplib::Response &res, const QString &path, const QByteArray &base = QByteArray())
{
    QFile file(path);
    if (!QFileInfo(path).isFile() || !file.open(QIODevice::ReadOnly)) {
        return false;
    }
    DiscServices::applyAnswerDelay(path);
    QByteArray body = file.readAll();
    if (!base.isEmpty()) {
        body.replace("{base}", base);
    }
    sendText(res, 200, body, contentTypeOf(path));
    return true;
}

void sendMusicBrainzNotFound(httplib::Response &res)
{
    sendText(res, 404,
             "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<error><text>Not Found</text>"
             "<text>For usage, please see: https://musicbrainz.org/development/mmd</text></error>\n",
             "application/xml; charset=utf-8");
}

QByteArray baseOf(const httplib::Request &req)
{
    const std::string host = req.get_header_value("Host");
    return QByteArray("http://") + QByteArray(host.data(), qsizetype(host.size()));
}

} // namespace

namespace DiscServices {

void applyAnswerDelay(const QString &path)
{
    QFile delay(path + QStringLiteral(".delay"));
    if (delay.open(QIODevice::ReadOnly)) {
        const int ms = QString::fromUtf8(delay.readAll()).trimmed().toInt();
        if (ms > 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(ms));
        }
    }
}

QString discogsFileName(const QString &artist, const QString &releaseTitle)
{
    QString name = artist + QStringLiteral(" - ") + releaseTitle + QStringLiteral(".json");
    name.replace(QLatin1Char('/'), QLatin1Char('_'));
    return name;
}

void registerRoutes(httplib::Server &server, const QString &dataDirectory)
{
    const QDir data(dataDirectory);

    // MusicBrainz ws/2: the answer files are the XML the real service sends.
    server.Get("/ws/2/(discid|release)/([^/]+)", [data](const httplib::Request &req, httplib::Response &res) {
        const QString entity = toText(req.matches[1]);
        const QString id = toText(req.matches[2]);
        if (!isSafeName(id) || !sendFile(res, data.filePath(QStringLiteral("musicbrainz/%1/%2.xml").arg(entity, id)))) {
            sendMusicBrainzNotFound(res);
        }
    });

    // Cover Art Archive: the front image's address redirects to the image,
    // as the real service sends its clients on to the archive holding it.
    server.Get("/release/([^/]+)/front", [data](const httplib::Request &req, httplib::Response &res) {
        const QString id = toText(req.matches[1]);
        const QDir folder(data.filePath(QStringLiteral("coverart/") + id));
        const QStringList fronts =
            isSafeName(id) ? folder.entryList({QStringLiteral("front.*")}, QDir::Files, QDir::Name) : QStringList();
        QString front;
        for (const QString &name : fronts) {
            if (!name.endsWith(QLatin1String(".delay"))) {
                front = name;
                break;
            }
        }
        if (front.isEmpty()) {
            sendText(res, 404, "No cover art found for release " + id.toUtf8() + "\n", "text/plain");
            return;
        }
        res.status = 307;
        const QByteArray location = baseOf(req) + "/coverart/" + id.toUtf8() + "/" + front.toUtf8();
        res.set_header("Location", location.toStdString());
    });
    server.Get("/coverart/([^/]+)/([^/]+)", [data](const httplib::Request &req, httplib::Response &res) {
        const QString id = toText(req.matches[1]);
        const QString name = toText(req.matches[2]);
        if (!isSafeName(id) || !isSafeName(name) ||
            !sendFile(res, data.filePath(QStringLiteral("coverart/%1/%2").arg(id, name)))) {
            sendText(res, 404, "Not Found\n", "text/plain");
        }
    });

    // Discogs database search: the answer is chosen by artist and title.
    server.Get("/database/search", [data](const httplib::Request &req, httplib::Response &res) {
        if (req.get_param_value("key") != kDiscogsKey || req.get_param_value("secret") != kDiscogsSecret) {
            sendText(res, 401, "{\"message\": \"Invalid consumer key/secret.\"}", "application/json");
            return;
        }
        const QString file =
            discogsFileName(toText(req.get_param_value("artist")), toText(req.get_param_value("release_title")));
        if (!sendFile(res, data.filePath(QStringLiteral("discogs/") + file), baseOf(req))) {
            sendText(res, 200, "{\"pagination\": {\"items\": 0}, \"results\": []}", "application/json");
        }
    });
    server.Get("/discogs/images/([^/]+)", [data](const httplib::Request &req, httplib::Response &res) {
        const QString name = toText(req.matches[1]);
        if (!isSafeName(name) || !sendFile(res, data.filePath(QStringLiteral("discogs/images/") + name))) {
            sendText(res, 404, "{\"message\": \"The requested resource was not found.\"}", "application/json");
        }
    });
}

} // namespace DiscServices
