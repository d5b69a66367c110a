#pragma once

#include "app/splashwindowcontroller.h"
#include "session/ui/mainwindowcontroller.h"

#include <QObject>
#include <QPointer>

// Starts the program (log banner, splash, crash reporter), brings up the main
// window when the splash goes, and stops the service client on the way out.
class AppDelegate : public QObject
{
    Q_OBJECT

public:
    explicit AppDelegate(QObject *parent = nullptr);
    ~AppDelegate() override;

    // Shows the log's own alerts as modal message boxes.
    static void installLogAlertHandler();

    void applicationDidFinishLaunching();
    void applicationWillTerminate();

    // Creates and shows the main window; only the first call does anything.
    void showMainWindow();
    // Folders named on the command line, offered on the folder page in place
    // of the last one chosen.
    void setStartFolders(const QStringList &folders) { m_startFolders = folders; }

    SplashWindowController *splashWindowController() const { return m_splashWindowController; }
    MainWindowController *mainWindowController() const { return m_mainWindowController; }

private:
    void windowWillClose(QObject *window);

    QPointer<SplashWindowController> m_splashWindowController;
    QPointer<MainWindowController> m_mainWindowController;
    QStringList m_startFolders;
};
