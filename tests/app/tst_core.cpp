#include "core/logger.h"
#include "core/paths.h"
#include "core/transfermeter.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <sys/stat.h>
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

// Long lines make a torn write likely if the log's lock did not hold.
void writeLines(const QString &tag, int count)
{
    for (int i = 0; i < count; ++i) {
        Logger::log(QStringLiteral("%1 line %2 ").arg(tag).arg(i) + QString(300, u'x'));
    }
}

const QRegularExpression kLinePrefix(QStringLiteral("^\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2} \\+0000: "));

} // namespace

// The core's shared pieces: the log (once a file from an earlier run is
// there; the functions run in order and share the one logger of the
// process), the temporary files' clean-up and a transfer's progress.
class TestCore : public QObject
{
    Q_OBJECT

private slots:
    // Tokens and passwords never reach the file or the console, whether in a
    // URL's query, a form, JSON, or anywhere once the token is known.
    void secretsAreRedacted()
    {
        Logger::shared().addSecret(QStringLiteral("0f1e2d3c4b5a69788796a5b4c3d2e1f0"));
        Logger::shared().addSecret(QStringLiteral("pw"));
        const QString redacted = Logger::shared().redacted(QStringLiteral(
            "GET: http://h/download/?_user_id=1001&_token=0f1e2d3c4b5a69788796a5b4c3d2e1f0&_v=2 "
            "user_id=1001&token=abcdefabcdef&client=x {\"token\":\"zzzzzzzzzz\",\"password\":\"hunter22\"} "
            "password=hunter22 echo 0f1e2d3c4b5a69788796a5b4c3d2e1f0 pw"));
        QCOMPARE(redacted, QStringLiteral("GET: http://h/download/?_user_id=1001&_token=<redacted>&_v=2 "
                                          "user_id=1001&token=<redacted>&client=x {\"token\":\"<redacted>\","
                                          "\"password\":\"<redacted>\"} password=<redacted> echo <redacted> pw"));
        QCOMPARE(Logger::shared().redacted(QStringLiteral("Login (demo@lyrabox.test)")),
                 QStringLiteral("Login (demo@lyrabox.test)"));
    }

    // Temporary files of processes that no longer run go at start; those of
    // a running process and names that are not the program's stay.
    void leftoversOfEndedProcessesGo()
    {
        QProcess ended;
        ended.start(QStringLiteral("true"));
        QVERIFY(ended.waitForStarted());
        const qint64 pid = ended.processId();
        QVERIFY(ended.waitForFinished());
        const QDir temp(Paths::temporaryDirectory());
        const QString own = QStringLiteral("pelicane-%1-B.flac").arg(QCoreApplication::applicationPid());
        for (const QString &name : {QStringLiteral("pelicane-%1-A.flac").arg(pid), own,
                                    QStringLiteral("pelicane-x-C.flac"), QStringLiteral("other.flac")}) {
            QFile file(temp.filePath(name));
            QVERIFY(file.open(QIODevice::WriteOnly));
        }
        QVERIFY(temp.mkpath(QStringLiteral("pelicane-%1-disc-1/inside").arg(pid)));
        Paths::removeTemporaryLeftovers();
        QCOMPARE(temp.entryList({QStringLiteral("pelicane-*"), QStringLiteral("other.flac")}),
                 (QStringList{QStringLiteral("other.flac"), own, QStringLiteral("pelicane-x-C.flac")}));
    }

    // A run of empty files moves no bytes: its percent and time left are
    // unknown, never a division by nothing.
    void transferOfNothing()
    {
        TransferMeter meter;
        meter.restart(0.0);
        for (double second = 0; second < 3; ++second) {
            meter.update(0, 0, second);
        }
        QCOMPARE(meter.percent(), -1);
        QCOMPARE(meter.secondsLeft(), qint64(-1));
        QCOMPARE(meter.amountText(), QStringLiteral("0 bytes of 0 bytes"));
    }

