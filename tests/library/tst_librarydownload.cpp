// The whole library download against the local service: scheduling, resuming
// from the record, retries, interruptions and extraction failures.
#include "librarytestsupport.h"

#include "library/downloadlibrarymodel.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

namespace {

constexpr int kTimeout = 120000;
constexpr int kTrackCount = 120;

struct Alert
{
    QString title;
    QString text;
    QStringList buttons;
    DownloadLibraryPrompter::Appearance appearance;
};

// Answers every question with a set button and keeps what was asked.
class AnsweringPrompter : public DownloadLibraryPrompter
{
public:
    int showAlert(const QString &title, const QString &text, const QStringList &buttons, Appearance appearance) override
    {
        alerts.append({title, text, buttons, appearance});
        return answer;
    }
    int answer = 1000;
    QList<Alert> alerts;
};

void writeRecord(const QString &destination, const QByteArray &json)
{
    QDir().mkpath(destination);
    QFile file(QDir(destination).filePath(QStringLiteral("download.json")));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(json);
}

qint64 readRecord(const QString &destination)
{
    return DownloadLibraryModel::readResumeRecord(destination).value_or(-1);
}

} // namespace

class TestLibraryDownload : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void chunksCoverTheLibrary();
    void wholeLibraryInPlace();
    void resumeFromTheRecord_data();
    void resumeFromTheRecord();
    void headerAnsweredWithAnError();
    void failedChunksAreRetried_data();
    void failedChunksAreRetried();
    void stoppedAfterAnExtraction();
    void stoppedBetweenDownloadAndExtraction();
    void failedExtractionKeepsItsArchive_data();
    void failedExtractionKeepsItsArchive();
    void cancelAsksFirst();

private:
    std::unique_ptr<DownloadLibraryModel> makeModel();
    qint64 requests(const char *kind) const { return m_server.requestCounts().value(kind).toInteger(); }

    DevServerProcess m_server;
    LibraryTest::Identity m_identity;
    std::unique_ptr<QTemporaryDir> m_folder;
    QString m_destination;
    AnsweringPrompter m_prompter;
};

void TestLibraryDownload::initTestCase()
{
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    m_identity = LibraryTest::signIn(m_server);
    QVERIFY(!m_identity.token.isEmpty());
    QCOMPARE(LibraryTest::seedTracks(m_server, kTrackCount, 8000).size(), kTrackCount);
}

void TestLibraryDownload::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
    m_destination = QDir(m_folder->path()).filePath(QStringLiteral("My Lyrabox Library"));
    m_prompter.alerts.clear();
    m_prompter.answer = 1000;
}

void TestLibraryDownload::cleanup()
{
    QVERIFY(m_server.clearFaults());
}

std::unique_ptr<DownloadLibraryModel> TestLibraryDownload::makeModel()
{
    return std::make_unique<DownloadLibraryModel>(QUrl::fromLocalFile(m_folder->path()), m_identity.userId,
                                                  m_identity.token, &m_prompter);
}

void TestLibraryDownload::chunksCoverTheLibrary()
{
    using Chunks = QList<std::pair<qint64, qint64>>;
    QCOMPARE(DownloadLibraryModel::chunksFrom(0, 120), (Chunks{{0, 50}, {50, 50}, {100, 20}}));
    QCOMPARE(DownloadLibraryModel::chunksFrom(100, 120), (Chunks{{100, 20}}));
    QCOMPARE(DownloadLibraryModel::chunksFrom(0, 100), (Chunks{{0, 50}, {50, 50}}));
    QCOMPARE(DownloadLibraryModel::chunksFrom(120, 120), Chunks());
    QCOMPARE(DownloadLibraryModel::chunksFrom(0, 1), (Chunks{{0, 1}}));
}

