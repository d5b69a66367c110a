// The whole library download against the local service: scheduling, resuming from the
// record, retries and extraction failures; and pelicane-cli download-library as a
// user runs it: killed or interrupted half-way, on a full disk, into a folder it cannot use.
#include "librarytestsupport.h"

#include "library/downloadlibrarymodel.h"

#include <QDir>
#include <QElapsedTimer>
#include <QJsonObject>
#include <QProcess>
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

const QJsonObject kSlowSegments{{"endpoint", "segment"}, {"latency_ms", 1500}, {"count", 0}};

// The library's tracks that are not there, as compareWithLibrary names them; false on
// anything else (a track that differs, a leftover file).
bool onlyMissing(const QStringList &differences)
{
    return std::all_of(differences.begin(), differences.end(),
                       [](const QString &line) { return line.startsWith(QStringLiteral("missing: ")); });
}

} // namespace

class TestLibraryDownload : public QObject
{
    Q_OBJECT

    DevServerProcess m_server;
    LibraryTest::Identity m_identity;
    std::unique_ptr<QTemporaryDir> m_folder;
    QString m_destination;

    std::unique_ptr<DownloadLibraryModel> makeModel()
    {
        return std::make_unique<DownloadLibraryModel>(QUrl::fromLocalFile(m_folder->path()), m_identity.userId,
                                                      m_identity.token, nullptr);
    }
    qint64 segments() const { return m_server.requestCounts().value("segment").toInteger(); }
    qint64 record(const QString &destination = {}) const
    {
        return DownloadLibraryModel::readResumeRecord(destination.isEmpty() ? m_destination : destination).value_or(-1);
    }
    // A fresh run fetches `chunks` segments and leaves the whole library, recorded.
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
    // Starts pelicane-cli download-library with the account in the environment.
    void start(QProcess &process, const QProcessEnvironment &extra = {}, const QString &folder = {}) const
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(extra);
        environment.insert(QStringLiteral("PELICANE_EMAIL"), QString::fromLatin1(DevServerProcess::kDemoEmail));
        environment.insert(QStringLiteral("PELICANE_PASSWORD"), QString::fromLatin1(DevServerProcess::kDemoPassword));
        process.setProcessEnvironment(environment);
        // --verbose: the log's lines on standard error too, where the test reads them.
        process.start(QStringLiteral(PELICANE_CLI_PATH),
                      {QStringLiteral("--verbose"), QStringLiteral("download-library"),
                       folder.isEmpty() ? m_folder->path() : folder});
    }
    // Runs it to its end: the exit code (-1 when it crashed or hung) and what it printed.
    int run(QByteArray *output = nullptr, const QProcessEnvironment &extra = {}, const QString &folder = {})
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

