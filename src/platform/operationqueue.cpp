#include "platform/operationqueue.h"

#include <QCoreApplication>
#include <QEvent>
#include <QList>
#include <QMutexLocker>
#include <QRunnable>
#include <QThreadPool>
#include <QWaitCondition>

#include <algorithm>
#include <ranges>

// ---------------------------------------------------------------------------
// Operation

Operation::Operation() = default;

Operation::~Operation() = default;

bool Operation::isExecuting() const
{
    QMutexLocker locker(&m_lock);
    return m_executing;
}

bool Operation::isFinished() const
{
    QMutexLocker locker(&m_lock);
    return m_finished;
}

void Operation::cancel()
{
    m_cancelled = true;
}

void Operation::start()
{
    if (isFinished()) {
        return;
    }
    if (!isCancelled()) {
        setExecuting(true);
        main();
        setExecuting(false);
    }
    setFinished(true);
}

void Operation::setCompletionHandler(std::function<void()> handler)
{
    QMutexLocker locker(&m_lock);
    m_completionHandler = std::move(handler);
}

QString Operation::name() const
{
    QMutexLocker locker(&m_lock);
    return m_name;
}

void Operation::setName(const QString &name)
{
    QMutexLocker locker(&m_lock);
    m_name = name;
}

void Operation::setExecuting(bool executing)
{
    {
        QMutexLocker locker(&m_lock);
        if (m_executing == executing) {
            return;
        }
        m_executing = executing;
    }
    emit executingChanged(executing);
}

void Operation::setFinished(bool finished)
{
    std::function<void()> completion;
    std::function<void()> queueHandler;
    {
        QMutexLocker locker(&m_lock);
        if (!finished || m_finished) {
            return;
        }
        m_finished = true;
        completion = std::move(m_completionHandler);
        m_completionHandler = nullptr;
        queueHandler = std::move(m_queueFinishedHandler);
        m_queueFinishedHandler = nullptr;
    }
    emit finishedChanged(true);
    if (completion) {
        completion();
    }
    // Last: the queue may drop its reference to this operation here.
    if (queueHandler) {
        queueHandler();
    }
}

// ---------------------------------------------------------------------------
// OperationQueue

namespace {

class BlockOperation : public Operation
{
public:
    explicit BlockOperation(std::function<void()> work) : m_work(std::move(work)) {}

protected:
    void main() override { m_work(); }

private:
    std::function<void()> m_work;
};

// Threads are only made, never limited, by the pool: the queue decides what
// runs.
constexpr int kPoolThreadLimit = 1 << 14;

} // namespace

struct OperationQueue::State : std::enable_shared_from_this<OperationQueue::State>
{
    struct Waiting
    {
        OperationPtr operation;
        quint64 sequence;
    };

    mutable QMutex mutex;
    QWaitCondition changed;
    std::deque<Waiting> waiting;
    QList<OperationPtr> running;
    quint64 nextSequence = 0;
    int maxConcurrent = OperationQueue::Unlimited;
    bool suspended = false;
    QString name;
    QThreadPool pool;

    // With the mutex held: hands operations to threads while there is room.
    void startWaiting()
    {
        while (!suspended && !waiting.empty() && (maxConcurrent < 0 || running.size() < maxConcurrent)) {
            auto best = waiting.begin();
            for (auto it = waiting.begin(); it != waiting.end(); ++it) {
                if (it->operation->queuePriority() > best->operation->queuePriority()) {
                    best = it;
                }
            }
            OperationPtr operation = best->operation;
            waiting.erase(best);
            running.append(operation);
            pool.start([operation] {
                operation->start();
                if (!operation->isAsynchronous()) {
                    operation->setFinished(true);
                }
                // Objects the operation left for deletion on this thread
                // would otherwise wait for the thread to expire.
                QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
            });
        }
    }

