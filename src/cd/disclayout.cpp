#include "cd/disclayout.h"

namespace DiscLayout {

bool firstSession(CdIo_t *disc, track_t *first, track_t *last, lsn_t *leadOut)
{
    if (!disc) {
        return false;
    }
    const track_t firstTrack = cdio_get_first_track_num(disc);
    const track_t lastTrack = cdio_get_last_track_num(disc);
    const lsn_t discLeadOut = cdio_get_track_lsn(disc, CDIO_CDROM_LEADOUT_TRACK);
    if (firstTrack == CDIO_INVALID_TRACK || lastTrack == CDIO_INVALID_TRACK || firstTrack > lastTrack ||
        lastTrack > 99 || discLeadOut == CDIO_INVALID_LSN) {
        return false;
    }
    *first = firstTrack;
    *last = lastTrack;
    *leadOut = discLeadOut;
    track_t lastAudio = lastTrack;
    while (lastAudio >= firstTrack && cdio_get_track_format(disc, lastAudio) != TRACK_FORMAT_AUDIO) {
        --lastAudio;
    }
    if (lastAudio < firstTrack || lastAudio == lastTrack) {
        return true;
    }
    // A drive tells where its last session starts; an image cannot, so
    // there the data must leave room for the gap.
    const lsn_t lastAudioStart = cdio_get_track_lsn(disc, lastAudio);
    lsn_t lastSession = 0;
    const bool oneSession =
        cdio_get_last_session(disc, &lastSession) == DRIVER_OP_SUCCESS && lastSession <= lastAudioStart;
    const lsn_t audioEnd = cdio_get_track_lsn(disc, track_t(lastAudio + 1)) - kSessionGapSectors;
    if (!oneSession && audioEnd > lastAudioStart) {
        *last = lastAudio;
        *leadOut = audioEnd;
    }
    return true;
}

bool trackSectors(CdIo_t *disc, track_t number, lsn_t *first, lsn_t *last)
{
    track_t sessionFirst = 0;
    track_t sessionLast = 0;
    lsn_t sessionLeadOut = 0;
    if (!firstSession(disc, &sessionFirst, &sessionLast, &sessionLeadOut) || number < sessionFirst ||
        number > cdio_get_last_track_num(disc)) {
        return false;
    }
    *first = cdio_get_track_lsn(disc, number);
    *last = number == sessionLast ? sessionLeadOut - 1 : cdio_get_track_last_lsn(disc, number);
    return *first != CDIO_INVALID_LSN && *last != CDIO_INVALID_LSN;
}

} // namespace DiscLayout
