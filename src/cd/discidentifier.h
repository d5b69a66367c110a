#pragma once

#include <QString>

#include <cdio/cdio.h>

#include <array>

// The MusicBrainz disc identifier of the open disc.
//
// A drive is read by libdiscid itself (a sparse read: the table of contents
// only). libdiscid cannot read a disc image, so for an image the table of
// contents is read through the open libcdio handle and handed to libdiscid,
// which then computes the identifier a drive holding the same disc would give.
namespace DiscIdentifier {

struct Result
{
    QString id;    // empty on failure
    QString error; // libdiscid's error text on failure
};

// The table of contents as libdiscid takes it: offsets[0] is the lead-out,
// offsets[n] the start of track n, in LBA (150 sectors after LSN 0).
struct TableOfContents
{
    int first = 0;
    int last = 0;
    std::array<int, 100> offsets{};
};

// The table of contents libdiscid reads from a drive holding the disc behind
// handle: the first session's tracks, a data track among them included, and
// its lead-out, so the data session of an Enhanced CD is left out. False when
// that session has no audio track.
bool readTableOfContents(CdIo_t *handle, TableOfContents *toc);

// The identifier of a table of contents.
Result fromTableOfContents(const TableOfContents &toc);

// The identifier of the open disc: a drive by its device name, an image
// through its handle.
Result read(CdIo_t *handle, const QString &deviceName, bool isImage);

} // namespace DiscIdentifier
