#pragma once

// Real folder trees for the scan tests, including folders the walk cannot
// read even when the tests run as root; and waiting for a session's scan.

#include "session/sessionmodel.h"
#include "support/sessiontesting.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTest>

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace ScanTree {

inline bool writeFile(const QString &path, const QByteArray &bytes = QByteArray("x"))
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

inline bool makeLink(const QString &target, const QString &link)
{
    return ::symlink(QFile::encodeName(target).constData(), QFile::encodeName(link).constData()) == 0;
}

// A chain of folders below parent whose full path grows past PATH_MAX, so
// the walk fails to open exactly one of them ("File name too long", root
// included). Returns that folder's path.
inline QString makeTooDeepFolder(const QString &parent, const QString &name)
{
    const QByteArray component(200, 'd');
    QByteArray path = QFile::encodeName(parent) + '/' + QFile::encodeName(name);
    if (::mkdir(path.constData(), 0755) != 0) {
        return {};
    }
    int fd = ::open(path.constData(), O_RDONLY | O_DIRECTORY);
    QByteArray firstTooLong;
    while (fd >= 0 && path.size() < 4096 + 2 * component.size()) {
        if (::mkdirat(fd, component.constData(), 0755) != 0) {
            ::close(fd);
            return {};
        }
        const int next = ::openat(fd, component.constData(), O_RDONLY | O_DIRECTORY);
        ::close(fd);
        fd = next;
        path += '/' + component;
        if (firstTooLong.isEmpty() && path.size() >= 4096) {
            firstTooLong = path;
        }
    }
    if (fd >= 0) {
        ::close(fd);
    }
    return QFile::decodeName(firstTooLong);
}

// folders × filesPerFolder ".mp3" names under root, each folder's names
// hard links to one empty file of its own (a file takes at most 65,000): as
// many entries for the walk as separate files, made many times faster than
// creating each. Returns the number of names made.
inline qint64 makeWideTree(const QString &root, int folders, int filesPerFolder)
{
    qint64 made = 0;
    for (int folder = 0; folder < folders; ++folder) {
        const QString path = root + QStringLiteral("/%1").arg(folder);
        if (!writeFile(path + QStringLiteral("/.source"), QByteArray())) {
            return made;
        }
        const QByteArray encoded = QFile::encodeName(path);
        const QByteArray source = encoded + "/.source";
        for (int file = 0; file < filesPerFolder; ++file) {
            const QByteArray name = encoded + '/' + QByteArray::number(file) + ".mp3";
            if (::link(source.constData(), name.constData()) != 0) {
                return made;
            }
            ++made;
        }
    }
    return made;
}

inline QStringList sorted(QStringList list)
{
    list.sort();
    return list;
}

// Waits for the session's scan to end (the spinner stops) and for its last hand-over.
inline bool waitForScan(SessionModel &session)
{
    QDeadlineTimer deadline(60000);
    while (session.isFileSearchInProgress() && !deadline.hasExpired()) {
        QTest::qWait(10);
    }
    return !session.isFileSearchInProgress() && session.folderScanRunner().waitForDone(60000);
}

// Removes a tree, however deep (rm works below PATH_MAX with relative opens).
inline void removeTree(const QString &path)
{
    QProcess::execute(QStringLiteral("rm"), {QStringLiteral("-rf"), path});
}

// While alive, the calling thread obeys file permissions even as root (it
// gives up the capabilities that override them). Other threads keep theirs.
class ObeyFilePermissions
{
public:
    ObeyFilePermissions()
    {
        if (::geteuid() != 0 || ::syscall(SYS_capget, &m_header, m_saved) != 0) {
            return;
        }
        __user_cap_data_struct lowered[2] = {m_saved[0], m_saved[1]};
        lowered[0].effective &= ~((1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH));
        m_lowered = ::syscall(SYS_capset, &m_header, lowered) == 0;
    }
    ~ObeyFilePermissions()
    {
        if (m_lowered) {
            ::syscall(SYS_capset, &m_header, m_saved);
        }
    }
    ObeyFilePermissions(const ObeyFilePermissions &) = delete;
    ObeyFilePermissions &operator=(const ObeyFilePermissions &) = delete;

    // True when a mode-000 folder is now unreadable for this thread.
    bool isEffective() const { return ::geteuid() != 0 || m_lowered; }

private:
    __user_cap_header_struct m_header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct m_saved[2] = {};
    bool m_lowered = false;
};

} // namespace ScanTree
