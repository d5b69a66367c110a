#include "upload/uploadstream.h"

#include "core/formatting.h"
#include "platform/mimetypes.h"
#include "protocol/urlencoding.h"

#include <QFileInfo>
#include <QMetaMethod>
#include <QUrl>
#include <QtDebug>

#include <cstring>

namespace {

QByteArray formField(const QString &name, const QString &value)
{
    return (QStringLiteral("--") + UploadStream::boundary() +
            QStringLiteral("\r\nContent-Disposition: form-data; name=\"") + name + QStringLiteral("\"\r\n\r\n") +
            nullable(value) + QStringLiteral("\r\n"))
        .toUtf8();
}

} // namespace

// ---------------------------------------------------------------------------
// Envelopes

QString UploadStream::boundary()
{
    return QStringLiteral("---------------------------14737809831466499882746641449");
}

QString UploadStream::mimeTypeForPath(const QString &path)
{
    return mimeTypeForExtension(QFileInfo(path).suffix());
}

QString UploadStream::uploadFileName(const AsyncUploadRequestConfiguration &configuration)
{
    if (configuration.ID3Tags) {
        return describeOptional(configuration.ID3Tags->title()) + QStringLiteral(".flac");
    }
    return nullable(QFileInfo(configuration.filePath).fileName());
}

QByteArray UploadStream::beginMultipartDataUpload(const AsyncUploadRequestConfiguration &configuration)
{
    QByteArray data;
    data += formField(QStringLiteral("client"), configuration.clientName);
    data += formField(QStringLiteral("device_name"), configuration.deviceName);
    data += formField(QStringLiteral("user_agent"), configuration.userAgent);
    data += formField(QStringLiteral("version"), configuration.versionString);
    data += formField(QStringLiteral("file_path"), configuration.sanitizedFilePath);
    if (!configuration.createPlaylistName.isNull()) {
        data += formField(QStringLiteral("playlist-name"), configuration.createPlaylistName);
        data += formField(QStringLiteral("playlist-order"), configuration.playlistOrder);
    }
    if (!configuration.createTagName.isNull()) {
        data += formField(QStringLiteral("tag-name"), configuration.createTagName);
    }
    if (configuration.reuploadDuplicates) {
        data += formField(QStringLiteral("reupload"), QStringLiteral("1"));
    }
    data += (QStringLiteral("--") + boundary() +
             QStringLiteral("\r\nContent-Disposition: form-data; name=\"file\"; filename=\"") +
             URLEncodedString(uploadFileName(configuration)) + QStringLiteral("\"\r\n"))
                .toUtf8();
    // The type follows the configured path even for a CD track sent as FLAC:
    // the service expects it that way.
    data += (QStringLiteral("Content-Type: ") + mimeTypeForPath(configuration.filePath) + QStringLiteral("\r\n\r\n"))
                .toUtf8();
    return data;
}

QByteArray UploadStream::endMultipartDataUpload(const AsyncUploadRequestConfiguration &configuration)
{
    // The credentials come after the file: the service reads them from the
    // tail of the body.
    QByteArray data = QByteArrayLiteral("\r\n");
    data += formField(QStringLiteral("user_id"), configuration.userId);
    data += formField(QStringLiteral("token"), configuration.userToken);
    data += (QStringLiteral("--") + boundary() + QStringLiteral("--\r\n")).toUtf8();
    return data;
}

// ---------------------------------------------------------------------------
// The stream

UploadStream::UploadStream(const AsyncUploadRequestConfiguration &configuration, QObject *parent)
    : QObject(parent), m_configuration(configuration)
{
    const QUrl url(configuration.filePath);
    QString localPath;
    if (url.isLocalFile()) {
        localPath = url.toLocalFile();
    } else if (url.isValid() && url.scheme().isEmpty() && url.host().isEmpty() && !url.path().isEmpty()) {
        localPath = url.path(QUrl::FullyDecoded);
    }
    m_fileUsable = !localPath.isEmpty();
    m_fileInputStream.setFileName(localPath);
}

UploadStream::~UploadStream() = default;

