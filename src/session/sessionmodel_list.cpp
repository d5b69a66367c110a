// Taking files off the List page's list.
#include "session/sessionmodel.h"

#include "core/formatting.h"

void SessionModel::removeFoundFiles(const QStringList &paths)
{
    // One pass over the list, however many go (a whole selection may).
    const QList<qsizetype> rows = m_files.remove(paths, FileList::Found);
    // Last first, so each row is still the one the file had just before it left.
    for (auto row = rows.crbegin(); row != rows.crend(); ++row) {
        emit foundFileRemoved(*row);
    }
    // The count above the list follows what is left on it.
    const qsizetype count = m_files.found().size();
    setFileCountLabelText(
        QStringLiteral("%1 files were found. %2")
            .arg(groupedNumber(count),
                 count > 0 ? QStringLiteral("Click a filename to remove it from the list.") : QString()));
    setBeginUploadEnabled(count > 0 && !m_fileSearchInProgress);
}
