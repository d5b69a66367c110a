// The whole library download against the local service: scheduling, resuming from the
// record, retries, interruptions and extraction failures; and pelicane-cli download-library
// as a user runs it (account from the environment or typed, killed half-way, Ctrl-C).
#include "librarytestsupport.h"

#include "library/downloadlibrarymodel.h"

#include <QDir>
#include <QElapsedTimer>
#include <QJsonObject>
#include <QProcess>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

namespace {

constexpr int kTimeout = 120000;
constexpr int kTrackCount = 120;

// Answers every question with "OK" / "Yes" and keeps what was asked.
class AnsweringPrompter : public DownloadLibraryPrompter
{
public:
    int showAlert(const QString &title, const QString &text, const QStringList &buttons, Appearance) override
    {
        alerts.append(QStringList{title, text} + buttons);
        return 1000;
    }
    QList<QStringList> alerts;
};

} // namespace

class TestLibraryDownload : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup() { QVERIFY(m_server.clearFaults()); }
    void wholeLibraryInPlace();
    void resumeFromTheRecord_data();
    void resumeFromTheRecord();
    void headerAnsweredWithAnError();
    void failedChunksAreRetried_data();
    void failedChunksAreRetried();
    void stoppedAndStartedAgain_data();
    void stoppedAndStartedAgain();
    void failedExtractionKeepsItsArchive_data();
    void failedExtractionKeepsItsArchive();
    void cliKilledHalfWayAndStartedAgain();
    void cliAccountTypedAndBadArguments();
    void cliInterruptedAndStartedAgain();

private:
    std::unique_ptr<DownloadLibraryModel> makeModel()
    {
        return std::make_unique<DownloadLibraryModel>(QUrl::fromLocalFile(m_folder->path()), m_identity.userId,
                                                      m_identity.token, &m_prompter);
    }
    qint64 segments() const { return m_server.requestCounts().value("segment").toInteger(); }
    qint64 record() const { return DownloadLibraryModel::readResumeRecord(m_destination).value_or(-1); }
    // Starts pelicane-cli; the account comes from the environment unless typed.
    void start(QProcess &process, const QStringList &arguments, bool withAccount = true) const;
    int run(QByteArray *output = nullptr, const QByteArray &typed = {}, QStringList arguments = {});

    DevServerProcess m_server;
    LibraryTest::Identity m_identity;
    std::unique_ptr<QTemporaryDir> m_folder;
    QString m_destination;
    AnsweringPrompter m_prompter;
};

void TestLibraryDownload::initTestCase()
{
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    m_identity = m_server.signInDemo();
    QVERIFY(!m_identity.token.isEmpty());
    QCOMPARE(LibraryTest::seedTracks(m_server, kTrackCount, 8000).size(), kTrackCount);
}

void TestLibraryDownload::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
    m_destination = QDir(m_folder->path()).filePath(QStringLiteral("My Lyrabox Library"));
    m_prompter.alerts.clear();
}

void TestLibraryDownload::wholeLibraryInPlace()
{
    using Chunks = QList<std::pair<qint64, qint64>>;
    QCOMPARE(DownloadLibraryModel::chunksFrom(0, 120), (Chunks{{0, 50}, {50, 50}, {100, 20}}));
    QCOMPARE(DownloadLibraryModel::chunksFrom(100, 120), (Chunks{{100, 20}}));
    QCOMPARE(DownloadLibraryModel::chunksFrom(120, 120), Chunks());

    const qint64 headersBefore = m_server.requestCounts().value("header").toInteger();
    const qint64 segmentsBefore = segments();
    auto model = makeModel();
    QSignalSpy completed(model.get(), &DownloadLibraryModel::completed);
    QSignalSpy extracted(model.get(), &DownloadLibraryModel::chunkExtracted);
    model->start();
    QCOMPARE(model->viewState().actionText, QStringLiteral("Configuring Library Download..."));
    QTRY_VERIFY_WITH_TIMEOUT(model->isComplete(), kTimeout);
    QTest::qWait(200);

    QCOMPARE(completed.size(), 1);
    QCOMPARE(model->totalTrackCount(), kTrackCount);
    QCOMPARE(model->downloadsCompleted(), 3);
    QCOMPARE(model->tracksCompleted(), kTrackCount);
    QCOMPARE(model->downloadErrorCount(), 0);
    // Chunks are extracted in order.
    QCOMPARE(extracted.size(), 3);
    QCOMPARE(extracted.at(0), (QVariantList{0, 50}));
    QCOMPARE(extracted.at(2), (QVariantList{100, 20}));
    QCOMPARE(m_server.requestCounts().value("header").toInteger() - headersBefore, 1);
    QCOMPARE(segments() - segmentsBefore, 3);

    // Every track byte for byte, no archive left, the record at the count.
    QCOMPARE(LibraryTest::compareWithLibrary(m_server, m_destination), QStringList());
    QCOMPARE(record(), kTrackCount);
    const DownloadLibraryViewState &view = model->viewState();
    QCOMPARE(view.actionText, QStringLiteral("Done!"));
    QCOMPARE(view.cancelTitle, QStringLiteral("Open Folder"));
    QVERIFY(view.cancelIsDefault && view.cancelEnabled && !view.errorInfoVisible);
    const QString log = LibraryTest::logText();
    QVERIFY(log.contains(QStringLiteral(" - Got count: 120")));
    QVERIFY(log.contains(QStringLiteral(" - Scheduled 3 chunks")));
}