void UploadStream::open()
{
    m_uploadStreamStatus = StreamStatus::Opening;
    m_startData = beginMultipartDataUpload(m_configuration);
    m_endData = endMultipartDataUpload(m_configuration);
    m_startDataPosition = 0;
    m_endDataPosition = 0;
    if (m_fileUsable) {
        m_fileInputStream.open(QIODevice::ReadOnly);
    }
    m_uploadStreamStatus = StreamStatus::Open;
    m_didOpen = true;
    signalSource();
}

void UploadStream::close()
{
    m_uploadStreamStatus = StreamStatus::Closed;
    m_startData.clear();
    m_endData.clear();
    m_fileInputStream.close();
}

qint64 UploadStream::read(char *buffer, qint64 maxLength)
{
    m_uploadStreamStatus = StreamStatus::Reading;
    const auto max = quint64(std::max<qint64>(maxLength, 0));
    quint64 n = 0;
    qint64 result = 0;
    const auto startLength = quint64(m_startData.size());
    const auto endLength = quint64(m_endData.size());
    if (m_startDataPosition < startLength) {
        n = m_startDataPosition + max >= startLength ? startLength - m_startDataPosition : max;
        std::memcpy(buffer, m_startData.constData() + m_startDataPosition, n);
        m_startDataPosition += n;
        result = qint64(n);
    } else if (m_fileInputStream.isOpen() && !m_fileInputStream.atEnd()) {
        // Straight into the caller's buffer; any outcome counts as bytes.
        result = m_fileInputStream.read(buffer, qint64(max));
        n = max;
    } else if (m_endDataPosition + max >= endLength) {
        // The end envelope goes out only whole (see the header).
        n = endLength - m_endDataPosition;
        std::memcpy(buffer, m_endData.constData() + m_endDataPosition, n);
        m_endDataPosition += n;
        result = qint64(n);
    }
    m_uploadStreamStatus = StreamStatus::Open;
    if (n != 0) {
        m_hasBytes = true;
    }
    if (m_endDataPosition >= quint64(m_endData.size())) {
        m_uploadStreamStatus = StreamStatus::AtEnd;
        m_endReached = true;
    }
    signalSource();
    return result;
}

bool UploadStream::hasBytesAvailable() const
{
    if (m_startDataPosition < quint64(m_startData.size())) {
        return true;
    }
    if (m_endDataPosition < quint64(m_endData.size())) {
        return true;
    }
    return m_fileInputStream.isOpen() && !m_fileInputStream.atEnd();
}

OptionalError UploadStream::streamError() const
{
    if (!m_fileUsable) {
        return Error::withDomain(QStringLiteral("NSCocoaErrorDomain"), 262,
                                 QStringLiteral("The file couldn’t be opened because the specified URL type isn’t "
                                                "supported."));
    }
    if (m_fileInputStream.error() == QFileDevice::NoError) {
        return std::nullopt;
    }
    return Error::withDomain(QStringLiteral("NSPOSIXErrorDomain"), int(m_fileInputStream.error()),
                             m_fileInputStream.errorString());
}

void UploadStream::scheduleInRunLoop()
{
    m_scheduled = true;
    postDelivery();
}

void UploadStream::deliver(void (UploadStream::*signal)(), int code)
{
    if (isSignalConnected(QMetaMethod::fromSignal(signal))) {
        Q_EMIT(this->*signal)();
    } else {
        qInfo().noquote() << QStringLiteral("handle event: %1").arg(code);
    }
}

void UploadStream::runLoopRun()
{
    // Each flag is cleared before its event goes out, so a receiver that
    // reads again raises a fresh event.
    if (m_didOpen) {
        m_didOpen = false;
        deliver(&UploadStream::opened, 1);
    }
    if (m_hasBytes) {
        m_hasBytes = false;
        deliver(&UploadStream::bytesAvailable, 2);
    }
    if (m_endReached) {
        m_endReached = false;
        deliver(&UploadStream::endEncountered, 16);
    }
}

void UploadStream::signalSource()
{
    m_sourceSignalled = true;
    postDelivery();
}

void UploadStream::postDelivery()
{
    if (!m_scheduled || !m_sourceSignalled || m_deliveryPosted) {
        return;
    }
    m_deliveryPosted = true;
    QMetaObject::invokeMethod(
        this,
        [this] {
            m_deliveryPosted = false;
            if (!m_scheduled || !m_sourceSignalled) {
                return;
            }
            m_sourceSignalled = false;
            runLoopRun();
        },
        Qt::QueuedConnection);
}
