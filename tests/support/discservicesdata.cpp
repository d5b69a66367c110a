#include "support/discservicesdata.h"

#include "support/devserverprocess.h"

#include <QBuffer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QXmlStreamWriter>

#include <functional>

namespace {

void writeCredits(QXmlStreamWriter &xml, const QList<DiscServicesData::Credit> &credits)
{
    if (credits.isEmpty()) {
        return;
    }
    xml.writeStartElement(QStringLiteral("artist-credit"));
    for (const DiscServicesData::Credit &credit : credits) {
        xml.writeStartElement(QStringLiteral("name-credit"));
        if (!credit.joinPhrase.isEmpty()) {
            xml.writeAttribute(QStringLiteral("joinphrase"), credit.joinPhrase);
        }
        xml.writeStartElement(QStringLiteral("artist"));
        xml.writeAttribute(QStringLiteral("id"), QStringLiteral("a-") + QString::number(qHash(credit.name)));
        xml.writeTextElement(QStringLiteral("name"), credit.name);
        xml.writeTextElement(QStringLiteral("sort-name"), credit.name);
        xml.writeEndElement();
        xml.writeEndElement();
    }
    xml.writeEndElement();
}

void writeTextIfAny(QXmlStreamWriter &xml, const QString &name, const QString &text)
{
    if (!text.isEmpty()) {
        xml.writeTextElement(name, text);
    }
}

// full: the release lookup's form, with track lists; else the disc lookup's
// summary (only the media holding the disc, without tracks).
void writeRelease(QXmlStreamWriter &xml, const DiscServicesData::Release &release, bool full, const QString &discId)
{
    xml.writeStartElement(QStringLiteral("release"));
    xml.writeAttribute(QStringLiteral("id"), release.id);
    xml.writeTextElement(QStringLiteral("title"), release.title);
    xml.writeTextElement(QStringLiteral("status"), QStringLiteral("Official"));
    writeCredits(xml, release.artists);
    writeTextIfAny(xml, QStringLiteral("date"), release.date);
    writeTextIfAny(xml, QStringLiteral("country"), release.country);
    writeTextIfAny(xml, QStringLiteral("barcode"), release.barcode);
    if (!release.label.isEmpty()) {
        xml.writeStartElement(QStringLiteral("label-info-list"));
        xml.writeAttribute(QStringLiteral("count"), QStringLiteral("1"));
        xml.writeStartElement(QStringLiteral("label-info"));
        xml.writeStartElement(QStringLiteral("label"));
        xml.writeAttribute(QStringLiteral("id"), QStringLiteral("l-1"));
        xml.writeTextElement(QStringLiteral("name"), release.label);
        xml.writeEndElement();
        xml.writeEndElement();
        xml.writeEndElement();
    }
    xml.writeStartElement(QStringLiteral("medium-list"));
    xml.writeAttribute(QStringLiteral("count"), QString::number(release.media.size()));
    int position = 0;
    for (const DiscServicesData::Medium &medium : release.media) {
        ++position;
        if (!full && !medium.discIds.contains(discId)) {
            continue;
        }
        xml.writeStartElement(QStringLiteral("medium"));
        xml.writeTextElement(QStringLiteral("position"), QString::number(position));
        xml.writeTextElement(QStringLiteral("format"), QStringLiteral("CD"));
        xml.writeStartElement(QStringLiteral("disc-list"));
        xml.writeAttribute(QStringLiteral("count"), QString::number(medium.discIds.size()));
        for (const QString &id : medium.discIds) {
            xml.writeStartElement(QStringLiteral("disc"));
            xml.writeAttribute(QStringLiteral("id"), id);
            xml.writeTextElement(QStringLiteral("sectors"), QStringLiteral("1000"));
            xml.writeEndElement();
        }
        xml.writeEndElement();
        xml.writeStartElement(QStringLiteral("track-list"));
        xml.writeAttribute(QStringLiteral("count"), QString::number(medium.tracks.size()));
        if (full) {
            int number = 0;
            for (const DiscServicesData::Track &track : medium.tracks) {
                ++number;
                xml.writeStartElement(QStringLiteral("track"));
                xml.writeAttribute(QStringLiteral("id"), QStringLiteral("t-%1-%2").arg(position).arg(number));
                xml.writeTextElement(QStringLiteral("position"), QString::number(number));
                xml.writeTextElement(QStringLiteral("number"), QString::number(number));
                xml.writeTextElement(QStringLiteral("title"), track.title);
                if (track.hasRecording) {
                    xml.writeStartElement(QStringLiteral("recording"));
                    xml.writeAttribute(QStringLiteral("id"), QStringLiteral("r-%1-%2").arg(position).arg(number));
                    xml.writeTextElement(QStringLiteral("title"), track.title);
                    writeCredits(xml, track.artists);
                    if (!track.genre.isEmpty()) {
                        xml.writeStartElement(QStringLiteral("tag-list"));
                        xml.writeAttribute(QStringLiteral("count"), QStringLiteral("1"));
                        xml.writeStartElement(QStringLiteral("tag"));
                        xml.writeAttribute(QStringLiteral("count"), QStringLiteral("2"));
                        xml.writeTextElement(QStringLiteral("name"), track.genre);
                        xml.writeEndElement();
                        xml.writeEndElement();
                    }
                    xml.writeEndElement();
                }
                xml.writeEndElement();
            }
        }
        xml.writeEndElement();
        xml.writeEndElement();
    }
    xml.writeEndElement();
    xml.writeEndElement();
}

QByteArray document(const std::function<void(QXmlStreamWriter &)> &body)
{
    QByteArray bytes;
    QXmlStreamWriter xml(&bytes);
    xml.writeStartDocument();
    xml.writeStartElement(QStringLiteral("metadata"));
    xml.writeDefaultNamespace(QStringLiteral("http://musicbrainz.org/ns/mmd-2.0#"));
    body(xml);
    xml.writeEndElement();
    xml.writeEndDocument();
    return bytes;
}

} // namespace

