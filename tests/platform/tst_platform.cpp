#include "core/paths.h"
#include "platform/dispatch.h"
#include "platform/settings.h"

#include <QFileInfo>
#include <QTest>
#include <QThread>

#include <sys/stat.h>

class TestPlatform : public QObject
{
    Q_OBJECT

private slots:
    void dataFolderFollowsXdg()
    {
        const QString xdg = QString::fromLocal8Bit(qgetenv("XDG_DATA_HOME"));
        QVERIFY(!xdg.isEmpty());
        QCOMPARE(Paths::dataDirectory(), xdg + QStringLiteral("/com.lyrabox.pelicane"));
    }

    void settingsAreOwnerOnlyAndRoundTrip()
    {
        QVERIFY(Settings::string(kSettingsEmail).isNull());
        Settings::setValue(kSettingsEmail, QStringLiteral("a@b.c"));
        Settings::setValue(kSettingsPassword, QStringLiteral(" secret "));
        Settings::setValue(kSettingsRememberMe, true);
        QCOMPARE(Settings::string(kSettingsPassword), QStringLiteral(" secret "));
        QVERIFY(Settings::boolean(kSettingsRememberMe));

        const QString file = Settings::fileName();
        QVERIFY(file.startsWith(QString::fromLocal8Bit(qgetenv("XDG_CONFIG_HOME"))));
        struct stat st
        {
        };
        QCOMPARE(::stat(QFile::encodeName(file).constData(), &st), 0);
        QCOMPARE(st.st_mode & 0777, mode_t(0600));
    }

    void dispatchReachesTheMainThread()
    {
        QThread *mainThread = QThread::currentThread();
        QThread *seenAsync = nullptr;
        QThread *seenSync = nullptr;
        std::unique_ptr<QThread> worker(QThread::create([&] {
            dispatchSyncMain([&] { seenSync = QThread::currentThread(); });
            dispatchAsyncMain([&] { seenAsync = QThread::currentThread(); });
        }));
        worker->start();
        QTRY_VERIFY(worker->isFinished());
        QCOMPARE(seenSync, mainThread);
        QTRY_COMPARE(seenAsync, mainThread);
        bool ranAtOnce = false;
        dispatchSyncMain([&] { ranAtOnce = true; });
        QVERIFY(ranAtOnce);
    }
};

QTEST_GUILESS_MAIN(TestPlatform)
#include "tst_platform.moc"
