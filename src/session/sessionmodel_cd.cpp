// The audio-CD flow of the session.
// First step only: the CD sequence (chooser, metadata, album prompt) completes this file.
#include "session/sessionmodel.h"

#include "core/logger.h"

void SessionModel::OnBeginUploadCD()
{
    Logger::log(QStringLiteral("Begin Uploading CD"));
}