QList<DiscServicesData::Track> DiscServicesData::tracksTitled(const QStringList &titles, const QString &artist)
{
    QList<Track> tracks;
    for (const QString &title : titles) {
        tracks.append(Track{title, {Credit{artist, QString()}}, QString(), true});
    }
    return tracks;
}

DiscServicesData::Release DiscServicesData::release(const QString &id, const QString &title, const QString &date,
                                                    const QList<Medium> &media, const QString &artist)
{
    return Release{id, title, {Credit{artist, QString()}}, date, QString(), QString(), QString(), media};
}

void DiscServicesData::pointAt(const DevServerProcess &server)
{
    qputenv("PELICANE_MUSICBRAINZ_SERVER", QByteArray("127.0.0.1:") + QByteArray::number(server.port()));
    qputenv("PELICANE_COVERART_URL", server.baseUrl().toUtf8());
    qputenv("PELICANE_DISCOGS_URL", server.baseUrl().toUtf8());
    qputenv("PELICANE_ACCURATERIP_URL", server.baseUrl().toUtf8());
}

void DiscServicesData::write(const QString &relativePath, const QByteArray &bytes) const
{
    const QString path = QDir(m_data).filePath(relativePath);
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    if (file.open(QIODevice::WriteOnly)) {
        file.write(bytes);
    }
}

void DiscServicesData::addDisc(const QString &discId, const QList<Release> &releases) const
{
    write(QStringLiteral("musicbrainz/discid/%1.xml").arg(discId), document([&](QXmlStreamWriter &xml) {
              xml.writeStartElement(QStringLiteral("disc"));
              xml.writeAttribute(QStringLiteral("id"), discId);
              xml.writeStartElement(QStringLiteral("release-list"));
              xml.writeAttribute(QStringLiteral("count"), QString::number(releases.size()));
              for (const Release &release : releases) {
                  writeRelease(xml, release, false, discId);
              }
              xml.writeEndElement();
              xml.writeEndElement();
          }));
}

void DiscServicesData::addRelease(const Release &release) const
{
    write(QStringLiteral("musicbrainz/release/%1.xml").arg(release.id),
          document([&](QXmlStreamWriter &xml) { writeRelease(xml, release, true, QString()); }));
}

void DiscServicesData::addCoverArt(const QString &releaseId, const QString &suffix, const QByteArray &bytes) const
{
    write(QStringLiteral("coverart/%1/front.%2").arg(releaseId, suffix), bytes);
}

void DiscServicesData::addDiscogsCover(const QString &artist, const QString &releaseTitle, const QString &imageName,
                                       const QByteArray &bytes) const
{
    QString name = artist + QStringLiteral(" - ") + releaseTitle + QStringLiteral(".json");
    name.replace(QLatin1Char('/'), QLatin1Char('_'));
    const QJsonObject result{{"id", 1},
                             {"title", QString(artist + QStringLiteral(" - ") + releaseTitle)},
                             {"cover_image", QString(QStringLiteral("{base}/discogs/images/") + imageName)}};
    write(QStringLiteral("discogs/") + name,
          QJsonDocument(QJsonObject{{"results", QJsonArray{result}}}).toJson(QJsonDocument::Compact));
    write(QStringLiteral("discogs/images/") + imageName, bytes);
}

void DiscServicesData::delayAnswer(const QString &relativePath, int milliseconds) const
{
    write(relativePath + QStringLiteral(".delay"), QByteArray::number(milliseconds));
}

QByteArray DiscServicesData::imageBytes(const char *format, int size)
{
    QImage image(size, size, QImage::Format_RGB32);
    image.fill(QColor(200, 120, 40));
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, format);
    return bytes;
}
