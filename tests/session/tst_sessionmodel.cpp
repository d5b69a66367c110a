#include "app/logger.h"
#include "platform/paths.h"
#include "platform/settings.h"
#include "session/orderedpathset.h"
#include "session/sessionmodel.h"

#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

// Answers alerts from a script and records what was asked.
class ScriptedPrompter : public SessionPrompter
{
public:
    struct Alert
    {
        QString message, informative;
        QStringList buttons;
    };
    QList<Alert> alerts;
    QList<int> answers;  // taken from the front; 1000 when empty
    QStringList overlay; // "start:<reason>" / "stop"

    int showAlertWithMessageText(const QString &messageText, const QString &informativeText,
                                 const QString &defaultButton, const QString &alternateButton,
                                 const QString &otherButton) override
    {
        QStringList buttons;
        for (const QString &b : {defaultButton, alternateButton, otherButton}) {
            if (!b.isEmpty()) {
                buttons << b;
            }
        }
        alerts.append({messageText, informativeText, buttons});
        return answers.isEmpty() ? kAlertFirstButtonReturn : answers.takeFirst();
    }
    bool hasVisibleAlert() const override { return false; }
    void startWaitingAnimation(const QString &reason) override { overlay << QStringLiteral("start:") + reason; }
    void stopWaitingAnimation() override { overlay << QStringLiteral("stop"); }
};

static QStringList logLines()
{
    QFile file(Logger::logFileURL().toLocalFile());
    if (!file.open(QIODevice::ReadOnly)) {
        return {};
    }
    QStringList lines;
    for (const QByteArray &line : file.readAll().split('\n')) {
        // Strip the date prefix "yyyy-MM-dd HH:mm:ss +0000: ".
        if (line.size() > 27) {
            lines << QString::fromUtf8(line.mid(27));
        }
    }
    return lines;
}

class TestSessionModel : public QObject
{
    Q_OBJECT

private slots:
    void orderedPathSetKeepsFirstInsertion()
    {
        OrderedPathSet set;
        QVERIFY(set.append(QStringLiteral("/b")));
        QVERIFY(set.append(QStringLiteral("/a")));
        QVERIFY(!set.append(QStringLiteral("/b")));
        set.append(QStringList{QStringLiteral("/c"), QStringLiteral("/a"), QStringLiteral("/d")});
        QCOMPARE(set.toList(), (QStringList{"/b", "/a", "/c", "/d"}));
        QVERIFY(!set.prepend(QStringLiteral("/c")));
        QVERIFY(set.prepend(QStringLiteral("/z")));
        QCOMPARE(set.first(), QStringLiteral("/z"));
        QVERIFY(set.remove(QStringLiteral("/a")));
        QVERIFY(!set.remove(QStringLiteral("/a")));
        QVERIFY(!set.contains(QStringLiteral("/a")));
        QCOMPARE(set.indexOf(QStringLiteral("/c")), 2);
        QCOMPARE(set.indexOf(QStringLiteral("/a")), -1);
        QCOMPARE(set.takeFirst(), QStringLiteral("/z"));
        // A removed path can come back, at the end.
        QVERIFY(set.append(QStringLiteral("/z")));
        QCOMPARE(set.toList(), (QStringList{"/b", "/c", "/d", "/z"}));
        set.removeAt(1);
        QCOMPARE(set.toList(), (QStringList{"/b", "/d", "/z"}));
        QVERIFY(!set.contains(QStringLiteral("/c")));
        set.clear();
        QVERIFY(set.isEmpty());
        QVERIFY(set.append(QStringLiteral("/b")));
    }

    void pageModelLogsAndAnnouncesKnownPagesOnly()
    {
        SessionModel model;
        QSignalSpy shown(&model, &SessionModel::mainPageTypeChanged);
        const qsizetype before = logLines().size();

        model.setMainPageType(MainPageTypeLogin);
        model.setMainPageType(MainPageTypeList);
        model.setMainPageType(MainPageTypeResult);
        model.setMainPageType(7);
        QCOMPARE(model.mainPageType(), 7u);
        model.setMainPageType(5);
        QCOMPARE(model.mainPageType(), 5u);

        const QStringList lines = logLines().mid(before);
        QCOMPARE(lines, (QStringList{"SetPage(Login)", "SetPage(List)", "SetPage(Result)"}));
        QCOMPARE(shown.size(), 3);
        QCOMPARE(shown.at(0).at(0).toUInt(), 0u);
        QCOMPARE(shown.at(1).at(0).toUInt(), 2u);
        QCOMPARE(shown.at(2).at(0).toUInt(), 4u);
    }

