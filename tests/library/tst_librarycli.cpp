// pelicane-cli download-library as a user runs it: the account from the
// environment or typed, a run killed half-way and started again, Ctrl-C.
#include "librarytestsupport.h"

#include "library/downloadlibrarymodel.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

namespace {

constexpr int kTimeout = 120000;

} // namespace

class TestLibraryCli : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup() { QVERIFY(m_server.clearFaults()); }
    void downloadsWithTheAccountFromTheEnvironment();
    void accountTypedOnStandardInput();
    void refusesBadAccountsAndArguments();
    void killedHalfWayAndStartedAgain();
    void interruptedAndStartedAgain();

private:
    void prepare(QProcess &process, bool withAccount = true) const;
    int run(const QStringList &arguments, QByteArray *output = nullptr, const QByteArray &input = {},
            bool withAccount = true);
    QString libraryFolder() const { return QDir(m_folder->path()).filePath(QStringLiteral("My Lyrabox Library")); }

    DevServerProcess m_server;
    std::unique_ptr<QTemporaryDir> m_folder;
};

void TestLibraryCli::initTestCase()
{
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    QVERIFY(!LibraryTest::signIn(m_server).token.isEmpty());
    QCOMPARE(LibraryTest::seedTracks(m_server, 120, 10000).size(), 120);
}

void TestLibraryCli::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
}

void TestLibraryCli::prepare(QProcess &process, bool withAccount) const
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("PELICANE_API_URL"), m_server.apiUrl());
    environment.insert(QStringLiteral("PELICANE_DOWNLOAD_URL"), m_server.downloadUrl());
    environment.remove(QStringLiteral("PELICANE_EMAIL"));
    environment.remove(QStringLiteral("PELICANE_PASSWORD"));
    if (withAccount) {
        environment.insert(QStringLiteral("PELICANE_EMAIL"), QString::fromLatin1(DevServerProcess::kDemoEmail));
        environment.insert(QStringLiteral("PELICANE_PASSWORD"), QString::fromLatin1(DevServerProcess::kDemoPassword));
    }
    process.setProcessEnvironment(environment);
    process.setProgram(QStringLiteral(PELICANE_CLI_PATH));
}

int TestLibraryCli::run(const QStringList &arguments, QByteArray *output, const QByteArray &input, bool withAccount)
{
    QProcess process;
    prepare(process, withAccount);
    process.setArguments(arguments);
    process.start();
    if (!process.waitForStarted(kTimeout)) {
        return -1;
    }
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(kTimeout)) {
        process.kill();
        return -1;
    }
    if (output) {
        *output = process.readAllStandardOutput() + process.readAllStandardError();
    }
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

void TestLibraryCli::downloadsWithTheAccountFromTheEnvironment()
{
    QByteArray output;
    QCOMPARE(run({QStringLiteral("download-library"), m_folder->path()}, &output), 0);
    const QByteArray summary = "Library of 120 tracks in " + QFile::encodeName(libraryFolder());
    QVERIFY(output.contains(summary));
    QCOMPARE(LibraryTest::compareWithLibrary(m_server, libraryFolder()), QStringList());
    QCOMPARE(DownloadLibraryModel::readResumeRecord(libraryFolder()), std::optional<qint64>(120));

    // A second run finds nothing left to do.
    const qint64 before = m_server.requestCounts().value("segment").toInteger();
    QCOMPARE(run({QStringLiteral("download-library"), m_folder->path()}, &output), 0);
    QVERIFY(output.contains(" - Scheduled 0 chunks"));
    QCOMPARE(m_server.requestCounts().value("segment").toInteger(), before);
}

void TestLibraryCli::accountTypedOnStandardInput()
{
    QByteArray output;
    const QByteArray typed = QByteArray(DevServerProcess::kDemoEmail) + '\n' + DevServerProcess::kDemoPassword + '\n';
    QCOMPARE(run({QStringLiteral("download-library"), m_folder->path()}, &output, typed, false), 0);
    QCOMPARE(LibraryTest::compareWithLibrary(m_server, libraryFolder()), QStringList());
}