void TestLibraryDownload::wholeLibraryInPlace()
{
    const qint64 headersBefore = requests("header");
    const qint64 segmentsBefore = requests("segment");
    auto model = makeModel();
    QSignalSpy completed(model.get(), &DownloadLibraryModel::completed);
    QSignalSpy extracted(model.get(), &DownloadLibraryModel::chunkExtracted);
    model->start();
    QCOMPARE(model->viewState().actionText, QStringLiteral("Configuring Library Download..."));
    QTRY_VERIFY_WITH_TIMEOUT(model->isComplete(), kTimeout);

    QCOMPARE(completed.size(), 1);
    QCOMPARE(model->totalTrackCount(), kTrackCount);
    QCOMPARE(model->downloadsScheduled(), 3);
    QCOMPARE(model->downloadsCompleted(), 3);
    QCOMPARE(model->unzipsCompleted(), 3);
    QCOMPARE(model->tracksCompleted(), kTrackCount);
    QCOMPARE(model->downloadErrorCount(), 0);
    // Chunks are extracted in order.
    QCOMPARE(extracted.size(), 3);
    QCOMPARE(extracted.at(0), (QVariantList{0, 50}));
    QCOMPARE(extracted.at(2), (QVariantList{100, 20}));
    QCOMPARE(requests("header") - headersBefore, 1);
    QCOMPARE(requests("segment") - segmentsBefore, 3);

    // Every track byte for byte, no archive left, the record at the count.
    QCOMPARE(LibraryTest::compareWithLibrary(m_server, m_destination), QStringList());
    QCOMPARE(readRecord(m_destination), kTrackCount);
    const DownloadLibraryViewState &view = model->viewState();
    QCOMPARE(view.actionText, QStringLiteral("Done!"));
    QCOMPARE(view.cancelTitle, QStringLiteral("Open Folder"));
    QVERIFY(view.cancelIsDefault);
    QVERIFY(view.cancelEnabled);
    QVERIFY(!view.errorInfoVisible);
    const QString log = LibraryTest::logText();
    QVERIFY(log.contains(QStringLiteral(" - Configuring library download")));
    QVERIFY(log.contains(QStringLiteral(" - Got count: 120")));
    QVERIFY(log.contains(QStringLiteral(" - Scheduled 3 chunks")));
    QVERIFY(log.contains(QStringLiteral("DownloadLibrary(100, 20, chunk)")));
}

void TestLibraryDownload::resumeFromTheRecord_data()
{
    QTest::addColumn<QByteArray>("record");
    QTest::addColumn<int>("segments");
    QTest::addColumn<int>("firstTrack");
    QTest::newRow("100 of 120") << QByteArray(R"({"downloaded_track_count": 100})") << 1 << 101;
    QTest::newRow("50 of 120") << QByteArray(R"({"downloaded_track_count":50})") << 2 << 51;
    QTest::newRow("all of them") << QByteArray(R"({"downloaded_track_count":120})") << 0 << 0;
    QTest::newRow("unreadable") << QByteArray("{not json") << 3 << 1;
    QTest::newRow("without the key") << QByteArray(R"({"tracks":100})") << 3 << 1;
}

void TestLibraryDownload::resumeFromTheRecord()
{
    QFETCH(QByteArray, record);
    QFETCH(int, segments);
    QFETCH(int, firstTrack);
    writeRecord(m_destination, record);
    const qint64 before = requests("segment");
    auto model = makeModel();
    model->start();
    QTRY_VERIFY_WITH_TIMEOUT(model->isComplete(), kTimeout);

    QCOMPARE(requests("segment") - before, segments);
    QVERIFY(LibraryTest::logText().contains(QStringLiteral(" - Scheduled %1 chunks").arg(segments)));
    QCOMPARE(model->viewState().actionText, QStringLiteral("Done!"));
    QCOMPARE(readRecord(m_destination), kTrackCount);
    QStringList expected;
    for (int track = firstTrack; firstTrack > 0 && track <= kTrackCount; ++track) {
        expected.append(QStringLiteral("Track %1.mp3").arg(track, 3, 10, QLatin1Char('0')));
    }
    expected.append(QStringLiteral("download.json"));
    expected.sort();
    QCOMPARE(LibraryTest::filesUnder(m_destination), expected);
}

