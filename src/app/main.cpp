#include "app/appdelegate.h"
#include "app/reportexceptionapplication.h"
#include "cd/librarymessages.h"
#include "core/paths.h"
#include "platform/discimages.h"
#include "widgets/appearance.h"

#include <QFileInfo>
#include <QIcon>

int main(int argc, char *argv[])
{
    ReportExceptionApplication application(argc, argv);
    application.setApplicationName(QStringLiteral("Pelicane"));
    application.setApplicationDisplayName(QStringLiteral("Pelicane"));
    // The splash closes before the main window opens; the program ends when
    // the main window is closed, not when the last window happens to go.
    application.setQuitOnLastWindowClosed(false);
    applyApplicationAppearance(&application);
    application.setWindowIcon(QIcon(QStringLiteral(":/icons/com.lyrabox.pelicane.png")));
    // Lets the desktop match the windows to the installed entry and its icon.
    QGuiApplication::setDesktopFileName(QStringLiteral("com.lyrabox.pelicane"));

    AppDelegate::installLogAlertHandler();
    LibraryMessages::routeToLog();
    Paths::removeTemporaryLeftovers();
    AppDelegate delegate;
    QStringList folders;
    for (const QString &argument : application.arguments().mid(1)) {
        // A disc image is inserted, so it shows as a disc on the Search page.
        if (DiscImages::isDiscImageFile(argument)) {
            DiscImages::insert(argument);
            continue;
        }
        if (QFileInfo::exists(argument)) {
            folders.append(QFileInfo(argument).absoluteFilePath());
        }
    }
    delegate.setStartFolders(folders);
    QObject::connect(&application, &QCoreApplication::aboutToQuit, &delegate, &AppDelegate::applicationWillTerminate);
    delegate.applicationDidFinishLaunching();
    return application.exec();
}
