#include "alertdriver.h"

#include "platform/settings.h"
#include "service/lyraboxservice.h"
#include "session/ui/mainwindowcontroller.h"
#include "support/devserverprocess.h"
#include "support/sessiontesting.h"
#include "ui_MainWindowController.h"

#include <QTest>

namespace {

constexpr int kAnswerTimeout = 30000;

QString demoEmail()
{
    return QString::fromLatin1(DevServerProcess::kDemoEmail);
}

QString demoPassword()
{
    return QString::fromLatin1(DevServerProcess::kDemoPassword);
}

} // namespace

// The Login page against the local service.
class TestSignIn : public QObject
{
    Q_OBJECT

    DevServerProcess m_server;

    void signIn(MainWindowController &window, const QString &email, const QString &password)
    {
        window.ui()->emailField->setText(email);
        window.ui()->passwdField->setText(password);
        window.ui()->loginButton->click();
    }

private slots:
    void initTestCase() { QVERIFY2(m_server.start(), qPrintable(m_server.errorString())); }

    void init()
    {
        QVERIFY(m_server.setMaintenance(false));
        for (const char *key : {kSettingsEmail, kSettingsPassword, kSettingsRememberMe}) {
            Settings::remove(key);
        }
    }

    void refusedSignInKeepsPageAndSettings_data()
    {
        QTest::addColumn<QString>("email");
        QTest::addColumn<QString>("password");
        QTest::addColumn<bool>("maintenance");
        QTest::addColumn<QString>("title");
        QTest::addColumn<QString>("text"); // null: any
        const QString invalid = QStringLiteral("Invalid e-mail address or password.");
        QTest::newRow("wrong password") << demoEmail() << QStringLiteral("wrong") << false
                                        << QStringLiteral("Login Error") << invalid;
        // Blanks are no empty field: the service, not the blank check, answers.
        QTest::newRow("blanks") << QStringLiteral("   ") << QStringLiteral(" ") << false
                                << QStringLiteral("Login Error") << invalid;
        QTest::newRow("maintenance") << demoEmail() << demoPassword() << true << QStringLiteral("Maintenace")
                                     << QString();
    }
    void refusedSignInKeepsPageAndSettings()
    {
        QFETCH(QString, email);
        QFETCH(QString, password);
        QFETCH(bool, maintenance);
        QFETCH(QString, title);
        QFETCH(QString, text);
        QVERIFY(m_server.setMaintenance(maintenance));
        Settings::setValue(kSettingsEmail, QStringLiteral("stored@example.com"));
        Settings::setValue(kSettingsPassword, QStringLiteral("stored"));
        Settings::setValue(kSettingsRememberMe, true);
        MainWindowController window;
        window.showWindow();
        Ui::MainWindowController *ui = window.ui();
        QVERIFY(ui->rememberMeCheckbox->isChecked());

        AlertDriver driver;
        bool buttonBackFirst = false;
        driver.answer(QStringLiteral("OK"), [&](QMessageBox *) {
            buttonBackFirst = ui->loginButton->isEnabled() && !ui->loginProgressIndicator->isAnimating();
        });
        signIn(window, email, password);
        // While the request is out the button rests and the indicator turns.
        QVERIFY(!ui->loginButton->isEnabled());
        QVERIFY(ui->loginProgressIndicator->isAnimating());
        QTRY_COMPARE_WITH_TIMEOUT(driver.seen.size(), 1, kAnswerTimeout);

        QCOMPARE(driver.seen[0].text, title);
        QVERIFY(!driver.seen[0].informativeText.isEmpty());
        if (!text.isNull()) {
            QCOMPARE(driver.seen[0].informativeText, text);
        }
        QCOMPARE(driver.seen[0].buttons, QStringList{QStringLiteral("OK")});
        QVERIFY(buttonBackFirst);
        QCOMPARE(window.mainPageType(), quint32(MainPageTypeLogin));
        QCOMPARE(Settings::string(kSettingsEmail), QStringLiteral("stored@example.com"));
        QCOMPARE(Settings::string(kSettingsPassword), QStringLiteral("stored"));
        QVERIFY(logLines().contains(QStringLiteral("Login (%1)").arg(email)));
    }

