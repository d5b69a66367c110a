#include "app/appdelegate.h"

#include "app/splashwindowcontroller.h"
#include "core/appinfo.h"
#include "core/logger.h"
#include "platform/crashreporter.h"
#include "platform/dispatch.h"
#include "service/lyraboxservice.h"
#include "session/ui/mainwindowcontroller.h"

#include <QApplication>
#include <QMessageBox>

#include <cstdio>

AppDelegate::AppDelegate(QObject *parent) : QObject(parent) {}

AppDelegate::~AppDelegate()
{
    delete m_mainWindowController;
    delete m_splashWindowController;
}

void AppDelegate::installLogAlertHandler()
{
    Logger::shared().setAlertHandler([](const QString &message, const QString &button) {
        if (!isMainThread()) {
            // A modal box belongs to the main thread; elsewhere the console must do.
            std::fprintf(stderr, "%s [%s]\n", qPrintable(message), qPrintable(button));
            return;
        }
        QMessageBox alert;
        alert.setWindowTitle(QStringLiteral("Pelicane"));
        alert.setText(message);
        alert.addButton(button, QMessageBox::AcceptRole);
        alert.exec();
    });
}

void AppDelegate::applicationDidFinishLaunching()
{
    m_splashWindowController = new SplashWindowController();
    connect(m_splashWindowController, &SplashWindowController::windowWillClose, this,
            [this] { windowWillClose(m_splashWindowController); });
    m_splashWindowController->show();

    Logger::log(QStringLiteral("------------------------------------------"));
    Logger::log(QStringLiteral("---------- Application Launched ----------"));
    Logger::log(QStringLiteral("------------------------------------------"));
    Logger::log(QStringLiteral("Pelicane for Mac v%1 (%2)").arg(AppInfo::shortVersion(), AppInfo::buildNumber()));

    CrashReporter::start();
}

void AppDelegate::windowWillClose(QObject *window)
{
    if (window == m_splashWindowController) {
        showMainWindow();
    }
}

void AppDelegate::showMainWindow()
{
    if (m_mainWindowController) {
        return;
    }
    m_mainWindowController = new MainWindowController();
    // Closing the main window ends the program; nothing reopens it.
    connect(m_mainWindowController, &MainWindowController::windowWillClose, qApp, &QCoreApplication::quit,
            Qt::QueuedConnection);
    m_mainWindowController->showWindow();
    if (!m_startFolders.isEmpty()) {
        m_mainWindowController->session()->setSearchFolderPath(m_startFolders);
        m_mainWindowController->session()->updateSearchFolderPath();
    }
}

void AppDelegate::applicationWillTerminate()
{
    // Every transfer ends now, not after the event loop is gone (a worker
    // would wait for it for ever), and the digests taken so far are saved.
    LyraboxService::sharedService().shutdown();
    if (m_mainWindowController) {
        m_mainWindowController->session()->saveDigestCacheNow();
    }
}
