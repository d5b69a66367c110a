// The upload operation on a CD track: rip, encode to a tagged FLAC file,
// send it to the local service; and the ways a track fails.
#include "cdroadsupport.h"
#include "upload/uploadtestsupport.h"

#include "audio/cdripper.h"
#include "cd/plcaudiocdprocessor.h"
#include "cd/plcvolumetype.h"
#include "core/paths.h"
#include "platform/discimages.h"
#include "platform/operationqueue.h"
#include "support/discimage.h"
#include "support/discservicesdata.h"
#include "upload/asyncuploadrequestoperation.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>

namespace {

struct Reports
{
    // "rip:<fraction>" and "upload:<fraction>" in the order they came.
    QStringList events;
    QList<double> rip;
    QList<double> upload;
    int successes = 0;
    QList<Error> failures;
    int finals() const { return successes + int(failures.size()); }
};

QStringList leftoverFlacFiles()
{
    return QDir(Paths::temporaryDirectory()).entryList({QStringLiteral("*.flac")}, QDir::Files);
}

} // namespace

class TestCDTrackUpload : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    DevServerProcess m_server;
    Credentials m_credentials;
    OperationQueue m_queue;

    QString trackPath(const DiscImage &image, int number) const
    {
        return DiscImages::normalizedPath(image.cuePath()) + QLatin1Char('/') + PLCVolumeType::trackFileName(number);
    }

    std::shared_ptr<AsyncUploadRequestOperation> makeOperation(const QString &path, const PLCID3Tag &tags,
                                                               Reports *reports)
    {
        AsyncUploadRequestConfiguration config = uploadConfiguration(m_server.uploadUrl(), path, m_credentials);
        config.ID3Tags = tags;
        auto operation = std::make_shared<AsyncUploadRequestOperation>(config);
        operation->ripProgressBlock = [reports](double fraction) {
            reports->rip << fraction;
            reports->events << QStringLiteral("rip");
        };
        operation->fileLoadProgressBlock = [reports](double fraction) {
            reports->upload << fraction;
            reports->events << QStringLiteral("upload");
        };
        operation->fileLoadSucceededBlock = [reports] { ++reports->successes; };
        operation->fileLoadFailedBlock = [reports](const Error &error) { reports->failures << error; };
        return operation;
    }

    // Runs the operation to its end, and a while beyond for a second report
    // that must not come.
    void settle(const std::shared_ptr<AsyncUploadRequestOperation> &operation, const Reports &reports)
    {
        QTRY_VERIFY_WITH_TIMEOUT(reports.finals() > 0 && operation->isFinished(), 30000);
        m_queue.waitUntilAllOperationsAreFinished();
        QTest::qWait(200);
        QCOMPARE(reports.finals(), 1);
    }

    int uploadRequests() const { return m_server.requestCounts().value("upload").toInt(); }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
        m_credentials = m_server.signInDemo();
        QVERIFY(!m_credentials.token.isEmpty());
    }

    void cleanup()
    {
        ripSimulateUnreadableSectors({});
        DiscImages::clear();
        PLCAudioCDProcessor::closeDevice();
        // The FLAC file goes with its operation, whatever the outcome.
        QCOMPARE(leftoverFlacFiles(), QStringList());
    }

    void wavHeaderFields()
    {
        for (const quint32 values : {0u, 2352u}) {
            const QByteArray header = AsyncUploadRequestOperation::WAVHeaderForSampleCount(values);
            QCOMPARE(header.size(), 44);
            QVERIFY(header.capacity() >= qsizetype(values) * 2 + 44);
            const auto u32 = [&](int at) { return qFromLittleEndian<quint32>(header.constData() + at); };
            const auto u16 = [&](int at) { return qFromLittleEndian<quint16>(header.constData() + at); };
            QCOMPARE(header.mid(0, 4), QByteArray("RIFF"));
            QCOMPARE(u32(4), values * 2 + 36);
            QCOMPARE(header.mid(8, 8), QByteArray("WAVEfmt "));
            QCOMPARE(u32(16), 16u);
            QCOMPARE(u16(20), quint16(1));
            QCOMPARE(u16(22), quint16(2));
            QCOMPARE(u32(24), 44100u);
            QCOMPARE(u32(28), 176400u);
            QCOMPARE(u16(32), quint16(4));
            QCOMPARE(u16(34), quint16(16));
            QCOMPARE(header.mid(36, 4), QByteArray("data"));
            QCOMPARE(u32(40), values * 2);
        }
    }

    // The second track of a disc goes up as "<title>.flac": its audio
    // bit-identical, its tags, rip progress before upload progress.
    void trackGoesUpAsTaggedFlac()
    {
        const DiscImage image =
            DiscImage::create(m_dir.path(), QStringLiteral("whole"), DiscImage::audioOptions({200, 300, 250}));
        QVERIFY(image.isValid());
        QVERIFY(DiscImages::insert(image.cuePath()));
        PLCID3Tag tags;
        tags.setTitle(QStringLiteral("Second Song"));
        tags.setAlbum(QStringLiteral("The Album"));
        tags.setArtist(QStringLiteral("The Band"));
        tags.setAlbumArtist(QStringLiteral("The Band"));
        tags.setTrack(2);
        tags.setTotalTracks(3);
        tags.setDiscNumber(2);
        tags.setYear(2001);
        tags.setArtwork(DiscServicesData::imageBytes("PNG"));
        Reports reports;
        auto operation = makeOperation(trackPath(image, 2), tags, &reports);
        m_queue.addOperation(operation);
        settle(operation, reports);
        QVERIFY2(reports.failures.isEmpty(),
                 qPrintable(reports.failures.isEmpty() ? QString() : reports.failures[0].localizedDescription()));

        // Rip progress for every sector with samples, from 1/total to 1.0,
        // then the upload's, measured against the raw size and so below 1.0.
        QCOMPARE(reports.rip.size(), 300);
        QCOMPARE(reports.rip.first(), 1.0 / 300.0);
        QCOMPARE(reports.rip.last(), 1.0);
        QVERIFY(std::is_sorted(reports.rip.begin(), reports.rip.end()));
        QVERIFY(!reports.upload.isEmpty());
        QCOMPARE(reports.events.lastIndexOf(QStringLiteral("rip")), 299);
        QVERIFY(reports.upload.last() < 1.0);
        QCOMPARE(operation->fileSize(), qint64(300) * 2352);
        QVERIFY(operation->isUploadingAudioCD());

        const QJsonObject stored = storedFilesByName(m_server).value(QStringLiteral("Second Song.flac"));
        QVERIFY(!stored.isEmpty());
        const QString storedPath = stored.value("stored_path").toString();
        QCOMPARE(decodedFlacAudio(storedPath), image.trackAudio(1));
        const QHash<QString, QString> written = flacTags(storedPath);
        QCOMPARE(written.value("title"), QStringLiteral("Second Song"));
        QCOMPARE(written.value("album"), QStringLiteral("The Album"));
        QCOMPARE(written.value("tracknumber"), QStringLiteral("2/3"));
        QCOMPARE(written.value("discnumber"), QStringLiteral("2"));
        QVERIFY(flacHasPicture(storedPath));
    }

    // A one-sector track (too short to encode), a damaged track, a track the
    // disc lacks and a rip stopped by cancel: one failure each, nothing sent.
    void tracksThatFail()
    {
        const DiscImage image =
            DiscImage::create(m_dir.path(), QStringLiteral("failing"), DiscImage::audioOptions({1, 300, 9000}));
        QVERIFY(image.isValid());
        QVERIFY(DiscImages::insert(image.cuePath()));
        const int requestsBefore = uploadRequests();
        PLCID3Tag tags;
        tags.setTitle(QStringLiteral("Short"));
        tags.setTrack(1);

        Reports shortTrack;
        auto operation = makeOperation(trackPath(image, 1), tags, &shortTrack);
        m_queue.addOperation(operation);
        settle(operation, shortTrack);
        QCOMPARE(shortTrack.failures.size(), 1);
        QCOMPARE(shortTrack.failures[0].code(), 200);
        QCOMPARE(shortTrack.failures[0].localizedDescription(),
                 QStringLiteral("The track is too short to be encoded."));

        // A sector in the middle of track 2 cannot be read.
        ripSimulateUnreadableSectors({image.trackFirstSector(1) + 150});
        Reports damaged;
        tags.setTrack(2);
        operation = makeOperation(trackPath(image, 2), tags, &damaged);
        m_queue.addOperation(operation);
        settle(operation, damaged);
        QCOMPARE(damaged.failures.size(), 1);
        QCOMPARE(damaged.failures[0].code(), 200);
        QVERIFY(!damaged.failures[0].localizedDescription().isEmpty());
        ripSimulateUnreadableSectors({});

        Reports missing;
        operation = makeOperation(trackPath(image, 7), tags, &missing);
        m_queue.addOperation(operation);
        settle(operation, missing);
        QCOMPARE(missing.failures.size(), 1);
        QCOMPARE(missing.failures[0].code(), 200);

        // Cancelled at its first rip progress: it stops there and reports the
        // cancellation once.
        Reports cancelled;
        tags.setTrack(3);
        operation = makeOperation(trackPath(image, 3), tags, &cancelled);
        std::weak_ptr<AsyncUploadRequestOperation> weak = operation;
        operation->ripProgressBlock = [&cancelled, weak](double fraction) {
            cancelled.rip << fraction;
            if (auto self = weak.lock()) {
                self->cancel();
            }
        };
        m_queue.addOperation(operation);
        settle(operation, cancelled);
        QCOMPARE(cancelled.failures.size(), 1);
        QVERIFY(cancelled.failures[0].isCancelled());
        QVERIFY(operation->framesRead() < 9000);

        QCOMPARE(uploadRequests(), requestsBefore);
    }
};

QTEST_GUILESS_MAIN(TestCDTrackUpload)
#include "tst_cdtrackupload.moc"
