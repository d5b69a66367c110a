// The whole library download against the local service: scheduling, resuming from the
// record, retries, interruptions and extraction failures; and pelicane-cli download-library
// as a user runs it (killed half-way, Ctrl-C).
#include "librarytestsupport.h"

#include "library/downloadlibrarymodel.h"

#include <QDir>
#include <QElapsedTimer>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <csignal>
#include <unistd.h>

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
    void failedChunksAreRetried_data();
    void failedChunksAreRetried();
    void stoppedAndStartedAgain_data();
    void stoppedAndStartedAgain();
    void failedExtractionHoldsTheRecordBack();
    void headerFailureIsShown();
    void cliKilledHalfWayAndStartedAgain();
    void cliKilledWhileExtractionLagsBehind();
    void cliDiskFullThenFreed();
    void cliDiskFullOnSmallTmpfs();
    void cliInterruptedAndStartedAgain();
    void cliUnwritableFolderStopsAtOnce();

private:
    std::unique_ptr<DownloadLibraryModel> makeModel()
    {
        return std::make_unique<DownloadLibraryModel>(QUrl::fromLocalFile(m_folder->path()), m_identity.userId,
                                                      m_identity.token, &m_prompter);
    }
    qint64 segments() const { return m_server.requestCounts().value("segment").toInteger(); }
    qint64 record() const { return DownloadLibraryModel::readResumeRecord(m_destination).value_or(-1); }
    // Runs pelicane-cli download-library with the account in the environment.
    void start(QProcess &process, const QProcessEnvironment &extra = {}, const QString &folder = {}) const;
    int run(QByteArray *output = nullptr, const QProcessEnvironment &extra = {}, const QString &folder = {});
    // A fresh model fetches `chunks` segments and leaves the whole library, recorded.
    void resumeFetches(qint64 chunks)
    {
        const qint64 before = segments();
        auto resumed = makeModel();
        resumed->start();
        QTRY_VERIFY_WITH_TIMEOUT(resumed->isComplete(), kTimeout);
        QCOMPARE(segments() - before, chunks);
        QCOMPARE(LibraryTest::compareWithLibrary(m_server, m_destination), QStringList());
        QCOMPARE(record(), kTrackCount);
    }
    // The library's tracks that are not there, as compareWithLibrary names them; fails on
    // anything else (a track that differs, a leftover file).
    static bool onlyMissing(const QStringList &differences)
    {
        return std::all_of(differences.begin(), differences.end(),
                           [](const QString &line) { return line.startsWith(QStringLiteral("missing: ")); });
    }

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
    QCOMPARE(extracted.at(1), (QVariantList{50, 50}));
    QCOMPARE(extracted.at(2), (QVariantList{100, 20}));
    QCOMPARE(m_server.requestCounts().value("header").toInteger() - headersBefore, 1);
    QCOMPARE(segments() - segmentsBefore, 3);

    // Every track byte for byte, no archive left, the record at the count.
    QCOMPARE(LibraryTest::compareWithLibrary(m_server, m_destination), QStringList());
    QCOMPARE(record(), kTrackCount);
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

void TestLibraryDownload::failedChunksAreRetried_data()
{
    QTest::addColumn<QJsonObject>("fault");
    QTest::addColumn<int>("failures");
    QTest::newRow("status 500 twice") << QJsonObject{{"endpoint", "segment"}, {"status", 500}, {"count", 2}} << 2;
    QTest::newRow("no end marker") << QJsonObject{{"endpoint", "segment"}, {"omit_end_marker", true}} << 1;
}

