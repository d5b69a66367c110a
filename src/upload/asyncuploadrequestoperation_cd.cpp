#include "upload/asyncuploadrequestoperation.h"

#include "audio/cdripper.h"
#include "audio/flacencoder.h"
#include "cd/plcaudiocdprocessor.h"
#include "cd/plcvolumetype.h"
#include "platform/dispatch.h"
#include "upload/cdtrackrips.h"
#include "upload/uploadstream.h"

#include <QFileInfo>
#include <QtEndian>

#include <cstdio>

// The CD path of the upload: rip the track, encode it to a FLAC file and send
// that file through the same body as a plain file. start() calls this in
// place of opening the file, on the operation's thread, and sends whatever
// file it leaves in bodyPath; fileSize stays the track's raw audio size,
// which progress is measured against.

namespace {

// Frees the engine's context on every way out of the rip.
struct RipContextHolder
{
    RipContext *context = nullptr;
    ~RipContextHolder() { ripFree(&context); }
};

} // namespace

QByteArray AsyncUploadRequestOperation::WAVHeaderForSampleCount(quint32 sampleValueCount)
{
    const quint32 dataBytes = sampleValueCount * 2;
    QByteArray header;
    header.reserve(qsizetype(dataBytes) + 44);
    const auto put32 = [&header](quint32 value) {
        char bytes[4];
        qToLittleEndian(value, bytes);
        header.append(bytes, 4);
    };
    const auto put16 = [&header](quint16 value) {
        char bytes[2];
        qToLittleEndian(value, bytes);
        header.append(bytes, 2);
    };
    header.append("RIFF", 4);
    put32(dataBytes + 36);
    header.append("WAVE", 4);
    header.append("fmt ", 4);
    put32(16);
    put16(1);
    put16(2);
    put32(44100);
    put32(176400);
    put16(4);
    put16(16);
    header.append("data", 4);
    put32(dataBytes);
    return header;
}

