#pragma once

// AccurateRip verification: the disc's database identifiers from its table
// of contents, the database entry for them, and each track's verdict.
//
// The database holds, per disc, one or more entries (one per pressing and
// checksum version), each a 13-byte header (track count, id1, id2, freedb
// id, little-endian) and then per track a confidence byte, the track's
// checksum and the checksum of its sector 450.

#include <QByteArray>
#include <QString>
#include <QUrl>

#include <cdio/cdio.h>

#include <cstdint>
#include <vector>

namespace AccurateRip {

struct TocTrack
{
    int number = 0;
    int32_t start = 0; // logical sector address
    bool audio = true;
};

// The disc's tracks in order and its lead-out, in logical sectors.
struct TableOfContents
{
    std::vector<TocTrack> tracks;
    int32_t leadOut = 0;
};

bool readTableOfContents(CdIo_t *disc, TableOfContents *toc);

struct DiscIds
{
    int audioTracks = 0;
    uint32_t id1 = 0;
    uint32_t id2 = 0;
    uint32_t freedb = 0;

    bool isValid() const { return audioTracks > 0; }
    // "003-00000708-00001771-09000c03"
    QString text() const;
};

// The ids of a table of contents: id1 and id2 over the audio tracks and the
// disc's lead-out (after the data session on an Enhanced CD), the freedb id
// over every track. Invalid when the disc has no audio track.
DiscIds discIds(const TableOfContents &toc);

// "accuraterip/8/0/7/dBAR-003-00000708-00001771-09000c03.bin"
QString entryPath(const DiscIds &ids);
// The entry's address under the database's root.
QUrl entryURL(const DiscIds &ids, const QUrl &root);

struct EntryTrack
{
    uint8_t confidence = 0;
    uint32_t checksum = 0;
    uint32_t frame450 = 0;
};

struct Entry
{
    std::vector<EntryTrack> tracks;
};

// The entries of a database answer for ids. False, with the reason in
// error, when the answer is not a whole number of entries for this disc.
bool parseEntries(const QByteArray &data, const DiscIds &ids, std::vector<Entry> *entries, QString *error);

// What the database said about a disc.
struct Lookup
{
    enum class Status { Found, NotInDatabase, Failed };
    Status status = Status::Failed;
    std::vector<Entry> entries;
    QString error; // why the lookup failed

    // "2 entries", "not in database", "not checked: <why>".
    QString summary() const;
};

// Fetches and parses the disc's entry from the database at root, waiting at
// most timeoutMs for the whole answer. Blocks the calling thread (which needs
// no event loop of its own); never the GUI thread.
Lookup fetch(const DiscIds &ids, const QUrl &root, int timeoutMs);

struct Verdict
{
    enum class Kind { Accurate, NoMatch, NotInDatabase, NotChecked };
    Kind kind = Kind::NotChecked;
    int confidence = 0;   // the larger of the two below
    int confidenceV1 = 0; // summed over the entries whose checksum is the v1 sum
    int confidenceV2 = 0;
    QString reason; // NotChecked: why

    // "accurately ripped (confidence 7)", "no match", "not in database",
    // "not checked: <reason>".
    QString text() const;
};

// The verdict for the audio track at position index (0 for the disc's
// first audio track) with the given v1 and v2 sums.
Verdict verify(const Lookup &lookup, int index, uint32_t v1, uint32_t v2);

} // namespace AccurateRip
