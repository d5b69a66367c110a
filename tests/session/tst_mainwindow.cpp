#include "alertdriver.h"

#include "platform/paths.h"
#include "platform/settings.h"
#include "session/ui/mainwindowcontroller.h"
#include "support/sessiontesting.h"
#include "ui_MainWindowController.h"

#include <QFile>
#include <QScreen>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <stdexcept>

namespace {

QString logPath()
{
    return Logger::logFileURL().toLocalFile();
}

// Makes the log exactly `size` bytes long as this run's logger sees it: a
// sparse file of the right length written behind one last line.
void makeLogSize(qint64 size)
{
    Logger::log(QStringLiteral("open"));
    Logger::clearLog();
    const QString marker = QStringLiteral("size marker");
    const qint64 line = 27 + marker.size() + 1;
    QFile file(logPath());
    QVERIFY(file.open(QIODevice::ReadWrite));
    QVERIFY(file.resize(size - line));
    file.close();
    Logger::log(marker);
    QCOMPARE(Logger::logSize(), size);
}

// A point on the widget's indicator end (a check box only answers on its box and text).
QPoint leftEndIn(QWidget *window, QWidget *widget)
{
    return widget->mapTo(window, QPoint(8, widget->height() / 2));
}

// A window whose set-up breaks at its second step.
class BrokenWindow : public MainWindowController
{
public:
    void setupLogFileButtons() override { throw std::runtime_error("log buttons broke"); }
};

} // namespace

