#include "scantree.h"

#include "session/folderscan.h"
#include "session/orderedpathset.h"

#include <QTemporaryDir>
#include <QTest>

using namespace ScanTree;

namespace {

struct Scanned
{
    OrderedPathSet files;
    FolderScan::Outcome outcome;
    QStringList log; // sorted
};

Scanned scan(const QStringList &roots, const FolderScan::CancelCheck &isCanceled = {})
{
    static const QStringList formats{"mp3", "flac", "m4a", "aiff"};
    Scanned result;
    LogWatch log;
    result.outcome = FolderScan(formats).scan(
        roots, [&result](const QString &path) { result.files.append(path); }, isCanceled);
    result.log = log.lines();
    result.log.sort();
    return result;
}

} // namespace

class TestFolderScan : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Logger::log(QStringLiteral("tst_folderscan")); }

    void namesDecideWhatIsListed()
    {
        QTemporaryDir dir;
        const QString root = dir.filePath(QStringLiteral("tree"));
        for (const char *name :
             {"song.MP3", "Other.Flac", "Ünïcödé.M4A", "cover.jpg", "notes.mp3.txt", "noextension", ".Trash/gone.mp3",
              ".Trash/gone.txt", "Backup/.Trashes/kept.mp3", "Album.flac/inside.mp3", ".hidden/visible.mp3",
              ".dotted.mp3", "Song.band/Media/take1.aiff", "Player.app/Contents/click.mp3", "band/take2.aiff"}) {
            QVERIFY(writeFile(root + QLatin1Char('/') + QString::fromUtf8(name)));
        }
        // Roots that are a file, nothing, and a relative path (never added, nor logged).
        const QString dropped = dir.filePath(QStringLiteral("dropped.flac"));
        QVERIFY(writeFile(dropped));
        const Scanned result = scan({root, dropped, dir.filePath(QStringLiteral("gone.mp3")),
                                     dir.filePath(QStringLiteral("gone.txt")), QStringLiteral("./relative.mp3")});

        QVERIFY(result.outcome.finished);
        QCOMPARE(result.outcome.errorCount, 0);
        QCOMPARE(result.files.toList().last(), dropped);
        QStringList expected;
        for (const char *name : {"song.MP3", "Other.Flac", "Ünïcödé.M4A", "Backup/.Trashes/kept.mp3",
                                 "Album.flac/inside.mp3", ".hidden/visible.mp3", ".dotted.mp3", "band/take2.aiff"}) {
            expected << root + QLatin1Char('/') + QString::fromUtf8(name);
        }
        QCOMPARE(sorted(result.files.toList()), sorted(expected << dropped));
        // Files of other types and packages are passed over without a word.
        QCOMPARE(result.log, (QStringList{"Skipping directory: Album.flac", "Skipping non-existent file: gone.mp3",
                                          "Skipping trashed file: gone.mp3"}));
    }

    void overlappingRootsListEachFileOnceInOrderOfDiscovery()
    {
        QTemporaryDir dir;
        const QString root = dir.path();
        QVERIFY(writeFile(root + QStringLiteral("/a/one.mp3")));
        QVERIFY(writeFile(root + QStringLiteral("/a/deeper/two.flac")));
        QVERIFY(writeFile(root + QStringLiteral("/b/three.mp3")));
        QVERIFY(writeFile(root + QStringLiteral("/four.m4a")));

        OrderedPathSet files;
        files.append(root + QStringLiteral("/b/three.mp3")); // kept from an earlier scan
        QVERIFY(FolderScan(QStringList{"mp3", "flac", "m4a"})
                    .scan({root + QStringLiteral("/a/"), root, root + QStringLiteral("/a/one.mp3")},
                          [&files](const QString &path) { files.append(path); })
                    .finished);

        const QStringList found = files.toList();
        QCOMPARE(found.size(), 4);
        QCOMPARE(found.first(), root + QStringLiteral("/b/three.mp3"));
        // The first root's two files come next (its trailing slash is not doubled).
        QCOMPARE(sorted(found.mid(1, 2)),
                 (QStringList{root + QStringLiteral("/a/deeper/two.flac"), root + QStringLiteral("/a/one.mp3")}));
        QCOMPARE(found.at(3), root + QStringLiteral("/four.m4a"));
    }

    void symbolicLinksAreJudgedByTheirTarget()
    {
        QTemporaryDir dir;
        const QString root = dir.path() + QStringLiteral("/music");
        const QString elsewhere = dir.path() + QStringLiteral("/elsewhere");
        QVERIFY(writeFile(root + QStringLiteral("/real.mp3")));
        QVERIFY(writeFile(elsewhere + QStringLiteral("/outside.mp3")));
        // A relative target with ".." inside, resolved from the link's folder.
        QVERIFY(makeLink(QStringLiteral("sub/../real.mp3"), root + QStringLiteral("/linked.mp3")));
        QVERIFY(QDir().mkpath(root + QStringLiteral("/sub")));
        QVERIFY(makeLink(elsewhere, root + QStringLiteral("/linkedfolder")));
        QVERIFY(makeLink(elsewhere, root + QStringLiteral("/folderlink.mp3")));
        QVERIFY(makeLink(root + QStringLiteral("/nothing"), root + QStringLiteral("/dangling.mp3")));
        QVERIFY(makeLink(root + QStringLiteral("/loop.flac"), root + QStringLiteral("/loop.flac")));
        // Neither ever reads to an end: a FIFO waits for a writer, a device never stops.
        QCOMPARE(::mkfifo(QFile::encodeName(root + QStringLiteral("/fifo.mp3")).constData(), 0644), 0);
        QVERIFY(makeLink(QStringLiteral("/dev/zero"), root + QStringLiteral("/zero.mp3")));
        QVERIFY(makeLink(QStringLiteral("/dev/urandom"), root + QStringLiteral("/random.flac")));

        const Scanned result = scan({root});
        QVERIFY(result.outcome.finished);
        QCOMPARE(result.outcome.errorCount, 0);
        // A link to a file is a file; a link to a folder is not walked into.
        QCOMPARE(sorted(result.files.toList()),
                 (QStringList{root + QStringLiteral("/linked.mp3"), root + QStringLiteral("/real.mp3")}));
        QCOMPARE(result.log,
                 (QStringList{"Skipping directory: folderlink.mp3", "Skipping non-existent file: dangling.mp3",
                              "Skipping non-existent file: loop.flac", "Skipping special file: fifo.mp3",
                              "Skipping special file: random.flac", "Skipping special file: zero.mp3"}));
        // A root that is a link to a folder is walked.
        QCOMPARE(scan({root + QStringLiteral("/linkedfolder")}).files.toList(),
                 QStringList{root + QStringLiteral("/linkedfolder/outside.mp3")});
    }

    void unreadableFoldersAreErrorsThatDoNotStopTheWalk()
    {
        QTemporaryDir dir;
        const QString root = dir.path();
        QVERIFY(writeFile(root + QStringLiteral("/before.mp3")));
        QVERIFY(writeFile(root + QStringLiteral("/locked/hidden.mp3")));
        QVERIFY(writeFile(root + QStringLiteral("/open/after.mp3")));
        const QString locked = root + QStringLiteral("/locked");
        const QString tooLong = makeTooDeepFolder(root, QStringLiteral("deep"));
        QVERIFY(!tooLong.isEmpty());
        QVERIFY(QFile::setPermissions(locked, QFileDevice::Permissions()));

        Scanned result;
        {
            ObeyFilePermissions obey;
            if (!obey.isEffective()) {
                QFile::setPermissions(locked, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
                QSKIP("cannot give up the permission override of root here");
            }
            result = scan({root});
        }
        QFile::setPermissions(locked, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
        removeTree(root + QStringLiteral("/deep"));

        QVERIFY(result.outcome.finished);
        QCOMPARE(result.outcome.errorCount, 2);
        QCOMPARE(sorted(result.files.toList()),
                 (QStringList{root + QStringLiteral("/before.mp3"), root + QStringLiteral("/open/after.mp3")}));
        QCOMPARE(result.log.size(), 2);
        QVERIFY(result.log.contains(QStringLiteral("Scan error (%1): The folder “locked” couldn’t be opened because "
                                                   "you don’t have permission to view it.")
                                        .arg(locked)));
        const QString deep = result.log.filter(QStringLiteral("Scan error (%1): ").arg(tooLong)).value(0);
        QVERIFY2(deep.endsWith(QStringLiteral("couldn’t be opened. (File name too long)")), qPrintable(deep));
    }

    void cancelStopsAtOnce()
    {
        QTemporaryDir dir;
        for (int i = 0; i < 40; ++i) {
            QVERIFY(writeFile(dir.filePath(QStringLiteral("tree/f%1/song.mp3").arg(i))));
        }
        const QString second = dir.filePath(QStringLiteral("second.mp3"));
        QVERIFY(writeFile(second));
        const QStringList roots{dir.filePath(QStringLiteral("tree")), second};

        // The check is asked before every root and every entry; say "cancel"
        // after the root and 30 entries.
        int asked = 0;
        const Scanned result = scan(roots, [&asked] { return ++asked > 31; });
        QVERIFY(!result.outcome.finished);
        QCOMPARE(asked, 32);
        // Every folder entry is followed by its song: 30 entries hold 15 songs.
        QCOMPARE(result.files.size(), 15);

        const Scanned whole = scan(roots, [] { return false; });
        QVERIFY(whole.outcome.finished);
        QCOMPARE(whole.files.size(), 41);
        // The partial result is the start of the whole one.
        QCOMPARE(whole.files.toList().mid(0, 15), result.files.toList());
    }
};

QTEST_GUILESS_MAIN(TestFolderScan)
#include "tst_folderscan.moc"
