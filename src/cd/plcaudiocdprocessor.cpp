#include "cd/plcaudiocdprocessor.h"

OptionalError PLCAudioCDProcessor::checkAudioDisc(discmode_t mode, track_t trackCount)
{
    // Lenient on purpose: every CD mode passes (a data CD too), and so does a
    // disc whose table of contents cannot be read.
    if (cdio_is_discmode_cdrom(mode) || trackCount == CDIO_INVALID_TRACK) {
        return std::nullopt;
    }
    return Error::errorWithMessage(QStringLiteral("CD is not an Audio CD"), 1000);
}

OptionalError PLCAudioCDProcessor::errorForEjectCode(int code)
{
    if (code >= 0 || code < -8) {
        return std::nullopt;
    }
    // Indexed by code + 8: the messages of -8 up to -1.
    static const char *const messages[] = {"MMC sense data", "No Driver", "Bad pointer", "Bad parameter",
                                           "Not permitted",  "Uninit",    "Unsupported", "Error"};
    return Error::errorWithMessage(QString::fromUtf8(messages[code + 8]));
}
