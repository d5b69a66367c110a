// Taking files off the List page's list.
#include "session/sessionmodel.h"

#include "core/formatting.h"

void SessionModel::removeFoundFiles(const QStringList &paths)
{
    for (const QString &path : paths) {
        removeFoundFile(path);
    }
    // The count above the list follows what is left on it.
    const qsizetype count = m_files.found().size();
    setFileCountLabelText(
        QStringLiteral("%1 files were found. %2")
            .arg(groupedNumber(count),
                 count > 0 ? QStringLiteral("Click a filename to remove it from the list.") : QString()));
    setBeginUploadEnabled(count > 0 && !m_fileSearchInProgress);
}
