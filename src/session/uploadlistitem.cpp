#include "session/uploadlistitem.h"

#include <algorithm>

void UploadListItem::setupView()
{
    *this = UploadListItem();
}

void UploadListItem::setPath(const QString &path)
{
    m_path = path;
    m_pathLabelText = path;
}

void UploadListItem::setUploadProgress(qint64 p, bool isRip)
{
    m_isRip = isRip;
    if (!m_path.isNull()) {
        if (m_audioCDTrackName) {
            // Once prefixed the label never equals the bare name again, so it
            // follows every switch between reading and uploading.
            if (m_pathLabelText != *m_audioCDTrackName) {
                m_pathLabelText = QStringLiteral("%1: %2").arg(
                    isRip ? QStringLiteral("Reading") : QStringLiteral("Uploading"), *m_audioCDTrackName);
            }
        } else if (m_pathLabelText != m_path) {
            m_pathLabelText = m_path;
        }
    }
    m_progress = std::clamp<qint64>(p, 0, 100);
    m_barFraction = double(p) / 100.0;
}

QString UploadListItem::progressLabelText() const
{
    return QStringLiteral("%1%").arg(m_progress);
}
