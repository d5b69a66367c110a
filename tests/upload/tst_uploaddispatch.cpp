// The service client's upload dispatch against the local service: the configuration it
// fills, playlist positions, the delegate callbacks, the external-drive rule and stopping.

#include "app/logger.h"
#include "platform/appinfo.h"
#include "platform/operationqueue.h"
#include "service/lyraboxservice.h"
#include "upload/asyncuploadrequestoperation.h"
#include "uploadtestsupport.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QJsonArray>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

namespace {

constexpr int kWaitMs = 60000;

class RecordingDelegate : public LyraboxServiceDelegate
{
public:
    struct Finish
    {
        QString path;
        OptionalError error;
    };
    QList<Finish> finishes;
    QHash<QString, QList<int>> progress;
    int externalDriveErrors = 0;
    bool offMainThread = false;

    void lyraboxDidLogin(LyraboxService *, const OptionalError &) override {}
    void lyraboxDidFinishUpload(LyraboxService *, const QString &filePath, const OptionalError &error) override
    {
        offMainThread |= QThread::currentThread() != qApp->thread();
        finishes.append({filePath, error});
    }
    void lyraboxDidUpdateUploadProgress(LyraboxService *, const QString &filePath, int percent) override
    {
        offMainThread |= QThread::currentThread() != qApp->thread();
        progress[filePath].append(percent);
    }
    void lyraboxDidExperienceExternalDriveError(LyraboxService *) override { ++externalDriveErrors; }
};

QJsonObject storedFile(const DevServerProcess &server, const QString &fileName)
{
    QJsonObject found;
    for (const QJsonValue &file : server.library().value("files").toArray()) {
        if (file.toObject().value("file_name").toString() == fileName) {
            found = file.toObject(); // the latest
        }
    }
    return found;
}

// The configurations of the operations waiting in a suspended queue.
QList<AsyncUploadRequestConfiguration> queuedConfigurations(LyraboxService &service)
{
    QList<AsyncUploadRequestConfiguration> configs;
    for (const OperationPtr &operation : service.fileLoadOperationQueue()->operations()) {
        if (auto upload = std::dynamic_pointer_cast<AsyncUploadRequestOperation>(operation)) {
            configs << upload->config();
        }
    }
    return configs;
}

} // namespace

class TestUploadDispatch : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void uploadsAndReportsToTheDelegate();
    void fillsTheConfigurationAndPlaylistPositions();
    void cdTrackIsSentAsARippedFlac();
    void failuresReachTheDelegateWithTheirCode();
    void stopUploadsCancelsEverything();

private:
    QTemporaryDir m_dir;
    DevServerProcess m_server;
    Credentials m_credentials;
    std::unique_ptr<LyraboxService> m_service;
    RecordingDelegate m_delegate;
};

void TestUploadDispatch::initTestCase()
{
    Logger::log(QStringLiteral("tst_uploaddispatch"));
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    m_credentials = signInDemo(m_server);
    QVERIFY(!m_credentials.token.isEmpty());
}

void TestUploadDispatch::init()
{
    m_service = std::make_unique<LyraboxService>();
    m_service->setUserId(m_credentials.userId);
    m_service->setUserToken(m_credentials.token);
    m_delegate = RecordingDelegate();
    m_service->setDelegate(&m_delegate);
}

void TestUploadDispatch::cleanup()
{
    m_service->fileLoadOperationQueue()->setSuspended(false);
    m_service->stopUploads();
    m_service->fileLoadOperationQueue()->waitUntilAllOperationsAreFinished();
    QTest::qWait(100);
    m_service.reset();
    m_server.clearFaults();
}

void TestUploadDispatch::uploadsAndReportsToTheDelegate()
{
    const QString path = m_dir.filePath(QStringLiteral("Dispatched One.mp3"));
    QVERIFY(writePatternFile(path, 5 * 1024 * 1024, 31));
    LogWatch log;
    m_service->uploadFile(path);
    QTRY_COMPARE_WITH_TIMEOUT(m_delegate.finishes.size(), 1, kWaitMs);
    QTest::qWait(300);
    QCOMPARE(m_delegate.finishes.size(), 1);
    QCOMPARE(m_delegate.finishes.first().path, path);
    QVERIFY(!m_delegate.finishes.first().error);
    QVERIFY(!m_delegate.offMainThread);

    // Whole percents, rising, ending at 100.
    const QList<int> percents = m_delegate.progress.value(path);
    QVERIFY(!percents.isEmpty());
    QCOMPARE(percents.first(), 1);
    QCOMPARE(percents.last(), 100);
    QVERIFY(std::is_sorted(percents.begin(), percents.end()));

    const QJsonObject stored = storedFile(m_server, QStringLiteral("Dispatched One.mp3"));
    QCOMPARE(stored.value("md5").toString().toLatin1(), md5OfFile(path));
    QCOMPARE(stored.value("user_agent").toString(),
             QStringLiteral("Lyrabox pelicane mac %1 (%2)").arg(AppInfo::shortVersion(), AppInfo::buildNumber()));
    QCOMPARE(stored.value("file_path").toString(), path);
    QVERIFY(log.lines().contains(QStringLiteral("Upload: ") + path));
}

