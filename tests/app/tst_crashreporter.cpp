#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

// Runs the crash helper in a data folder of its own and checks what it left:
// one report with a backtrace, and one log line naming it.
class TestCrashReporter : public QObject
{
    Q_OBJECT

    static QString readAll(const QString &path)
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    }

private slots:
    void crashesLeaveOneReport_data()
    {
        QTest::addColumn<QString>("mode");
        QTest::addColumn<int>("signal");
        QTest::addColumn<QString>("reason"); // as the log line names it
        QTest::addColumn<QString>("frame");  // found in the backtrace
        QTest::addColumn<bool>("mainThread");
        const QString segv = QStringLiteral("signal 11, SIGSEGV");
        QTest::newRow("fatal signal") << "segv" << int(SIGSEGV) << segv << "writeThroughNull" << true;
        // Several at once, while another thread holds the log's lock.
        QTest::newRow("fatal signal on pool workers")
            << "workers" << int(SIGSEGV) << segv << "writeThroughNull" << false;
        QTest::newRow("stack overflow on a thread") << "overflow" << int(SIGSEGV) << segv << "overflowStack" << false;
        QTest::newRow("exception from an event handler")
            << "exception" << int(SIGABRT) << "uncaught exception: std::runtime_error: boom from an event handler"
            << "crashhelper" << true;
    }
    void crashesLeaveOneReport()
    {
        QFETCH(QString, mode);
        QFETCH(int, signal);
        QFETCH(QString, reason);
        QFETCH(QString, frame);
        QFETCH(bool, mainThread);
        QTemporaryDir home;
        QProcess helper;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("XDG_DATA_HOME"), home.path());
        helper.setProcessEnvironment(environment);
        helper.start(QStringLiteral(CRASH_HELPER_PATH), {mode});
        QVERIFY(helper.waitForFinished(60000));
        // The process died of the signal itself, not of an exit call.
        QCOMPARE(helper.exitStatus(), QProcess::CrashExit);
        QCOMPARE(helper.exitCode(), signal);
        const QString report = QString::fromLocal8Bit(helper.readAllStandardOutput()).section(u' ', 1).trimmed();
        QCOMPARE(QDir(home.filePath(QStringLiteral("com.lyrabox.pelicane/Crashes"))).entryList(QDir::Files).size(), 1);
        const QString contents = readAll(report);
        QVERIFY2(contents.startsWith(QStringLiteral("Pelicane for Mac v")), qPrintable(contents));
        QCOMPARE(contents.contains(QRegularExpression(QStringLiteral("\nThread: \\d+ \\(main\\)\n"))), mainThread);
        QVERIFY2(contents.contains(frame), qPrintable(contents));
        QVERIFY(contents.contains(signal == SIGSEGV ? QStringLiteral("Reason: signal 11, SIGSEGV\n")
                                                    : QStringLiteral("Reason: uncaught exception\n")));
        QVERIFY(signal == SIGSEGV ||
                contents.contains(QStringLiteral("Description: ") + reason.section(QStringLiteral(": "), 1) + u'\n'));
        // backtrace_symbols_fd writes one "object(symbol+offset) [address]" line per frame.
        const QStringList frames = contents.section(QStringLiteral("Backtrace:\n"), 1).split(u'\n', Qt::SkipEmptyParts);
        QVERIFY2(frames.size() >= 3, qPrintable(contents));
        for (const QString &line : frames) {
            QVERIFY2(line.contains(QRegularExpression(QStringLiteral("\\[0x[0-9a-f]+\\]"))), qPrintable(line));
        }
        // One report, not a second one from the abort that ends the process.
        const QString log = readAll(home.filePath(QStringLiteral("com.lyrabox.pelicane/Pelicane.log")));
        QVERIFY(log.contains(QStringLiteral(": crash helper: %1\n").arg(mode)));
        QCOMPARE(log.count(QStringLiteral("Crash report written: ")), 1);
        QVERIFY2(log.contains(QStringLiteral(" +0000: Crash report written: %1 (%2)").arg(report, reason)),
                 qPrintable(log));
    }
};

QTEST_GUILESS_MAIN(TestCrashReporter)
#include "tst_crashreporter.moc"
