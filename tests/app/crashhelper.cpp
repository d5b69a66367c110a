// Crashes in the way named by its argument, with the crash reporter running:
//   segv       a write through a null pointer
//   exception  a std::runtime_error thrown from an event handler
#include "app/reportexceptionapplication.h"
#include "core/logger.h"
#include "platform/crashreporter.h"

#include <QEvent>
#include <QTimer>

#include <cstdio>
#include <stdexcept>
#include <sys/resource.h>

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

// Read through a volatile pointer, so the compiler cannot see that it is null
// and turn the write into a trap of another kind.
int *volatile g_nowhere = nullptr;

[[gnu::noinline]] void writeThroughNull()
{
    *g_nowhere = 42;
}

} // namespace

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
    }
    return 3;
}
