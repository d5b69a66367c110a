#include "cd/discsession.h"
#include "cd/plcvolumetype.h"
#include "platform/discimages.h"
#include "platform/volumes.h"
#include "support/discimage.h"

#include <QDir>
#include <QTemporaryDir>
#include <QTest>

using Volumes::MountedVolume;

class TestVolumes : public QObject
{
    Q_OBJECT

private slots:
    void cleanup() { DiscImages::clear(); }

    void mountInfoIsParsedAndUnescaped()
    {
        const QByteArray text =
            "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
            "40 22 0:35 / /proc rw,nosuid - proc proc rw\n"
            "61 22 8:17 / /media/anna/My\\040Music rw,nosuid shared:7 master:2 - vfat /dev/sdb1 rw,uid=1000\n"
            "bad line\n"
            "62 22 11:0 / /mnt/cd ro - iso9660 /dev/sr0 ro\n";
        const QList<MountedVolume> volumes = Volumes::parseMountInfo(text);
        QCOMPARE(volumes.size(), 4);
        QCOMPARE(volumes.at(0),
                 (MountedVolume{QStringLiteral("/"), QStringLiteral("/dev/sda1"), QStringLiteral("ext4")}));
        QCOMPARE(volumes.at(2), (MountedVolume{QStringLiteral("/media/anna/My Music"), QStringLiteral("/dev/sdb1"),
                                               QStringLiteral("vfat")}));
        QCOMPARE(volumes.at(3).mountPoint, QStringLiteral("/mnt/cd"));
    }

    void containingAndRemovableVolumes()
    {
        const auto volume = [](const char *mountPoint, const char *source) {
            return MountedVolume{QString::fromUtf8(mountPoint), QString::fromUtf8(source), QStringLiteral("ext4")};
        };
        const QList<MountedVolume> volumes{volume("/", "/dev/sda1"),         volume("/media/x", "/dev/sdb1"),
                                           volume("/media/x", "/dev/sdc1"),  volume("/media/x/inner", "/dev/sdd1"),
                                           volume("/mnt", "/dev/sde1"),      volume("/run/media/anna/USB", "/dev/sdf1"),
                                           volume("/srv/media", "/dev/sdg1")};
        // The longest mount point wins; of two on one point, the later (mounted over the first).
        const auto source = [&](const char *path) {
            const auto found = Volumes::volumeContainingPath(QString::fromUtf8(path), volumes);
            return found ? found->source : QString();
        };
        QCOMPARE(source("/media/x/a.mp3"), QStringLiteral("/dev/sdc1"));
        QCOMPARE(source("/media/x/inner"), QStringLiteral("/dev/sdd1"));
        QCOMPARE(source("/media/xy/a.mp3"), QStringLiteral("/dev/sda1"));
        // A ".." inside the path is resolved first: this one leaves the inner volume.
        QCOMPARE(source("/media/x/inner/../a.mp3"), QStringLiteral("/dev/sdc1"));

        // Removable by a plain text prefix, not a folder test: a sibling whose name starts alike counts.
        QVERIFY(Volumes::isOnRemovableVolume(QStringLiteral("/media/x2/a.flac"), volumes));
        QVERIFY(Volumes::isOnRemovableVolume(QStringLiteral("/run/media/anna/USB/b.mp3"), volumes));
        // "/mnt" itself is no removable mount point, nor "/" nor one elsewhere.
        QVERIFY(!Volumes::isOnRemovableVolume(QStringLiteral("/mnt/data/a.mp3"), volumes));
        QVERIFY(!Volumes::isOnRemovableVolume(QStringLiteral("/srv/media/a.mp3"), volumes));
    }

    void drivesFromUdevProperties()
    {
        // "KEY=value KEY=value ..." as udev lists a device's properties.
        const auto drive = [](const char *properties) {
            QHash<QString, QString> hash;
            for (const QString &pair : QString::fromLatin1(properties).split(QLatin1Char(' '))) {
                hash.insert(pair.section(QLatin1Char('='), 0, 0), pair.section(QLatin1Char('='), 1));
            }
            return Volumes::opticalDriveFromProperties(QStringLiteral("/dev/sr0"), hash);
        };
        const auto audioCD = drive("ID_CDROM=1 ID_CDROM_MEDIA=1 ID_CDROM_MEDIA_CD_R=1 "
                                   "ID_CDROM_MEDIA_TRACK_COUNT_AUDIO=12 ID_CDROM_MEDIA_TRACK_COUNT_DATA=1");
        QVERIFY(audioCD);
        QCOMPARE(audioCD->mediaType(), QStringLiteral("CD-ROM"));
        QCOMPARE(audioCD->audioTrackCount, 12);
        QCOMPARE(audioCD->dataTrackCount, 1);
        QVERIFY(audioCD->holdsAudioCD());
        const auto dvd = drive("ID_CDROM=1 ID_CDROM_MEDIA=1 ID_CDROM_MEDIA_DVD=1 ID_CDROM_MEDIA_CD=0");
        QCOMPARE(dvd->mediaType(), QStringLiteral("DVD-ROM"));
        QVERIFY(!dvd->holdsAudioCD());
        QVERIFY(!drive("ID_TYPE=disk"));
    }