void TestLibraryDownload::failedChunksAreRetried()
{
    QFETCH(QJsonObject, fault);
    QFETCH(int, failures);

    auto model = makeModel();
    QSignalSpy failed(model.get(), &DownloadLibraryModel::chunkFailed);
    QSignalSpy downloaded(model.get(), &DownloadLibraryModel::chunkDownloaded);
    QStringList errorLines;
    connect(model.get(), &DownloadLibraryModel::viewStateChanged, this, [&] {
        const QString line = model->viewState().errorInfoText;
        if (model->viewState().errorInfoVisible && (errorLines.isEmpty() || errorLines.last() != line)) {
            errorLines.append(line);
        }
    });
    // The faults hit the first chunk; the other two wait behind it.
    QVERIFY(m_server.addFault(fault));
    const qsizetype retriesBefore = LibraryTest::logText().count(QStringLiteral(" - Retrying after 5 seconds"));
    QElapsedTimer clock;
    clock.start();
    model->start();
    QTRY_VERIFY_WITH_TIMEOUT(model->isComplete(), kTimeout);

    QCOMPARE(failed.size(), failures);
    // The retry goes ahead of the chunks that were waiting, so every fault hits it.
    for (const QVariantList &failure : std::as_const(failed)) {
        QCOMPARE(failure.at(0).toLongLong(), 0);
    }
    QCOMPARE(downloaded.size(), 3);
    for (int i = 0; i < 3; ++i) {
        QCOMPARE(downloaded.at(i).at(0).toLongLong(), i * 50);
    }
    // Each retry waits five seconds.
    QVERIFY2(clock.elapsed() >= failures * DownloadLibraryModel::kRetryDelayMilliseconds - 100,
             qPrintable(QString::number(clock.elapsed())));
    QStringList expectedLines;
    for (int attempt = 1; attempt <= failures; ++attempt) {
        expectedLines.append(
            QStringLiteral("An error occurred while downloading. Retrying library segment 1, attempt %1").arg(attempt));
    }
    QCOMPARE(errorLines, expectedLines);
    QCOMPARE(LibraryTest::logText().count(QStringLiteral(" - Retrying after 5 seconds")) - retriesBefore, failures);
    QCOMPARE(LibraryTest::compareWithLibrary(m_server, m_destination), QStringList());
    QCOMPARE(record(), kTrackCount);
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
    qint64 stopMilliseconds = -1;
    const auto stop = [&] {
        // A segment is on its way: destruction ends it rather than waiting for it.
        QElapsedTimer clock;
        clock.start();
        model.reset();
        stopMilliseconds = clock.elapsed();
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
    QVERIFY2(stopMilliseconds < 1000, qPrintable(QString::number(stopMilliseconds)));
    QCOMPARE(record(), 50);
    if (!afterExtraction) {
        QVERIFY(QFileInfo::exists(QDir(m_destination).filePath(QStringLiteral(".temp-1.zip"))));
    }
    QVERIFY(m_server.clearFaults());

    resumeFetches(2);
}

void TestLibraryDownload::failedExtractionHoldsTheRecordBack()
{
    // A folder standing where a track goes makes the second chunk's extraction fail; the
    // third one extracts after it and must not move the record past the second.
    const QString inTheWay = QDir(m_destination).filePath(LibraryTest::trackName(60));
    QVERIFY(QDir().mkpath(inTheWay));

    auto model = makeModel();
    QSignalSpy failed(model.get(), &DownloadLibraryModel::extractionFailed);
    QSignalSpy extracted(model.get(), &DownloadLibraryModel::chunkExtracted);
    QSignalSpy incomplete(model.get(), &DownloadLibraryModel::incomplete);
    QSignalSpy completed(model.get(), &DownloadLibraryModel::completed);
    model->start();
    QTRY_COMPARE_WITH_TIMEOUT(incomplete.size(), 1, kTimeout);
    QTest::qWait(200);

    const QString archivePath = QDir(m_destination).filePath(QStringLiteral(".temp-1.zip"));
    QCOMPARE(failed.size(), 1);
    QCOMPARE(failed.first().first().toString(), archivePath);
    QCOMPARE(extracted.size(), 2);
    QCOMPARE(extracted.last(), (QVariantList{100, 20}));
    QCOMPARE(record(), 50);
    QCOMPARE(completed.size(), 0);
    QVERIFY(!model->isComplete() && model->isIncomplete());
    QCOMPARE(model->viewState().actionText, QStringLiteral("Download Incomplete"));
    QVERIFY(model->viewState().errorInfoVisible);
    QVERIFY(LibraryTest::logText().contains(QStringLiteral("onZKArchiveDidFail: ") + archivePath));
    // The archive is fetched again next time; kept, it would only take space.
    QVERIFY(!QFileInfo::exists(archivePath));
    model.reset();

    // Once the way is clear a second run fetches from the failed chunk on.
    QVERIFY(QDir(inTheWay).removeRecursively());
    resumeFetches(2);
}

void TestLibraryDownload::headerFailureIsShown()
{
    QVERIFY(m_server.addFault(QJsonObject{{"endpoint", "header"}, {"drop_after_bytes", 0}, {"count", 0}}));
    auto model = makeModel();
    QStringList failures;
    connect(model.get(), &DownloadLibraryModel::configurationFailed, this,
            [&](const Error &error) { failures.append(error.localizedDescription()); });
    model->start();
    QTRY_COMPARE_WITH_TIMEOUT(failures.size(), 1, kTimeout);
    // The window mirrors this: no "Configuring" for ever, the error beside its info button,
    // and Close closes without asking.
    const DownloadLibraryViewState &view = model->viewState();
    QVERIFY2(!view.actionText.startsWith(QStringLiteral("Configuring")), qPrintable(view.actionText));
    QVERIFY(view.errorInfoVisible);
    QCOMPARE(view.errorInfoText, failures.first());
    QSignalSpy closing(model.get(), &DownloadLibraryModel::closeRequested);
    model->OnCancel();
    QCOMPARE(closing.size(), 1);
    QVERIFY(m_prompter.alerts.isEmpty());
}

void TestLibraryDownload::start(QProcess &process, const QProcessEnvironment &extra, const QString &folder) const
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const QString &key : extra.keys()) {
        environment.insert(key, extra.value(key));
    }
    environment.insert(QStringLiteral("PELICANE_API_URL"), m_server.apiUrl());
    environment.insert(QStringLiteral("PELICANE_DOWNLOAD_URL"), m_server.downloadUrl());
    environment.insert(QStringLiteral("PELICANE_EMAIL"), QString::fromLatin1(DevServerProcess::kDemoEmail));
    environment.insert(QStringLiteral("PELICANE_PASSWORD"), QString::fromLatin1(DevServerProcess::kDemoPassword));
    process.setProcessEnvironment(environment);
    // --verbose: the log's lines on standard error too, where the test reads them.
    process.start(QStringLiteral(PELICANE_CLI_PATH), {QStringLiteral("--verbose"), QStringLiteral("download-library"),
                                                      folder.isEmpty() ? m_folder->path() : folder});
}