void TestLibraryDownload::resumeFromTheRecord_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<int>("firstTrack"); // 0: none
    QTest::newRow("100 of 120") << QByteArray(R"({"downloaded_track_count": 100})") << 101;
    QTest::newRow("all of them") << QByteArray(R"({"downloaded_track_count":120})") << 0;
    QTest::newRow("unreadable") << QByteArray("{not json") << 1;
}

void TestLibraryDownload::resumeFromTheRecord()
{
    QFETCH(QByteArray, json);
    QFETCH(int, firstTrack);
    QVERIFY(QDir().mkpath(m_destination));
    QFile file(QDir(m_destination).filePath(QStringLiteral("download.json")));
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write(json) == json.size());
    file.close();
    const qint64 before = segments();
    auto model = makeModel();
    model->start();
    QTRY_VERIFY_WITH_TIMEOUT(model->isComplete(), kTimeout);

    const int chunks = firstTrack == 0 ? 0 : int(DownloadLibraryModel::chunksFrom(firstTrack - 1, 120).size());
    QCOMPARE(segments() - before, chunks);
    QVERIFY(LibraryTest::logText().contains(QStringLiteral(" - Scheduled %1 chunks").arg(chunks)));
    QCOMPARE(model->viewState().actionText, QStringLiteral("Done!"));
    QCOMPARE(record(), kTrackCount);
    QStringList expected{QStringLiteral("download.json")};
    for (int track = firstTrack; firstTrack > 0 && track <= kTrackCount; ++track) {
        expected.append(LibraryTest::trackName(track));
    }
    expected.sort();
    QCOMPARE(LibraryTest::filesUnder(m_destination), expected);
}

void TestLibraryDownload::headerAnsweredWithAnError()
{
    // No count comes with the error: nothing to do, and the window says so.
    QVERIFY(m_server.addFault(QJsonObject{{"endpoint", "header"}, {"status", 500}}));
    const qint64 before = segments();
    auto model = makeModel();
    model->start();
    QTRY_VERIFY_WITH_TIMEOUT(model->isComplete(), kTimeout);
    QCOMPARE(model->totalTrackCount(), 0);
    QCOMPARE(model->viewState().actionText, QStringLiteral("Done!"));
    QCOMPARE(segments(), before);
    QVERIFY(LibraryTest::logText().contains(QStringLiteral(" - Got count: 0")));

    // A service that cannot be reached gives no count at all.
    quint16 closedPort = 0;
    {
        QTcpServer probe;
        QVERIFY(probe.listen(QHostAddress::LocalHost));
        closedPort = probe.serverPort();
    }
    qputenv("PELICANE_DOWNLOAD_URL", QByteArray("http://127.0.0.1:") + QByteArray::number(closedPort) + "/download/");
    auto unreachable = makeModel();
    QList<int> failures;
    connect(unreachable.get(), &DownloadLibraryModel::configurationFailed, this,
            [&failures](const Error &error) { failures.append(error.code()); });
    unreachable->start();
    QTRY_COMPARE_WITH_TIMEOUT(failures.size(), 1, kTimeout);
    qputenv("PELICANE_DOWNLOAD_URL", m_server.downloadUrl().toUtf8());
    QCOMPARE(failures.first(), -1004);
    QVERIFY(!unreachable->isComplete());
}