private slots:
    void initTestCase()
    {
        QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
        m_identity = m_server.signInDemo();
        QVERIFY(!m_identity.token.isEmpty());
        QCOMPARE(LibraryTest::seedTracks(m_server, kTrackCount, 8000).size(), kTrackCount);
    }

    void init()
    {
        m_folder = std::make_unique<QTemporaryDir>();
        m_destination = QDir(m_folder->path()).filePath(QStringLiteral("My Lyrabox Library"));
    }

    void cleanup() { QVERIFY(m_server.clearFaults()); }

    void wholeLibraryInPlace()
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
        QCOMPARE(model->downloadErrorCount(), 0);
        // Chunks are extracted in order; the bar follows the extraction's bytes to the end.
        QCOMPARE(static_cast<QList<QVariantList> &>(extracted), (QList<QVariantList>{{0, 50}, {50, 50}, {100, 20}}));
        QCOMPARE(model->unzipTotalBytesWritten(), model->unzipTotalSize());
        QCOMPARE(model->viewState().actionText, QStringLiteral("Done!"));
        QCOMPARE(m_server.requestCounts().value("header").toInteger() - headersBefore, 1);
        QCOMPARE(segments() - segmentsBefore, 3);
        // Every track byte for byte, no archive left, the record at the count.
        QCOMPARE(LibraryTest::compareWithLibrary(m_server, m_destination), QStringList());
        QCOMPARE(record(), kTrackCount);
    }

    void resumeFromTheRecord_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<int>("firstTrack"); // 121: none
        QTest::newRow("100 of 120") << QByteArray(R"({"downloaded_track_count": 100})") << 101;
        QTest::newRow("all of them") << QByteArray(R"({"downloaded_track_count":120})") << 121;
        QTest::newRow("unreadable") << QByteArray("{not json") << 1;
    }

    void resumeFromTheRecord()
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

        const qsizetype chunks = DownloadLibraryModel::chunksFrom(firstTrack - 1, kTrackCount).size();
        QCOMPARE(segments() - before, chunks);
        QVERIFY(LibraryTest::logText().contains(QStringLiteral(" - Scheduled %1 chunks").arg(chunks)));
        QCOMPARE(record(), kTrackCount);
        QStringList expected{QStringLiteral("download.json")};
        for (int track = firstTrack; track <= kTrackCount; ++track) {
            expected.append(LibraryTest::trackName(track));
        }
        expected.sort();
        QCOMPARE(LibraryTest::filesUnder(m_destination), expected);
    }

    void failedChunkIsRetriedFirst()
    {
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
        // Both faults hit the first chunk: its retry goes ahead of the two waiting behind it.
        QVERIFY(m_server.addFault(QJsonObject{{"endpoint", "segment"}, {"status", 500}, {"count", 2}}));
        const qsizetype retriesBefore = LibraryTest::logText().count(QStringLiteral(" - Retrying after 5 seconds"));
        QElapsedTimer clock;
        clock.start();
        model->start();
        QTRY_VERIFY_WITH_TIMEOUT(model->isComplete(), kTimeout);

        QCOMPARE(failed.size(), 2);
        QCOMPARE(failed.at(0).at(0).toLongLong() + failed.at(1).at(0).toLongLong(), 0);
        QCOMPARE(downloaded.size(), 3);
        QCOMPARE(downloaded.at(1).at(0).toLongLong(), 50);
        // Each retry waits five seconds.
        QVERIFY2(clock.elapsed() >= 2 * DownloadLibraryModel::kRetryDelayMilliseconds - 100,
                 qPrintable(QString::number(clock.elapsed())));
        QCOMPARE(errorLines,
                 (QStringList{"An error occurred while downloading. Retrying library segment 1, attempt 1",
                              "An error occurred while downloading. Retrying library segment 1, attempt 2"}));
        QCOMPARE(LibraryTest::logText().count(QStringLiteral(" - Retrying after 5 seconds")) - retriesBefore, 2);
        QCOMPARE(LibraryTest::compareWithLibrary(m_server, m_destination), QStringList());
    }

    void failedExtractionHoldsTheRecordBack()
    {
        // A folder standing where a track goes makes the second chunk's extraction fail; the
        // third one extracts after it and must not move the record past the second.
        const QString inTheWay = QDir(m_destination).filePath(LibraryTest::trackName(60));
        QVERIFY(QDir().mkpath(inTheWay));
        auto model = makeModel();
        QSignalSpy failed(model.get(), &DownloadLibraryModel::extractionFailed);
        QSignalSpy extracted(model.get(), &DownloadLibraryModel::chunkExtracted);
        QSignalSpy incomplete(model.get(), &DownloadLibraryModel::incomplete);
        model->start();
        QTRY_COMPARE_WITH_TIMEOUT(incomplete.size(), 1, kTimeout);
        QTest::qWait(200);

        const QString archivePath = QDir(m_destination).filePath(QStringLiteral(".temp-1.zip"));
        QCOMPARE(failed.size(), 1);
        QCOMPARE(failed.first().first().toString(), archivePath);
        QCOMPARE(static_cast<QList<QVariantList> &>(extracted), (QList<QVariantList>{{0, 50}, {100, 20}}));
        QCOMPARE(record(), 50);
        QVERIFY(!model->isComplete() && model->isIncomplete());
        QCOMPARE(model->viewState().actionText, QStringLiteral("Download Incomplete"));
        QVERIFY(model->viewState().errorInfoText.contains(QStringLiteral("could not be extracted")));
        QVERIFY(LibraryTest::logText().contains(QStringLiteral("onZKArchiveDidFail: ") + archivePath));
        // The archive is fetched again next time; kept, it would only take space.
        QVERIFY(!QFileInfo::exists(archivePath));
        model.reset();

        // Once the way is clear a second run fetches from the failed chunk on.
        QVERIFY(QDir(inTheWay).removeRecursively());
        resumeFetches(2);
    }

    void cliStoppedHalfWayAndStartedAgain_data()
    {
        QTest::addColumn<int>("signal");
        QTest::addColumn<bool>("extractionLags"); // else the downloads are slow
        // Killed once the first chunk is extracted and recorded, the second on its way.
        QTest::newRow("killed while downloading") << int(SIGKILL) << false;
        // Every chunk has arrived long before the first is extracted; killed between the two.
        QTest::newRow("killed while extraction lags") << int(SIGKILL) << true;
        QTest::newRow("interrupted") << int(SIGINT) << false;
    }

    void cliStoppedHalfWayAndStartedAgain()
    {
        QFETCH(int, signal);
        QFETCH(bool, extractionLags);
        QProcessEnvironment slow;
        if (extractionLags) {
            slow.insert(QStringLiteral("PELICANE_TEST_EXTRACT_DELAY_MS"), QStringLiteral("40"));
        } else {
            QVERIFY(m_server.addFault(kSlowSegments));
        }
        QProcess process;
        start(process, slow);
        QByteArray errors;
        QTRY_VERIFY_WITH_TIMEOUT(
            signal == SIGINT ? (errors += process.readAllStandardError()).contains("DownloadLibrary(0, 50, chunk)")
                             : record() >= 0,
            kTimeout);
        ::kill(pid_t(process.processId()), signal);
        QVERIFY(process.waitForFinished(kTimeout));
        if (signal == SIGINT) {
            QCOMPARE(process.exitCode(), 130);
            QVERIFY(
                QByteArray(errors + process.readAllStandardError()).contains("run the same command again to continue"));
        } else {
            // The record counts only what was extracted: what arrived after it is fetched again.
            QVERIFY2(record() == 50 || (!extractionLags && record() == 100), qPrintable(QString::number(record())));
            QVERIFY(!extractionLags || QFileInfo::exists(QDir(m_destination).filePath(QStringLiteral(".temp-1.zip"))));
        }
        // Leftovers of some earlier run, down in a folder too, are cleared away.
        QVERIFY(QDir().mkpath(QDir(m_destination).filePath(QStringLiteral("Album"))));
        for (const char *name : {".temp-7.zip", "Album/.temp-x1Yz2W"}) {
            QFile stray(QDir(m_destination).filePath(QString::fromLatin1(name)));
            QVERIFY(stray.open(QIODevice::WriteOnly) && stray.write("partial") == 7);
        }
        const qint64 recorded = std::max<qint64>(0, record());
        QVERIFY(m_server.clearFaults());
        const qint64 before = segments();
        QByteArray output;
        QCOMPARE(run(&output), 0);
        QVERIFY(output.contains(QByteArray("Library of 120 tracks in ").append(QFile::encodeName(m_destination))));
        QCOMPARE(segments() - before, DownloadLibraryModel::chunksFrom(recorded, kTrackCount).size());
        QVERIFY(QDir(QDir(m_destination).filePath(QStringLiteral("Album"))).removeRecursively());
        QCOMPARE(LibraryTest::compareWithLibrary(m_server, m_destination), QStringList());
        QCOMPARE(record(), kTrackCount);
    }

    // On a small tmpfs where root may mount one, else through the extraction's seam.
    void cliDiskFullThenFreed()
    {
        QTemporaryDir mountPoint;
        const auto mount = [&](const QString &options) {
            return QProcess::execute(QStringLiteral("mount"),
                                     {QStringLiteral("-t"), QStringLiteral("tmpfs"), QStringLiteral("-o"), options,
                                      QStringLiteral("tmpfs"), mountPoint.path()}) == 0;
        };
        const bool tmpfs = ::geteuid() == 0 && mount(QStringLiteral("size=1100k"));
        const auto unmount = qScopeGuard([&] {
            if (tmpfs) {
                QProcess::execute(QStringLiteral("umount"), {mountPoint.path()});
            }
        });
        // About 960 kB of tracks and a 400 kB archive beside them do not fit in 1100 kB; with
        // room for 300 kB per extraction the two chunks of 50 tracks fail and the last extracts.
        QProcessEnvironment full;
        if (!tmpfs) {
            full.insert(QStringLiteral("PELICANE_TEST_EXTRACT_SPACE"), QStringLiteral("300000"));
        }
        const QString folder = tmpfs ? mountPoint.path() : m_folder->path();
        const QString destination = QDir(folder).filePath(QStringLiteral("My Lyrabox Library"));
        QByteArray output;
        QCOMPARE(run(&output, full, folder), 1);
        QVERIFY2(output.contains("The disk is full"), output.constData());
        QVERIFY2(output.contains("the library download is incomplete"), output.constData());
        // Tracks of the failed chunks are whole or absent, no temporary file is left, and the
        // record stops before them.
        QVERIFY(record(destination) < (tmpfs ? kTrackCount : 0));
        const QStringList differences = LibraryTest::compareWithLibrary(m_server, destination);
        QVERIFY2(onlyMissing(differences) && !differences.isEmpty(), qPrintable(differences.join(u'\n')));

        // Space freed: the next run fetches what is missing and says so only when all is there.
        QVERIFY(!tmpfs || mount(QStringLiteral("remount,size=8m")));
        QCOMPARE(run(&output, {}, folder), 0);
        QVERIFY(output.contains("Library of 120 tracks"));
        QCOMPARE(LibraryTest::compareWithLibrary(m_server, destination), QStringList());
        QCOMPARE(record(destination), kTrackCount);
    }

    // A file where the library's folder goes fails for root too: one error naming the
    // cause, no retries.
    void cliUnwritableFolderStopsAtOnce()
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
};

QTEST_GUILESS_MAIN(TestLibraryDownload)
#include "tst_librarydownload.moc"