    // A first run on a clean account (a child process with a data folder of
    // its own): the first line makes the folder and the file, dated now in UTC.
    void firstLineMakesFolderAndFile()
    {
        QTemporaryDir home;
        QProcess child;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("XDG_DATA_HOME"), home.filePath(QStringLiteral("data")));
        child.setProcessEnvironment(environment);
        child.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--write-lines"), QStringLiteral("F")});
        QVERIFY(child.waitForFinished(30000) && child.exitCode() == 0);
        QFile file(home.filePath(QStringLiteral("data/com.lyrabox.pelicane/Pelicane.log")));
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QString first = QString::fromUtf8(file.readLine());
        QVERIFY2(kLinePrefix.match(first).hasMatch() && first.contains(QStringLiteral(": F line 0 x")),
                 qPrintable(first));
        QDateTime stamp = QDateTime::fromString(first.left(19), QStringLiteral("yyyy-MM-dd HH:mm:ss"));
        stamp.setTimeSpec(Qt::UTC);
        QVERIFY(qAbs(stamp.secsTo(QDateTime::currentDateTimeUtc())) <= 5);
    }

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
        Logger::log(QStringLiteral("first of this rün"));
        Logger::log(QStringLiteral("ends in a line feed\n"));
        Logger::log(QStringLiteral("has\ttabs\nand two lines"));
        const QByteArray log = readLog();
        QVERIFY(log.startsWith("line of an earlier run\n"));
        const QStringList lines = QString::fromUtf8(log).split(QLatin1Char('\n'));
        QCOMPARE(lines.size(), 7); // the last entry is what follows the final line feed
        QVERIFY(kLinePrefix.match(lines[1]).hasMatch());
        QVERIFY(lines[1].endsWith(QStringLiteral(": first of this rün")));
        QVERIFY(lines[2].endsWith(QStringLiteral(": ends in a line feed")));
        // The message's own line feed plus the one of the format: an empty line.
        QCOMPARE(lines[3], QString());
        QVERIFY(lines[4].endsWith(QStringLiteral(": has\ttabs")));
        QCOMPARE(lines[5], QStringLiteral("and two lines"));
        QCOMPARE(lines[6], QString());
        QCOMPARE(Logger::logSize(), log.size());
    }

    // Owner-only, also a file an earlier version left readable to all; and
    // the redaction holds in the file itself.
    void fileAndFolderAreOwnerOnly()
    {
        Logger::log(QStringLiteral("token=0f1e2d3c4b5a69788796a5b4c3d2e1f0"));
        QVERIFY(!readLog().contains("0f1e2d3c4b5a69788796a5b4c3d2e1f0"));
        struct stat file;
        QCOMPARE(::stat(QFile::encodeName(logPath()).constData(), &file), 0);
        QCOMPARE(file.st_mode & 0777, mode_t(0600));
        struct stat folder;
        QCOMPARE(::stat(QFile::encodeName(QFileInfo(logPath()).absolutePath()).constData(), &folder), 0);
        QCOMPARE(folder.st_mode & 0777, mode_t(0700));
    }

    // Two other processes (the window and pelicane-cli) and four threads
    // logging at once, from a cleared log: every line arrives whole, none is
    // lost, each writer's in the order written.
    void writersNeverLoseOrTearALine()
    {
        Logger::clearLog();
        QCOMPARE(Logger::logSize(), 0);
        QProcess first;
        QProcess second;
        first.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--write-lines"), QStringLiteral("A")});
        second.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--write-lines"), QStringLiteral("B")});
        std::vector<std::unique_ptr<QThread>> threads;
        for (const char *tag : {"C", "D", "E", "F"}) {
            threads.emplace_back(QThread::create(writeLines, QString::fromLatin1(tag), 100));
            threads.back()->start();
        }
        for (auto &thread : threads) {
            QVERIFY(thread->wait(120000));
        }
        QVERIFY(first.waitForFinished(60000) && second.waitForFinished(60000));
        QHash<QString, int> next;
        const QRegularExpression whole(kLinePrefix.pattern() + QStringLiteral("(\\w) line (\\d+) x{300}$"));
        for (const QString &line : QString::fromUtf8(readLog()).split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
            const QRegularExpressionMatch match = whole.match(line);
            QVERIFY2(match.hasMatch(), qPrintable(line.left(120)));
            QCOMPARE(match.captured(2).toInt(), next[match.captured(1)]++);
        }
        QCOMPARE(next, (QHash<QString, int>{{"A", 400}, {"B", 400}, {"C", 100}, {"D", 100}, {"E", 100}, {"F", 100}}));
    }
};

int main(int argc, char *argv[])
{
    if (argc == 3 && qstrcmp(argv[1], "--write-lines") == 0) {
        writeLines(QString::fromLatin1(argv[2]), 400);
        return 0;
    }
    QCoreApplication app(argc, argv);
    TestCore test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_core.moc"
