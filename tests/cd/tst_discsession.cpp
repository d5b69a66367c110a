#include "cd/discsession.h"
#include "cd/plcaudiocdprocessor.h"
#include "platform/discimages.h"
#include "support/discimage.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QSemaphore>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

#include <atomic>
#include <thread>

namespace {

// What opening answers when the candidate list has no match: a machine
// without drives has no list at all unless an image is inserted.
bool machineHasDrives()
{
    char **drives = cdio_get_devices(DRIVER_DEVICE);
    const bool any = drives && *drives;
    cdio_free_device_list(drives);
    return any;
}

void verifyOpeningError(const OptionalError &error, const QString &message)
{
    QVERIFY(error.has_value());
    QCOMPARE(error->localizedDescription(), message);
    QCOMPARE(error->code(), 1000);
}

} // namespace

class TestDiscSession : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    DiscImage m_audio;
    DiscImage m_fromTwo;
    DiscImage m_dataOnly;
    DiscImage m_mixed;

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        const auto make = [&](const QString &name, QList<int> sectors, int firstNumber, int dataIndex) {
            DiscImage::Options options = DiscImage::audioOptions(sectors);
            options.firstTrackNumber = firstNumber;
            if (dataIndex >= 0) {
                options.tracks[dataIndex].data = true;
            }
            return DiscImage::create(m_dir.path(), name, options);
        };
        m_audio = make(QStringLiteral("audio"), {600, 450, 525}, 1, -1);
        m_fromTwo = make(QStringLiteral("fromtwo"), {100, 100}, 2, -1);
        m_dataOnly = make(QStringLiteral("dataonly"), {300}, 1, 0);
        m_mixed = make(QStringLiteral("mixed"), {300, 200}, 1, 0);
        QVERIFY(m_audio.isValid() && m_fromTwo.isValid() && m_dataOnly.isValid() && m_mixed.isValid());
    }

    void init()
    {
        DiscImages::clear();
        DiscSession::closeAll();
        DiscSession::setDiscModeReader(nullptr);
    }

    void cleanup() { init(); }

    // Images are stored absolute and clean, so another spelling is the same
    // image; ejecting one takes only that one out.
    void discImageRegistry()
    {
        const QString cue = m_audio.cuePath();
        QVERIFY(!DiscImages::insert(m_audio.binPath()));
        QVERIFY(!DiscImages::insert(m_dir.filePath(QStringLiteral("missing.cue"))));
        QVERIFY(DiscImages::insert(cue));
        const QString relative = QDir::current().relativeFilePath(cue);
        QVERIFY(DiscImages::insert(relative));
        QVERIFY(DiscImages::insert(m_dir.path() + QStringLiteral("/./") + QFileInfo(m_mixed.cuePath()).fileName()));
        QCOMPARE(DiscImages::list(), (QStringList{cue, m_mixed.cuePath()}));
        QVERIFY(DiscImages::contains(relative));
        QVERIFY(DiscImages::eject(relative));
        QVERIFY(!DiscImages::eject(cue));
        QCOMPARE(DiscImages::list(), QStringList{m_mixed.cuePath()});
    }

    // The chosen image is opened, not merely the first in the list, and a
    // disc opened twice is one session.
    void opensTheChosenImageOnce()
    {
        QVERIFY(DiscImages::insert(m_audio.cuePath()));
        QVERIFY(DiscImages::insert(m_fromTwo.cuePath()));
        OptionalError error;
        const std::shared_ptr<DiscSession> audio = DiscSession::open(m_audio.cuePath(), &error);
        QVERIFY(audio && !error);
        QCOMPARE(audio->deviceName(), m_audio.cuePath());
        QVERIFY(audio->isImage());
        const std::shared_ptr<DiscSession> fromTwo = DiscSession::open(m_fromTwo.cuePath(), &error);
        QVERIFY(fromTwo && fromTwo != audio);
        QCOMPARE(DiscSession::open(m_audio.cuePath(), &error), audio);
        int tracks = 0;
        int first = 0;
        QVERIFY(!audio->use([&](CdIo_t *disc) { tracks = cdio_get_num_tracks(disc); }));
        QVERIFY(!fromTwo->use([&](CdIo_t *disc) { first = cdio_get_first_track_num(disc); }));
        QCOMPARE(tracks, 3);
        QCOMPARE(first, 2);
    }

    void openingFailures()
    {
        OptionalError error;
        const auto verifyOpening = [&](const QString &path, const QString &message) {
            QVERIFY(!DiscSession::open(path, &error));
            verifyOpeningError(error, message);
        };
        // Not a disc at all.
        verifyOpening(m_audio.binPath(), QStringLiteral("Path is not a CD"));
        verifyOpening(QString(), QStringLiteral("Path is not a CD"));
        verifyOpening(m_dir.path(), QStringLiteral("Path is not a CD"));

        // A disc image that was never inserted is not among the candidates.
        verifyOpening(m_audio.cuePath(),
                      machineHasDrives() ? QStringLiteral("No CD found") : QStringLiteral("No attached devices found"));
        QVERIFY(DiscImages::insert(m_mixed.cuePath()));
        verifyOpening(m_audio.cuePath(), QStringLiteral("No CD found"));

        // Inserted, but libcdio cannot open it: its .bin is gone.
        QTemporaryDir broken;
        const DiscImage image =
            DiscImage::create(broken.path(), QStringLiteral("broken"), DiscImage::audioOptions({75}));
        QVERIFY(QFile::remove(image.binPath()));
        QVERIFY(DiscImages::insert(image.cuePath()));
        verifyOpening(image.cuePath(), QStringLiteral("The disc image's audio file broken.bin is missing."));
    }

    void audioCheckAcceptsEveryCDMode()
    {
        // A data-only CD and a mixed CD pass the lenient check.
        QVERIFY(DiscImages::insert(m_dataOnly.cuePath()));
        QVERIFY(DiscImages::insert(m_mixed.cuePath()));
        OptionalError error;
        discmode_t dataMode = CDIO_DISC_MODE_ERROR;
        discmode_t mixedMode = CDIO_DISC_MODE_ERROR;
        DiscSession::open(m_dataOnly.cuePath(), &error)->use([&](CdIo_t *disc) { dataMode = cdio_get_discmode(disc); });
        DiscSession::open(m_mixed.cuePath(), &error)->use([&](CdIo_t *disc) { mixedMode = cdio_get_discmode(disc); });
        QCOMPARE(dataMode, CDIO_DISC_MODE_CD_DATA);
        QCOMPARE(mixedMode, CDIO_DISC_MODE_CD_MIXED);
    }

    void nonCDModeIsRefusedUntilEjected()
    {
        QVERIFY(DiscImages::insert(m_audio.cuePath()));
        DiscSession::setDiscModeReader([](CdIo_t *) { return CDIO_DISC_MODE_DVD_ROM; });
        OptionalError error;
        QVERIFY(!DiscSession::open(m_audio.cuePath(), &error));
        verifyOpeningError(error, QStringLiteral("CD is not an Audio CD"));
        // The refused disc stays open and refused; ejecting it lets it go.
        DiscSession::setDiscModeReader(nullptr);
        QVERIFY(!DiscSession::open(m_audio.cuePath(), &error));
        QVERIFY(!DiscSession::eject(m_audio.cuePath()));
        QVERIFY(DiscImages::insert(m_audio.cuePath()));
        QVERIFY(DiscSession::open(m_audio.cuePath(), &error));
    }

    void ejectingImages()
    {
        QVERIFY(DiscImages::insert(m_audio.cuePath()));
        QVERIFY(DiscImages::insert(m_mixed.cuePath()));
        OptionalError error;
        const std::shared_ptr<DiscSession> audio = DiscSession::open(m_audio.cuePath(), &error);
        QVERIFY(audio);

        // Ejecting another inserted image only takes that one out.
        QVERIFY(!DiscSession::eject(m_mixed.cuePath()));
        QCOMPARE(DiscImages::list(), QStringList{m_audio.cuePath()});
        QVERIFY(!audio->use([](CdIo_t *) {}));

        // Ejecting the open image lets its handle go, drops it from the
        // volumes and is no error, although libcdio cannot eject an image.
        // Whoever still holds the session is told, not handed a freed handle.
        QVERIFY(!DiscSession::eject());
        QVERIFY(DiscImages::list().isEmpty());
        bool ran = false;
        const OptionalError gone = audio->use([&ran](CdIo_t *) { ran = true; });
        QVERIFY(gone);
        QVERIFY(!ran);
        QCOMPARE(gone->localizedDescription(), QStringLiteral("The disc was ejected."));
    }

    // An eject asks the running read to stop and waits for it: the handle is
    // never taken away under a reader.
    void ejectWaitsForTheRunningUse()
    {
        QVERIFY(DiscImages::insert(m_audio.cuePath()));
        OptionalError error;
        const std::shared_ptr<DiscSession> disc = DiscSession::open(m_audio.cuePath(), &error);
        QVERIFY(disc);
        QSemaphore reading;
        std::atomic<bool> stillReadable{false};
        std::atomic<bool> sawStop{false};
        std::thread reader([&] {
            disc->use([&](CdIo_t *handle) {
                reading.release();
                QElapsedTimer waited;
                waited.start();
                while (!disc->isStopRequested() && waited.elapsed() < 10000) {
                    QThread::msleep(5);
                }
                sawStop = disc->isStopRequested();
                // Still ours to read after the eject asked.
                stillReadable = cdio_get_num_tracks(handle) == 3;
            });
        });
        reading.acquire();
        QVERIFY(!DiscSession::eject(m_audio.cuePath()));
        reader.join();
        QVERIFY(sawStop);
        QVERIFY(stillReadable);
        QVERIFY(disc->use([](CdIo_t *) {}));
    }
};

QTEST_GUILESS_MAIN(TestDiscSession)
#include "tst_discsession.moc"
