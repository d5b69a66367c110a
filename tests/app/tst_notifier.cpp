// The end-of-run notification over a session bus of the test's own: nothing
// is sent while no notification service is on the bus, and the summary and
// body arrive at one once it is there.
#include "app/desktopnotifier.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QProcess>
#include <QStandardPaths>
#include <QTest>

// Receives Notify as a notification daemon would.
class NotificationReceiver : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")

public:
    QStringList received;

public slots:
    uint Notify(const QString &appName, uint, const QString &icon, const QString &summary, const QString &body,
                const QStringList &, const QVariantMap &hints, int)
    {
        received << appName << icon << summary << body << hints.value(QStringLiteral("desktop-entry")).toString();
        return 1;
    }
};

class TestNotifier : public QObject
{
    Q_OBJECT

    QProcess m_bus;

private slots:
    void initTestCase()
    {
        const QString daemon = QStandardPaths::findExecutable(QStringLiteral("dbus-daemon"));
        if (daemon.isEmpty()) {
            QSKIP("dbus-daemon is not installed");
        }
        m_bus.start(daemon,
                    {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--print-address")});
        QVERIFY(m_bus.waitForReadyRead(10000));
        const QByteArray address = m_bus.readLine().trimmed();
        QVERIFY(!address.isEmpty());
        // Before the first use of the session bus in this process.
        qputenv("DBUS_SESSION_BUS_ADDRESS", address);
        QVERIFY(QDBusConnection::sessionBus().isConnected());
    }

    void cleanupTestCase()
    {
        m_bus.kill();
        m_bus.waitForFinished();
    }

    void notifiesOnlyWhereTheServiceRuns()
    {
        QVERIFY(!DesktopNotifier::isAvailable());
        QVERIFY(!DesktopNotifier::notify(QStringLiteral("Upload finished"), QStringLiteral("3 uploaded")));

        QDBusConnection daemon =
            QDBusConnection::connectToBus(qEnvironmentVariable("DBUS_SESSION_BUS_ADDRESS"), QStringLiteral("daemon"));
        NotificationReceiver receiver;
        QVERIFY(daemon.registerObject(QStringLiteral("/org/freedesktop/Notifications"), &receiver,
                                      QDBusConnection::ExportAllSlots));
        QVERIFY(daemon.registerService(QStringLiteral("org.freedesktop.Notifications")));

        QVERIFY(DesktopNotifier::isAvailable());
        QVERIFY(DesktopNotifier::notify(QStringLiteral("Upload finished"), QStringLiteral("3 uploaded, 0 failed.")));
        QTRY_VERIFY(!receiver.received.isEmpty());
        QCOMPARE(receiver.received, (QStringList{"Pelicane", "com.lyrabox.pelicane", "Upload finished",
                                                 "3 uploaded, 0 failed.", "com.lyrabox.pelicane"}));
        QDBusConnection::disconnectFromBus(QStringLiteral("daemon"));
    }
};

QTEST_GUILESS_MAIN(TestNotifier)
#include "tst_notifier.moc"