void TestUploadDispatch::fillsTheConfigurationAndPlaylistPositions()
{
    const QString first = m_dir.filePath(QStringLiteral("first.mp3"));
    const QString second = m_dir.filePath(QStringLiteral("second.mp3"));
    QVERIFY(writePatternFile(first, 1000, 32));
    QVERIFY(writePatternFile(second, 1000, 33));
    m_service->fileLoadOperationQueue()->setSuspended(true);

    // Without a playlist name no position is handed out.
    m_service->setCreateTagName(QStringLiteral("Tagged"));
    m_service->setCreatePlaylistName(QStringLiteral(""));
    m_service->uploadFile(first);
    QCOMPARE(m_service->playlistOrderIndex(), 0u);
    QVERIFY(m_service->playlistOrder().isEmpty());
    // (The service refuses an empty playlist name: that one is not sent.)
    m_service->fileLoadOperationQueue()->cancelAllOperations();

    // With one: the clock's seconds within the current million, plus one per file; a retry
    // keeps its position.
    m_service->setCreatePlaylistName(QStringLiteral("Trip"));
    m_service->setReuploadDuplicates(true);
    const quint64 before = QString::number(QDateTime::currentSecsSinceEpoch()).mid(4).toULongLong();
    m_service->uploadFile(first);
    m_service->uploadFile(second);
    m_service->uploadFile(first, std::nullopt, true);
    const quint64 after = QString::number(QDateTime::currentSecsSinceEpoch()).mid(4).toULongLong();
    QCOMPARE(m_service->playlistOrderIndex(), 2u);
    const quint64 firstPosition = m_service->playlistOrder().value(first).toULongLong();
    const quint64 secondPosition = m_service->playlistOrder().value(second).toULongLong();
    if (after >= before) { // not across a million-second boundary
        QVERIFY(firstPosition >= before && firstPosition <= after);
        QVERIFY(secondPosition >= before + 1 && secondPosition <= after + 1);
    }
    QVERIFY(secondPosition > firstPosition);
    const QList<AsyncUploadRequestConfiguration> configs = queuedConfigurations(*m_service);
    QCOMPARE(configs.size(), 4);
    QVERIFY(configs.at(0).playlistOrder.isNull());
    QCOMPARE(configs.at(0).createTagName, QStringLiteral("Tagged"));
    QCOMPARE(configs.at(0).userToken, m_credentials.token);
    QVERIFY(!configs.at(0).isRetry);
    QCOMPARE(configs.at(1).playlistOrder, QString::number(firstPosition));
    QCOMPARE(configs.at(2).playlistOrder, QString::number(secondPosition));
    QCOMPARE(configs.at(3).playlistOrder, QString::number(firstPosition));
    QVERIFY(configs.at(3).isRetry && configs.at(1).reuploadDuplicates);

    // They go out as dispatched.
    m_service->fileLoadOperationQueue()->setSuspended(false);
    QTRY_COMPARE_WITH_TIMEOUT(m_delegate.finishes.size(), 4, kWaitMs);
    for (const auto &finish : std::as_const(m_delegate.finishes)) {
        QCOMPARE(finish.error.value_or(Error::errorWithMessage()).code(), finish.error ? -999 : 0);
    }
    QCOMPARE(std::count_if(m_delegate.finishes.cbegin(), m_delegate.finishes.cend(),
                           [](const auto &finish) { return finish.error.has_value(); }),
             1);
    const QJsonObject stored = storedFile(m_server, QStringLiteral("second.mp3"));
    QCOMPARE(stored.value("playlist_name").toString(), QStringLiteral("Trip"));
    QCOMPARE(stored.value("playlist_order").toVariant().toString(), QString::number(secondPosition));
    QCOMPARE(stored.value("tag_name").toString(), QStringLiteral("Tagged"));

    m_service->reset();
    QCOMPARE(m_service->playlistOrderIndex(), 0u);
    QVERIFY(m_service->playlistOrder().isEmpty() && m_service->createPlaylistName().isNull());
}