void TestLibraryDownload::headerAnsweredWithAnError()
{
    // No count comes with the error: nothing to do, and the window says so.
    QVERIFY(m_server.addFault(QJsonObject{{"endpoint", "header"}, {"status", 500}}));
    const qint64 before = requests("segment");
    auto model = makeModel();
    model->start();
    QTRY_VERIFY_WITH_TIMEOUT(model->isComplete(), kTimeout);
    QCOMPARE(model->totalTrackCount(), 0);
    QCOMPARE(model->viewState().actionText, QStringLiteral("Done!"));
    QCOMPARE(requests("segment"), before);
    const QString log = LibraryTest::logText();
    QVERIFY(log.contains(QStringLiteral(" - Got count: 0")));
    QVERIFY(log.contains(QStringLiteral(" - Scheduled 0 chunks")));

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
    QCOMPARE(model->downloadErrorCount(), failures);
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
    QCOMPARE(readRecord(m_destination), kTrackCount);

    model->OnErrorInfo();
    QCOMPARE(m_prompter.alerts.size(), 1);
    QCOMPARE(m_prompter.alerts.first().title, QStringLiteral("Download Error"));
    QCOMPARE(m_prompter.alerts.first().text,
             QStringLiteral("The following error occurred while downloading: \n\n") + message +
                 QStringLiteral("\n\nThe download is attempting to recover automatically. If this error persists, "
                                "contact support@lyrabox.com"));
    QCOMPARE(m_prompter.alerts.first().buttons, QStringList{QStringLiteral("OK")});
}

void TestLibraryDownload::stoppedAfterAnExtraction()
{
    // Slow segments, so the run is still busy with the second chunk when the
    // first has been extracted and recorded.
    QVERIFY(m_server.addFault(QJsonObject{{"endpoint", "segment"}, {"latency_ms", 1500}, {"count", 0}}));
    auto model = makeModel();
    bool stopped = false;
    connect(
        model.get(), &DownloadLibraryModel::chunkExtracted, this,
        [&] {
            model.reset();
            stopped = true;
        },
        Qt::QueuedConnection);
    model->start();
    QTRY_VERIFY_WITH_TIMEOUT(stopped, kTimeout);
    QCOMPARE(readRecord(m_destination), 50);
    QVERIFY(m_server.clearFaults());

    const qint64 before = requests("segment");
    auto resumed = makeModel();
    resumed->start();
    QTRY_VERIFY_WITH_TIMEOUT(resumed->isComplete(), kTimeout);
    QCOMPARE(requests("segment") - before, 2);
    QVERIFY(LibraryTest::logText().contains(QStringLiteral(" - Scheduled 2 chunks")));
    QCOMPARE(LibraryTest::compareWithLibrary(m_server, m_destination), QStringList());
    QCOMPARE(readRecord(m_destination), kTrackCount);
}

void TestLibraryDownload::stoppedBetweenDownloadAndExtraction()
{
    // Stopped as soon as the second chunk has arrived: its extraction's end is
    // never handled, so the record must not count it. (Slow segments let the
    // first chunk's extraction end before.)
    QVERIFY(m_server.addFault(QJsonObject{{"endpoint", "segment"}, {"latency_ms", 1000}, {"count", 0}}));
    auto model = makeModel();
    bool stopped = false;
    connect(
        model.get(), &DownloadLibraryModel::chunkDownloaded, this,
        [&](qint64 offset) {
            if (offset == 50 && model) {
                model.reset();
                stopped = true;
            }
        },
        Qt::QueuedConnection);
    model->start();
    QTRY_VERIFY_WITH_TIMEOUT(stopped, kTimeout);
    QVERIFY(QFileInfo::exists(QDir(m_destination).filePath(QStringLiteral(".temp-1.zip"))));
    QCOMPARE(readRecord(m_destination), 50);
    QVERIFY(m_server.clearFaults());

    const qint64 before = requests("segment");
    auto resumed = makeModel();
    resumed->start();
    QTRY_VERIFY_WITH_TIMEOUT(resumed->isComplete(), kTimeout);
    QCOMPARE(requests("segment") - before, 2);
    QCOMPARE(LibraryTest::compareWithLibrary(m_server, m_destination), QStringList());
    QCOMPARE(readRecord(m_destination), kTrackCount);
}

