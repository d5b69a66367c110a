#pragma once

#include "core/error.h"
#include "platform/operationqueue.h"

#include <QString>

// Receives the progress of an extraction. Called on the extracting thread.
class UnzipDelegate
{
public:
    virtual ~UnzipDelegate() = default;

    virtual void onZKArchiveDidBeginUnzip(const QString &archivePath) = 0;
    virtual void onZKArchiveDidUpdateTotalSize(const QString &archivePath, qint64 totalSize) = 0;
    // `bytesWritten`: the bytes of this one write.
    virtual void onZKArchiveDidUpdateBytesWritten(const QString &archivePath, qint64 bytesWritten) = 0;
    virtual void onZKArchiveDidEndUnzip(const QString &archivePath) = 0;
    // `error`: what the user is told; a full disk says so.
    virtual void onZKArchiveDidFail(const QString &archivePath, const Error &error) = 0;
};

// Extracts one library segment archive beside itself, synchronously.
//
// Nothing is ever written outside the archive's folder: an entry with an
// absolute name, a ".." component, a symbolic link pointing out of the folder,
// or a path that would pass through a symbolic link leading out makes the
// whole extraction fail (with a log line naming the entry) before anything is
// written; a link found on disk while writing stops it there. Each failure is
// reported once through onZKArchiveDidFail. A cancelled extraction reports
// neither end nor failure.
//
// Each file is written under a ".temp-" name beside its final place and
// renamed there once whole, so a full disk, a failure or a kill never leaves
// a half-written track under a track's name.
//
// Test seams, read at each extraction: PELICANE_TEST_EXTRACT_SPACE makes
// writes fail as on a full disk once an extraction has written that many
// bytes; PELICANE_TEST_EXTRACT_DELAY_MS pauses before each entry.
class UnzipOperation : public Operation
{
    Q_OBJECT

public:
    UnzipOperation(QString item, UnzipDelegate *delegate);

    QString item() const { return m_item; }

    // Whether an entry name stays inside the folder it is extracted into.
    static bool isSafeEntryName(const QString &name);
    // Whether a symbolic link stored as `linkName` pointing to `target` stays
    // inside that folder.
    static bool isSafeLinkTarget(const QString &linkName, const QString &target);

protected:
    // Extracts `item` into its own folder.
    void main() override;

private:
    QString m_item;
    UnzipDelegate *m_delegate;
};