    void operationFinished(Operation *operation)
    {
        OperationPtr keep; // released after the mutex
        QMutexLocker locker(&mutex);
        for (qsizetype i = 0; i < running.size(); ++i) {
            if (running.at(i).get() == operation) {
                keep = running.takeAt(i);
                break;
            }
        }
        if (!keep) {
            // Finished while still waiting (it will not be started).
            for (auto it = waiting.begin(); it != waiting.end(); ++it) {
                if (it->operation.get() == operation) {
                    keep = it->operation;
                    waiting.erase(it);
                    break;
                }
            }
        }
        startWaiting();
        changed.wakeAll();
        locker.unlock();
    }
};

OperationQueue::OperationQueue(QObject *parent) : QObject(parent), m_state(std::make_shared<State>())
{
    m_state->pool.setMaxThreadCount(kPoolThreadLimit);
}

OperationQueue::~OperationQueue()
{
    cancelAllOperations();
    setSuspended(false);
    waitUntilAllOperationsAreFinished();
    m_state->pool.waitForDone();
}

void OperationQueue::addOperation(OperationPtr operation)
{
    if (!operation) {
        return;
    }
    {
        QMutexLocker opLocker(&operation->m_lock);
        Q_ASSERT_X(!operation->m_enqueued, "OperationQueue::addOperation", "operation added twice");
        if (operation->m_enqueued || operation->m_finished) {
            return;
        }
        operation->m_enqueued = true;
        std::weak_ptr<State> weakState = m_state;
        Operation *raw = operation.get();
        operation->m_queueFinishedHandler = [weakState, raw] {
            if (auto state = weakState.lock()) {
                state->operationFinished(raw);
            }
        };
    }
    QMutexLocker locker(&m_state->mutex);
    m_state->waiting.push_back({std::move(operation), m_state->nextSequence++});
    m_state->startWaiting();
}

OperationPtr OperationQueue::addOperation(std::function<void()> work)
{
    auto operation = std::make_shared<BlockOperation>(std::move(work));
    addOperation(operation);
    return operation;
}

int OperationQueue::maxConcurrentOperationCount() const
{
    QMutexLocker locker(&m_state->mutex);
    return m_state->maxConcurrent;
}

void OperationQueue::setMaxConcurrentOperationCount(int count)
{
    QMutexLocker locker(&m_state->mutex);
    m_state->maxConcurrent = count < 0 ? Unlimited : count;
    m_state->startWaiting();
}

bool OperationQueue::isSuspended() const
{
    QMutexLocker locker(&m_state->mutex);
    return m_state->suspended;
}

void OperationQueue::setSuspended(bool suspended)
{
    QMutexLocker locker(&m_state->mutex);
    m_state->suspended = suspended;
    m_state->startWaiting();
}

void OperationQueue::cancelAllOperations()
{
    // Cancel outside the queue's lock: an operation may finish (and call
    // back into the queue) from within cancel(). Waiting operations go
    // first: a running one that finishes on cancel starts the next waiting
    // one, which must already be marked cancelled by then.
    const QList<OperationPtr> all = operations();
    for (const OperationPtr &operation : std::views::reverse(all)) {
        operation->cancel();
    }
}

QList<OperationPtr> OperationQueue::operations() const
{
    QMutexLocker locker(&m_state->mutex);
    QList<OperationPtr> all = m_state->running;
    std::vector<State::Waiting> waiting(m_state->waiting.begin(), m_state->waiting.end());
    std::stable_sort(waiting.begin(), waiting.end(), [](const State::Waiting &a, const State::Waiting &b) {
        return a.operation->queuePriority() > b.operation->queuePriority();
    });
    for (const State::Waiting &entry : waiting) {
        all.append(entry.operation);
    }
    return all;
}

int OperationQueue::operationCount() const
{
    QMutexLocker locker(&m_state->mutex);
    return int(m_state->running.size() + m_state->waiting.size());
}

void OperationQueue::waitUntilAllOperationsAreFinished()
{
    QMutexLocker locker(&m_state->mutex);
    while (!m_state->running.isEmpty() || !m_state->waiting.empty()) {
        m_state->changed.wait(&m_state->mutex);
    }
}

QString OperationQueue::name() const
{
    QMutexLocker locker(&m_state->mutex);
    return m_state->name;
}

void OperationQueue::setName(const QString &name)
{
    QMutexLocker locker(&m_state->mutex);
    m_state->name = name;
}
