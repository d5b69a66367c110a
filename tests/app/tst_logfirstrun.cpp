#include "core/logger.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTest>

// A first run on a clean account: nothing exists until the first line.
class TestLogFirstRun : public QObject
{
    Q_OBJECT

private slots:
    void firstLineCreatesFolderAndFile()
    {
        const QString folder = qEnvironmentVariable("XDG_DATA_HOME") + QStringLiteral("/com.lyrabox.pelicane");
        QVERIFY(!qEnvironmentVariable("XDG_DATA_HOME").isEmpty());
        QVERIFY(!QDir(folder).exists());
        QCOMPARE(Logger::logSize(), 0);
        Logger::clearLog();
        QVERIFY(!QFile::exists(folder + QStringLiteral("/Pelicane.log")));

        Logger::log(QStringLiteral("héllo wörld"));

        QCOMPARE(Logger::logFileURL().toLocalFile(), folder + QStringLiteral("/Pelicane.log"));
        QFile file(folder + QStringLiteral("/Pelicane.log"));
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray contents = file.readAll();
        const QRegularExpression format(
            QStringLiteral("^(\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2}) \\+0000: héllo wörld\\n$"));
        const QRegularExpressionMatch match = format.match(QString::fromUtf8(contents));
        QVERIFY2(match.hasMatch(), contents.constData());
        // The date is UTC and now.
        QDateTime stamp = QDateTime::fromString(match.captured(1), QStringLiteral("yyyy-MM-dd HH:mm:ss"));
        stamp.setTimeSpec(Qt::UTC);
        QVERIFY(qAbs(stamp.secsTo(QDateTime::currentDateTimeUtc())) <= 5);
        QCOMPARE(Logger::logSize(), contents.size());
    }
};

QTEST_GUILESS_MAIN(TestLogFirstRun)
#include "tst_logfirstrun.moc"
