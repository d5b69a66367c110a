#include "alertdriver.h"

#include "core/paths.h"
#include "platform/settings.h"
#include "session/ui/mainwindowcontroller.h"
#include "support/sessiontesting.h"
#include "ui_MainWindowController.h"

#include <QTemporaryDir>
#include <QTest>

#include <stdexcept>

namespace {

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
        // The password store answers a turn later, and says once where it keeps it.
        QTRY_COMPARE(ui->passwdField->text(), QStringLiteral("pa ss"));
        QCOMPARE(log.lines(), (QStringList{QStringLiteral("SetPage(Login)"),
                                           QStringLiteral("Password store: the settings file, readable by its owner "
                                                          "only (no session bus)")}));
        QVERIFY(ui->rememberMeCheckbox->isChecked());
        // Loading the saved state is not a click: the settings stay as they were.
        QCOMPARE(Settings::string(kSettingsEmail), QStringLiteral("me@example.com"));

        QVERIFY(ui->maskContainerView->isHidden());
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

    void returnKeysAndBlankFields()
    {
        MainWindowController window;
        window.showWindow();
        QVERIFY(QTest::qWaitForWindowActive(&window));
        Ui::MainWindowController *ui = window.ui();
        ui->emailField->setText(QStringLiteral("someone@example.com"));
        AlertDriver unexpected;
        unexpected.answer(QStringLiteral("OK"));
        // Return in the empty password field tries to sign in and is stopped.
        QTest::keyClick(ui->passwdField, Qt::Key_Return);
        QCOMPARE(unexpected.seen.size(), 1);
        QCOMPARE(unexpected.seen[0].text, QStringLiteral("Login Error"));
        QCOMPARE(unexpected.seen[0].informativeText, QStringLiteral("Email and Password must not be blank."));
        QCOMPARE(unexpected.seen[0].buttons, QStringList{QStringLiteral("OK")});
        QVERIFY(ui->loginButton->isEnabled());
        QVERIFY(!ui->loginProgressIndicator->isAnimating());
        QCOMPARE(window.mainPageType(), quint32(MainPageTypeLogin));
        // Return on the Remember Me box and on the focused button tries too.
        for (QWidget *focused :
             {static_cast<QWidget *>(ui->rememberMeCheckbox), static_cast<QWidget *>(ui->loginButton)}) {
            window.activateWindow();
            QVERIFY(QTest::qWaitForWindowActive(&window));
            focused->setFocus();
            unexpected.answer(QStringLiteral("OK"));
            QTest::keyClick(focused, Qt::Key_Return);
        }
        QCOMPARE(unexpected.seen.size(), 3);
        QCOMPARE(unexpected.seen[2].informativeText, QStringLiteral("Email and Password must not be blank."));
    }
};

QTEST_MAIN(TestMainWindow)
#include "tst_mainwindow.moc"
