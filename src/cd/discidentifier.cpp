#include "cd/discidentifier.h"

#include "cd/disclayout.h"

#include <discid/discid.h>

namespace {

DiscIdentifier::Result identifierOf(DiscId *disc)
{
    return {QString::fromLatin1(discid_get_id(disc)), QString()};
}

} // namespace

namespace DiscIdentifier {

bool readTableOfContents(CdIo_t *handle, TableOfContents *toc)
{
    track_t first = 0;
    track_t last = 0;
    lsn_t leadOut = 0;
    if (!DiscLayout::firstSession(handle, &first, &last, &leadOut)) {
        return false;
    }
    bool hasAudio = false;
    for (track_t track = first; track <= last; ++track) {
        hasAudio = hasAudio || cdio_get_track_format(handle, track) == TRACK_FORMAT_AUDIO;
    }
    if (!hasAudio) {
        return false;
    }
    *toc = TableOfContents();
    toc->first = first;
    toc->last = last;
    for (track_t track = first; track <= last; ++track) {
        toc->offsets[track] = int(cdio_get_track_lba(handle, track));
    }
    toc->offsets[0] = int(cdio_lsn_to_lba(leadOut));
    return true;
}

Result fromTableOfContents(const TableOfContents &toc)
{
    DiscId *disc = discid_new();
    std::array<int, 100> offsets = toc.offsets;
    Result result;
    if (discid_put(disc, toc.first, toc.last, offsets.data())) {
        result = identifierOf(disc);
    } else {
        result.error = QString::fromUtf8(discid_get_error_msg(disc));
    }
    discid_free(disc);
    return result;
}

Result read(CdIo_t *handle, const QString &deviceName, bool isImage)
{
    if (isImage) {
        TableOfContents toc;
        if (!readTableOfContents(handle, &toc)) {
            return {QString(), QStringLiteral("cannot read table of contents")};
        }
        return fromTableOfContents(toc);
    }
    DiscId *disc = discid_new();
    const QByteArray device = deviceName.toLocal8Bit();
    Result result;
    if (discid_read_sparse(disc, device.constData(), 0)) {
        result = identifierOf(disc);
    } else {
        result.error = QString::fromUtf8(discid_get_error_msg(disc));
    }
    discid_free(disc);
    return result;
}

} // namespace DiscIdentifier