    void searchPageEmptiesSixListsButKeepsRetries()
    {
        SessionModel model;
        model.foundFiles().append(QStringLiteral("/f"));
        model.readyFiles().append(QStringLiteral("/r"));
        model.uploadingFiles() << QStringLiteral("/u");
        model.skippedFiles() << QStringLiteral("/s");
        model.erroredFiles() << QStringLiteral("/e");
        model.completedFiles() << QStringLiteral("/c");
        model.retryFiles() << QStringLiteral("/t");
        model.setMainPageType(MainPageTypeSearch);
        QVERIFY(model.foundFiles().isEmpty());
        QVERIFY(model.readyFiles().isEmpty());
        QVERIFY(model.uploadingFiles().isEmpty());
        QVERIFY(model.skippedFiles().isEmpty());
        QVERIFY(model.erroredFiles().isEmpty());
        QVERIFY(model.completedFiles().isEmpty());
        QCOMPARE(model.retryFiles(), QStringList{QStringLiteral("/t")});
    }

    void searchFolderPathFromSettings()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        const QString music = Paths::musicDirectory();
        SessionModel model;
        QSignalSpy text(&model, &SessionModel::searchFolderPathTextChanged);

        // Nothing saved: the Music folder alone.
        Settings::remove(kSettingsLastFolderPath);
        model.loadSearchFolderPath();
        QCOMPARE(model.searchFolderPath(), QStringList{music});
        QCOMPARE(text.last().at(0).toString(), music);

        // A saved folder that exists: it alone.
        Settings::setValue(kSettingsLastFolderPath, dir.path());
        model.loadSearchFolderPath();
        QCOMPARE(model.searchFolderPath(), QStringList{dir.path()});
        QCOMPARE(text.last().at(0).toString(), dir.path());

