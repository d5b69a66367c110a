#pragma once

// What the ripping tests share: a libcdio handle on a disc image, and the
// AccurateRip sums worked out plainly from the samples.

#include "support/discimage.h"

#include <QByteArray>
#include <QtEndian>

#include <cdio/cdio.h>

#include <memory>

struct DiscCloser
{
    void operator()(CdIo_t *disc) const { cdio_destroy(disc); }
};
using Disc = std::unique_ptr<CdIo_t, DiscCloser>;

inline Disc openDisc(const DiscImage &image)
{
    return Disc(cdio_open(image.cuePath().toLocal8Bit().constData(), DRIVER_UNKNOWN));
}

// The AccurateRip sums as the published algorithm states them: every sample
// as a 32-bit little-endian word times its 1-based position, in 64 bits; v1
// keeps the low halves, v2 folds each product's high half back in. The
// first track skips its first five sectors but one sample, the last track
// its last five sectors.
struct AccurateRipSums
{
    quint32 v1 = 0;
    quint32 v2 = 0;
};

inline AccurateRipSums accurateRipSums(const QByteArray &audio, bool firstTrack, bool lastTrack)
{
    const qint64 count = audio.size() / 4;
    quint64 sum1 = 0;
    quint64 sum2 = 0;
    for (qint64 position = 1; position <= count; ++position) {
        if ((firstTrack && position < 5 * 588) || (lastTrack && position > count - 5 * 588)) {
            continue;
        }
        const quint64 word = qFromLittleEndian<quint32>(audio.constData() + (position - 1) * 4);
        const quint64 product = word * quint64(position);
        sum1 += product & 0xffffffffu;
        sum2 += (product & 0xffffffffu) + (product >> 32);
    }
    return {quint32(sum1), quint32(sum2)};
}
