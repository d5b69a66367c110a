#pragma once

// The rip log: one text file per ripped disc, the record a user checks a rip
// against. It names the drive or image, the read offset and the disc, and
// for each track its sectors, what paranoia went through, its checksums and
// its result.

#include "audio/cdripper.h"
#include "core/error.h"

#include <QDateTime>
#include <QList>
#include <QString>

#include <cstddef>
#include <cstdint>

struct RipLogTrack
{
    int number = 0;
    uint32_t firstSector = 0;
    uint32_t lastSector = 0;
    RipStatistics statistics;
    bool ripped = false;     // read and written without error
    uint32_t checksumV1 = 0; // AccurateRip; only when ripped
    uint32_t checksumV2 = 0;
    uint32_t crc32 = 0;  // of the track's audio as ripped
    QString accurateRip; // the verdict's text
    QString message;     // the failure, or empty
    QString file;        // what it was written to, or empty
};

struct RipLog
{
    QString source; // the drive's device or the image's path
    bool isImage = false;
    int readOffset = 0; // stereo samples
    QString discId;     // MusicBrainz; empty when unknown
    QString accurateRipId;
    QString accurateRipLookup; // what the database said about the disc
    QString artist;
    QString album;
    QDateTime started;
    QList<RipLogTrack> tracks;

    QString text() const;
    // "<album or disc id> <yyyy-MM-dd hh-mm-ss>.log", without characters a
    // file name cannot hold.
    QString fileName() const;
};

// The folder the logs go to: "rips" beside the application log.
QString ripLogFolder();

// Writes the log into ripLogFolder() and notes its path in the application
// log. Nothing on success (path then holds the file), else the error.
OptionalError writeRipLog(const RipLog &log, QString *path);

// CRC-32 (the zip and PNG one) of the bytes.
uint32_t ripCrc32(const uint8_t *data, size_t length);
