#include "upload/asyncuploadrequestoperation.h"

// The CD path of the upload: rip the track, encode it to a FLAC file and send
// that file through the same body as a plain file. start() calls this in
// place of opening the file, on the operation's thread, and sends whatever
// file it leaves in bodyPath; fileSize stays the track's raw audio size,
// which progress is measured against.

bool AsyncUploadRequestOperation::beginReadingCD(QString *bodyPath, qint64 *bodySize)
{
    Q_UNUSED(bodyPath);
    Q_UNUSED(bodySize);
    logMessage(QStringLiteral("Begin reading CD"));
    // Ripping is not wired in yet: a track fails like an unreadable one.
    const QString message = QStringLiteral("Reading audio CD tracks is not available yet.");
    logMessage(QStringLiteral("CD read errored: %1").arg(message));
    reportFailure(Error::errorWithMessage(message, 200));
    Operation::cancel();
    logMessage(QStringLiteral("CD read task ended"));
    return false;
}
