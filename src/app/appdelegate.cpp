#include "app/appdelegate.h"

#include "app/desktopnotifier.h"
#include "app/splashwindowcontroller.h"
#include "core/appinfo.h"
#include "core/formatting.h"
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
    // A run that ends while the user is elsewhere is worth a word from the desktop.
    MainWindowController *window = m_mainWindowController;
    connect(window->session(), &SessionModel::uploadEnded, this, [window] {
        if (window->isActiveWindow()) {
            return;
        }
        const SessionModel *session = window->session();
        const QString body = QStringLiteral("%1 uploaded, %2 failed. %3")
                                 .arg(groupedNumber(session->completedFiles().size()),
                                      groupedNumber(session->erroredFiles().size()), session->resultDetailsText());
        if (!DesktopNotifier::notify(session->resultTitleText(), body)) {
            Logger::log(QStringLiteral("No desktop notification service; the run's end is shown in the window only"));
        }
    });
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
