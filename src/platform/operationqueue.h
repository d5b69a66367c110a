#pragma once

#include <QMutex>
#include <QObject>
#include <QString>

#include <atomic>
#include <deque>
#include <functional>
#include <memory>

class OperationQueue;

// A unit of long-running work with "isExecuting" and "isFinished" flags.
//
// A synchronous operation overrides main(): the queue runs it on a worker
// thread and the operation is finished when main() returns. An asynchronous
// one overrides start() and isAsynchronous(); it may return from start()
// before its work is done and is finished when it calls
// setExecuting(false)/setFinished(true), from any thread.
//
// The flags are read and written under the operation's own lock. finished
// goes from false to true once: the completion handler runs exactly once, on
// the thread that finished the operation.
class Operation : public QObject
{
    Q_OBJECT

public:
    enum class QueuePriority { VeryLow = -8, Low = -4, Normal = 0, High = 4, VeryHigh = 8 };

    Operation();
    ~Operation() override;

    virtual bool isAsynchronous() const { return false; }
    bool isExecuting() const;
    bool isFinished() const;
    bool isCancelled() const { return m_cancelled.load(); }

    // Marks the operation cancelled. A queued operation is still started (it
    // sees the flag and ends at once); a running one is asked to stop.
    virtual void cancel();

    // Runs the operation on the calling thread. The queue calls it once.
    virtual void start();

    QueuePriority queuePriority() const { return m_priority.load(); }
    // Takes effect while the operation waits in a queue.
    void setQueuePriority(QueuePriority priority) { m_priority = priority; }

    // Runs once when the operation finishes, on the finishing thread.
    void setCompletionHandler(std::function<void()> handler);

    QString name() const;
    void setName(const QString &name);

signals:
    // "isExecuting" and "isFinished" changed; emitted on the changing thread.
    void executingChanged(bool executing);
    void finishedChanged(bool finished);

protected:
    // The work of a synchronous operation.
    virtual void main() {}

    void setExecuting(bool executing);
    // Only the first change to true counts; finished never goes back.
    void setFinished(bool finished);

private:
    friend class OperationQueue;

    mutable QRecursiveMutex m_lock;
    bool m_executing = false;
    bool m_finished = false;
    std::atomic<bool> m_cancelled{false};
    std::atomic<QueuePriority> m_priority{QueuePriority::Normal};
    std::function<void()> m_completionHandler;
    // Set by the queue that holds the operation.
    std::function<void()> m_queueFinishedHandler;
    bool m_enqueued = false;
    QString m_name;
};

using OperationPtr = std::shared_ptr<Operation>;

// Runs operations on worker threads of its own. Unlike a thread pool's
// default, concurrency is unlimited unless a maximum is set, so an operation
// that blocks (waiting to retry, running its own event loop for a transfer)
// never holds up the others. Waiting operations start by priority, then in
// the order they were added. The queue keeps each operation alive until it
// has finished.
class OperationQueue : public QObject
{
    Q_OBJECT

public:
    static constexpr int Unlimited = -1;

    explicit OperationQueue(QObject *parent = nullptr);
    // Cancels what is left and waits for the running operations to finish.
    ~OperationQueue() override;

    void addOperation(OperationPtr operation);
    // Wraps a function in a synchronous operation.
    OperationPtr addOperation(std::function<void()> work);

    int maxConcurrentOperationCount() const;
    void setMaxConcurrentOperationCount(int count);

    // A suspended queue starts nothing new; running operations go on.
    bool isSuspended() const;
    void setSuspended(bool suspended);

    // Cancels every waiting and running operation. Waiting ones are still
    // started, so each ends (and reports) the way it does when cancelled.
    void cancelAllOperations();

    // Operations not yet finished: running ones first, then waiting ones.
    QList<OperationPtr> operations() const;
    int operationCount() const;

    // Blocks until no operation is left. Not to be called from an
    // operation of this queue.
    void waitUntilAllOperationsAreFinished();

    QString name() const;
    void setName(const QString &name);

private:
    struct State;
    std::shared_ptr<State> m_state;
};
