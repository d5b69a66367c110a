#include "scantree.h"

#include "app/logger.h"
#include "session/folderscan.h"
#include "session/orderedpathset.h"

#include <QTemporaryDir>
#include <QTest>

using namespace ScanTree;

namespace {

const QStringList kFormats{QStringLiteral("mp3"), QStringLiteral("flac"), QStringLiteral("m4a"),
                           QStringLiteral("aiff")};

// The log lines written since it was made.
class LogWatch
{
public:
    LogWatch() : m_start(Logger::logSize()) {}
    QStringList lines() const
    {
        QFile file(Logger::logFileURL().toLocalFile());
        if (!file.open(QIODevice::ReadOnly) || !file.seek(m_start)) {
            return {};
        }
        QStringList result;
        for (const QString &line : QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
            // "<date> <time> +0000: message"
            const qsizetype separator = line.indexOf(QStringLiteral(": "));
            result << line.mid(separator + 2);
        }
        return result;
    }

private:
    qint64 m_start;
};

struct Scanned
{
    OrderedPathSet files;
    FolderScan::Outcome outcome;
};

Scanned scan(const QStringList &roots, const FolderScan::CancelCheck &isCanceled = {})
{
    Scanned result;
    result.outcome = FolderScan(kFormats).scan(
        roots, [&result](const QString &path) { result.files.append(path); }, isCanceled);
    return result;
}

} // namespace