class TestMainWindow : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        for (const char *key : {kSettingsEmail, kSettingsPassword, kSettingsRememberMe, kSettingsLastFolderPath}) {
            Settings::remove(key);
        }
    }

    void windowLoadFollowsTheSettings()
    {
        QTemporaryDir dir;
        const QString gone = dir.path() + QStringLiteral("/vanished");
        Settings::setValue(kSettingsLastFolderPath, gone);
        Settings::setValue(kSettingsEmail, QStringLiteral("me@example.com"));
        Settings::setValue(kSettingsPassword, QStringLiteral("pa ss"));
        Settings::setValue(kSettingsRememberMe, true);
        LogWatch log;

        MainWindowController window;
        Ui::MainWindowController *ui = window.ui();
        window.showWindow();
        QVERIFY(QTest::qWaitForWindowExposed(&window));

        QCOMPARE(log.lines(), QStringList{QStringLiteral("SetPage(Login)")});
        QCOMPARE(window.mainPageType(), quint32(MainPageTypeLogin));
        QWidget *pages[] = {ui->loginContainerView, ui->searchContainerView, ui->filesContainerView,
                            ui->uploadContainerView, ui->resultContainerView};
        for (QWidget *page : pages) {
            QCOMPARE(page->isVisible(), page == ui->loginContainerView);
        }

        // The vanished folder stays first, with the Music folder behind it.
        QCOMPARE(window.session()->searchFolderPath(), (QStringList{gone, Paths::musicDirectory()}));
        QCOMPARE(ui->searchFolderPathTextField->text(), QStringLiteral("Multiple Folders"));

        QCOMPARE(ui->emailField->text(), QStringLiteral("me@example.com"));
        QCOMPARE(ui->passwdField->text(), QStringLiteral("pa ss"));
        QCOMPARE(ui->passwdField->echoMode(), QLineEdit::Password);
        QVERIFY(ui->rememberMeCheckbox->isChecked());
        QCOMPARE(ui->reuploadCheckbox->palette().color(QPalette::WindowText), QColor(Qt::white));
        // Loading the saved state is not a click: the settings stay as they were.
        QCOMPARE(Settings::string(kSettingsEmail), QStringLiteral("me@example.com"));

        // Centred by the window's own size: half the screen less half the window.
        const QRect screen = window.screen()->geometry();
        QCOMPARE(window.frameGeometry().x(), screen.width() / 2 - window.width() / 2);
        QCOMPARE(window.frameGeometry().y(), screen.height() / 2 - window.height() / 2);

        QVERIFY(ui->maskContainerView->isHidden());
        QCOMPARE(ui->maskContainerView->backgroundColor(), QColor(0x99, 0x99, 0x99, 0x70));
        QVERIFY(window.audioCDMonitorTimer()->isActive());
        QCOMPARE(window.audioCDMonitorTimer()->interval(), 1000);

        // Pages switch areas; an unknown page is stored and shows nothing new.
        window.setMainPageType(MainPageTypeResult);
        QVERIFY(ui->resultContainerView->isVisible());
        QVERIFY(!ui->loginContainerView->isVisible());
        window.setMainPageType(7);
        QCOMPARE(window.mainPageType(), 7u);
        QVERIFY(ui->resultContainerView->isVisible());
    }

    void exceptionDuringLoadIsShownAndLoadGoesOn()
    {
        LogWatch log;
        BrokenWindow window;
        AlertDriver driver;
        driver.answer(QStringLiteral("okay"));
        window.loadWindow();
        QCOMPARE(driver.seen.size(), 1);
        QCOMPARE(driver.seen[0].text, QStringLiteral("exception"));
        QCOMPARE(driver.seen[0].informativeText, QStringLiteral("log buttons broke"));
        QCOMPARE(driver.seen[0].buttons, QStringList{QStringLiteral("okay")});
        // Steps after the failing one were skipped; the last one ran.
        QVERIFY(!log.lines().contains(QStringLiteral("SetPage(Login)")));
        QVERIFY(!window.audioCDMonitorTimer()->isActive());
        QCOMPARE(window.ui()->reuploadCheckbox->palette().color(QPalette::WindowText), QColor(Qt::white));
    }

    void alertAnswersByButtonPosition()
    {
        MainWindowController window;
        window.loadWindow();
        const QStringList titles{QStringLiteral("Retry Track"), QStringLiteral("Skip Track"),
                                 QStringLiteral("Cancel Upload")};
        for (int i = 0; i < 3; ++i) {
            AlertDriver driver;
            bool visibleDuring = false;
            driver.answer(titles[i], [&](QMessageBox *box) { visibleDuring = window.visibleAlert() == box; });
            QVERIFY(!window.hasVisibleAlert());
            const int code = window.showAlertWithMessageText(QStringLiteral("CD Rip Error"), QStringLiteral("why"),
                                                             titles[0], titles[1], titles[2]);
            QCOMPARE(code, 1000 + i);
            QVERIFY(visibleDuring);
            QVERIFY(!window.hasVisibleAlert());
            QCOMPARE(driver.seen[0].text, QStringLiteral("CD Rip Error"));
            QCOMPARE(driver.seen[0].informativeText, QStringLiteral("why"));
            QCOMPARE(QSet<QString>(driver.seen[0].buttons.begin(), driver.seen[0].buttons.end()),
                     QSet<QString>(titles.begin(), titles.end()));
        }

        // Empty texts are left out; missing titles leave fewer buttons.
        AlertDriver two;
        two.answer(QStringLiteral("Cancel"));
        QCOMPARE(window.showAlertWithMessageText(QStringLiteral("Upload Files"), QString(), QStringLiteral("Upload"),
                                                 QStringLiteral("Cancel"), QString()),
                 1001);
        QCOMPARE(two.seen[0].informativeText, QString());
        QCOMPARE(two.seen[0].buttons.size(), 2);

        // No title at all still gives a way out, answered as the first button.
        AlertDriver none;
        none.answer(QStringLiteral("OK"));
        QCOMPARE(window.showAlertWithMessageText(QStringLiteral("Error Starting Upload"), QStringLiteral("x"),
                                                 QString(), QString(), QString()),
                 1000);
        QCOMPARE(none.seen[0].buttons, QStringList{QStringLiteral("OK")});
    }

    void waitingOverlayBlocksClicks()
    {
        MainWindowController window;
        window.showWindow();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        Ui::MainWindowController *ui = window.ui();
        window.startWaitingAnimation(QStringLiteral("Preparing upload..."));
        QVERIFY(ui->maskContainerView->isVisible());
        QCOMPARE(ui->maskContainerView->geometry(), ui->pageStack->geometry());
        QCOMPARE(ui->waitingReasonLabel->text(), QStringLiteral("Preparing upload..."));
        QVERIFY(ui->progressIndicator->isAnimating());
        QTest::mouseClick(window.windowHandle(), Qt::LeftButton, {}, leftEndIn(&window, ui->rememberMeCheckbox));
        QVERIFY(!ui->rememberMeCheckbox->isChecked());
        QVERIFY(!Settings::contains(kSettingsRememberMe));

        window.stopWaitingAnimation();
        QVERIFY(ui->maskContainerView->isHidden());
        QVERIFY(!ui->progressIndicator->isAnimating());
        // Far enough apart not to make a double click.
        QTest::qWait(QApplication::doubleClickInterval() + 100);
        QTest::mouseClick(window.windowHandle(), Qt::LeftButton, {}, leftEndIn(&window, ui->rememberMeCheckbox));
        QVERIFY(ui->rememberMeCheckbox->isChecked());
        QCOMPARE(Settings::value(kSettingsRememberMe).toBool(), true);
    }

    void logLinkAndClearButton()
    {
        struct Case
        {
            qint64 size;
            bool shown;
            QString title;
        };
        const Case cases[] = {{20971520, true, QStringLiteral("20MB, clear log")},
                              {20971519, false, QString()},
                              {31457279, true, QStringLiteral("29MB, clear log")}};
        for (const Case &c : cases) {
            makeLogSize(c.size);
            MainWindowController window;
            window.loadWindow();
            QCOMPARE(window.ui()->logFileButton->text(), QStringLiteral("Log file: ") + logPath());
            QCOMPARE(!window.ui()->clearLogFileButton->isHidden(), c.shown);
            if (c.shown) {
                QCOMPARE(window.ui()->clearLogFileButton->text(), c.title);
            }
        }

        // The check is made at load only; clearing hides the button and empties the log.
        MainWindowController window;
        window.loadWindow();
        Logger::log(QStringLiteral("grows after load"));
        QVERIFY(!window.ui()->clearLogFileButton->isHidden());
        window.ui()->clearLogFileButton->click();
        QVERIFY(window.ui()->clearLogFileButton->isHidden());
        QCOMPARE(Logger::logSize(), 0);
        Logger::log(QStringLiteral("first after clearing"));
        QFile file(logPath());
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray contents = file.readAll();
        QCOMPARE(contents.size(), 27 + 20 + 1);
        QVERIFY(contents.endsWith(": first after clearing\n"));
    }

    void returnKeysAndBlankFields()
    {
        MainWindowController window;
        window.showWindow();
        QVERIFY(QTest::qWaitForWindowActive(&window));
        Ui::MainWindowController *ui = window.ui();
        ui->emailField->setFocus();
        QTest::keyClicks(ui->emailField, QStringLiteral("someone@example.com"));

        // Return in the e-mail field moves on, and signs nobody in.
        AlertDriver unexpected;
        unexpected.answer(QStringLiteral("OK"));
        QTest::keyClick(ui->emailField, Qt::Key_Return);
        QTRY_COMPARE(QApplication::focusWidget(), ui->passwdField);
        QTest::qWait(100);
        QVERIFY(unexpected.seen.isEmpty());

        // Return in the empty password field tries to sign in and is stopped.
        QTest::keyClick(ui->passwdField, Qt::Key_Return);
        QCOMPARE(unexpected.seen.size(), 1);
        QCOMPARE(unexpected.seen[0].text, QStringLiteral("Login Error"));
        QCOMPARE(unexpected.seen[0].informativeText, QStringLiteral("Email and Password must not be blank."));
        QCOMPARE(unexpected.seen[0].buttons, QStringList{QStringLiteral("OK")});
        QVERIFY(ui->loginButton->isEnabled());
        QVERIFY(!ui->loginProgressIndicator->isAnimating());
        QCOMPARE(window.mainPageType(), quint32(MainPageTypeLogin));
    }
};

QTEST_MAIN(TestMainWindow)
#include "tst_mainwindow.moc"
