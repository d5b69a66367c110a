#include "app/reportexceptionapplication.h"

#include "core/logger.h"
#include "platform/crashreporter.h"

#include <cstdlib>
#include <cxxabi.h>
#include <typeinfo>

namespace {

QString typeName(const std::exception &exception)
{
    const char *mangled = typeid(exception).name();
    int status = 0;
    char *readable = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
    QString name = QString::fromUtf8(status == 0 && readable ? readable : mangled);
    std::free(readable);
    return name;
}

} // namespace

ReportExceptionApplication::ReportExceptionApplication(int &argc, char **argv) : QApplication(argc, argv) {}

bool ReportExceptionApplication::notify(QObject *receiver, QEvent *event)
{
    try {
        return QApplication::notify(receiver, event);
    } catch (const std::exception &exception) {
        reportException(exception);
    }
    return true; // not reached: reporting ends the process
}

void ReportExceptionApplication::reportException(const std::exception &exception)
{
    const QString description = typeName(exception) + QStringLiteral(": ") + QString::fromUtf8(exception.what());
    Logger::log(QStringLiteral("Uncaught exception: %1").arg(description));
    CrashReporter::reportException(description);
}
