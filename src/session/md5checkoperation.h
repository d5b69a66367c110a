#pragma once

#include "platform/operationqueue.h"

#include <QObject>
#include <QPointer>
#include <QSet>
#include <QString>
#include <QStringList>

#include <functional>

// The digest check of an upload run: one pass over a snapshot of the found
// files on a worker thread. Each file's digest comes from the check's own
// MD5Cache (computed and stored on a miss); whether the service already holds
// it is handed to the main thread, and the pass waits until the main thread
// has applied it before it reads the next file.
class Md5CheckOperation : public Operation
{
    Q_OBJECT

public:
    // Run on the main thread, through the context object: when the context is
    // gone, nothing runs.
    struct Handlers
    {
        // The first root is an audio-CD volume: nothing is checked.
        std::function<void()> audioCD;
        // The pass begins (before the first file).
        std::function<void()> began;
        // One file checked. done files came before it, of total.
        std::function<void(const QString &path, bool known, qint64 done, qint64 total)> checked;
        // The pass ended, completed or cancelled: done / total, or 0 for none.
        std::function<void(double progress)> ended;
        // Log "<name> - skipped" for each known file, here on the checking
        // thread: each log line is synced to disk, too slow for the GUI thread.
        bool logKnown = false;
    };

    Md5CheckOperation(QObject *context, const QStringList &snapshot, const QSet<QString> &knownDigests,
                      const QString &firstRoot, Handlers handlers);

    // Seconds between two saves of the cache while the pass runs.
    static constexpr double kSaveInterval = 10.0;

protected:
    void main() override;

private:
    // Runs fn on the main thread and waits for it. Gives up (false, fn never
    // runs) when the operation is cancelled before the main thread took it,
    // so a cancel never waits for a main thread that is waiting for us.
    bool runOnMainAndWait(std::function<void()> fn);
    void runOnMain(std::function<void()> fn);

    QPointer<QObject> m_context;
    QStringList m_snapshot;
    QSet<QString> m_knownDigests;
    QString m_firstRoot;
    Handlers m_handlers;
};
