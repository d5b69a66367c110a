#pragma once

#include "cd/artworklookup.h"
#include "cd/plcid3tag.h"
#include "core/error.h"

#include <QHash>
#include <QList>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>
#include <optional>

// What the lookups of one disc found (its reading, its releases, each
// release's tracks and cover), shared by the compilations of that disc so a
// release picked later costs only what it lacks. Safe from any thread.
struct DiscLookupCache;
std::shared_ptr<DiscLookupCache> makeDiscLookupCache();

// The metadata of a disc: one tag record per track file, keyed by the path
// exactly as given.
using ID3TagDictionary = QHash<QString, PLCID3Tag>;

// A release whose media hold the disc. A disc identifier usually matches
// several pressings; the first is used unless another is chosen.
struct ReleaseCandidate
{
    QString id;
    QString title;
    QString artistCredit;
    QString date;
    QString country;
    QString label;
    QString barcode;
    int mediumCount = 0;

    bool operator==(const ReleaseCandidate &other) const = default;
};

// The progress stages of a compilation: reading the CD, getting the disc
// information, getting the artwork.
enum DiscMetadataStage { ReadingCDStage = 0, DiscInformationStage = 1, ArtworkStage = 2 };

struct DiscMetadataOptions
{
    // Compile for this release instead of the first of the disc's list.
    QString releaseId;
    // The longest wait for any one answer of MusicBrainz, the Cover Art
    // Archive or Discogs.
    int timeoutMs = 30000;
    // Where the MusicBrainz failure report goes (the log unless set).
    std::function<void(const QString &line)> standardOutput;
    // Earlier findings of the same disc; none: everything is asked afresh.
    std::shared_ptr<DiscLookupCache> cache;
};

struct DiscMetadata
{
    // Absent when the disc could not be read (the error then has code 1000).
    std::optional<ID3TagDictionary> tags;
    // Set even beside tags: a MusicBrainz failure (code 0) or "Missing
    // Metadata" (1001).
    OptionalError error;
    // MusicBrainz could not be asked (not: did not know the disc).
    OptionalError lookupError;
    QStringList trackPaths;
    QString discId;
    // The release the tags came from, or the one chosen; empty when none.
    QString releaseId;
    QList<ReleaseCandidate> releases;
    ArtworkLookup::Source artworkSource = ArtworkLookup::Source::None;
};
