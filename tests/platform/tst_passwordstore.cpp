// The password store where no keyring runs (the tests' session bus is not
// there): the password goes to the settings file, owner-only, and back.
#include "passwordstoretesting.h"

#include "platform/settings.h"
#include "support/sessiontesting.h"

#include <QFile>

#include <sys/stat.h>

using namespace PasswordStoreTesting;

class TestPasswordStore : public QObject
{
    Q_OBJECT

private slots:
    void withoutKeyringTheSettingsFileHoldsIt()
    {
        LogWatch log;
        bool answeredAtOnce = false;
        PasswordStore::write(QStringLiteral(" pa ss "), this, [&](const OptionalError &) { answeredAtOnce = true; });
        QVERIFY(!answeredAtOnce); // never inside the call
        QCOMPARE(change(this, true, QStringLiteral(" pa ss ")), QString());
        QCOMPARE(PasswordStore::location(), PasswordStore::Location::SettingsFile);
        QCOMPARE(Settings::string(kSettingsPassword), QStringLiteral(" pa ss "));
        struct stat st
        {
        };
        QCOMPARE(::stat(QFile::encodeName(Settings::fileName()).constData(), &st), 0);
        QCOMPARE(st.st_mode & 0777, mode_t(0600));

        const ReadAnswer read = readPassword(this);
        QVERIFY(read.answered && !read.error);
        QCOMPARE(read.password, std::optional<QString>(QStringLiteral(" pa ss ")));

        // The file's copy goes before remove returns.
        PasswordStore::remove();
        QVERIFY(!Settings::contains(kSettingsPassword));
        QCOMPARE(change(this, false), QString());
        QCOMPARE(readPassword(this).password, std::nullopt);

        QCOMPARE(log.lines().filter(QStringLiteral("Password store:")),
                 QStringList{
                     QStringLiteral("Password store: the settings file, readable by its owner only (no session bus)")});
    }

    void answersInOrderAndNotToObjectsGone()
    {
        bool heardByGone = false;
        auto gone = std::make_unique<QObject>();
        PasswordStore::read(gone.get(),
                            [&](const std::optional<QString> &, const OptionalError &) { heardByGone = true; });
        gone.reset();
        QStringList order;
        PasswordStore::write(QStringLiteral("first"), this, [&](const OptionalError &) { order << "write"; });
        PasswordStore::read(this, [&](const std::optional<QString> &password, const OptionalError &) {
            order << QStringLiteral("read ") + password.value_or(QStringLiteral("none"));
        });
        PasswordStore::remove(this, [&](const OptionalError &) { order << "remove"; });
        QTRY_COMPARE(order, (QStringList{"write", "read first", "remove"}));
        QVERIFY(!heardByGone);
        QVERIFY(!Settings::contains(kSettingsPassword));
    }
};

QTEST_GUILESS_MAIN(TestPasswordStore)
#include "tst_passwordstore.moc"
