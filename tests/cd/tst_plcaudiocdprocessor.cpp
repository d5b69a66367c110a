#include "cd/plcaudiocdprocessor.h"
#include "platform/discimages.h"
#include "support/discimage.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

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

class TestPLCAudioCDProcessor : public QObject
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
        DiscImage::Options audio = DiscImage::audioOptions({600, 450, 525});
        audio.title = QStringLiteral("Generated Album");
        audio.performer = QStringLiteral("Generated Band");
        audio.tracks[1].title = QStringLiteral("Second Wind");
        audio.tracks[1].performer = QStringLiteral("Bob Example");
        m_audio = DiscImage::create(m_dir.path(), QStringLiteral("audio"), audio);
        DiscImage::Options fromTwo = DiscImage::audioOptions({100, 100});
        fromTwo.firstTrackNumber = 2;
        m_fromTwo = DiscImage::create(m_dir.path(), QStringLiteral("fromtwo"), fromTwo);
        DiscImage::Options dataOnly = DiscImage::audioOptions({300});
        dataOnly.tracks[0].data = true;
        m_dataOnly = DiscImage::create(m_dir.path(), QStringLiteral("dataonly"), dataOnly);
        DiscImage::Options mixed = DiscImage::audioOptions({300, 200});
        mixed.tracks[0].data = true;
        m_mixed = DiscImage::create(m_dir.path(), QStringLiteral("mixed"), mixed);
        QVERIFY(m_audio.isValid() && m_fromTwo.isValid() && m_dataOnly.isValid() && m_mixed.isValid());
    }

    void init()
    {
        DiscImages::clear();
        PLCAudioCDProcessor::closeDevice();
        PLCAudioCDProcessor::setDiscModeReader(nullptr);
    }

    void cleanup() { init(); }

    void discImageRegistry()
    {
        const QString cue = m_audio.cuePath();
        QVERIFY(!DiscImages::insert(m_audio.binPath()));
        QVERIFY(!DiscImages::insert(m_dir.filePath(QStringLiteral("missing.cue"))));
        QVERIFY(DiscImages::insert(cue));
        // Stored absolute and clean, so another spelling is the same image.
        const QString relative = QDir::current().relativeFilePath(cue);
        QVERIFY(DiscImages::insert(relative));
        QVERIFY(DiscImages::insert(m_dir.path() + QStringLiteral("/./") + QFileInfo(m_mixed.cuePath()).fileName()));
        QCOMPARE(DiscImages::list(), (QStringList{cue, m_mixed.cuePath()}));
        QVERIFY(DiscImages::contains(relative));
        QVERIFY(DiscImages::eject(relative));
        QVERIFY(!DiscImages::eject(cue));
        QCOMPARE(DiscImages::list(), QStringList{m_mixed.cuePath()});
    }

    void opensAnInsertedImage()
    {
        QVERIFY(DiscImages::insert(m_audio.cuePath()));
        QVERIFY(DiscImages::insert(m_fromTwo.cuePath()));
        QVERIFY(!PLCAudioCDProcessor::openDeviceForVolume(m_audio.cuePath()));
        CdIo_t *handle = PLCAudioCDProcessor::cdio();
        QVERIFY(handle);
        QCOMPARE(PLCAudioCDProcessor::deviceName(), m_audio.cuePath());
        QVERIFY(PLCAudioCDProcessor::isDiscImageOpen());
        QCOMPARE(int(cdio_get_num_tracks(handle)), 3);

        // The chosen image is opened, not merely the first in the list.
        QVERIFY(!PLCAudioCDProcessor::openDeviceForVolume(m_fromTwo.cuePath()));
        QCOMPARE(PLCAudioCDProcessor::deviceName(), m_fromTwo.cuePath());
        QCOMPARE(int(cdio_get_first_track_num(PLCAudioCDProcessor::cdio())), 2);
        QCOMPARE(int(cdio_get_num_tracks(PLCAudioCDProcessor::cdio())), 2);

        // A failed opening still releases the old handle first.
        verifyOpeningError(PLCAudioCDProcessor::openDeviceForVolume(m_dir.path()), QStringLiteral("Path is not a CD"));
        QVERIFY(!PLCAudioCDProcessor::cdio());
        QVERIFY(!PLCAudioCDProcessor::isDiscImageOpen());
    }

    void openingFailures()
    {
        // Not a disc at all.
        verifyOpeningError(PLCAudioCDProcessor::openDeviceForVolume(m_audio.binPath()),
                           QStringLiteral("Path is not a CD"));
        verifyOpeningError(PLCAudioCDProcessor::openDeviceForVolume(QString()), QStringLiteral("Path is not a CD"));
        QVERIFY(!PLCAudioCDProcessor::cdio());

        // A disc image that was never inserted is not among the candidates.
        const QString missing =
            machineHasDrives() ? QStringLiteral("No CD found") : QStringLiteral("No attached devices found");
        verifyOpeningError(PLCAudioCDProcessor::openDeviceForVolume(m_audio.cuePath()), missing);
        QVERIFY(DiscImages::insert(m_mixed.cuePath()));
        verifyOpeningError(PLCAudioCDProcessor::openDeviceForVolume(m_audio.cuePath()), QStringLiteral("No CD found"));
        QVERIFY(!PLCAudioCDProcessor::cdio());

        // Inserted, but libcdio cannot open it: its .bin is gone.
        QTemporaryDir broken;
        const DiscImage image =
            DiscImage::create(broken.path(), QStringLiteral("broken"), DiscImage::audioOptions({75}));
        QVERIFY(QFile::remove(image.binPath()));
        QVERIFY(DiscImages::insert(image.cuePath()));
        verifyOpeningError(PLCAudioCDProcessor::openDeviceForVolume(image.cuePath()),
                           QStringLiteral("No macOS driver found."));
        QVERIFY(!PLCAudioCDProcessor::cdio());
        QVERIFY(PLCAudioCDProcessor::deviceName().isEmpty());
    }

    void audioCheckAcceptsEveryCDMode()
    {
        // A data-only CD and a mixed CD pass the lenient check.
        QVERIFY(DiscImages::insert(m_dataOnly.cuePath()));
        QVERIFY(DiscImages::insert(m_mixed.cuePath()));
        QVERIFY(!PLCAudioCDProcessor::openDeviceForVolume(m_dataOnly.cuePath()));
        QCOMPARE(cdio_get_discmode(PLCAudioCDProcessor::cdio()), CDIO_DISC_MODE_CD_DATA);
        QVERIFY(!PLCAudioCDProcessor::openDeviceForVolume(m_mixed.cuePath()));
        QCOMPARE(cdio_get_discmode(PLCAudioCDProcessor::cdio()), CDIO_DISC_MODE_CD_MIXED);

        // A disc whose table of contents cannot be read passes whatever its
        // mode; a disc whose mode cannot be read is refused.
        QVERIFY(!PLCAudioCDProcessor::checkAudioDisc(CDIO_DISC_MODE_DVD_ROM, CDIO_INVALID_TRACK));
        verifyOpeningError(PLCAudioCDProcessor::checkAudioDisc(CDIO_DISC_MODE_ERROR, 1),
                           QStringLiteral("CD is not an Audio CD"));
    }

    void nonCDModeIsRefusedAndKeepsTheHandle()
    {
        QVERIFY(DiscImages::insert(m_audio.cuePath()));
        CdIo_t *seen = nullptr;
        PLCAudioCDProcessor::setDiscModeReader([&seen](CdIo_t *handle) {
            seen = handle;
            return CDIO_DISC_MODE_DVD_ROM;
        });
        verifyOpeningError(PLCAudioCDProcessor::openDeviceForVolume(m_audio.cuePath()),
                           QStringLiteral("CD is not an Audio CD"));
        // The refused disc's handle stays open for the next opening or eject.
        QVERIFY(PLCAudioCDProcessor::cdio());
        QCOMPARE(seen, PLCAudioCDProcessor::cdio());

        PLCAudioCDProcessor::setDiscModeReader(nullptr);
        QVERIFY(!PLCAudioCDProcessor::openDeviceForVolume(m_audio.cuePath()));
    }

    void ejectingImages()
    {
        QVERIFY(DiscImages::insert(m_audio.cuePath()));
        QVERIFY(DiscImages::insert(m_mixed.cuePath()));
        QVERIFY(!PLCAudioCDProcessor::openDeviceForVolume(m_audio.cuePath()));

        // Ejecting another inserted image only takes that one out.
        QVERIFY(!PLCAudioCDProcessor::eject(m_mixed.cuePath()));
        QCOMPARE(DiscImages::list(), QStringList{m_audio.cuePath()});
        QVERIFY(PLCAudioCDProcessor::cdio());

        // Ejecting the open image destroys its handle, drops it from the volumes
        // and is no error, although libcdio cannot eject an image.
        QVERIFY(!PLCAudioCDProcessor::eject());
        QVERIFY(!PLCAudioCDProcessor::cdio());
        QVERIFY(PLCAudioCDProcessor::deviceName().isEmpty());
        QVERIFY(DiscImages::list().isEmpty());
    }

    void ejectCodes()
    {
        // Success and codes libcdio does not name are no error.
        for (int code : {0, 3, -9, -1000}) {
            QVERIFY2(!PLCAudioCDProcessor::errorForEjectCode(code), qPrintable(QString::number(code)));
        }
        QCOMPARE(PLCAudioCDProcessor::errorForEjectCode(DRIVER_OP_NO_DRIVER)
                     .value_or(Error::errorWithMessage())
                     .localizedDescription(),
                 QStringLiteral("No Driver"));
    }
};

QTEST_GUILESS_MAIN(TestPLCAudioCDProcessor)
#include "tst_plcaudiocdprocessor.moc"
