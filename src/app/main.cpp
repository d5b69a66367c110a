#include "app/appdelegate.h"
#include "app/reportexceptionapplication.h"

int main(int argc, char *argv[])
{
    ReportExceptionApplication application(argc, argv);
    application.setApplicationName(QStringLiteral("Pelicane"));
    application.setApplicationDisplayName(QStringLiteral("Pelicane"));
    // The splash closes before the main window opens; the program ends when
    // the main window is closed, not when the last window happens to go.
    application.setQuitOnLastWindowClosed(false);

    AppDelegate::installLogAlertHandler();
    AppDelegate delegate;
    QObject::connect(&application, &QCoreApplication::aboutToQuit, &delegate, &AppDelegate::applicationWillTerminate);
    delegate.applicationDidFinishLaunching();
    return application.exec();
}