bool AsyncUploadRequestOperation::beginReadingCD(QString *bodyPath, qint64 *bodySize)
{
    logMessage(QStringLiteral("Begin reading CD"));
    {
        QMutexLocker locker(&m_cdDataLock);
        m_frameCount = 1;
        m_framesRead = 0;
        m_stopReadingCD = false;
        m_didFinishReadingCD = false;
    }
    logMessage(QStringLiteral("Sync CD read task started"));

    // The disc handle is normally the one the metadata compilation left open
    // for this disc; a run resumed later, or another disc in between, opens
    // it again.
    const QString volume = QFileInfo(m_config.filePath).path();
    QString ripMessage;
    OptionalError openError;
    if (!PLCAudioCDProcessor::cdio() ||
        PLCVolumeType::BSDNameOfDiskAtURL(QUrl::fromLocalFile(volume)) != PLCAudioCDProcessor::deviceName()) {
        openError = PLCAudioCDProcessor::openDeviceForVolume(volume);
    }

    RipSettings settings;
    settings.disableParanoia = 0;
    settings.readRetries = 5;
    settings.offsetSectors = 0;
    settings.offsetSamples = 0;
    RipContextHolder engine;
    const bool opened = !openError && ripOpen(&engine.context, &settings, PLCAudioCDProcessor::cdio()) == 0;

    // The disc's own number from the track's file name; the tag record's
    // number is the fallback (they agree on discs that start at track 1).
    int trackNumber = 0;
    if (const auto track = PLCVolumeType::trackFileAtPath(m_config.filePath)) {
        trackNumber = track->trackNumber;
    } else if (m_config.ID3Tags && m_config.ID3Tags->track()) {
        trackNumber = *m_config.ID3Tags->track();
    }
    RipTrack *track = opened && trackNumber > 0 ? ripTrackRecord(engine.context, uint32_t(trackNumber)) : nullptr;
    if (opened && !track) {
        ripMessage = QStringLiteral("Track %1 is not on the disc.").arg(trackNumber);
    }
    if (openError) {
        ripMessage = openError->localizedDescription();
    }

    m_encoder = std::make_unique<FLACEncoder>();
    bool encoderConfigured = false;
    QString flacPath;
    int result = 1;
    if (track) {
        const PLCID3Tag tags = m_config.ID3Tags.value_or(PLCID3Tag());
        const int32_t trackSectors = int32_t(track->lastSector - track->firstSector + 1);
        result = ripTrack(
            engine.context, track,
            [&](int32_t current, int32_t total, const int16_t *samples, bool *stop) {
                if (m_stopReadingCD.load() || isCancelled()) {
                    std::fputs(" - stop\n", stdout);
                    *stop = true;
                    return;
                }
                m_framesRead = current;
                m_frameCount = total;
                m_fileSize = qint64(total) * kRipSectorBytes;
                if (!samples) {
                    return;
                }
                if (!encoderConfigured && total >= 2) {
                    logMessage(QStringLiteral("Configuring FLAC encoder"));
                    // The track's real length, so the stream says how long it is.
                    const OptionalError error = m_encoder->configureWithSampleCount(
                        uint64_t(trackSectors) * (kRipSectorValues / 2), tags, nullptr,
                        [&flacPath](const QUrl &fileURL) { flacPath = fileURL.toLocalFile(); });
                    if (error) {
                        logMessage(QStringLiteral("FLAC configuration error: %1").arg(error->localizedDescription()));
                    }
                    encoderConfigured = true;
                }
                if (encoderConfigured) {
                    m_encoder->processSamples(samples, kRipSectorValues);
                }
                if (auto block = ripProgressBlock) {
                    const double fraction = double(m_framesRead.load()) / double(m_frameCount.load());
                    dispatchAsyncMain([block, fraction, self = weak_from_this().lock()] { block(fraction); });
                }
            },
            [&](const char *message) {
                if (message) {
                    ripMessage = QString::fromLocal8Bit(message).trimmed();
                }
            });
        if (result != 0 && ripMessage.isEmpty() && !track->failure.empty()) {
            ripMessage = QString::fromStdString(track->failure);
        }
    }

    // Finishing writes the file's last headers; its completion names the file.
    const OptionalError encodeError = encoderConfigured ? m_encoder->finish() : OptionalError();
    m_didFinishReadingCD = true;

    bool ok = false;
    QString failure;
    if (result != 0) {
        logMessage(QStringLiteral("CD read errored: %1").arg(ripMessage));
        if (isCancelled()) {
            reportFailure(Error::cancelledError());
        } else {
            reportFailure(Error::errorWithMessage(
                ripMessage.isEmpty() ? QStringLiteral("The track could not be read from the CD.") : ripMessage, 200));
        }
        Operation::cancel();
    } else {
        logMessage(QStringLiteral("CD read successful"));
        if (flacPath.isEmpty()) {
            // A track too short to encode, or an encoder that failed: there is
            // no file worth sending.
            const QString message = encodeError ? encodeError->localizedDescription().trimmed()
                                                : QStringLiteral("The track is too short to be encoded.");
            logMessage(QStringLiteral("FLAC encoding errored: %1").arg(message));
            failure = message;
            reportFailure(Error::errorWithMessage(message, 200));
            Operation::cancel();
        } else {
            *bodyPath = flacPath;
            *bodySize = QFileInfo(flacPath).size();
            ok = true;
        }
    }

    if (track && !isCancelled()) {
        // For the rip log of the upload.
        RipLogTrack entry;
        entry.number = int(track->number);
        entry.firstSector = track->firstSector;
        entry.lastSector = track->lastSector;
        entry.statistics = track->statistics;
        entry.ripped = result == 0;
        if (entry.ripped) {
            entry.checksumV1 = track->checksumV1;
            entry.checksumV2 = track->checksumV2;
            if (track->audio) {
                entry.crc32 =
                    ripCrc32(track->audio, size_t(track->lastSector - track->firstSector + 1) * kRipSectorBytes);
            }
            entry.file = ok ? UploadStream::uploadFileName(m_config) : QString();
        }
        entry.message = result != 0 ? ripMessage : failure;
        entry.accurateRip = QStringLiteral("not checked");
        CDTrackRips::record(m_config.filePath, entry);
    }
    ripReleaseTrack(track);
    logMessage(QStringLiteral("CD read task ended"));
    return ok;
}