        // A saved folder that has vanished stays first, Music second.
        const QString gone = dir.path() + QStringLiteral("/gone");
        Settings::setValue(kSettingsLastFolderPath, gone);
        model.loadSearchFolderPath();
        QCOMPARE(model.searchFolderPath(), (QStringList{gone, music}));
        QCOMPARE(text.last().at(0).toString(), QStringLiteral("Multiple Folders"));
        Settings::remove(kSettingsLastFolderPath);
    }

    void rememberMeStoresAndForgetsExactlyTheCredentials()
    {
        Settings::setValue(kSettingsEmail, QStringLiteral("old@example.com"));
        Settings::setValue(kSettingsPassword, QStringLiteral("old"));
        Settings::setValue(kSettingsLastFolderPath, QStringLiteral("/keep"));
        SessionModel model;

        // Switching on stores nothing until a sign-in succeeds.
        model.OnRememberMeChecked(true);
        QCOMPARE(Settings::value(kSettingsRememberMe).toBool(), true);
        QCOMPARE(Settings::string(kSettingsEmail), QStringLiteral("old@example.com"));

        // Switching off forgets both at once and keeps everything else.
        model.OnRememberMeChecked(false);
        QVERIFY(Settings::contains(kSettingsRememberMe));
        QCOMPARE(Settings::value(kSettingsRememberMe).toBool(), false);
        QVERIFY(!Settings::contains(kSettingsEmail));
        QVERIFY(!Settings::contains(kSettingsPassword));
        QCOMPARE(Settings::string(kSettingsLastFolderPath), QStringLiteral("/keep"));

        // A restart after that shows empty fields and an unchecked box.
        SessionModel restarted;
        restarted.loadCredentials();
        QCOMPARE(restarted.email(), QString(""));
        QVERIFY(!restarted.email().isNull());
        QCOMPARE(restarted.password(), QString(""));
        QVERIFY(!restarted.rememberMe());
        Settings::remove(kSettingsLastFolderPath);
    }

    void signInAnswerStoresCredentialsOnlyOnSuccessWithRememberMe()
    {
        ScriptedPrompter prompter;
        SessionModel model(&prompter);
        QSignalSpy loggingIn(&model, &SessionModel::loggingInChanged);
        Settings::remove(kSettingsEmail);
        Settings::remove(kSettingsPassword);
        model.OnRememberMeChecked(true);
        model.setEmail(QStringLiteral(" user@example.com"));
        model.setPassword(QStringLiteral("secret "));

        // A refused sign-in keeps the page and stores nothing.
        model.lyraboxDidLogin(nullptr, Error::errorWithMessage(QStringLiteral("Wrong password"), 1));
        QCOMPARE(prompter.alerts.size(), 1);
        QCOMPARE(prompter.alerts[0].message, QStringLiteral("Login Error"));
        QCOMPARE(prompter.alerts[0].informative, QStringLiteral("Wrong password"));
        QCOMPARE(prompter.alerts[0].buttons, QStringList{QStringLiteral("OK")});
        QVERIFY(!Settings::contains(kSettingsEmail));
        QCOMPARE(model.mainPageType(), quint32(MainPageTypeLogin));
        QCOMPARE(loggingIn.size(), 1);
        QCOMPARE(loggingIn.last().at(0).toBool(), false);

        model.lyraboxDidLogin(nullptr, Error::maintenanceErrorWithMessage(QStringLiteral("Back soon")));
        QCOMPARE(prompter.alerts[1].message, QStringLiteral("Maintenace"));
        QCOMPARE(prompter.alerts[1].informative, QStringLiteral("Back soon"));

        // Success stores the texts exactly as typed and opens the Search page.
        model.lyraboxDidLogin(nullptr, std::nullopt);
        QCOMPARE(prompter.alerts.size(), 2);
        QCOMPARE(Settings::string(kSettingsEmail), QStringLiteral(" user@example.com"));
        QCOMPARE(Settings::string(kSettingsPassword), QStringLiteral("secret "));
        QCOMPARE(model.mainPageType(), quint32(MainPageTypeSearch));

        // Without Remember Me a success stores nothing.
        model.OnRememberMeChecked(false);
        model.setMainPageType(MainPageTypeLogin);
        model.lyraboxDidLogin(nullptr, std::nullopt);
        QVERIFY(!Settings::contains(kSettingsEmail));
        QVERIFY(!Settings::contains(kSettingsPassword));
        QCOMPARE(model.mainPageType(), quint32(MainPageTypeSearch));
    }

    void expiredSessionPausesThenReturnsToLogin()
    {
        ScriptedPrompter prompter;
        SessionModel model(&prompter);
        model.setMainPageType(MainPageTypeUpload);
        QVERIFY(model.isUploading());
        // Entering the Upload page put up "Preparing upload..."; only what follows counts.
        prompter.overlay.clear();
        model.readyFiles().append(QStringLiteral("/d"));
        model.uploadingFiles() << QStringLiteral("/a") << QStringLiteral("/b");
        QStringList pageWhenPaused;
        connect(&model, &SessionModel::uploadStateChanged, this,
                [&] { pageWhenPaused << SessionModel::pageName(model.mainPageType()); });

        model.lyraboxDidReceiveAuthorizationError(nullptr);

        QVERIFY(!model.isUploading());
        QCOMPARE(model.readyFiles().toList(), (QStringList{"/a", "/b", "/d"}));
        QCOMPARE(pageWhenPaused.first(), QStringLiteral("Upload"));
        QCOMPARE(prompter.overlay, QStringList{QStringLiteral("stop")});
        QCOMPARE(model.mainPageType(), quint32(MainPageTypeLogin));
        QCOMPARE(prompter.alerts.size(), 1);
        QCOMPARE(prompter.alerts[0].message, QStringLiteral("Login Error"));
        QCOMPARE(prompter.alerts[0].informative, QStringLiteral("Your login session has expired. Please login again."));
        QCOMPARE(prompter.alerts[0].buttons, QStringList{QStringLiteral("OK")});
    }

    void runStartAnswers()
    {
        ScriptedPrompter prompter;
        SessionModel model(&prompter);
        model.setMainPageType(MainPageTypeList);
        model.lyraboxDidReadMd5List(nullptr, Error::errorWithMessage(QStringLiteral("No list"), 3));
        QCOMPARE(prompter.overlay, QStringList{QStringLiteral("stop")});
        QCOMPARE(prompter.alerts.last().message, QStringLiteral("Error starting upload"));
        QCOMPARE(prompter.alerts.last().informative, QStringLiteral("No list"));
        QCOMPARE(prompter.alerts.last().buttons, QStringList{QStringLiteral("OK")});
        QCOMPARE(model.mainPageType(), quint32(MainPageTypeList));

        model.lyraboxDidVerifyLogin(nullptr, Error::errorWithMessage(QStringLiteral("Not now"), 2));
        QCOMPARE(prompter.alerts.last().message, QStringLiteral("Error Starting Upload"));
        QCOMPARE(prompter.alerts.last().informative, QStringLiteral("Not now"));
        QVERIFY(prompter.alerts.last().buttons.isEmpty());

        model.lyraboxDidReadMd5List(nullptr, std::nullopt);
        QCOMPARE(model.mainPageType(), quint32(MainPageTypeUpload));
        QCOMPARE(prompter.alerts.size(), 2);
    }
};

QTEST_GUILESS_MAIN(TestSessionModel)
#include "tst_sessionmodel.moc"
