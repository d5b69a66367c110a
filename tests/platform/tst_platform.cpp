// The platform layer: main-thread dispatch, the toc copy libcdio can open,
// the operation queue, and the password store where no keyring runs (the
// tests' session bus is not there), which keeps the password in the
// settings file, owner-only.
#include "passwordstoretesting.h"

#include "platform/discimages.h"
#include "platform/dispatch.h"
#include "platform/operationqueue.h"
#include "platform/settings.h"
#include "support/sessiontesting.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMutex>
#include <QSemaphore>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <atomic>
#include <sys/stat.h>
#include <thread>

using namespace PasswordStoreTesting;

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

class TestPlatform : public QObject
{
    Q_OBJECT

private slots:
    void dispatchReachesTheMainThread()
    {
        QThread *mainThread = QThread::currentThread();
        QThread *seenAsync = nullptr;
        QThread *seenSync = nullptr;
        std::unique_ptr<QThread> worker(QThread::create([&] {
            dispatchSyncMain([&] { seenSync = QThread::currentThread(); });
            dispatchAsyncMain([&] { seenAsync = QThread::currentThread(); });
        }));
        worker->start();
        QTRY_VERIFY(worker->isFinished());
        QCOMPARE(seenSync, mainThread);
        QTRY_COMPARE(seenAsync, mainThread);
        bool ranAtOnce = false;
        dispatchSyncMain([&] { ranAtOnce = true; });
        QVERIFY(ranAtOnce);
    }

    // libcdio resolves a toc's names against the working folder: the copy
    // names each file absolutely, byte for byte (the folder's name is not
    // Latin-1), finding names as libcdio does (a name may start with a colon,
    // a comment is no name), and changes nothing else.
    void tocCopyNamesItsFilesAbsolutely()
    {
        QTemporaryDir root;
        const QString folder = root.filePath(QStringLiteral("Диски 音楽 ü"));
        QVERIFY(QDir().mkpath(folder));
        const QString toc = folder + QStringLiteral("/disc.toc");
        const QByteArray text = "CD_DA\r\n"
                                "// FILE \"commented.bin\" 0\r\n"
                                "TRACK AUDIO\r\n"
                                "FILE \":c.bin\" 0\r\n"
                                "TRACK AUDIO\r\n"
                                "AUDIOFILE\t\"caf\xc3\xa9 2.bin\" 0 // \"x.bin\"\r\n"
                                "TRACK MODE1\n"
                                "DATAFILE \"/elsewhere/d.bin\" 00:00:01\n";
        QFile file(toc);
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(text) == text.size());
        file.close();

        const QString copies = root.filePath(QStringLiteral("copies"));
        const QString copy = DiscImages::openablePath(toc, copies);
        QCOMPARE(copy, copies + QStringLiteral("/disc.toc"));
        QFile written(copy);
        QVERIFY(written.open(QIODevice::ReadOnly));
        const QByteArray at = '"' + QFile::encodeName(folder) + '/';
        QCOMPARE(written.readAll(),
                 QByteArray(text).replace("\":c", QByteArray(at + ":c")).replace("\"caf", QByteArray(at + "caf")));

        // A cue's names are resolved against its own folder: handed over as it is.
        const QString cue = folder + QStringLiteral("/disc.cue");
        QVERIFY(QFile::copy(toc, cue));
        QCOMPARE(DiscImages::openablePath(cue, copies), cue);
    }

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

    void withoutKeyringTheSettingsFileHoldsIt()
    {
        LogWatch log;
        bool answeredAtOnce = false;
        PasswordStore::write(QStringLiteral(" pa ss "), this, [&](const OptionalError &) { answeredAtOnce = true; });
        QVERIFY(!answeredAtOnce); // never inside the call
        QCOMPARE(change(this, true, QStringLiteral(" pa ss ")), QString());
        QCOMPARE(PasswordStore::location(), PasswordStore::Location::SettingsFile);
        QCOMPARE(Settings::string(kSettingsPassword), QStringLiteral(" pa ss "));
        struct stat st
        {
        };
        QCOMPARE(::stat(QFile::encodeName(Settings::fileName()).constData(), &st), 0);
        QCOMPARE(st.st_mode & 0777, mode_t(0600));

        const ReadAnswer read = readPassword(this);
        QVERIFY(read.answered && !read.error);
        QCOMPARE(read.password, std::optional<QString>(QStringLiteral(" pa ss ")));

        // The file's copy goes before remove returns.
        PasswordStore::remove();
        QVERIFY(!Settings::contains(kSettingsPassword));
        QCOMPARE(change(this, false), QString());
        QCOMPARE(readPassword(this).password, std::nullopt);

        QCOMPARE(log.lines().filter(QStringLiteral("Password store:")),
                 QStringList{
                     QStringLiteral("Password store: the settings file, readable by its owner only (no session bus)")});
    }

    void answersInOrderAndNotToObjectsGone()
    {
        bool heardByGone = false;
        auto gone = std::make_unique<QObject>();
        PasswordStore::read(gone.get(),
                            [&](const std::optional<QString> &, const OptionalError &) { heardByGone = true; });
        gone.reset();
        QStringList order;
        PasswordStore::write(QStringLiteral("first"), this, [&](const OptionalError &) { order << "write"; });
        PasswordStore::read(this, [&](const std::optional<QString> &password, const OptionalError &) {
            order << QStringLiteral("read ") + password.value_or(QStringLiteral("none"));
        });
        PasswordStore::remove(this, [&](const OptionalError &) { order << "remove"; });
        QTRY_COMPARE(order, (QStringList{"write", "read first", "remove"}));
        QVERIFY(!heardByGone);
        QVERIFY(!Settings::contains(kSettingsPassword));
    }
};

QTEST_GUILESS_MAIN(TestPlatform)
#include "tst_platform.moc"