void TestLibraryDownload::failedChunksAreRetried_data()
{
    QTest::addColumn<QJsonObject>("fault");
    QTest::addColumn<int>("failures");
    QTest::addColumn<QString>("message");
    QTest::newRow("status 500 twice") << QJsonObject{{"endpoint", "segment"}, {"status", 500}, {"count", 2}} << 2
                                      << "Internal Server Error (500)";
    QTest::newRow("no end marker") << QJsonObject{{"endpoint", "segment"}, {"omit_end_marker", true}} << 1
                                   << "Incomplete download.";
    QTest::newRow("connection dropped") << QJsonObject{{"endpoint", "segment"}, {"drop_after_bytes", 100000}} << 1
                                        << "The network connection was lost.";
}

void TestLibraryDownload::failedChunksAreRetried()
{
    QFETCH(QJsonObject, fault);
    QFETCH(int, failures);
    QFETCH(QString, message);

    auto model = makeModel();
    QSignalSpy failed(model.get(), &DownloadLibraryModel::chunkFailed);
    QStringList errorLines;
    connect(model.get(), &DownloadLibraryModel::viewStateChanged, this, [&] {
        const QString line = model->viewState().errorInfoText;
        if (model->viewState().errorInfoVisible && (errorLines.isEmpty() || errorLines.last() != line)) {
            errorLines.append(line);
        }
    });
    // The faults hit the second chunk, once the first has gone through.
    connect(model.get(), &DownloadLibraryModel::chunkDownloaded, this, [&](qint64 offset) {
        if (offset == 0) {
            QVERIFY(m_server.addFault(fault));
        }
    });
    const qsizetype retriesBefore = LibraryTest::logText().count(QStringLiteral(" - Retrying after 5 seconds"));
    QElapsedTimer clock;
    clock.start();
    model->start();
    QTRY_VERIFY_WITH_TIMEOUT(model->isComplete(), kTimeout);

    QCOMPARE(failed.size(), failures);
    QCOMPARE(failed.first().at(0).toLongLong(), 50);
    // Each retry waits five seconds.
    QVERIFY2(clock.elapsed() >= failures * DownloadLibraryModel::kRetryDelayMilliseconds - 100,
             qPrintable(QString::number(clock.elapsed())));
    QStringList expectedLines;
    for (int attempt = 1; attempt <= failures; ++attempt) {
        expectedLines.append(
            QStringLiteral("An error occurred while downloading. Retrying library segment 2, attempt %1").arg(attempt));
    }
    QCOMPARE(errorLines, expectedLines);
    QCOMPARE(LibraryTest::logText().count(QStringLiteral(" - Retrying after 5 seconds")) - retriesBefore, failures);
    QCOMPARE(LibraryTest::compareWithLibrary(m_server, m_destination), QStringList());
    QCOMPARE(record(), kTrackCount);

    model->OnErrorInfo();
    const QStringList alert{QStringLiteral("Download Error"),
                            QStringLiteral("The following error occurred while downloading: \n\n") + message +
                                QStringLiteral("\n\nThe download is attempting to recover automatically. If this "
                                               "error persists, contact support@lyrabox.com"),
                            QStringLiteral("OK")};
    QCOMPARE(m_prompter.alerts, QList<QStringList>{alert});
}

void TestLibraryDownload::stoppedAndStartedAgain_data()
{
    QTest::addColumn<bool>("afterExtraction");
    // Right after the first chunk was extracted and recorded, while the second is on its way.
    QTest::newRow("after an extraction") << true;
    // As soon as the second chunk has arrived: its extraction's end is never handled, so the
    // record must not count it.
    QTest::newRow("between download and extraction") << false;
}

void TestLibraryDownload::stoppedAndStartedAgain()
{
    QFETCH(bool, afterExtraction);
    // Slow segments: the first chunk's extraction ends long before the second arrives.
    QVERIFY(m_server.addFault(QJsonObject{{"endpoint", "segment"}, {"latency_ms", 1500}, {"count", 0}}));
    auto model = makeModel();
    bool stopped = false;
    const auto stop = [&] {
        model.reset();
        stopped = true;
    };
    if (afterExtraction) {
        connect(model.get(), &DownloadLibraryModel::chunkExtracted, this, stop, Qt::QueuedConnection);
    } else {
        connect(
            model.get(), &DownloadLibraryModel::chunkDownloaded, this,
            [&](qint64 offset) {
                if (offset == 50 && model) {
                    stop();
                }
            },
            Qt::QueuedConnection);
    }
    model->start();
    QTRY_VERIFY_WITH_TIMEOUT(stopped, kTimeout);
    QCOMPARE(record(), 50);
    if (!afterExtraction) {
        QVERIFY(QFileInfo::exists(QDir(m_destination).filePath(QStringLiteral(".temp-1.zip"))));
    }
    QVERIFY(m_server.clearFaults());

    const qint64 before = segments();
    auto resumed = makeModel();
    resumed->start();
    QTRY_VERIFY_WITH_TIMEOUT(resumed->isComplete(), kTimeout);
    QCOMPARE(segments() - before, 2);
    QCOMPARE(LibraryTest::compareWithLibrary(m_server, m_destination), QStringList());
    QCOMPARE(record(), kTrackCount);
}

