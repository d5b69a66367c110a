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
    // A maximum of two is never exceeded and is reached, each on a worker
    // thread; a suspended queue starts nothing until resumed.
    void limitsConcurrencyAndSuspends()
    {
        OperationQueue queue;
        queue.setMaxConcurrentOperationCount(2);
        queue.setSuspended(true);
        QSemaphore gate;
        std::atomic<int> running{0}, peak{0}, onCaller{0};
        for (int i = 0; i < 6; ++i) {
            queue.addOperation([&] {
                const int now = ++running;
                for (int seen = peak; now > seen && !peak.compare_exchange_weak(seen, now);) {
                }
                onCaller += QThread::currentThread() == qApp->thread() ? 1 : 0;
                gate.tryAcquire(1, kLongWaitMs);
                --running;
            });
        }
        QTest::qWait(200);
        QCOMPARE(peak.load(), 0);
        QCOMPARE(queue.operationCount(), 6);
        queue.setSuspended(false);
        QTRY_COMPARE_WITH_TIMEOUT(running.load(), 2, kLongWaitMs);
        gate.release(6);
        queue.waitUntilAllOperationsAreFinished();
        QCOMPARE(peak.load(), 2);
        QCOMPARE(onCaller.load(), 0);
        QCOMPARE(queue.operationCount(), 0);
    }

    void startsWaitingOperationsByPriorityThenOrder()
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
        using P = Operation::QueuePriority;
        const QList<QPair<QString, P>> added{{"low", P::Low},
                                             {"normal-1", P::Normal},
                                             {"very-high", P::VeryHigh},
                                             {"normal-2", P::Normal},
                                             {"high", P::High}};
        for (const auto &[name, priority] : added) {
            queue
                .addOperation([&, name] {
                    QMutexLocker locker(&orderLock);
                    order << name;
                })
                ->setQueuePriority(priority);
        }
        gate.release();
        queue.waitUntilAllOperationsAreFinished();
        QCOMPARE(order, (QStringList{"very-high", "high", "normal-1", "normal-2", "low"}));
    }

    // The running one ends through its own cancel; a waiting synchronous one
    // never runs its work; a waiting asynchronous one is started with the
    // flag set and must end itself. Each completes once.
    void cancelAllStartsWaitingOperationsCancelled()
    {
        OperationQueue queue;
        queue.setMaxConcurrentOperationCount(1);
        auto running = std::make_shared<AsyncOperation>();
        queue.addOperation(running);
        QTRY_VERIFY_WITH_TIMEOUT(running->isExecuting(), kLongWaitMs);
        std::atomic<bool> workRan{false};
        std::atomic<int> completions{0};
        const OperationPtr waitingSync = queue.addOperation([&] { workRan = true; });
        auto waitingAsync = std::make_shared<AsyncOperation>();
        waitingSync->setCompletionHandler([&] { ++completions; });
        waitingAsync->setCompletionHandler([&] { ++completions; });
        queue.addOperation(waitingAsync);

        queue.cancelAllOperations();
        QTRY_COMPARE_WITH_TIMEOUT(waitingAsync->starts.load(), 1, kLongWaitMs);
        QVERIFY(waitingAsync->startedCancelled);
        waitingAsync->finish();
        queue.waitUntilAllOperationsAreFinished();
        QVERIFY(running->isFinished());
        QVERIFY(waitingSync->isCancelled() && waitingSync->isFinished() && !workRan);
        QCOMPARE(completions.load(), 2);
        QCOMPARE(queue.operationCount(), 0);
    }

    void asynchronousOperationHoldsItsSlotUntilItFinishes()
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
        // Finished from a thread the queue knows nothing about.
        std::thread([&] { first->finish(); }).join();
        queue.waitUntilAllOperationsAreFinished();
        QVERIFY(secondRan);
        QCOMPARE(first->starts.load(), 1);
    }
};

QTEST_GUILESS_MAIN(TestOperationQueue)
#include "tst_operationqueue.moc"