void TestLibraryCli::refusesBadAccountsAndArguments()
{
    QByteArray output;
    QCOMPARE(run({QStringLiteral("download-library"), m_folder->path()}, &output,
                 QByteArray(DevServerProcess::kDemoEmail) + "\nwrong\n", false),
             1);
    QVERIFY(output.contains("sign-in failed: Invalid e-mail address or password."));
    QVERIFY(!QFileInfo::exists(libraryFolder()));

    // Standard input ends before a password: no sign-in is attempted.
    QCOMPARE(run({QStringLiteral("download-library"), m_folder->path()}, &output,
                 QByteArray(DevServerProcess::kDemoEmail) + "\n", false),
             1);
    QVERIFY(output.contains("No password given"));

    // The account is never an argument; nor are two folders.
    QCOMPARE(run({QStringLiteral("download-library"), QStringLiteral("--password"), QStringLiteral("demo")}, &output),
             2);
    QCOMPARE(run({QStringLiteral("download-library"), m_folder->path(), m_folder->path()}, &output), 2);
    QFile file(QDir(m_folder->path()).filePath(QStringLiteral("a file")));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.close();
    QCOMPARE(run({QStringLiteral("download-library"), file.fileName()}, &output), 2);
}

void TestLibraryCli::killedHalfWayAndStartedAgain()
{
    // Slow segments leave time to kill the run once the first chunk is
    // extracted and recorded, while the second is on its way.
    QVERIFY(m_server.addFault(QJsonObject{{"endpoint", "segment"}, {"latency_ms", 1500}, {"count", 0}}));
    QProcess process;
    prepare(process);
    process.setArguments({QStringLiteral("download-library"), m_folder->path()});
    process.start();
    QVERIFY(process.waitForStarted(kTimeout));
    QTRY_VERIFY_WITH_TIMEOUT(DownloadLibraryModel::readResumeRecord(libraryFolder()).has_value(), kTimeout);
    process.kill();
    QVERIFY(process.waitForFinished(kTimeout));
    QCOMPARE(process.exitStatus(), QProcess::CrashExit);
    const qint64 record = DownloadLibraryModel::readResumeRecord(libraryFolder()).value_or(-1);
    QVERIFY2(record == 50 || record == 100, qPrintable(QString::number(record)));
    QVERIFY(!LibraryTest::compareWithLibrary(m_server, libraryFolder()).isEmpty());

    QVERIFY(m_server.clearFaults());
    const qint64 before = m_server.requestCounts().value("segment").toInteger();
    QByteArray output;
    QCOMPARE(run({QStringLiteral("download-library"), m_folder->path()}, &output), 0);
    // Only the chunks after the record are fetched again.
    QCOMPARE(m_server.requestCounts().value("segment").toInteger() - before, record == 50 ? 2 : 1);
    // Every track, byte for byte, and no leftover archive or partial file.
    QCOMPARE(LibraryTest::compareWithLibrary(m_server, libraryFolder()), QStringList());
}

void TestLibraryCli::interruptedAndStartedAgain()
{
    QVERIFY(m_server.addFault(QJsonObject{{"endpoint", "segment"}, {"latency_ms", 3000}, {"count", 0}}));
    QProcess process;
    prepare(process);
    process.setArguments({QStringLiteral("download-library"), m_folder->path()});
    process.start();
    QVERIFY(process.waitForStarted(kTimeout));
    QByteArray errors;
    QTRY_VERIFY_WITH_TIMEOUT((errors += process.readAllStandardError()).contains("DownloadLibrary(0, 50, chunk)"),
                             kTimeout);
    ::kill(pid_t(process.processId()), SIGINT);
    QVERIFY(process.waitForFinished(kTimeout));
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(process.exitCode(), 130);
    errors += process.readAllStandardError();
    QVERIFY(errors.contains("run the same command again to continue"));

    QVERIFY(m_server.clearFaults());
    QCOMPARE(run({QStringLiteral("download-library"), m_folder->path()}), 0);
    QCOMPARE(LibraryTest::compareWithLibrary(m_server, libraryFolder()), QStringList());
}

QTEST_GUILESS_MAIN(TestLibraryCli)
#include "tst_librarycli.moc"
