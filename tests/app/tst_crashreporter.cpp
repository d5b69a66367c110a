#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

// Runs the crash helper in a data folder of its own and checks what it left.
class TestCrashReporter : public QObject
{
    Q_OBJECT

    struct Outcome
    {
        QProcess::ExitStatus status = QProcess::NormalExit;
        int exitCode = 0;
        QString report;   // the report's path, as the helper announced it
        QString contents; // the report's text
        QString log;      // the log's text
    };

    Outcome crash(const QString &mode, QTemporaryDir &home)
    {
        Outcome outcome;
        QProcess helper;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("XDG_DATA_HOME"), home.path());
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        helper.setProcessEnvironment(env);
        helper.start(QStringLiteral(CRASH_HELPER_PATH), {mode});
        if (!helper.waitForFinished(60000)) {
            helper.kill();
            return outcome;
        }
        outcome.status = helper.exitStatus();
        outcome.exitCode = helper.exitCode();
        const QString out = QString::fromLocal8Bit(helper.readAllStandardOutput());
        const QRegularExpressionMatch match = QRegularExpression(QStringLiteral("report (\\S+)")).match(out);
        outcome.report = match.captured(1);
        QFile report(outcome.report);
        if (report.open(QIODevice::ReadOnly)) {
            outcome.contents = QString::fromUtf8(report.readAll());
        }
        QFile log(home.path() + QStringLiteral("/com.lyrabox.pelicane/Pelicane.log"));
        if (log.open(QIODevice::ReadOnly)) {
            outcome.log = QString::fromUtf8(log.readAll());
        }
        return outcome;
    }

    static void checkBacktrace(const QString &contents)
    {
        const qsizetype at = contents.indexOf(QStringLiteral("Backtrace:\n"));
        QVERIFY2(at >= 0, qPrintable(contents));
        // backtrace_symbols_fd writes one "object(symbol+offset) [address]" line per frame.
        const QStringList frames = contents.mid(at).split(QLatin1Char('\n'), Qt::SkipEmptyParts).mid(1);
        QVERIFY2(frames.size() >= 3, qPrintable(contents));
        for (const QString &frame : frames) {
            QVERIFY2(frame.contains(QRegularExpression(QStringLiteral("\\[0x[0-9a-f]+\\]"))), qPrintable(frame));
        }
    }

    static void checkLogNames(const Outcome &outcome, const QString &reason)
    {
        const QRegularExpression line(
            QStringLiteral("^\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2} \\+0000: "
                           "Crash report written: %1 \\(%2")
                .arg(QRegularExpression::escape(outcome.report), QRegularExpression::escape(reason)),
            QRegularExpression::MultilineOption);
        QVERIFY2(line.match(outcome.log).hasMatch(), qPrintable(outcome.log));
    }

private slots:
    void crashesLeaveOneReport_data()
    {
        QTest::addColumn<QString>("mode");
        QTest::addColumn<int>("signal");
        QTest::addColumn<QString>("reason"); // as the report and the log line name it
        QTest::addColumn<QString>("frame");  // found in the backtrace
        QTest::addColumn<bool>("mainThread");
        const QString segv = QStringLiteral("signal 11, SIGSEGV");
        QTest::newRow("fatal signal") << QStringLiteral("segv") << int(SIGSEGV) << segv
                                      << QStringLiteral("writeThroughNull") << true;
        // Several at once, while another thread holds the log's lock.
        QTest::newRow("fatal signal on pool workers")
            << QStringLiteral("workers") << int(SIGSEGV) << segv << QStringLiteral("writeThroughNull") << false;
        QTest::newRow("stack overflow on a thread")
            << QStringLiteral("overflow") << int(SIGSEGV) << segv << QStringLiteral("overflowStack") << false;
        QTest::newRow("exception from an event handler")
            << QStringLiteral("exception") << int(SIGABRT)
            << QStringLiteral("uncaught exception: std::runtime_error: boom from an event handler")
            << QStringLiteral("crashhelper") << true;
    }
    void crashesLeaveOneReport()
    {
        QFETCH(QString, mode);
        QFETCH(int, signal);
        QFETCH(QString, reason);
        QFETCH(QString, frame);
        QFETCH(bool, mainThread);
        QTemporaryDir home;
        QVERIFY(home.isValid());
        const Outcome outcome = crash(mode, home);

        // The process died of the signal itself, not of an exit call.
        QCOMPARE(outcome.status, QProcess::CrashExit);
        QCOMPARE(outcome.exitCode, signal);
        const QString crashes = home.path() + QStringLiteral("/com.lyrabox.pelicane/Crashes");
        QCOMPARE(QDir(crashes).entryList(QDir::Files).size(), 1);
        QVERIFY2(outcome.contents.startsWith(QStringLiteral("Pelicane for Mac v")), qPrintable(outcome.contents));
        QCOMPARE(outcome.contents.contains(QRegularExpression(QStringLiteral("\nThread: \\d+ \\(main\\)\n"))),
                 mainThread);
        // The helper's own frame is in the trace.
        QVERIFY2(outcome.contents.contains(frame), qPrintable(outcome.contents));
        if (signal == SIGSEGV) {
            QVERIFY(outcome.contents.contains(QStringLiteral("Reason: signal 11, SIGSEGV\n")));
        } else {
            QVERIFY(outcome.contents.contains(QStringLiteral("Reason: uncaught exception\n")));
            QVERIFY2(outcome.contents.contains(QStringLiteral("Description: ") +
                                               reason.mid(QStringLiteral("uncaught exception: ").size()) +
                                               QLatin1Char('\n')),
                     qPrintable(outcome.contents));
        }
        checkBacktrace(outcome.contents);
        QVERIFY(outcome.log.contains(QStringLiteral(": crash helper: %1\n").arg(mode)));
        // One report, not a second one from the abort that ends the process.
        QCOMPARE(outcome.log.count(QStringLiteral("Crash report written: ")), 1);
        checkLogNames(outcome, reason + QLatin1Char(')'));
    }
};

QTEST_GUILESS_MAIN(TestCrashReporter)
#include "tst_crashreporter.moc"
