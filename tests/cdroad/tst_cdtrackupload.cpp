// The upload operation on a CD track: rip, encode to a tagged FLAC file,
// send it to the local service; and the ways a track fails.
#include "cdroadsupport.h"
#include "upload/uploadtestsupport.h"

#include "audio/cdripper.h"
#include "cd/discsession.h"
#include "cd/plcvolumetype.h"
#include "platform/discimages.h"
#include "platform/operationqueue.h"
#include "support/discimage.h"
#include "upload/asyncuploadrequestoperation.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtTest>

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

    // The track's upload to its end; `prepare` may change the operation first.
    UploadReports uploadTrack(const QString &path, const PLCID3Tag &tags,
                              const std::function<void(AsyncUploadRequestOperation &, UploadReports &)> &prepare = {},
                              std::shared_ptr<AsyncUploadRequestOperation> *keep = nullptr)
    {
        AsyncUploadRequestConfiguration config = uploadConfiguration(m_server.uploadUrl(), path, m_credentials);
        config.ID3Tags = tags;
        UploadReports reports;
        auto operation = makeReportingOperation(config, &reports);
        if (prepare) {
            prepare(*operation, reports);
        }
        m_queue.addOperation(operation);
        if (!settle(m_queue, operation, reports)) {
            QTest::qFail("not exactly one final report", __FILE__, __LINE__);
        }
        if (keep) {
            *keep = operation;
        }
        return reports;
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
        DiscSession::closeAll();
        // The FLAC file goes with its operation, whatever the outcome, and
        // the image copies with the discs.
        QCOMPARE(temporaryLeftovers(), QStringList());
    }

    // The second track of a disc goes up as "<title>.flac": its audio
    // bit-identical, tagged, rip progress before upload progress.
    void trackGoesUpAsTaggedFlac()
    {
        const DiscImage image =
            DiscImage::create(m_dir.path(), QStringLiteral("whole"), DiscImage::audioOptions({200, 300, 250}));
        QVERIFY(image.isValid());
        QVERIFY(DiscImages::insert(image.cuePath()));
        PLCID3Tag tags;
        tags.setTitle(QStringLiteral("Second Song"));
        tags.setTrack(2);
        tags.setTotalTracks(3);
        std::shared_ptr<AsyncUploadRequestOperation> operation;
        const UploadReports reports = uploadTrack(trackPath(image, 2), tags, {}, &operation);
        QVERIFY2(reports.failures.isEmpty(),
                 qPrintable(reports.failures.isEmpty() ? QString() : reports.failures[0].localizedDescription()));

        // Rip progress for every sector with samples, from 1/total to 1.0,
        // then the upload's, measured against the raw size and so below 1.0.
        QCOMPARE(reports.rip.size(), 300);
        QCOMPARE(reports.rip.first(), 1.0 / 300.0);
        QCOMPARE(reports.rip.last(), 1.0);
        QVERIFY(std::is_sorted(reports.rip.begin(), reports.rip.end()));
        QVERIFY(!reports.progress.isEmpty());
        QCOMPARE(reports.events.lastIndexOf(QStringLiteral("rip")), 299);
        QVERIFY(reports.progress.last() < 1.0);
        QCOMPARE(operation->fileSize(), qint64(300) * 2352);
        QVERIFY(operation->isUploadingAudioCD());

        const QJsonObject stored = storedFilesByName(m_server).value(QStringLiteral("Second Song.flac"));
        QVERIFY(!stored.isEmpty());
        const QString storedPath = stored.value("stored_path").toString();
        QCOMPARE(decodedFlacAudio(storedPath), image.trackAudio(1));
        // The record's tags go into the file (every field: tst_flacencoder).
        QCOMPARE(flacTags(storedPath).value("tracknumber"), QStringLiteral("2/3"));
    }

    // A damaged track, a track the disc lacks and a rip stopped by cancel:
    // one failure each, nothing sent.
    void tracksThatFail()
    {
        const DiscImage image =
            DiscImage::create(m_dir.path(), QStringLiteral("failing"), DiscImage::audioOptions({1, 300, 9000}));
        QVERIFY(image.isValid());
        QVERIFY(DiscImages::insert(image.cuePath()));
        const int requestsBefore = uploadRequests();
        PLCID3Tag tags;
        tags.setTitle(QStringLiteral("Damaged"));

        // A sector in the middle of track 2 cannot be read.
        ripSimulateUnreadableSectors({image.trackFirstSector(1) + 150});
        tags.setTrack(2);
        const UploadReports damaged = uploadTrack(trackPath(image, 2), tags);
        QCOMPARE(damaged.failures.size(), 1);
        QCOMPARE(damaged.failures[0].code(), 200);
        QVERIFY(!damaged.failures[0].localizedDescription().isEmpty());
        ripSimulateUnreadableSectors({});

        const UploadReports missing = uploadTrack(trackPath(image, 7), tags);
        QCOMPARE(missing.failures.size(), 1);
        QCOMPARE(missing.failures[0].code(), 200);

        // Cancelled at its first rip progress: it stops there and reports the
        // cancellation once.
        tags.setTrack(3);
        std::shared_ptr<AsyncUploadRequestOperation> cancelledOperation;
        const UploadReports cancelled = uploadTrack(
            trackPath(image, 3), tags,
            [](AsyncUploadRequestOperation &operation, UploadReports &) {
                QObject::connect(&operation, &AsyncUploadRequestOperation::ripProgressChanged,
                                 [&operation] { operation.cancel(); });
            },
            &cancelledOperation);
        QCOMPARE(cancelled.failures.size(), 1);
        QVERIFY(cancelled.failures[0].isCancelled());
        QVERIFY(cancelledOperation->framesRead() < 9000);

        QCOMPARE(uploadRequests(), requestsBefore);
    }
};

QTEST_GUILESS_MAIN(TestCDTrackUpload)
#include "tst_cdtrackupload.moc"
