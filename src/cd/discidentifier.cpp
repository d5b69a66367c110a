#include "cd/discidentifier.h"

#include <discid/discid.h>

namespace {

// The lead-out of an audio session that a data session follows: the gap
// between the sessions is 11400 sectors (two and a half minutes) long.
constexpr int kSessionGapSectors = 11400;

bool isAudioTrack(CdIo_t *handle, track_t track)
{
    return cdio_get_track_format(handle, track) == TRACK_FORMAT_AUDIO;
}

DiscIdentifier::Result identifierOf(DiscId *disc)
{
    return {QString::fromLatin1(discid_get_id(disc)), QString()};
}

} // namespace

namespace DiscIdentifier {

bool readTableOfContents(CdIo_t *handle, TableOfContents *toc)
{
    if (!handle) {
        return false;
    }
    const track_t first = cdio_get_first_track_num(handle);
    const track_t last = cdio_get_last_track_num(handle);
    if (first == CDIO_INVALID_TRACK || last == CDIO_INVALID_TRACK || first > last || last > 99) {
        return false;
    }
    track_t firstAudio = first;
    while (firstAudio <= last && !isAudioTrack(handle, firstAudio)) {
        ++firstAudio;
    }
    track_t lastAudio = last;
    while (lastAudio >= firstAudio && !isAudioTrack(handle, lastAudio)) {
        --lastAudio;
    }
    if (firstAudio > lastAudio) {
        return false;
    }
    *toc = TableOfContents();
    toc->first = firstAudio;
    toc->last = lastAudio;
    for (track_t track = firstAudio; track <= lastAudio; ++track) {
        toc->offsets[track] = int(cdio_get_track_lba(handle, track));
    }
    toc->offsets[0] = lastAudio < last ? int(cdio_get_track_lba(handle, track_t(lastAudio + 1))) - kSessionGapSectors
                                       : int(cdio_get_track_lba(handle, CDIO_CDROM_LEADOUT_TRACK));
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
