#include "platform/mimetypes.h"

#include <QHash>
#include <QMimeDatabase>

QString mimeTypeForExtension(const QString &extension)
{
    // The audio types first and fixed, so uploads don't depend on the
    // desktop's shared-mime-info version.
    static const QHash<QString, QString> table = {
        {QStringLiteral("mp3"), QStringLiteral("audio/mpeg")},
        {QStringLiteral("m4a"), QStringLiteral("audio/mp4")},
        {QStringLiteral("m4p"), QStringLiteral("audio/mp4")},
        {QStringLiteral("aac"), QStringLiteral("audio/aac")},
        {QStringLiteral("flac"), QStringLiteral("audio/flac")},
        {QStringLiteral("ogg"), QStringLiteral("audio/ogg")},
        {QStringLiteral("oga"), QStringLiteral("audio/ogg")},
        {QStringLiteral("opus"), QStringLiteral("audio/ogg")},
        {QStringLiteral("wav"), QStringLiteral("audio/wav")},
        {QStringLiteral("aif"), QStringLiteral("audio/aiff")},
        {QStringLiteral("aiff"), QStringLiteral("audio/aiff")},
        {QStringLiteral("wma"), QStringLiteral("audio/x-ms-wma")},
    };
    const QString ext = extension.toLower();
    if (const auto it = table.constFind(ext); it != table.constEnd()) {
        return *it;
    }
    if (!ext.isEmpty()) {
        const QMimeType type =
            QMimeDatabase().mimeTypeForFile(QStringLiteral("x.") + ext, QMimeDatabase::MatchExtension);
        if (type.isValid() && !type.isDefault()) {
            return type.name();
        }
    }
    return QStringLiteral("application/octet-stream");
}
