#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

// Writes small cue/bin disc images at test time: 16-bit little-endian stereo
// audio, 2352 bytes a sector, with optional CD-TEXT and data tracks.
//
// The audio is deterministic and band-limited enough for a drive layer to
// recognise its byte order: two tones a channel (different for every track)
// plus moderate noise, never silent.
class DiscImage
{
public:
    struct Track
    {
        int sectors = 750;
        bool data = false; // a MODE1/2352 data track instead of audio
        // Sectors before the track that belong to no track, as between an
        // Enhanced CD's audio session and its data session (11400). A cue
        // has one session, so they fall in the previous track's range; they
        // hold a loud filler that is not that track's audio.
        int gapBefore = 0;
        QString title; // CD-TEXT; empty leaves it out
        QString performer;
    };

    struct Options
    {
        QList<Track> tracks;
        int firstTrackNumber = 1;
        QString title; // CD-TEXT of the disc; empty leaves it out
        QString performer;
        QString genre;
        quint32 seed = 1;
        bool bigEndian = false; // samples stored big-endian, the cue saying MOTOROLA
    };

    // Audio tracks of the given lengths in sectors, without CD-TEXT.
    static Options audioOptions(const QList<int> &sectors);

    // Writes <directory>/<baseName>.cue and .bin; check isValid().
    static DiscImage create(const QString &directory, const QString &baseName, const Options &options);

    bool isValid() const { return m_valid; }
    QString cuePath() const { return m_cuePath; }
    QString binPath() const { return m_binPath; }
    const Options &options() const { return m_options; }

    int trackCount() const { return static_cast<int>(m_options.tracks.size()); }
    int firstTrackNumber() const { return m_options.firstTrackNumber; }
    int lastTrackNumber() const { return m_options.firstTrackNumber + trackCount() - 1; }
    // Index 0 is the first track on the disc, whatever its number.
    int trackFirstSector(int index) const;
    int trackSectors(int index) const { return m_options.tracks.at(index).sectors; }
    int totalSectors() const;
    // The track's bytes as they stand in the image.
    QByteArray trackBytes(int index) const;
    // The track's samples as a rip delivers them: little-endian.
    QByteArray trackAudio(int index) const;
    // Writes <baseName>.toc beside the image, naming the bin relatively (a
    // toc's raw audio is big-endian, so the image should be too). Its path,
    // or empty on failure.
    QString writeToc() const;
    // The MusicBrainz disc id libdiscid gives the image's first session: the
    // tracks before the first gap, ending where the gap starts.
    QString musicBrainzDiscId() const;

private:
    Options m_options;
    QString m_cuePath;
    QString m_binPath;
    bool m_valid = false;
};
