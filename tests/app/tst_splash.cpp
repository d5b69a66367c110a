#include "app/appdelegate.h"
#include "app/logger.h"
#include "app/splashwindowcontroller.h"
#include "platform/appinfo.h"
#include "platform/crashreporter.h"
#include "session/sessionmodel.h"
#include "session/ui/mainwindowcontroller.h"
#include "support/sessiontesting.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QMessageBox>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

namespace {

int mainWindowCount()
{
    int count = 0;
    for (QWidget *widget : QApplication::topLevelWidgets()) {
        if (qobject_cast<MainWindowController *>(widget)) {
            ++count;
        }
    }
    return count;
}

} // namespace

class TestSplash : public QObject
{
    Q_OBJECT

private slots:
    void splashLooksAndTimesAsItShould()
    {
        SplashWindowController splash;
        QVERIFY(splash.windowFlags() & Qt::FramelessWindowHint);
        QVERIFY(splash.splashTimer() && splash.splashTimer()->isSingleShot());
        QCOMPARE(splash.splashTimer()->interval(), 3000);
        const QRect screen = splash.screen()->geometry();
        QCOMPARE(splash.x(), screen.width() / 2 - splash.width() / 2);
        QCOMPARE(splash.y(), screen.height() / 2 - splash.height() / 2);
        // Starting again while one runs keeps the one.
        QTimer *timer = splash.splashTimer();
        splash.startSplashTimer();
        QCOMPARE(splash.splashTimer(), timer);
    }

    void launchWritesBannerAndClickOpensMainWindowOnce()
    {
        LogWatch log;
        AppDelegate delegate;
        delegate.applicationDidFinishLaunching();
        SplashWindowController *splash = delegate.splashWindowController();
        QVERIFY(splash);
        QVERIFY(splash->isVisible());
        QVERIFY(!delegate.mainWindowController());
        QVERIFY(CrashReporter::isStarted());

        const QString dashes(42, QLatin1Char('-'));
        QCOMPARE(
            log.lines().mid(0, 4),
            (QStringList{
                dashes, QStringLiteral("---------- Application Launched ----------"), dashes,
                QStringLiteral("Pelicane for Mac v%1 (%2)").arg(AppInfo::shortVersion(), AppInfo::buildNumber())}));

        QSignalSpy closed(splash, &SplashWindowController::windowWillClose);
        QTest::mouseClick(splash, Qt::LeftButton, {}, QPoint(20, 20));
        QCOMPARE(closed.size(), 1);
        QVERIFY(!splash->isVisible());
        QVERIFY(!splash->splashTimer());
        MainWindowController *main = delegate.mainWindowController();
        QVERIFY(main);
        QVERIFY(main->isVisible());
        QCOMPARE(main->mainPageType(), quint32(MainPageTypeLogin));

        // Well past the 3 seconds: the timer is gone and nothing opens again.
        QTest::qWait(3600);
        QCOMPARE(closed.size(), 1);
        QCOMPARE(delegate.mainWindowController(), main);
        QCOMPARE(mainWindowCount(), 1);
        delegate.showMainWindow();
        QCOMPARE(mainWindowCount(), 1);
    }

    void timerOpensMainWindowEvenUnderAModalAlert()
    {
        AppDelegate delegate;
        QElapsedTimer clock;
        clock.start();
        delegate.applicationDidFinishLaunching();
        QVERIFY(delegate.splashWindowController()->isVisible());

        // An alert runs its own modal loop from 100 ms on; the splash must still hand over.
        qint64 shownAt = -1;
        bool alertStillUp = false;
        QTimer::singleShot(100, this, [&] {
            QMessageBox alert;
            alert.setText(QStringLiteral("a start-up alert"));
            alert.addButton(QStringLiteral("ok (1)"), QMessageBox::AcceptRole);
            QTimer poll;
            poll.setInterval(50);
            connect(&poll, &QTimer::timeout, &alert, [&] {
                if (delegate.mainWindowController() && shownAt < 0) {
                    shownAt = clock.elapsed();
                    alertStillUp = alert.isVisible();
                    alert.accept();
                }
            });
            poll.start();
            alert.exec();
        });
        QTRY_VERIFY_WITH_TIMEOUT(shownAt >= 0, 20000);
        QVERIFY(alertStillUp);
        QVERIFY2(shownAt >= 3000, qPrintable(QString::number(shownAt)));
        QVERIFY(delegate.mainWindowController()->isVisible());
        QVERIFY(!delegate.splashWindowController()->isVisible());
    }

    void foldersFromTheCommandLineAreOffered()
    {
        QTemporaryDir first;
        QTemporaryDir second;
        AppDelegate delegate;
        delegate.setStartFolders({first.path()});
        delegate.showMainWindow();
        SessionModel *session = delegate.mainWindowController()->session();
        QCOMPARE(session->searchFolderPath(), QStringList{first.path()});
        QCOMPARE(session->searchFolderPathText(), first.path());

        AppDelegate two;
        two.setStartFolders({first.path(), second.path()});
        two.showMainWindow();
        QCOMPARE(two.mainWindowController()->session()->searchFolderPathText(), QStringLiteral("Multiple Folders"));
    }
};

QTEST_MAIN(TestSplash)
#include "tst_splash.moc"
