#include "upload/uploadbodydevice.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

UploadBodyDevice::UploadBodyDevice(const QByteArray &header, const QString &filePath, qint64 fileSize,
                                   const QByteArray &footer, LogFunction log, QObject *parent)
    : QIODevice(parent), m_header(header), m_footer(footer), m_fileSize(fileSize), m_file(filePath),
      m_log(std::move(log)), m_headerRemaining(header.size()), m_footerRemaining(footer.size())
{}

UploadBodyDevice::~UploadBodyDevice() = default;

bool UploadBodyDevice::open(OpenMode mode)
{
    if (mode & WriteOnly) {
        return false;
    }
    // Non-blocking, so a FIFO put in the file's place does not wait for a
    // writer; only a regular file has the size announced (a FIFO or a device
    // would be sent empty, or never end).
    const int fd = ::open(QFile::encodeName(m_file.fileName()).constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat info;
    if (fd < 0 || ::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        setErrorString(fd < 0 ? QString::fromLocal8Bit(std::strerror(errno)) : QStringLiteral("Not a regular file"));
        if (fd >= 0) {
            ::close(fd);
        }
        return false;
    }
    if (!m_file.open(fd, QIODevice::ReadOnly | QIODevice::Unbuffered, QFileDevice::AutoCloseHandle)) {
        setErrorString(m_file.errorString());
        ::close(fd);
        return false;
    }
    // Unbuffered: every byte handed to Qt is accounted for here, so the log
    // lines and the guard start when Qt really takes the bytes.
    return QIODevice::open(QIODevice::ReadOnly | QIODevice::Unbuffered);
}

void UploadBodyDevice::close()
{
    m_file.close();
    QIODevice::close();
}

qint64 UploadBodyDevice::size() const
{
    return m_header.size() + m_fileSize + m_footer.size();
}

bool UploadBodyDevice::seek(qint64 pos)
{
    if (pos != QIODevice::pos() && m_handedOut > 0) {
        if (m_log) {
            m_log(QStringLiteral("New body stream requested but one already exists. Something must have errored."));
        }
        emit newBodyRequested();
        return false;
    }
    return QIODevice::seek(pos);
}

qint64 UploadBodyDevice::fail(const QString &detail, qint64 handedOut)
{
    // Bytes already copied go out first; the failure comes with the next read.
    if (handedOut > 0) {
        m_pendingFailure = detail;
        return handedOut;
    }
    if (!m_failed) {
        m_failed = true;
        setErrorString(detail);
        emit sourceFailed(detail);
    }
    return -1;
}

qint64 UploadBodyDevice::readData(char *data, qint64 maxSize)
{
    if (m_failed) {
        return -1;
    }
    if (!m_pendingFailure.isNull()) {
        return fail(m_pendingFailure, 0);
    }
    const qint64 headerEnd = m_header.size();
    const qint64 fileEnd = headerEnd + m_fileSize;
    const qint64 end = fileEnd + m_footer.size();
    qint64 position = QIODevice::pos();
    qint64 total = 0;
    const auto finish = [&](qint64 result) {
        if (result > 0) {
            m_bodyStarted = true;
            m_handedOut = std::max(m_handedOut, position);
        }
        return result;
    };
    bool loggedHeader = false;
    while (total < maxSize && position < end) {
        const qint64 room = maxSize - total;
        if (position < headerEnd) {
            if (!loggedHeader && m_log) {
                m_log(QStringLiteral("Writing header"));
            }
            loggedHeader = true;
            const qint64 n = std::min(room, headerEnd - position);
            std::memcpy(data + total, m_header.constData() + position, size_t(n));
            position += n;
            total += n;
            if (headerEnd - position < m_headerRemaining.load()) {
                m_headerRemaining = headerEnd - position;
                if (position == headerEnd && m_log) {
                    m_log(QStringLiteral("Header written"));
                }
            }
        } else if (position < fileEnd) {
            const qint64 fileOffset = position - headerEnd;
            if (m_file.pos() != fileOffset && !m_file.seek(fileOffset)) {
                return finish(fail(m_file.errorString(), total));
            }
            const qint64 got = m_file.read(data + total, std::min(room, fileEnd - position));
            if (got < 0) {
                return finish(fail(m_file.errorString(), total));
            }
            if (got == 0) {
                return finish(fail(QStringLiteral("The file became shorter while it was being sent."), total));
            }
            position += got;
            total += got;
        } else {
            if (position == fileEnd && m_file.size() != m_fileSize) {
                return finish(fail(QStringLiteral("The file changed size while it was being sent."), total));
            }
            if (m_log) {
                m_log(QStringLiteral("Writing footer"));
            }
            const qint64 n = std::min(room, end - position);
            std::memcpy(data + total, m_footer.constData() + (position - fileEnd), size_t(n));
            position += n;
            total += n;
            if (m_log) {
                m_log(QStringLiteral(" - Footer bytes written: %1").arg(n));
            }
            if (end - position < m_footerRemaining.load()) {
                m_footerRemaining = end - position;
                if (position == end && !m_didWriteFooter.exchange(true)) {
                    if (m_log) {
                        m_log(QStringLiteral("Footer written"));
                    }
                    emit footerWritten();
                }
            }
        }
    }
    return finish(total);
}

qint64 UploadBodyDevice::writeData(const char *, qint64)
{
    return -1;
}
