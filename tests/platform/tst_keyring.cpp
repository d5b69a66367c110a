// The password store with a real keyring: gnome-keyring-daemon on a session
// bus of the test's own, its login keyring in the test's data folder. Skipped
// where gnome-keyring is not installed (it pulls in GTK, so the build does not
// ask for it); the store's other road is tested in tst_passwordstore.
#include "passwordstoretesting.h"

#include "core/paths.h"
#include "platform/settings.h"
#include "support/sessiontesting.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>

#include <qt6keychain/keychain.h>

using namespace PasswordStoreTesting;

namespace {

// What the keyring holds for the program, read past the store.
std::pair<QKeychain::Error, QString> keyringEntry()
{
    QKeychain::ReadPasswordJob job(Paths::applicationIdentifier());
    job.setAutoDelete(false);
    job.setKey(QStringLiteral("password"));
    bool ended = false;
    QObject::connect(&job, &QKeychain::Job::finished, [&ended] { ended = true; });
    job.start();
    if (!QTest::qWaitFor([&ended] { return ended; }, 20000)) {
        return {QKeychain::OtherError, QStringLiteral("unanswered")};
    }
    return {job.error(), job.textData()};
}

bool loginKeyringIsOpen()
{
    QDBusMessage get = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.secrets"), QStringLiteral("/org/freedesktop/secrets/collection/login"),
        QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    get << QStringLiteral("org.freedesktop.Secret.Collection") << QStringLiteral("Locked");
    const QDBusMessage reply = QDBusConnection::sessionBus().call(get, QDBus::Block, 2000);
    return reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty() &&
           !reply.arguments().first().value<QDBusVariant>().variant().toBool();
}

bool settingsFileMentions(const QString &text)
{
    QFile file(Settings::fileName());
    return file.open(QIODevice::ReadOnly) && file.readAll().contains(text.toUtf8());
}

} // namespace

class TestKeyring : public QObject
{
    Q_OBJECT

    QProcess m_bus;
    QProcess m_keyring;

private slots:
    void initTestCase()
    {
        const QString bus = QStandardPaths::findExecutable(QStringLiteral("dbus-daemon"));
        const QString keyring = QStandardPaths::findExecutable(QStringLiteral("gnome-keyring-daemon"));
        if (bus.isEmpty() || keyring.isEmpty()) {
            QSKIP("gnome-keyring-daemon or dbus-daemon is not installed (Debian: gnome-keyring, dbus)");
        }
        m_bus.start(bus, {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--print-address")});
        QVERIFY(m_bus.waitForReadyRead(10000));
        const QByteArray address = m_bus.readLine().trimmed();
        QVERIFY(!address.isEmpty());
        // Before anything in this process uses the session bus.
        qputenv("DBUS_SESSION_BUS_ADDRESS", address);

        // As a login does: the password on standard input creates and unlocks
        // the login keyring, which becomes the default one; --start then puts
        // the Secret Service on the bus.
        m_keyring.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_keyring.start(keyring, {QStringLiteral("--foreground"), QStringLiteral("--login")});
        QVERIFY(m_keyring.waitForStarted(10000));
        m_keyring.write("test keyring password");
        // Whole before --start: the daemon reads it to the end first.
        QVERIFY(m_keyring.waitForBytesWritten(10000));
        m_keyring.closeWriteChannel();
        QProcess start;
        start.start(keyring, {QStringLiteral("--start"), QStringLiteral("--components=secrets")});
        QVERIFY(start.waitForFinished(20000));
        // The service shows on the bus a little before the login keyring
        // is loaded: wait until that keyring answers, unlocked.
        if (!QTest::qWaitFor(loginKeyringIsOpen, 10000)) {
            QSKIP("gnome-keyring-daemon did not open a login keyring on the test's bus");
        }
    }

    void cleanupTestCase()
    {
        for (QProcess *process : {&m_keyring, &m_bus}) {
            if (process->state() != QProcess::NotRunning) {
                process->kill();
                process->waitForFinished();
            }
        }
    }

    void passwordOfAnEarlierVersionMovesToTheKeyring()
    {
        LogWatch log;
        Settings::setValue(kSettingsPassword, QStringLiteral("kept by 1.0"));
        // It signs in as before...
        ReadAnswer read = readPassword(this);
        QVERIFY(read.answered && !read.error);
        QCOMPARE(read.password, std::optional<QString>(QStringLiteral("kept by 1.0")));
        // ...and leaves the readable file for the keyring.
        QTRY_VERIFY_WITH_TIMEOUT(!Settings::contains(kSettingsPassword), 20000);
        QCOMPARE(PasswordStore::location(), PasswordStore::Location::Keyring);
        QCOMPARE(keyringEntry(), std::make_pair(QKeychain::NoError, QStringLiteral("kept by 1.0")));
        read = readPassword(this);
        QCOMPARE(read.password, std::optional<QString>(QStringLiteral("kept by 1.0")));
        QVERIFY(!settingsFileMentions(QStringLiteral("kept by 1.0")));
        QCOMPARE(log.lines().filter(QStringLiteral("Moved the remembered password")).size(), 1);
    }

    void writeReadAndRemoveGoToTheKeyringOnly()
    {
        LogWatch log;
        QCOMPARE(change(this, true, QStringLiteral("s3cret ü")), QString());
        QVERIFY(!Settings::contains(kSettingsPassword));
        QVERIFY(!settingsFileMentions(QStringLiteral("s3cret")));
        QCOMPARE(keyringEntry(), std::make_pair(QKeychain::NoError, QStringLiteral("s3cret ü")));
        QCOMPARE(readPassword(this).password, std::optional<QString>(QStringLiteral("s3cret ü")));

        QCOMPARE(change(this, false), QString());
        QCOMPARE(keyringEntry().first, QKeychain::EntryNotFound);
        const ReadAnswer read = readPassword(this);
        QVERIFY(read.answered && !read.error);
        QCOMPARE(read.password, std::nullopt);
        // Said once, in the first test, for the whole process.
        QVERIFY(log.lines().filter(QStringLiteral("Password store:")).isEmpty());
        QCOMPARE(logLines().filter(QStringLiteral("Password store:")),
                 QStringList{QStringLiteral("Password store: the desktop keyring (org.freedesktop.secrets)")});
    }
};

QTEST_GUILESS_MAIN(TestKeyring)
#include "tst_keyring.moc"
