#include "platform/paths.h"
#include "platform/settings.h"
#include "session/orderedpathset.h"
#include "session/sessionmodel.h"
#include "support/sessiontesting.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

class TestSessionModel : public QObject
{
    Q_OBJECT

private slots:
    void orderedPathSetKeepsFirstInsertion()
    {
        OrderedPathSet set;
        QVERIFY(set.append(QStringLiteral("/b")));
        QVERIFY(!set.append(QStringLiteral("/b")));
        set.append(QStringList{"/a", "/c", "/a", "/d"});
        QCOMPARE(set.toList(), (QStringList{"/b", "/a", "/c", "/d"}));
        QVERIFY(!set.prepend(QStringLiteral("/c")));
        QVERIFY(set.prepend(QStringLiteral("/z")));
        QVERIFY(set.remove(QStringLiteral("/a")));
        QVERIFY(!set.remove(QStringLiteral("/a")));
        QCOMPARE(set.indexOf(QStringLiteral("/c")), 2);
        QCOMPARE(set.indexOf(QStringLiteral("/a")), -1);
        QCOMPARE(set.takeFirst(), QStringLiteral("/z"));
        // A removed path can come back, at the end.
        QVERIFY(set.append(QStringLiteral("/z")));
        set.removeAt(1);
        QCOMPARE(set.toList(), (QStringList{"/b", "/d", "/z"}));
        QVERIFY(!set.contains(QStringLiteral("/c")));
        set.clear();
        QVERIFY(set.append(QStringLiteral("/b")));
    }

    void pageModelLogsAndAnnouncesKnownPagesOnly()
    {
        SessionModel model;
        QSignalSpy shown(&model, &SessionModel::mainPageTypeChanged);
        LogWatch log;
        for (quint32 page :
             {quint32(MainPageTypeLogin), quint32(MainPageTypeList), quint32(MainPageTypeResult), 7u, 5u}) {
            model.setMainPageType(page);
            QCOMPARE(model.mainPageType(), page);
        }
        QCOMPARE(log.lines(), (QStringList{"SetPage(Login)", "SetPage(List)", "SetPage(Result)"}));
        QCOMPARE(shown.size(), 3);
        QCOMPARE(shown.at(2).at(0).toUInt(), 4u);
    }

    void searchPageSetUp()
    {
        // Six lists are emptied; the retries are kept.
        SessionModel model;
        model.foundFiles().append(QStringLiteral("/f"));
        model.readyFiles().append(QStringLiteral("/r"));
        model.uploadingFiles() << QStringLiteral("/u");
        model.skippedFiles() << QStringLiteral("/s");
        model.erroredFiles() << QStringLiteral("/e");
        model.completedFiles() << QStringLiteral("/c");
        model.retryFiles() << QStringLiteral("/t");
        model.setMainPageType(MainPageTypeSearch);
        QVERIFY(model.foundFiles().isEmpty() && model.readyFiles().isEmpty() && model.uploadingFiles().isEmpty());
        QVERIFY(model.skippedFiles().isEmpty() && model.erroredFiles().isEmpty() && model.completedFiles().isEmpty());
        QCOMPARE(model.retryFiles(), QStringList{QStringLiteral("/t")});

        // The folder: the saved one, the Music folder when none is saved.
        QTemporaryDir dir;
        QSignalSpy text(&model, &SessionModel::searchFolderPathTextChanged);
        Settings::remove(kSettingsLastFolderPath);
        model.loadSearchFolderPath();
        QCOMPARE(model.searchFolderPath(), QStringList{Paths::musicDirectory()});
        Settings::setValue(kSettingsLastFolderPath, dir.path());
        model.loadSearchFolderPath();
        QCOMPARE(model.searchFolderPath(), QStringList{dir.path()});
        QCOMPARE(text.last().at(0).toString(), dir.path());
        Settings::remove(kSettingsLastFolderPath);
    }

    void signInAnswers()
    {
        ScriptedPrompter prompter;
        SessionModel model(&prompter);
        QSignalSpy loggingIn(&model, &SessionModel::loggingInChanged);
        model.OnRememberMeChecked(true);
        model.setEmail(QStringLiteral(" user@example.com"));
        model.setPassword(QStringLiteral("secret "));

        model.lyraboxDidLogin(nullptr, Error::errorWithMessage(QStringLiteral("Wrong password"), 1));
        QCOMPARE(prompter.alerts.size(), 1);
        QCOMPARE(prompter.alerts[0].message, QStringLiteral("Login Error"));
        QCOMPARE(prompter.alerts[0].informative, QStringLiteral("Wrong password"));
        QVERIFY(!Settings::contains(kSettingsEmail));
        QCOMPARE(loggingIn.size(), 1);
        QCOMPARE(loggingIn.last().at(0).toBool(), false);

        // Success stores the texts exactly as typed; without Remember Me nothing.
        model.lyraboxDidLogin(nullptr, std::nullopt);
        QCOMPARE(Settings::string(kSettingsEmail), QStringLiteral(" user@example.com"));
        QCOMPARE(Settings::string(kSettingsPassword), QStringLiteral("secret "));
        QCOMPARE(model.mainPageType(), quint32(MainPageTypeSearch));
        model.OnRememberMeChecked(false);
        model.setMainPageType(MainPageTypeLogin);
        model.lyraboxDidLogin(nullptr, std::nullopt);
        QVERIFY(!Settings::contains(kSettingsEmail) && !Settings::contains(kSettingsPassword));
        QCOMPARE(model.mainPageType(), quint32(MainPageTypeSearch));
        QCOMPARE(prompter.alerts.size(), 1);
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