    void onlyDiscVolumesAreDisks()
    {
        QTemporaryDir dir;
        const DiscImage image =
            DiscImage::create(dir.path(), QStringLiteral("album"), DiscImage::audioOptions({300, 300}));
        QVERIFY(image.isValid());

        QVERIFY(PLCVolumeType::isDiskAtPath(image.cuePath()));
        QCOMPARE(PLCVolumeType::BSDNameOfDiskAtURL(QUrl::fromLocalFile(image.cuePath())), image.cuePath());
        QCOMPARE(PLCVolumeType::descriptionForDiskKey(PLCVolumeType::DiskDescriptionKey::MediaType,
                                                      QUrl::fromLocalFile(image.cuePath())),
                 QVariant(QStringLiteral("CD-ROM")));

        // Not a file URL, a folder, a file in it, a character device, nothing at all.
        QVERIFY(!PLCVolumeType::isDiskAtPath(dir.path()));
        QVERIFY(!PLCVolumeType::isDiskAtPath(image.binPath()));

        // An ordinary folder is on the volume mounted over it, and has no media type.
        const QUrl folder = QUrl::fromLocalFile(dir.path());
        const QString mountPoint =
            PLCVolumeType::descriptionForDiskKey(PLCVolumeType::DiskDescriptionKey::VolumePath, folder).toString();
        QVERIFY(!mountPoint.isEmpty());
        QVERIFY(mountPoint == QLatin1String("/") || dir.path().startsWith(mountPoint + QLatin1Char('/')));
        QVERIFY(!PLCVolumeType::descriptionForDiskKey(PLCVolumeType::DiskDescriptionKey::MediaType, folder).isValid());
    }

    void trackFilesInDiscOrder()
    {
        QTemporaryDir dir;
        // Eleven audio tracks numbered from 2, then a data track.
        DiscImage::Options options = DiscImage::audioOptions({100, 120, 140, 160, 180, 200, 220, 240, 260, 280, 300});
        options.firstTrackNumber = 2;
        DiscImage::Track data;
        data.data = true;
        data.sectors = 200;
        options.tracks.append(data);
        const DiscImage image = DiscImage::create(dir.path(), QStringLiteral("long"), options);
        QVERIFY(image.isValid());

        const auto tracks = PLCVolumeType::contentsOfDiskAtURL(QUrl::fromLocalFile(image.cuePath()));
        QVERIFY(tracks);
        QCOMPARE(tracks->size(), 11);
        for (int i = 0; i < 11; ++i) {
            const PLCVolumeType::TrackFile &track = tracks->at(i);
            QCOMPARE(track.trackNumber, i + 2);
            QCOMPARE(track.path, image.cuePath() + QStringLiteral("/%1 Audio Track.aiff").arg(i + 2));
            QCOMPARE(track.size, qint64(image.trackSectors(i)) * 2352);
        }
        // "10" and "11" come after "9", never before "2".
        QCOMPARE(tracks->at(8).path.section(QLatin1Char('/'), -1), QStringLiteral("10 Audio Track.aiff"));

        const QString third = image.cuePath() + QStringLiteral("/3 Audio Track.aiff");
        QCOMPARE(PLCVolumeType::trackFileAtPath(third), tracks->at(1));
        QVERIFY(!PLCVolumeType::contentsOfDiskAtURL(QUrl::fromLocalFile(dir.path())));
    }

    void insertedImagesAreListedUntilEjected()
    {
        QTemporaryDir dir;
        const DiscImage first = DiscImage::create(dir.path(), QStringLiteral("one"), DiscImage::audioOptions({100}));
        const DiscImage second = DiscImage::create(dir.path(), QStringLiteral("two"), DiscImage::audioOptions({100}));
        QVERIFY(DiscImages::insert(first.cuePath()));
        QVERIFY(DiscImages::insert(second.cuePath()));

        PLCVolumeType::DiscVolumeListing listing = PLCVolumeType::discVolumes();
        QVERIFY(!listing.error);
        // Drives (none here, or whatever this machine holds) come first.
        QCOMPARE(listing.volumes.mid(listing.volumes.size() - 2), (QStringList{first.cuePath(), second.cuePath()}));

        QVERIFY(!DiscSession::eject(first.cuePath()));
        listing = PLCVolumeType::discVolumes();
        QVERIFY(!listing.volumes.contains(first.cuePath()));
        QVERIFY(listing.volumes.contains(second.cuePath()));
    }
};

QTEST_GUILESS_MAIN(TestVolumes)
#include "tst_volumes.moc"
