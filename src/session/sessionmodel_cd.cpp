// The audio-CD flow of the session.
#include "session/sessionmodel.h"

#include "core/logger.h"

void SessionModel::OnBeginUploadCD()
{
    Logger::log(QStringLiteral("Begin Uploading CD"));
}
