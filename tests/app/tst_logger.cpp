#include "core/logger.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTest>
#include <QThread>

#include <vector>

namespace {

QString logPath()
{
    return qEnvironmentVariable("XDG_DATA_HOME") + QStringLiteral("/com.lyrabox.pelicane/Pelicane.log");
}

QByteArray readLog()
{
    QFile file(logPath());
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

const QRegularExpression kLinePrefix(QStringLiteral("^\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2} \\+0000: "));

} // namespace

// The log once a file from an earlier run is there. The functions run in
// order and share the one logger of the process.
class TestLogger : public QObject
{
    Q_OBJECT

private slots:
    void beforeTheFirstLineOfThisRun()
    {
        QVERIFY(QDir().mkpath(QFileInfo(logPath()).absolutePath()));
        QFile earlier(logPath());
        QVERIFY(earlier.open(QIODevice::WriteOnly));
        earlier.write("line of an earlier run\n");
        earlier.close();

        // Nothing is open yet: the size is 0 and clearing leaves the file alone.
        QCOMPARE(Logger::logSize(), 0);
        Logger::clearLog();
        QCOMPARE(readLog(), QByteArray("line of an earlier run\n"));
    }

    void linesAreAppendedWithDateAndLineFeed()
    {
        Logger::log(QStringLiteral("first of this run"));
        Logger::log(QStringLiteral("ends in a line feed\n"));
        Logger::log(QStringLiteral("has\ttabs\nand two lines"));
        const QByteArray log = readLog();
        QVERIFY(log.startsWith("line of an earlier run\n"));
        const QStringList lines = QString::fromUtf8(log).split(QLatin1Char('\n'));
        QCOMPARE(lines.size(), 7); // the last entry is what follows the final line feed
        QVERIFY(kLinePrefix.match(lines[1]).hasMatch());
        QVERIFY(lines[1].endsWith(QStringLiteral(": first of this run")));
        QVERIFY(lines[2].endsWith(QStringLiteral(": ends in a line feed")));
        // The message's own line feed plus the one of the format: an empty line.
        QCOMPARE(lines[3], QString());
        QVERIFY(lines[4].endsWith(QStringLiteral(": has\ttabs")));
        QCOMPARE(lines[5], QStringLiteral("and two lines"));
        QCOMPARE(lines[6], QString());
        QCOMPARE(Logger::logSize(), log.size());
    }

    void clearStartsAgainAtOffsetZero()
    {
        Logger::clearLog();
        QCOMPARE(Logger::logSize(), 0);
        Logger::log(QStringLiteral("after clearing"));
        const QByteArray log = readLog();
        QVERIFY(log.endsWith(": after clearing\n"));
        QCOMPARE(log.count('\n'), 1);
    }

    void threadsNeverInterleaveWithinALine()
    {
        Logger::clearLog();
        constexpr int kThreads = 8;
        constexpr int kLines = 60;
        std::vector<std::unique_ptr<QThread>> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back(QThread::create([t] {
                for (int i = 0; i < kLines; ++i) {
                    // Long lines make a torn write likely if the lock did not hold.
                    Logger::log(
                        QStringLiteral("thread %1 line %2 %3").arg(t).arg(i).arg(QString(300, QChar(u'a' + t))));
                }
            }));
        }
        for (auto &thread : threads) {
            thread->start();
        }
        for (auto &thread : threads) {
            QVERIFY(thread->wait(120000));
        }

        const QStringList lines = QString::fromUtf8(readLog()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), kThreads * kLines);
        const QRegularExpression whole(QStringLiteral(
            "^\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2} \\+0000: thread (\\d) line (\\d+) ([a-h])\\3{299}$"));
        int next[kThreads] = {};
        for (const QString &line : lines) {
            const QRegularExpressionMatch match = whole.match(line);
            QVERIFY2(match.hasMatch(), qPrintable(line.left(120)));
            const int t = match.captured(1).toInt();
            QCOMPARE(match.captured(3), QString(QChar(u'a' + t)));
            // Each thread's lines arrive in the order it wrote them.
            QCOMPARE(match.captured(2).toInt(), next[t]);
            ++next[t];
        }
        QCOMPARE(Logger::logSize(), QFileInfo(logPath()).size());
    }
};

QTEST_GUILESS_MAIN(TestLogger)
#include "tst_logger.moc"
