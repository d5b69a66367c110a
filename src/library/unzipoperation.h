#pragma once

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
    virtual void onZKArchiveDidFail(const QString &archivePath) = 0;
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
