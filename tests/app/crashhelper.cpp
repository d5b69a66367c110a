// Crashes in the way named by its argument, with the crash reporter running:
//   segv       a write through a null pointer
//   exception  a std::runtime_error thrown from an event handler
//   workers    four thread-pool workers write through a null pointer at once,
//              while another thread keeps logging (so holds the log's lock
//              and allocates)
//   overflow   a std::thread overflows its stack
#include "app/reportexceptionapplication.h"
#include "core/logger.h"
#include "platform/crashreporter.h"

#include <QEvent>
#include <QThreadPool>
#include <QTimer>

#include <cstdio>
#include <stdexcept>
#include <sys/resource.h>
#include <thread>

namespace {

class ThrowingObject : public QObject
{
public:
    bool event(QEvent *event) override
    {
        if (event->type() == QEvent::User) {
            throw std::runtime_error("boom from an event handler");
        }
        return QObject::event(event);
    }
};

// Read through volatiles, so the compiler can see neither that the pointer is
// null nor that the recursion never ends.
int *volatile g_nowhere = nullptr;
volatile long g_depthLimit = 1L << 40;

} // namespace

// Outside the anonymous namespace: exported, so the report names them.
[[gnu::noinline]] void writeThroughNull()
{
    *g_nowhere = 42;
}

[[gnu::noinline]] long overflowStack(long depth)
{
    volatile char frame[4096];
    frame[0] = char(depth);
    return depth < g_depthLimit ? overflowStack(depth + 1) + frame[0] : 0;
}

int main(int argc, char *argv[])
{
    // No core files from the crashes made on purpose.
    struct rlimit none
    {
    };
    ::setrlimit(RLIMIT_CORE, &none);

    ReportExceptionApplication application(argc, argv);
    const QString mode = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QString();
    Logger::log(QStringLiteral("crash helper: %1").arg(mode));
    CrashReporter::start();
    std::printf("report %s\n", qPrintable(CrashReporter::reportPath()));
    std::fflush(stdout);

    if (mode == QLatin1String("segv")) {
        writeThroughNull();
    } else if (mode == QLatin1String("exception")) {
        ThrowingObject object;
        QTimer::singleShot(0, &object, [&object] { QCoreApplication::postEvent(&object, new QEvent(QEvent::User)); });
        return application.exec();
    } else if (mode == QLatin1String("workers")) {
        std::thread([] {
            for (;;) {
                Logger::log(QStringLiteral("crash helper: busy"));
            }
        }).detach();
        for (int i = 0; i < 4; ++i) {
            QThreadPool::globalInstance()->start([] { writeThroughNull(); });
        }
        QThreadPool::globalInstance()->waitForDone();
    } else if (mode == QLatin1String("overflow")) {
        std::thread([] { overflowStack(0); }).join();
    }
    return 3;
}
