#include "accuraterip.h"
#include "discservices.h"

#include <httplib.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

QString toText(const std::string &text)
{
    return QString::fromUtf8(text.data(), qsizetype(text.size()));
}

} // namespace

namespace AccurateRipService {

void registerRoutes(httplib::Server &server, const QString &dataDirectory)
{
    const QDir data(dataDirectory);
    // The pattern admits only hex digits and the entry's own name, so a
    // request never leaves the data folder.
    server.Get(
        "/accuraterip/([0-9a-f])/([0-9a-f])/([0-9a-f])/(dBAR-[0-9]{3}-[0-9a-f]{8}-[0-9a-f]{8}-[0-9a-f]{8}\\.bin)",
        [data](const httplib::Request &req, httplib::Response &res) {
            const QString path = data.filePath(QStringLiteral("accuraterip/%1/%2/%3/%4")
                                                   .arg(toText(req.matches[1]), toText(req.matches[2]),
                                                        toText(req.matches[3]), toText(req.matches[4])));
            QFile file(path);
            if (!QFileInfo(path).isFile() || !file.open(QIODevice::ReadOnly)) {
                res.status = 404;
                res.set_content("Not Found\n", "text/plain");
                return;
            }
            DiscServices::applyAnswerDelay(path);
            const QByteArray body = file.readAll();
            res.status = 200;
            res.set_content(body.constData(), size_t(body.size()), "application/octet-stream");
        });
}

} // namespace AccurateRipService
