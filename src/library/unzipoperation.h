#pragma once

#include "core/error.h"
#include "platform/operationqueue.h"

#include <QString>

// Extracts one library segment archive beside itself, synchronously.
//
// Nothing is ever written outside the archive's folder: an entry with an
// absolute name, a ".." component, a symbolic link pointing out of the folder,
// or a path that would pass through a symbolic link leading out makes the
// whole extraction fail (with a log line naming the entry) before anything is
// written; a link found on disk while writing stops it there. Each failure is
// reported once through `failed`. A cancelled extraction reports neither end
// nor failure.
//
// The signals are emitted on the extracting thread, in order: began,
// totalSizeKnown, bytesWritten for each write, then ended or failed (failed
// alone when the archive is refused before anything is written).
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
    explicit UnzipOperation(QString item);

    // Whether an entry name stays inside the folder it is extracted into.
    static bool isSafeEntryName(const QString &name);
    // Whether a symbolic link stored as `linkName` pointing to `target` stays
    // inside that folder.
    static bool isSafeLinkTarget(const QString &linkName, const QString &target);

Q_SIGNALS:
    void began(const QString &archivePath);
    void totalSizeKnown(const QString &archivePath, qint64 totalSize);
    // `bytesWritten`: the bytes of this one write.
    void bytesWritten(const QString &archivePath, qint64 bytesWritten);
    void ended(const QString &archivePath);
    // `error`: what the user is told; a full disk says so.
    void failed(const QString &archivePath, const Error &error);

protected:
    // Extracts `item` into its own folder.
    void main() override;

private:
    QString m_item;
};