void TestLibraryDownload::failedExtractionKeepsItsArchive_data()
{
    QTest::addColumn<int>("blockedTrack");
    QTest::addColumn<QString>("archive");
    QTest::addColumn<int>("record");
    QTest::newRow("last chunk") << 120 << ".temp-5.zip" << 100;
    QTest::newRow("middle chunk") << 60 << ".temp-1.zip" << 120;
}

void TestLibraryDownload::failedExtractionKeepsItsArchive()
{
    QFETCH(int, blockedTrack);
    QFETCH(QString, archive);
    QFETCH(int, record);
    // A folder standing where a track goes makes that chunk's extraction fail.
    const QString blocked = QStringLiteral("Track %1.mp3").arg(blockedTrack, 3, 10, QLatin1Char('0'));
    QVERIFY(QDir().mkpath(QDir(m_destination).filePath(blocked)));

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
    QCOMPARE(readRecord(m_destination), record);
    QCOMPARE(model->unzipsCompleted(), 3);
    QVERIFY(LibraryTest::logText().contains(QStringLiteral("onZKArchiveDidFail: ") + archivePath));
    // "Done!" only comes through a chunk that extracted.
    QCOMPARE(model->isComplete(), blockedTrack != 120);
    QCOMPARE(model->viewState().actionText == QStringLiteral("Done!"), blockedTrack != 120);
    // The other chunks went through, those after a failed one too.
    const auto present = [this](const char *name) {
        return QFileInfo::exists(QDir(m_destination).filePath(QLatin1String(name)));
    };
    QVERIFY(present("Track 050.mp3"));
    QCOMPARE(present("Track 100.mp3"), blockedTrack == 120);
    if (blockedTrack == 60) {
        QVERIFY(present("Track 101.mp3"));
        QVERIFY(present("Track 120.mp3"));
    }
}

void TestLibraryDownload::cancelAsksFirst()
{
    QVERIFY(m_server.addFault(QJsonObject{{"endpoint", "segment"}, {"latency_ms", 1000}, {"count", 0}}));
    auto model = makeModel();
    QSignalSpy close(model.get(), &DownloadLibraryModel::closeRequested);
    QSignalSpy open(model.get(), &DownloadLibraryModel::openFolderRequested);
    model->start();
    QCOMPARE(model->viewState().cancelTitle, QStringLiteral("Cancel"));

    m_prompter.answer = 1001; // "No"
    model->OnCancel();
    QCOMPARE(close.size(), 0);
    QCOMPARE(m_prompter.alerts.size(), 1);
    const Alert alert = m_prompter.alerts.first();
    QCOMPARE(alert.title, QStringLiteral("Abort Download"));
    QCOMPARE(alert.text, QStringLiteral("Are you sure you want to abort the download?"));
    QCOMPARE(alert.buttons, (QStringList{QStringLiteral("Yes"), QStringLiteral("No")}));
    QVERIFY(alert.appearance == DownloadLibraryPrompter::Appearance::Dark);

    m_prompter.answer = 1000; // "Yes"
    model->OnCancel();
    QCOMPARE(close.size(), 1);
    QCOMPARE(open.size(), 0);
    // Closing alone does not stop the run; the owner does, by destroying it.
    QVERIFY(!model->isComplete());
    QVERIFY(m_server.clearFaults());
    QTRY_VERIFY_WITH_TIMEOUT(model->isComplete(), kTimeout);

    // Once complete the button opens the folder holding the library, unasked.
    m_prompter.alerts.clear();
    model->OnCancel();
    QCOMPARE(m_prompter.alerts.size(), 0);
    QCOMPARE(open.size(), 1);
    QCOMPARE(open.first().first().toUrl(), QUrl::fromLocalFile(m_folder->path()));
    QCOMPARE(close.size(), 2);
}

QTEST_GUILESS_MAIN(TestLibraryDownload)
#include "tst_librarydownload.moc"