void TestUploadDispatch::cdTrackIsSentAsARippedFlac()
{
    PLCID3Tag tags;
    tags.setAlbum(QStringLiteral("Blue"));
    tags.setTitle(QStringLiteral("Intro"));
    tags.setTrack(1);
    m_service->fileLoadOperationQueue()->setSuspended(true);
    const QString track = QStringLiteral("/dev/sr9/1 Audio Track.aiff");
    m_service->uploadFile(track, tags);
    const QList<AsyncUploadRequestConfiguration> configs = queuedConfigurations(*m_service);
    QCOMPARE(configs.size(), 1);
    QCOMPARE(configs.first().sanitizedFilePath, QStringLiteral("/Volumes/Blue/Intro.flac"));
    QVERIFY(configs.first().userAgent.endsWith(QStringLiteral(") ripped")));
    QCOMPARE(configs.first().ID3Tags, std::optional<PLCID3Tag>(tags));
    // No such disc: the track is reported missing.
    m_service->fileLoadOperationQueue()->setSuspended(false);
    QTRY_COMPARE_WITH_TIMEOUT(m_delegate.finishes.size(), 1, kWaitMs);
    QCOMPARE(m_delegate.finishes.first().error->code(), 200);
    QCOMPARE(m_delegate.finishes.first().error->localizedDescription(), QStringLiteral("File does not exist"));
}

void TestUploadDispatch::failuresReachTheDelegateWithTheirCode()
{
    const QString path = m_dir.filePath(QStringLiteral("fails.mp3"));
    QVERIFY(writePatternFile(path, 2 * 1024 * 1024, 34));
    QVERIFY(m_server.addFault({{"endpoint", "upload"}, {"status", 500}, {"message", "Broken"}}));
    LogWatch log;
    m_service->uploadFile(path);
    QTRY_COMPARE_WITH_TIMEOUT(m_delegate.finishes.size(), 1, kWaitMs);
    QCOMPARE(m_delegate.finishes.first().error->code(), 500);
    QCOMPARE(m_delegate.finishes.first().error->localizedDescription(), QStringLiteral("Broken"));
    QVERIFY(log.lines().contains(QRegularExpression(QStringLiteral("^fails\\.mp3 - errored \\(\\d+\\.\\d{6}\\)$"))));

    // The service resets the connection without reading the body; the socket has taken
    // part of it by then, so progress is above 0, and the file is on no removable volume:
    // no warning.
    QVERIFY(m_server.addFault({{"endpoint", "upload"}, {"drop_after_bytes", 0}, {"count", 0}}));
    m_service->uploadFile(path);
    QTRY_COMPARE_WITH_TIMEOUT(m_delegate.finishes.size(), 2, kWaitMs);
    QTest::qWait(300);
    QCOMPARE(m_delegate.finishes.size(), 2);
    QCOMPARE(m_delegate.finishes.at(1).error.value_or(Error::errorWithMessage()).code(), -1005);
    const QStringList errored = log.lines().filter(QStringLiteral("fails.mp3 - errored ("));
    QCOMPARE(errored.size(), 2);
    QVERIFY2(!errored.last().endsWith(QStringLiteral("(0.000000)")), qPrintable(errored.last()));
    QCOMPARE(m_delegate.externalDriveErrors, 0);
    QVERIFY(!m_service->didShowNetworkDrivePermissionError());
}

void TestUploadDispatch::stopUploadsCancelsEverything()
{
    const QString big = m_dir.filePath(QStringLiteral("big.flac"));
    QVERIFY(writePatternFile(big, 300 * 1024 * 1024, 36));
    // The service takes its time with every upload body.
    QVERIFY(m_server.addFault({{"endpoint", "upload"}, {"latency_ms", 20000}, {"count", 0}}));
    QStringList paths;
    for (int i = 0; i < 3; ++i) {
        paths << m_dir.filePath(QStringLiteral("queued-%1.mp3").arg(i));
        QVERIFY(writePatternFile(paths.last(), 50000, quint32(40 + i)));
    }
    m_service->uploadFile(big);
    for (const QString &path : paths) {
        m_service->uploadFile(path);
    }
    QTRY_VERIFY_WITH_TIMEOUT(!m_delegate.progress.value(big).isEmpty(), kWaitMs);
    QCOMPARE(m_service->uploadProgresses().size(), 4);
    m_service->stopUploads();
    QTRY_COMPARE_WITH_TIMEOUT(m_delegate.finishes.size(), 4, kWaitMs);
    QTest::qWait(300);
    QCOMPARE(m_delegate.finishes.size(), 4);
    for (const auto &finish : m_delegate.finishes) {
        QVERIFY2(finish.error && finish.error->code() == -999, qPrintable(finish.path));
    }
    QVERIFY(m_service->uploadProgresses().isEmpty());
    QCOMPARE(m_service->fileLoadOperationQueue()->operationCount(), 0);
}

QTEST_GUILESS_MAIN(TestUploadDispatch)
#include "tst_uploaddispatch.moc"
