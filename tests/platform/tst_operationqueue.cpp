#include "platform/operationqueue.h"

#include <QCoreApplication>
#include <QMutex>
#include <QSemaphore>
#include <QTest>
#include <QThread>

#include <atomic>
#include <thread>

namespace {

constexpr int kLongWaitMs = 20000;

// Waits on a gate, counting how many of its kind run at once.
class GatedOperation : public Operation
{
public:
    GatedOperation(QSemaphore *gate, std::atomic<int> *running, std::atomic<int> *peak)
        : m_gate(gate), m_running(running), m_peak(peak)
    {}

    QThread *thread = nullptr;
    bool mainRan = false;

protected:
    void main() override
    {
        mainRan = true;
        thread = QThread::currentThread();
        const int now = ++*m_running;
        int seen = m_peak->load();
        while (now > seen && !m_peak->compare_exchange_weak(seen, now)) {
        }
        if (m_gate) {
            m_gate->tryAcquire(1, kLongWaitMs);
        }
        --*m_running;
    }

private:
    QSemaphore *m_gate;
    std::atomic<int> *m_running;
    std::atomic<int> *m_peak;
};

// Returns from start() at once and finishes when told to, from any thread.
class AsyncOperation : public Operation
{
public:
    bool isAsynchronous() const override { return true; }
    std::atomic<int> starts{0};
    std::atomic<bool> startedCancelled{false};

    void start() override
    {
        ++starts;
        startedCancelled = isCancelled();
        setExecuting(true);
    }

    void cancel() override
    {
        Operation::cancel();
        if (isExecuting()) {
            finish();
        }
    }

    void finish()
    {
        setExecuting(false);
        setFinished(true);
    }
};

} // namespace

class TestOperationQueue : public QObject
{
    Q_OBJECT

private slots:
    void limitsConcurrency();
    void suspendedQueueStartsNothingUntilResumed();
    void startsWaitingOperationsByPriorityThenOrder();
    void cancelAllStartsWaitingOperationsCancelled();
    void asynchronousOperationHoldsItsSlotUntilItFinishes();
};

void TestOperationQueue::limitsConcurrency()
{
    // A maximum of two is never exceeded and is reached.
    OperationQueue queue;
    queue.setMaxConcurrentOperationCount(2);
    QSemaphore gate;
    std::atomic<int> running{0}, peak{0};
    QList<std::shared_ptr<GatedOperation>> operations;
    for (int i = 0; i < 6; ++i) {
        operations << std::make_shared<GatedOperation>(&gate, &running, &peak);
        queue.addOperation(operations.last());
    }
    QTRY_COMPARE_WITH_TIMEOUT(running.load(), 2, kLongWaitMs);
    QCOMPARE(queue.operationCount(), 6);
    gate.release(6);
    queue.waitUntilAllOperationsAreFinished();
    QCOMPARE(peak.load(), 2);
    // Each one ran on a worker thread, never on the caller's.
    QVERIFY(std::all_of(operations.begin(), operations.end(),
                        [](const auto &o) { return o->isFinished() && o->mainRan && o->thread != qApp->thread(); }));
}

void TestOperationQueue::suspendedQueueStartsNothingUntilResumed()
{
    OperationQueue queue;
    queue.setSuspended(true);
    std::atomic<int> runs{0};
    queue.addOperation([&] { ++runs; });
    queue.addOperation([&] { ++runs; });
    QTest::qWait(200);
    QCOMPARE(runs.load(), 0);
    QCOMPARE(queue.operationCount(), 2);
    queue.setSuspended(false);
    queue.waitUntilAllOperationsAreFinished();
    QCOMPARE(runs.load(), 2);
}

void TestOperationQueue::startsWaitingOperationsByPriorityThenOrder()
{
    OperationQueue queue;
    queue.setMaxConcurrentOperationCount(1);
    QSemaphore gate, blockerStarted;
    queue.addOperation([&] {
        blockerStarted.release();
        gate.tryAcquire(1, kLongWaitMs);
    });
    QVERIFY(blockerStarted.tryAcquire(1, kLongWaitMs));

    QMutex orderLock;
    QStringList order;
    auto add = [&](const QString &name, Operation::QueuePriority priority) {
        OperationPtr operation = queue.addOperation([&, name] {
            QMutexLocker locker(&orderLock);
            order << name;
        });
        operation->setQueuePriority(priority);
    };
    add("low", Operation::QueuePriority::Low);
    add("normal-1", Operation::QueuePriority::Normal);
    add("very-high", Operation::QueuePriority::VeryHigh);
    add("normal-2", Operation::QueuePriority::Normal);
    add("high", Operation::QueuePriority::High);
    QCOMPARE(queue.operations().size(), 6);
    gate.release();
    queue.waitUntilAllOperationsAreFinished();
    QCOMPARE(order, (QStringList{"very-high", "high", "normal-1", "normal-2", "low"}));
}

void TestOperationQueue::cancelAllStartsWaitingOperationsCancelled()
{
    OperationQueue queue;
    queue.setMaxConcurrentOperationCount(1);
    auto running = std::make_shared<AsyncOperation>();
    queue.addOperation(running);
    QTRY_VERIFY_WITH_TIMEOUT(running->isExecuting(), kLongWaitMs);

    std::atomic<int> count{0}, peak{0};
    auto waitingSync = std::make_shared<GatedOperation>(nullptr, &count, &peak);
    auto waitingAsync = std::make_shared<AsyncOperation>();
    std::atomic<int> completions{0};
    waitingSync->setCompletionHandler([&] { ++completions; });
    waitingAsync->setCompletionHandler([&] { ++completions; });
    queue.addOperation(waitingSync);
    queue.addOperation(waitingAsync);

    queue.cancelAllOperations();
    // The running one ended through its own cancel; the waiting asynchronous
    // one is started with the flag set and must end itself.
    QTRY_COMPARE_WITH_TIMEOUT(waitingAsync->starts.load(), 1, kLongWaitMs);
    QVERIFY(waitingAsync->startedCancelled);
    waitingAsync->finish();
    queue.waitUntilAllOperationsAreFinished();

    QVERIFY(running->isFinished());
    QVERIFY(waitingSync->isCancelled());
    QVERIFY(waitingSync->isFinished());
    QVERIFY(!waitingSync->mainRan);
    QCOMPARE(completions.load(), 2);
    QCOMPARE(queue.operationCount(), 0);
}

void TestOperationQueue::asynchronousOperationHoldsItsSlotUntilItFinishes()
{
    OperationQueue queue;
    queue.setMaxConcurrentOperationCount(1);
    auto first = std::make_shared<AsyncOperation>();
    std::atomic<bool> secondRan{false};
    queue.addOperation(first);
    queue.addOperation([&] { secondRan = true; });

    QTRY_COMPARE_WITH_TIMEOUT(first->starts.load(), 1, kLongWaitMs);
    QTest::qWait(200);
    QVERIFY(!secondRan && !first->isFinished());
    QCOMPARE(queue.operationCount(), 2);

    // Finished from a thread the queue knows nothing about.
    std::thread finisher([&] { first->finish(); });
    finisher.join();
    queue.waitUntilAllOperationsAreFinished();
    QVERIFY(secondRan);
    QCOMPARE(first->starts.load(), 1);
}

QTEST_GUILESS_MAIN(TestOperationQueue)
#include "tst_operationqueue.moc"
