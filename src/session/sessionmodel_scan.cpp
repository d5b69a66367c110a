// Folder choice, scan and disc watch of the session.
// First bodies: the folder scan work completes this file.
#include "session/sessionmodel.h"

#include "app/logger.h"
#include "platform/paths.h"

#include <QFileInfo>

void SessionModel::setupSearchContainerView()
{
    // retryFiles stays: a new run tries those first.
    m_foundFiles.clear();
    m_readyFiles.clear();
    m_uploadingFiles.clear();
    m_skippedFiles.clear();
    m_erroredFiles.clear();
    m_completedFiles.clear();
    if (m_searchFolderPath.isEmpty() || !QFileInfo::exists(m_searchFolderPath.first())) {
        m_searchFolderPath.append(Paths::musicDirectory());
    }
    updateSearchFolderPath();
    discoverAudioCDs();
}

void SessionModel::setupListContainerView() {}

void SessionModel::discoverAudioCDs()
{
    if (m_mainPageType != MainPageTypeSearch) {
        return;
    }
    // No volume source yet: no audio disc is ever listed.
    const QStringList disks;
    if (disks.size() != m_foundDisks.size()) {
        Logger::log(QStringLiteral("discoverAudioCDs: %1 CDs found").arg(disks.size()));
        m_foundDisks = disks;
        emit foundDisksChanged(m_foundDisks);
    }
}