    void successWithRememberMeStoresAndOpensSearch()
    {
        MainWindowController window;
        window.showWindow();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        Ui::MainWindowController *ui = window.ui();

        // Checking the box stores only the box.
        ui->rememberMeCheckbox->click();
        QCOMPARE(Settings::value(kSettingsRememberMe).toBool(), true);
        QVERIFY(!Settings::contains(kSettingsEmail));

        ui->emailField->setText(demoEmail());
        ui->passwdField->setText(demoPassword());
        window.OnEnterPressed(ui->passwdField);
        QTRY_COMPARE_WITH_TIMEOUT(window.mainPageType(), quint32(MainPageTypeSearch), kAnswerTimeout);
        QVERIFY(ui->searchContainerView->isVisible());
        QCOMPARE(Settings::string(kSettingsEmail), demoEmail());
        // No keyring runs for the tests: the password goes to the settings file.
        QTRY_COMPARE(Settings::string(kSettingsPassword), demoPassword());
        QVERIFY(!LyraboxService::sharedService().userToken().isEmpty());
        QVERIFY(logLines().contains(QStringLiteral("SetPage(Search)")));

        // What a restart does with them is in tst_mainwindow's windowLoadFollowsTheSettings.

        // Unchecking forgets both at once; a restart shows empty fields.
        window.setMainPageType(MainPageTypeLogin);
        ui->rememberMeCheckbox->click();
        QVERIFY(!Settings::contains(kSettingsEmail));
        QVERIFY(!Settings::contains(kSettingsPassword));
        QCOMPARE(Settings::value(kSettingsRememberMe).toBool(), false);
        MainWindowController afterwards;
        afterwards.showWindow();
        QTest::qWait(100);
        QVERIFY(afterwards.ui()->emailField->text().isEmpty() && afterwards.ui()->passwdField->text().isEmpty());
        QCOMPARE(logLines().filter(QStringLiteral("Password store:")).size(), 1);
    }

    void expiredSessionPausesAndReturnsToLogin()
    {
        MainWindowController window;
        window.showWindow();
        Ui::MainWindowController *ui = window.ui();
        signIn(window, demoEmail(), demoPassword());
        QTRY_COMPARE_WITH_TIMEOUT(window.mainPageType(), quint32(MainPageTypeSearch), kAnswerTimeout);

        // A run is under way behind the overlay when the service refuses the session.
        SessionModel *session = window.session();
        session->setIsUploading(true);
        session->fileLists().add(FileList::Uploading, QStringLiteral("/music/a.mp3"));
        window.startWaitingAnimation(QStringLiteral("Preparing upload..."));
        QVERIFY(m_server.revokeToken());

        AlertDriver driver;
        struct AtAlert
        {
            quint32 page = 99;
            bool uploading = true;
            bool overlay = true;
            QStringList ready;
        } atAlert;
        driver.answer(QStringLiteral("OK"), [&](QMessageBox *) {
            atAlert = {window.mainPageType(), session->isUploading(), ui->maskContainerView->isVisible(),
                       session->readyFiles().toList()};
        });
        LyraboxService::sharedService().verifyLogin();
        QTRY_COMPARE_WITH_TIMEOUT(driver.seen.size(), 1, kAnswerTimeout);

        QCOMPARE(driver.seen[0].text, QStringLiteral("Login Error"));
        QCOMPARE(driver.seen[0].informativeText, QStringLiteral("Your login session has expired. Please login again."));
        QCOMPARE(driver.seen[0].buttons, QStringList{QStringLiteral("OK")});
        // Paused first (the file went back to the ready list), overlay down, Login shown.
        QCOMPARE(atAlert.page, quint32(MainPageTypeLogin));
        QVERIFY(!atAlert.uploading);
        QVERIFY(!atAlert.overlay);
        QCOMPARE(atAlert.ready, QStringList{QStringLiteral("/music/a.mp3")});
        QVERIFY(ui->loginContainerView->isVisible());
    }
};

QTEST_MAIN(TestSignIn)
#include "tst_signin.moc"
