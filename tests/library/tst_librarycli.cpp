// pelicane-cli download-library as a user runs it: the account from the environment or
// typed, a run killed half-way and started again, Ctrl-C.
#include "librarytestsupport.h"

#include "library/downloadlibrarymodel.h"

#include <QDir>
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
    void init() { m_folder = std::make_unique<QTemporaryDir>(); }
    void cleanup() { QVERIFY(m_server.clearFaults()); }
    void killedHalfWayAndStartedAgain();
    void accountTypedAndBadArguments();
    void interruptedAndStartedAgain();

private:
    // Starts the program; the account comes from the environment unless typed.
    void start(QProcess &process, const QStringList &arguments, bool withAccount = true) const;
    int run(QByteArray *output = nullptr, const QByteArray &typed = {}, QStringList arguments = {});
    QString libraryFolder() const { return QDir(m_folder->path()).filePath(QStringLiteral("My Lyrabox Library")); }
    qint64 segments() const { return m_server.requestCounts().value("segment").toInteger(); }
    qint64 record() const { return DownloadLibraryModel::readResumeRecord(libraryFolder()).value_or(-1); }

    DevServerProcess m_server;
    std::unique_ptr<QTemporaryDir> m_folder;
};

void TestLibraryCli::initTestCase()
{
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    QVERIFY(!LibraryTest::signIn(m_server).token.isEmpty());
    QCOMPARE(LibraryTest::seedTracks(m_server, 120, 10000).size(), 120);
}

void TestLibraryCli::start(QProcess &process, const QStringList &arguments, bool withAccount) const
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
    // --verbose: the log's lines on standard error too, where the test reads them.
    process.start(QStringLiteral(PELICANE_CLI_PATH), QStringList{QStringLiteral("--verbose")} + arguments);
}

int TestLibraryCli::run(QByteArray *output, const QByteArray &typed, QStringList arguments)
{
    if (arguments.isEmpty()) {
        arguments = QStringList{QStringLiteral("download-library"), m_folder->path()};
    }
    QProcess process;
    start(process, arguments, typed.isNull());
    if (!process.waitForStarted(kTimeout)) {
        return -1;
    }
    process.write(typed);
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

void TestLibraryCli::killedHalfWayAndStartedAgain()
{
    // Slow segments leave time to kill the run once the first chunk is extracted and
    // recorded, while the second is on its way.
    QVERIFY(m_server.addFault(QJsonObject{{"endpoint", "segment"}, {"latency_ms", 1500}, {"count", 0}}));
    QProcess process;
    start(process, {QStringLiteral("download-library"), m_folder->path()});
    QVERIFY(process.waitForStarted(kTimeout));
    QTRY_VERIFY_WITH_TIMEOUT(record() >= 0, kTimeout);
    process.kill();
    QVERIFY(process.waitForFinished(kTimeout));
    const qint64 recorded = record();
    QVERIFY2(recorded == 50 || recorded == 100, qPrintable(QString::number(recorded)));
    QVERIFY(!LibraryTest::compareWithLibrary(m_server, libraryFolder()).isEmpty());

    QVERIFY(m_server.clearFaults());
    qint64 before = segments();
    QByteArray output;
    QCOMPARE(run(&output), 0);
    QVERIFY(output.contains(QByteArray("Library of 120 tracks in ").append(QFile::encodeName(libraryFolder()))));
    // Only the chunks after the record are fetched again; every track arrives byte for
    // byte, and no archive or partial file is left.
    QCOMPARE(segments() - before, recorded == 50 ? 2 : 1);
    QCOMPARE(LibraryTest::compareWithLibrary(m_server, libraryFolder()), QStringList());
    QCOMPARE(record(), 120);

    // A further run finds nothing left to do.
    before = segments();
    QCOMPARE(run(&output), 0);
    QVERIFY2(output.contains(" - Scheduled 0 chunks"), output.constData());
    QCOMPARE(segments(), before);
}

void TestLibraryCli::accountTypedAndBadArguments()
{
    const QByteArray email = QByteArray(DevServerProcess::kDemoEmail) + '\n';
    QByteArray output;
    QCOMPARE(run(&output, email + "wrong\n"), 1);
    QVERIFY(output.contains("sign-in failed: Invalid e-mail address or password."));
    QVERIFY(!QFileInfo::exists(libraryFolder()));
    // Standard input ends before a password: no sign-in is attempted.
    QCOMPARE(run(&output, email), 1);
    QVERIFY(output.contains("No password given"));

    // The account is never an argument; nor are two folders or a file.
    QCOMPARE(run(&output, {}, {QStringLiteral("download-library"), QStringLiteral("--password"), "demo"}), 2);
    QCOMPARE(run(&output, {}, {QStringLiteral("download-library"), m_folder->path(), m_folder->path()}), 2);
    QFile file(QDir(m_folder->path()).filePath(QStringLiteral("a file")));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.close();
    QCOMPARE(run(&output, {}, {QStringLiteral("download-library"), file.fileName()}), 2);

    QCOMPARE(run(&output, email + DevServerProcess::kDemoPassword + '\n'), 0);
    QCOMPARE(LibraryTest::compareWithLibrary(m_server, libraryFolder()), QStringList());
}

void TestLibraryCli::interruptedAndStartedAgain()
{
    QVERIFY(m_server.addFault(QJsonObject{{"endpoint", "segment"}, {"latency_ms", 3000}, {"count", 0}}));
    QProcess process;
    start(process, {QStringLiteral("download-library"), m_folder->path()});
    QVERIFY(process.waitForStarted(kTimeout));
    QByteArray errors;
    QTRY_VERIFY_WITH_TIMEOUT((errors += process.readAllStandardError()).contains("DownloadLibrary(0, 50, chunk)"),
                             kTimeout);
    ::kill(pid_t(process.processId()), SIGINT);
    QVERIFY(process.waitForFinished(kTimeout));
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(process.exitCode(), 130);
    QVERIFY(QByteArray(errors + process.readAllStandardError()).contains("run the same command again to continue"));

    QVERIFY(m_server.clearFaults());
    QCOMPARE(run(), 0);
    QCOMPARE(LibraryTest::compareWithLibrary(m_server, libraryFolder()), QStringList());
}

QTEST_GUILESS_MAIN(TestLibraryCli)
#include "tst_librarycli.moc"
