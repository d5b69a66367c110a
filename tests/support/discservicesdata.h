#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

class DevServerProcess;

// Writes what the local service's stand-ins for MusicBrainz, the Cover Art
// Archive and Discogs answer: ws/2 XML as the real service sends it, images
// and Discogs search results, in the server's data folder.
class DiscServicesData
{
public:
    struct Credit
    {
        QString name;
        QString joinPhrase;
    };
    struct Track
    {
        QString title;
        QList<Credit> artists; // none: no artist credit at all
        QString genre;         // the recording's first tag; empty: none
        bool hasRecording = true;
    };
    struct Medium
    {
        QStringList discIds; // the medium's discs, in order
        QList<Track> tracks;
    };
    struct Release
    {
        QString id;
        QString title;
        QList<Credit> artists; // none: no artist credit at all
        QString date;
        QString country;
        QString label;
        QString barcode;
        QList<Medium> media;
    };

    // Tracks of these titles, each credited to `artist`.
    static QList<Track> tracksTitled(const QStringList &titles, const QString &artist = QStringLiteral("Band"));
    // A release credited to `artist`, without country, label or barcode.
    static Release release(const QString &id, const QString &title, const QString &date, const QList<Medium> &media,
                           const QString &artist = QStringLiteral("Band"));

    explicit DiscServicesData(const QString &dataDirectory) : m_data(dataDirectory) {}

    // Points this process's MusicBrainz, Cover Art Archive and Discogs
    // addresses at the server.
    static void pointAt(const DevServerProcess &server);

    // The disc lookup: the releases (summaries) whose media hold the disc.
    void addDisc(const QString &discId, const QList<Release> &releases) const;
    // The full release lookup.
    void addRelease(const Release &release) const;
    // The Cover Art Archive's front image of a release, as front.<suffix>.
    void addCoverArt(const QString &releaseId, const QString &suffix, const QByteArray &bytes) const;
    // A Discogs search answer whose first result's cover is the image.
    void addDiscogsCover(const QString &artist, const QString &releaseTitle, const QString &imageName,
                         const QByteArray &bytes) const;
    // Holds back the answer of a file under the data folder.
    void delayAnswer(const QString &relativePath, int milliseconds) const;

    static QByteArray imageBytes(const char *format, int size = 16);

private:
    void write(const QString &relativePath, const QByteArray &bytes) const;
    QString m_data;
};