void TestLibraryDownload::failedExtractionKeepsItsArchive_data()
{
    QTest::addColumn<int>("blockedTrack");
    QTest::addColumn<QString>("archive");
    QTest::addColumn<int>("recorded");
    QTest::newRow("last chunk") << 120 << ".temp-5.zip" << 100;
    QTest::newRow("middle chunk") << 60 << ".temp-1.zip" << 120;
}

void TestLibraryDownload::failedExtractionKeepsItsArchive()
{
    QFETCH(int, blockedTrack);
    QFETCH(QString, archive);
    QFETCH(int, recorded);
    // A folder standing where a track goes makes that chunk's extraction fail.
    QVERIFY(QDir().mkpath(QDir(m_destination).filePath(LibraryTest::trackName(blockedTrack))));

    auto model = makeModel();
    QSignalSpy failed(model.get(), &DownloadLibraryModel::extractionFailed);
    QSignalSpy extracted(model.get(), &DownloadLibraryModel::chunkExtracted);
    model->start();
    QTRY_COMPARE_WITH_TIMEOUT(failed.size() + extracted.size(), 3, kTimeout);
    QTest::qWait(200);

    const QString archivePath = QDir(m_destination).filePath(archive);
    QCOMPARE(failed.size(), 1);
    QCOMPARE(failed.first().first().toString(), archivePath);
    QVERIFY(QFileInfo::exists(archivePath));
    QCOMPARE(record(), recorded);
    QVERIFY(LibraryTest::logText().contains(QStringLiteral("onZKArchiveDidFail: ") + archivePath));
    // "Done!" only comes through a chunk that extracted.
    QCOMPARE(model->isComplete(), blockedTrack != 120);
    QCOMPARE(model->viewState().actionText == QStringLiteral("Done!"), blockedTrack != 120);
    // The other chunks went through, those after the failed one too.
    const auto present = [this](int track) {
        return QFileInfo::exists(QDir(m_destination).filePath(LibraryTest::trackName(track)));
    };
    QVERIFY(present(50));
    QCOMPARE(present(100), blockedTrack == 120);
    if (blockedTrack == 60) {
        QVERIFY(present(101) && present(120));
    }
}

void TestLibraryDownload::start(QProcess &process, const QStringList &arguments, bool withAccount) const
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

int TestLibraryDownload::run(QByteArray *output, const QByteArray &typed, QStringList arguments)
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

void TestLibraryDownload::cliKilledHalfWayAndStartedAgain()
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
    QVERIFY(!LibraryTest::compareWithLibrary(m_server, m_destination).isEmpty());

    QVERIFY(m_server.clearFaults());
    qint64 before = segments();
    QByteArray output;
    QCOMPARE(run(&output), 0);
    QVERIFY(output.contains(QByteArray("Library of 120 tracks in ").append(QFile::encodeName(m_destination))));
    // Only the chunks after the record are fetched again; every track arrives byte for
    // byte, and no archive or partial file is left.
    QCOMPARE(segments() - before, recorded == 50 ? 2 : 1);
    QCOMPARE(LibraryTest::compareWithLibrary(m_server, m_destination), QStringList());
    QCOMPARE(record(), 120);

    // A further run finds nothing left to do.
    before = segments();
    QCOMPARE(run(&output), 0);
    QVERIFY2(output.contains(" - Scheduled 0 chunks"), output.constData());
    QCOMPARE(segments(), before);
}

void TestLibraryDownload::cliAccountTypedAndBadArguments()
{
    const QByteArray email = QByteArray(DevServerProcess::kDemoEmail) + '\n';
    QByteArray output;
    QCOMPARE(run(&output, email + "wrong\n"), 1);
    QVERIFY(output.contains("sign-in failed: Invalid e-mail address or password."));
    QVERIFY(!QFileInfo::exists(m_destination));
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
    QCOMPARE(LibraryTest::compareWithLibrary(m_server, m_destination), QStringList());
}

void TestLibraryDownload::cliInterruptedAndStartedAgain()
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
    QCOMPARE(LibraryTest::compareWithLibrary(m_server, m_destination), QStringList());
}

QTEST_GUILESS_MAIN(TestLibraryDownload)
#include "tst_librarydownload.moc"