int TestLibraryDownload::run(QByteArray *output, const QProcessEnvironment &extra, const QString &folder)
{
    QProcess process;
    start(process, extra, folder);
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
    start(process);
    QVERIFY(process.waitForStarted(kTimeout));
    QTRY_VERIFY_WITH_TIMEOUT(record() >= 0, kTimeout);
    process.kill();
    QVERIFY(process.waitForFinished(kTimeout));
    const qint64 recorded = record();
    QVERIFY2(recorded == 50 || recorded == 100, qPrintable(QString::number(recorded)));
    QVERIFY(!LibraryTest::compareWithLibrary(m_server, m_destination).isEmpty());

    QVERIFY(m_server.clearFaults());
    const qint64 before = segments();
    QByteArray output;
    QCOMPARE(run(&output), 0);
    QVERIFY(output.contains(QByteArray("Library of 120 tracks in ").append(QFile::encodeName(m_destination))));
    // Only the chunks after the record are fetched again; every track arrives byte for
    // byte, and no archive or partial file is left.
    QCOMPARE(segments() - before, recorded == 50 ? 2 : 1);
    QCOMPARE(LibraryTest::compareWithLibrary(m_server, m_destination), QStringList());
    QCOMPARE(record(), 120);
}

void TestLibraryDownload::cliInterruptedAndStartedAgain()
{
    QVERIFY(m_server.addFault(QJsonObject{{"endpoint", "segment"}, {"latency_ms", 3000}, {"count", 0}}));
    QProcess process;
    start(process);
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

void TestLibraryDownload::cliKilledWhileExtractionLagsBehind()
{
    // Fast downloads, slow extraction: every chunk has arrived long before the first one
    // is extracted, and the run is killed between the two.
    QProcessEnvironment slow;
    slow.insert(QStringLiteral("PELICANE_TEST_EXTRACT_DELAY_MS"), QStringLiteral("40"));
    QProcess process;
    start(process, slow);
    QVERIFY(process.waitForStarted(kTimeout));
    QTRY_VERIFY_WITH_TIMEOUT(record() >= 0, kTimeout);
    process.kill();
    QVERIFY(process.waitForFinished(kTimeout));
    // The downloads were ahead; the record counts only what was extracted.
    QVERIFY(QFileInfo::exists(QDir(m_destination).filePath(QStringLiteral(".temp-1.zip"))));
    QCOMPARE(record(), 50);
    QVERIFY(onlyMissing(LibraryTest::compareWithLibrary(m_server, m_destination)
                            .filter(QRegularExpression(QStringLiteral("^(missing|differs): ")))));
    // Leftovers of some earlier run, down in a folder too.
    QVERIFY(QDir().mkpath(QDir(m_destination).filePath(QStringLiteral("Album"))));
    for (const char *name : {".temp-7.zip", "Album/.temp-x1Yz2W"}) {
        QFile stray(QDir(m_destination).filePath(QString::fromLatin1(name)));
        QVERIFY(stray.open(QIODevice::WriteOnly) && stray.write("partial") == 7);
    }

    const qint64 before = segments();
    QByteArray output;
    QCOMPARE(run(&output), 0);
    QCOMPARE(segments() - before, 2);
    QVERIFY(QDir(QDir(m_destination).filePath(QStringLiteral("Album"))).removeRecursively());
    QCOMPARE(LibraryTest::compareWithLibrary(m_server, m_destination), QStringList());
    QCOMPARE(record(), kTrackCount);
}

void TestLibraryDownload::cliDiskFullThenFreed()
{
    // Room for 300 kB per extraction: the two chunks of 50 tracks (about 400 kB) fail, the
    // last one of 20 (about 160 kB) extracts after them.
    QProcessEnvironment full;
    full.insert(QStringLiteral("PELICANE_TEST_EXTRACT_SPACE"), QStringLiteral("300000"));
    QByteArray output;
    QCOMPARE(run(&output, full), 1);
    QVERIFY2(output.contains("The disk is full"), output.constData());
    QVERIFY2(output.contains("the library download is incomplete"), output.constData());
    QVERIFY(!output.contains("Library of 120 tracks"));
    QCOMPARE(record(), -1);
    // Tracks of the failed chunks are whole or absent, and no temporary file is left.
    const QStringList differences = LibraryTest::compareWithLibrary(m_server, m_destination);
    QVERIFY2(onlyMissing(differences), qPrintable(differences.join(u'\n')));
    QVERIFY(differences.size() >= 20);

    // Space freed: the next run fetches what is missing and says so only when all is there.
    QCOMPARE(run(&output), 0);
    QVERIFY(output.contains("Library of 120 tracks"));
    QCOMPARE(LibraryTest::compareWithLibrary(m_server, m_destination), QStringList());
    QCOMPARE(record(), kTrackCount);
}

void TestLibraryDownload::cliDiskFullOnSmallTmpfs()
{
    QTemporaryDir mountPoint;
    const auto mount = [&](const QString &options) {
        return QProcess::execute(QStringLiteral("mount"),
                                 {QStringLiteral("-t"), QStringLiteral("tmpfs"), QStringLiteral("-o"), options,
                                  QStringLiteral("tmpfs"), mountPoint.path()}) == 0;
    };
    if (::geteuid() != 0 || !mount(QStringLiteral("size=1100k"))) {
        QSKIP("needs root and mount -t tmpfs; cliDiskFullThenFreed covers the same code through its seam");
    }
    const auto unmount = qScopeGuard([&] { QProcess::execute(QStringLiteral("umount"), {mountPoint.path()}); });
    const QString destination = QDir(mountPoint.path()).filePath(QStringLiteral("My Lyrabox Library"));

    // About 960 kB of tracks and a 400 kB archive beside them do not fit.
    QByteArray output;
    QCOMPARE(run(&output, {}, mountPoint.path()), 1);
    QVERIFY2(output.contains("The disk is full"), output.constData());
    const QStringList differences = LibraryTest::compareWithLibrary(m_server, destination);
    QVERIFY2(onlyMissing(differences) && !differences.isEmpty(), qPrintable(differences.join(u'\n')));

    QVERIFY(mount(QStringLiteral("remount,size=8m")));
    QCOMPARE(run(&output, {}, mountPoint.path()), 0);
    QCOMPARE(LibraryTest::compareWithLibrary(m_server, destination), QStringList());
}

// A file where the library's folder goes fails for root too: one error naming the cause, no retries.
void TestLibraryDownload::cliUnwritableFolderStopsAtOnce()
{
    QVERIFY(QFile(m_destination).open(QIODevice::WriteOnly));
    const qint64 before = segments();
    QElapsedTimer clock;
    clock.start();
    QByteArray output;
    QCOMPARE(run(&output), 1);
    QVERIFY2(clock.elapsed() < 10000, qPrintable(QString::number(clock.elapsed())));
    const QByteArray message =
        "pelicane-cli: Cannot write to " + QFile::encodeName(m_destination) + ": Not a directory";
    QVERIFY2(output.contains(message), output.constData());
    QCOMPARE(segments(), before);
}

QTEST_GUILESS_MAIN(TestLibraryDownload)
#include "tst_librarydownload.moc"
