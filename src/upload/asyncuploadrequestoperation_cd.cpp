#include "upload/asyncuploadrequestoperation.h"

#include "audio/cdripper.h"
#include "audio/trackripjob.h"
#include "cd/discsession.h"
#include "cd/plcvolumetype.h"
#include "upload/cdtrackrips.h"
#include "upload/uploadstream.h"

#include <QFileInfo>
#include <QUrl>

// The CD path of the upload: rip the track, check it against AccurateRip,
// encode it to a FLAC file and send that file through the same body as a
// plain file. start() calls this in place of opening the file, on the
// operation's thread, and sends whatever file it leaves in bodyPath;
// fileSize stays the track's raw audio size, which progress is measured
// against.

namespace {

constexpr int kAccurateRipTimeoutMs = 15000;

} // namespace

bool AsyncUploadRequestOperation::beginReadingCD(QString *bodyPath, qint64 *bodySize)
{
    if (std::shared_ptr<TrackRipJob> ripped = CDTrackRips::takeRipped(m_config.filePath)) {
        logMessage(QStringLiteral("Sending the track as it was ripped before"));
        m_ripJob = std::move(ripped);
        *bodyPath = m_ripJob->flacPath();
        *bodySize = QFileInfo(*bodyPath).size();
        return true;
    }

    logMessage(QStringLiteral("Begin reading CD"));
    m_framesRead = 0;
    m_stopReadingCD = false;

    const QString volume = QFileInfo(m_config.filePath).path();
    OptionalError openError;
    const std::shared_ptr<DiscSession> disc = DiscSession::open(volume, &openError);

    // The disc's own number from the track's file name; the tag record's
    // number is the fallback.
    TrackRipRequest request;
    if (const int number = PLCVolumeType::trackNumberInPath(m_config.filePath)) {
        request.trackNumber = number;
    } else if (m_config.ID3Tags && m_config.ID3Tags->track()) {
        request.trackNumber = *m_config.ID3Tags->track();
    }
    request.disc = disc;
    request.readOffset = TrackRipJob::configuredReadOffset();
    request.tags = m_config.ID3Tags.value_or(PLCID3Tag());
    if (disc) {
        request.accurateRip = TrackRipJob::fetchAccurateRip(disc, kAccurateRipTimeoutMs);
    }
    m_ripJob = std::make_shared<TrackRipJob>(request);

    bool ok = false;
    if (openError) {
        logMessage(QStringLiteral("CD read errored: %1").arg(openError->localizedDescription()));
        reportFailure(Error::withDomain(QString::fromLatin1(kRipErrorDomain), 200, openError->localizedDescription()));
    } else {
        ok = m_ripJob->run(
            [this](TrackRipJob::Stage stage, qint64 done, qint64 total) {
                // Reading is the long part; encoding the track from memory
                // takes a moment.
                if (stage != TrackRipJob::Stage::Reading || total <= 0) {
                    return;
                }
                m_framesRead = qint32(done);
                m_fileSize = total * kRipSectorBytes;
                const double fraction = double(done) / double(total);
                emitOnMain([this, fraction] { Q_EMIT ripProgressChanged(fraction); });
            },
            [this] { return m_stopReadingCD.load() || isCancelled(); });
        if (!ok) {
            const Error error = *m_ripJob->error();
            logMessage(QStringLiteral("CD read errored: %1").arg(error.localizedDescription()));
            reportFailure(isCancelled() ? Error::cancelledError() : error);
        }
    }

    RipLogTrack entry = m_ripJob->logEntry();
    if (ok) {
        logMessage(QStringLiteral("CD read successful: %1").arg(entry.accurateRip));
        *bodyPath = m_ripJob->flacPath();
        *bodySize = QFileInfo(*bodyPath).size();
        entry.file = UploadStream::uploadFileName(m_config);
    }
    // A rip stopped by the user is no outcome of the track's.
    if (ok || !isCancelled()) {
        CDTrackRips::record(m_config.filePath, entry);
    }
    if (!ok) {
        Operation::cancel();
    }
    logMessage(QStringLiteral("CD read task ended"));
    return ok;
}