class TestFolderScan : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        Logger::log(QStringLiteral("tst_folderscan"));
        QVERIFY(Logger::logFileURL().isValid());
    }

    void extensionsCountInAnyCase()
    {
        QTemporaryDir dir;
        const QString root = dir.path();
        QVERIFY(writeFile(root + QStringLiteral("/song.MP3")));
        QVERIFY(writeFile(root + QStringLiteral("/Other.Flac")));
        QVERIFY(writeFile(root + QStringLiteral("/cover.jpg")));
        QVERIFY(writeFile(root + QStringLiteral("/notes.mp3.txt")));
        QVERIFY(writeFile(root + QStringLiteral("/noextension")));
        QVERIFY(writeFile(root + QStringLiteral("/Ünïcödé.M4A")));

        LogWatch log;
        const Scanned result = scan({root});
        QVERIFY(result.outcome.finished);
        QCOMPARE(result.outcome.errorCount, 0);
        QStringList found = result.files.toList();
        found.sort();
        QCOMPARE(found, (QStringList{root + QStringLiteral("/Other.Flac"), root + QStringLiteral("/song.MP3"),
                                     root + QStringLiteral("/Ünïcödé.M4A")}));
        // Files of other types are passed over without a word.
        QVERIFY2(log.lines().isEmpty(), qPrintable(log.lines().join(QLatin1Char('\n'))));
    }

    void overlappingRootsListEachFileOnceInOrderOfDiscovery()
    {
        QTemporaryDir dir;
        const QString root = dir.path();
        QVERIFY(writeFile(root + QStringLiteral("/a/one.mp3")));
        QVERIFY(writeFile(root + QStringLiteral("/a/deeper/two.flac")));
        QVERIFY(writeFile(root + QStringLiteral("/b/three.mp3")));
        QVERIFY(writeFile(root + QStringLiteral("/four.m4a")));

        Scanned result;
        result.files.append(root + QStringLiteral("/b/three.mp3")); // kept from an earlier scan
        const FolderScan scanner(kFormats);
        const auto sink = [&result](const QString &path) { result.files.append(path); };
        QVERIFY(scanner.scan({root + QStringLiteral("/a/"), root, root + QStringLiteral("/a/one.mp3")}, sink).finished);

        const QStringList found = result.files.toList();
        QCOMPARE(found.size(), 4);
        QCOMPARE(found.first(), root + QStringLiteral("/b/three.mp3"));
        // The first root's two files come next (its trailing slash is not doubled),
        // in the walk's order: a folder's entry comes before what it holds.
        QCOMPARE((QSet<QString>{found.at(1), found.at(2)}),
                 (QSet<QString>{root + QStringLiteral("/a/one.mp3"), root + QStringLiteral("/a/deeper/two.flac")}));
        QCOMPARE(found.at(3), root + QStringLiteral("/four.m4a"));
    }

    void trashAndFoldersNamedLikeMusic()
    {
        QTemporaryDir dir;
        const QString root = dir.path();
        QVERIFY(writeFile(root + QStringLiteral("/.Trash/gone.mp3")));
        QVERIFY(writeFile(root + QStringLiteral("/.Trash/gone.txt")));
        QVERIFY(writeFile(root + QStringLiteral("/Backup/.Trashes/kept.mp3")));
        QVERIFY(writeFile(root + QStringLiteral("/Album.flac/inside.mp3")));
        QVERIFY(writeFile(root + QStringLiteral("/.hidden/visible.mp3")));
        QVERIFY(writeFile(root + QStringLiteral("/.dotted.mp3")));

        LogWatch log;
        const Scanned result = scan({root});
        QStringList found = result.files.toList();
        found.sort();
        QCOMPARE(found,
                 (QStringList{root + QStringLiteral("/.dotted.mp3"), root + QStringLiteral("/.hidden/visible.mp3"),
                              root + QStringLiteral("/Album.flac/inside.mp3"),
                              root + QStringLiteral("/Backup/.Trashes/kept.mp3")}));
        QStringList lines = log.lines();
        lines.sort();
        QCOMPARE(lines, (QStringList{QStringLiteral("Skipping directory: Album.flac"),
                                     QStringLiteral("Skipping trashed file: gone.mp3")}));
    }

    void symbolicLinksAreJudgedByTheirTarget()
    {
        QTemporaryDir dir;
        const QString root = dir.path() + QStringLiteral("/music");
        const QString elsewhere = dir.path() + QStringLiteral("/elsewhere");
        QVERIFY(writeFile(root + QStringLiteral("/real.mp3")));
        QVERIFY(writeFile(elsewhere + QStringLiteral("/outside.mp3")));
        QVERIFY(makeLink(root + QStringLiteral("/real.mp3"), root + QStringLiteral("/linked.mp3")));
        QVERIFY(makeLink(elsewhere, root + QStringLiteral("/linkedfolder")));
        QVERIFY(makeLink(elsewhere, root + QStringLiteral("/folderlink.mp3")));
        QVERIFY(makeLink(root + QStringLiteral("/nothing"), root + QStringLiteral("/dangling.mp3")));
        QVERIFY(makeLink(root + QStringLiteral("/loop.flac"), root + QStringLiteral("/loop.flac")));

        QVERIFY(!FolderScan::fileIsAlias(root + QStringLiteral("/linked.mp3")));
        LogWatch log;
        const Scanned result = scan({root});
        QVERIFY(result.outcome.finished);
        QCOMPARE(result.outcome.errorCount, 0);
        QStringList found = result.files.toList();
        found.sort();
        // A link to a file is a file; a link to a folder is not walked into.
        QCOMPARE(found, (QStringList{root + QStringLiteral("/linked.mp3"), root + QStringLiteral("/real.mp3")}));
        QStringList lines = log.lines();
        lines.sort();
        QCOMPARE(lines, (QStringList{QStringLiteral("Skipping directory: folderlink.mp3"),
                                     QStringLiteral("Skipping non-existent file: dangling.mp3"),
                                     QStringLiteral("Skipping non-existent file: loop.flac")}));

        // A root that is a link to a folder is walked.
        QCOMPARE(scan({root + QStringLiteral("/linkedfolder")}).files.toList(),
                 QStringList{root + QStringLiteral("/linkedfolder/outside.mp3")});
    }

    void rootsThatAreFilesOrNothing()
    {
        QTemporaryDir dir;
        const QString song = dir.filePath(QStringLiteral("dropped.flac"));
        QVERIFY(writeFile(song));
        LogWatch log;
        const Scanned result = scan({song, dir.filePath(QStringLiteral("gone.mp3")),
                                     dir.filePath(QStringLiteral("gone.txt")), QStringLiteral("./relative.mp3")});
        QVERIFY(result.outcome.finished);
        QCOMPARE(result.files.toList(), QStringList{song});
        // A path beginning with "." is never added, and not logged either.
        QCOMPARE(log.lines(), QStringList{QStringLiteral("Skipping non-existent file: gone.mp3")});
    }

    void packagesAreNotEntered()
    {
        QTemporaryDir dir;
        const QString root = dir.path();
        QVERIFY(writeFile(root + QStringLiteral("/Song.band/Media/take1.aiff")));
        QVERIFY(writeFile(root + QStringLiteral("/Player.app/Contents/Resources/click.mp3")));
        QVERIFY(writeFile(root + QStringLiteral("/band/take2.aiff"))); // only the extension makes a package
        QCOMPARE(scan({root}).files.toList(), QStringList{root + QStringLiteral("/band/take2.aiff")});
        QVERIFY(FolderScan::isPackageName("Live.BAND"));
        QVERIFY(!FolderScan::isPackageName("band"));
    }

    void unreadableFolderIsAnErrorThatDoesNotStopTheWalk()
    {
        QTemporaryDir dir;
        const QString root = dir.path();
        QVERIFY(writeFile(root + QStringLiteral("/before.mp3")));
        QVERIFY(writeFile(root + QStringLiteral("/locked/hidden.mp3")));
        QVERIFY(writeFile(root + QStringLiteral("/open/after.mp3")));
        const QString locked = root + QStringLiteral("/locked");
        QVERIFY(QFile::setPermissions(locked, QFileDevice::Permissions()));

        Scanned result;
        QStringList lines;
        {
            ObeyFilePermissions obey;
            if (!obey.isEffective()) {
                QFile::setPermissions(locked, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
                QSKIP("cannot give up the permission override of root here");
            }
            LogWatch log;
            result = scan({root});
            lines = log.lines();
        }
        QFile::setPermissions(locked, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);

        QVERIFY(result.outcome.finished);
        QCOMPARE(result.outcome.errorCount, 1);
        QStringList found = result.files.toList();
        found.sort();
        QCOMPARE(found, (QStringList{root + QStringLiteral("/before.mp3"), root + QStringLiteral("/open/after.mp3")}));
        QCOMPARE(lines, QStringList{QStringLiteral("Scan error (%1): The folder “locked” couldn’t be opened because "
                                                   "you don’t have permission to view it.")
                                        .arg(locked)});
    }

    void pathsTooLongToOpenAreWalkErrors()
    {
        QTemporaryDir dir;
        const QString root = dir.path();
        QVERIFY(writeFile(root + QStringLiteral("/ok.mp3")));
        const QString tooLong = makeTooDeepFolder(root, QStringLiteral("deep"));
        QVERIFY(!tooLong.isEmpty());
        LogWatch log;
        const Scanned result = scan({root});
        removeTree(root + QStringLiteral("/deep"));

        QVERIFY(result.outcome.finished);
        QCOMPARE(result.outcome.errorCount, 1);
        QCOMPARE(result.files.toList(), QStringList{root + QStringLiteral("/ok.mp3")});
        const QStringList lines = log.lines();
        QCOMPARE(lines.size(), 1);
        QVERIFY2(lines.first().startsWith(QStringLiteral("Scan error (%1): ").arg(tooLong)), qPrintable(lines.first()));
        QVERIFY2(lines.first().endsWith(QStringLiteral("couldn’t be opened. (File name too long)")),
                 qPrintable(lines.first()));
    }

    void cancelStopsAtOnce()
    {
        QTemporaryDir dir;
        const QString root = dir.path();
        for (int i = 0; i < 40; ++i) {
            QVERIFY(writeFile(root + QStringLiteral("/f%1/song.mp3").arg(i)));
        }
        const QString second = dir.filePath(QStringLiteral("second.mp3"));
        QVERIFY(writeFile(second));

        // The check is asked before every root and every entry; say "cancel"
        // after the root and 30 entries.
        int asked = 0;
        const Scanned result = scan({root, second}, [&asked] { return ++asked > 31; });
        QVERIFY(!result.outcome.finished);
        QCOMPARE(asked, 32);
        // Every folder entry is followed by its song: 30 entries hold 15 songs.
        QCOMPARE(result.files.size(), 15);
        QVERIFY(!result.files.contains(second));

        const Scanned whole = scan({root, second}, [] { return false; });
        QVERIFY(whole.outcome.finished);
        QCOMPARE(whole.files.size(), 41);
        // The partial result is the start of the whole one.
        QCOMPARE(whole.files.toList().mid(0, 15), result.files.toList());
    }
};

QTEST_GUILESS_MAIN(TestFolderScan)
#include "tst_folderscan.moc"
