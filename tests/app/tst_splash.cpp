#include "app/appdelegate.h"
#include "app/splashwindowcontroller.h"
#include "core/appinfo.h"
#include "core/logger.h"
#include "platform/crashreporter.h"
#include "session/sessionmodel.h"
#include "session/ui/mainwindowcontroller.h"
#include "support/sessiontesting.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QSignalSpy>
#include <QSvgRenderer>
#include <QSvgWidget>
#include <QTemporaryDir>
#include <QTest>

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
    void splashShowsTheIconAboveTheName()
    {
        SplashWindowController splash;
        QVERIFY(splash.windowFlags() & Qt::FramelessWindowHint);

        // The program's icon, drawn from its SVG, centred above the name.
        splash.show();
        QVERIFY(QTest::qWaitForWindowExposed(&splash));
        auto *icon = splash.findChild<QSvgWidget *>(QStringLiteral("iconView"));
        QVERIFY(icon && icon->isVisible());
        QVERIFY(icon->renderer()->isValid());
        const QRect iconArea(icon->mapTo(&splash, QPoint(0, 0)), icon->size());
        QVERIFY(splash.rect().contains(iconArea));
        QCOMPARE(iconArea.center().x(), splash.rect().center().x());
        auto *title = splash.findChild<QWidget *>(QStringLiteral("titleLabel"));
        QVERIFY(title && iconArea.bottom() < title->mapTo(&splash, QPoint(0, 0)).y());
        // Some of its blue, the app's own colour, is on screen there.
        const QImage shown = splash.grab().toImage();
        const QColor middle = shown.pixelColor(
            (QPointF(iconArea.center().x() - 30, iconArea.top() + 20) * shown.devicePixelRatio()).toPoint());
        QVERIFY2(middle.blue() > 150 && middle.red() < 100, qPrintable(middle.name()));
        splash.stopSplashTimer();
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

    void timerOpensMainWindowAfterThreeSeconds()
    {
        AppDelegate delegate;
        QElapsedTimer clock;
        clock.start();
        delegate.applicationDidFinishLaunching();
        QTRY_VERIFY_WITH_TIMEOUT(delegate.mainWindowController(), 20000);
        QVERIFY2(clock.elapsed() >= 3000, qPrintable(QString::number(clock.elapsed())));
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
