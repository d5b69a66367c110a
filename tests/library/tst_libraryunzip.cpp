// Extraction of segment archives built here with libzip: the bytes, the progress reports,
// and archives that try to write outside their folder.
#include "librarytestsupport.h"

#include "library/unzipoperation.h"

#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

#include <zip.h>

#include <cerrno>
#include <sys/stat.h>

namespace {

struct ArchiveEntry
{
    QString name;
    QByteArray content; // a link's target
    enum Kind { File, Directory, Link } kind = File;
};

// Writes the entries exactly as named (libzip does not clean names, as an attacker's
// archive would not).
bool writeArchive(const QString &path, const QList<ArchiveEntry> &entries)
{
    zip_t *archive = zip_open(QFile::encodeName(path).constData(), ZIP_CREATE | ZIP_TRUNCATE, nullptr);
    bool ok = archive != nullptr;
    for (const ArchiveEntry &entry : entries) {
        const QByteArray name = entry.name.toUtf8();
        if (!ok) {
            break;
        }
        if (entry.kind == ArchiveEntry::Directory) {
            ok = zip_dir_add(archive, name.constData(), ZIP_FL_ENC_UTF_8) >= 0;
            continue;
        }
        zip_source_t *source =
            zip_source_buffer(archive, entry.content.constData(), zip_uint64_t(entry.content.size()), 0);
        const zip_int64_t index = zip_file_add(archive, name.constData(), source, ZIP_FL_ENC_UTF_8 | ZIP_FL_OVERWRITE);
        ok = index >= 0 && zip_set_file_compression(archive, zip_uint64_t(index), ZIP_CM_STORE, 0) == 0;
        if (ok && entry.kind == ArchiveEntry::Link) {
            ok = zip_file_set_external_attributes(archive, zip_uint64_t(index), 0, ZIP_OPSYS_UNIX,
                                                  zip_uint32_t(S_IFLNK | 0777) << 16) == 0;
        }
    }
    if (!ok) {
        zip_discard(archive);
        return false;
    }
    return zip_close(archive) == 0;
}

QByteArray noise(qint64 size, quint32 seed)
{
    QByteArray bytes(size, Qt::Uninitialized);
    QRandomGenerator generator(seed);
    for (qint64 i = 0; i < size; ++i) {
        bytes[i] = char(generator.generate() & 0xff);
    }
    return bytes;
}

QByteArray readAll(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// Runs one extraction and keeps its reports in order.
class Recorder : public UnzipDelegate
{
public:
    explicit Recorder(const QString &archive)
    {
        UnzipOperation operation(archive, this);
        operation.start();
    }
    void onZKArchiveDidBeginUnzip(const QString &) override { events.append(QStringLiteral("begin")); }
    void onZKArchiveDidUpdateTotalSize(const QString &, qint64 totalSize) override
    {
        events.append(QStringLiteral("total %1").arg(totalSize));
    }
    void onZKArchiveDidUpdateBytesWritten(const QString &, qint64 bytesWritten) override { written += bytesWritten; }
    void onZKArchiveDidEndUnzip(const QString &) override { events.append(QStringLiteral("end")); }
    void onZKArchiveDidFail(const QString &archivePath, const Error &failure) override
    {
        events.append(QStringLiteral("fail ") + archivePath);
        error = failure;
    }

    QStringList events;
    qint64 written = 0;
    OptionalError error;
};

} // namespace

class TestLibraryUnzip : public QObject
{
    Q_OBJECT

private slots:
    void extractsBesideTheArchive();
    void entriesNamingTheFolderItselfAreNotCounted();
    void unsafeArchivesWriteNothing_data();
    void unsafeArchivesWriteNothing();
    void fullDiskLeavesNoHalfWrittenTrack();
};

void TestLibraryUnzip::extractsBesideTheArchive()
{
    QTemporaryDir root;
    const QDir library(root.filePath(QStringLiteral("My Lyrabox Library")));
    QVERIFY(library.mkpath(QStringLiteral(".")));
    const QByteArray big = noise(3 * 1024 * 1024 + 17, 1); // several copy buffers
    const QByteArray small = noise(1000, 2);
    const QByteArray text = QByteArrayLiteral("Ünïcode name");
    const QString archive = library.filePath(QStringLiteral(".temp-0.zip"));
    QVERIFY(writeArchive(archive, {{QStringLiteral("Track 001.mp3"), big},
                                   {QStringLiteral("Album/"), {}, ArchiveEntry::Directory},
                                   {QStringLiteral("Album/Disc 1/Track 002.flac"), small},
                                   {QStringLiteral("Ünïcode – ñame.m4a"), text},
                                   {QStringLiteral("..empty..ogg"), {}}, // dots that are no parent step
                                   {QStringLiteral("Album/latest.mp3"), "Disc 1/Track 002.flac", ArchiveEntry::Link}}));
    // An older, longer copy of a track is replaced, not appended to.
    QFile old(library.filePath(QStringLiteral("Track 001.mp3")));
    QVERIFY(old.open(QIODevice::WriteOnly) && old.write(noise(5 * 1024 * 1024, 9)) > 0);
    old.close();

    const Recorder recorder(archive);
    const qint64 total = big.size() + small.size() + text.size();
    QCOMPARE(recorder.events, (QStringList{"begin", QStringLiteral("total %1").arg(total), "end"}));
    QCOMPARE(recorder.written, total);
    QCOMPARE(readAll(library.filePath(QStringLiteral("Track 001.mp3"))), big);
    QCOMPARE(readAll(library.filePath(QStringLiteral("Album/Disc 1/Track 002.flac"))), small);
    QCOMPARE(readAll(library.filePath(QStringLiteral("Ünïcode – ñame.m4a"))), text);
    QVERIFY(QFileInfo::exists(library.filePath(QStringLiteral("..empty..ogg"))));
    const QFileInfo latest(library.filePath(QStringLiteral("Album/latest.mp3")));
    QVERIFY(latest.isSymLink());
    QCOMPARE(readAll(latest.filePath()), small);
    // The archive itself is left for the coordinator to remove.
    QVERIFY(QFileInfo::exists(archive));
    QCOMPARE(LibraryTest::filesUnder(root.path()).size(), 6);
}

// An entry whose name cleans to "." names the folder: nothing of it is
// written, so its bytes must not count towards the total either, or the
// progress never reaches it.
void TestLibraryUnzip::entriesNamingTheFolderItselfAreNotCounted()
{
    QTemporaryDir root;
    const QDir library(root.filePath(QStringLiteral("My Lyrabox Library")));
    QVERIFY(library.mkpath(QStringLiteral(".")));
    const QByteArray track = noise(5000, 4);
    const QString archive = library.filePath(QStringLiteral(".temp-0.zip"));
    QVERIFY(writeArchive(archive, {{QStringLiteral("."), noise(3000, 5)},
                                   {QStringLiteral("Track 001.mp3"), track},
                                   {QStringLiteral("Album/."), {}, ArchiveEntry::Directory},
                                   {QStringLiteral("./."), noise(700, 6)}}));

    const Recorder recorder(archive);
    QCOMPARE(recorder.events, (QStringList{"begin", QStringLiteral("total %1").arg(track.size()), "end"}));
    QCOMPARE(recorder.written, qint64(track.size()));
    QCOMPARE(readAll(library.filePath(QStringLiteral("Track 001.mp3"))), track);
    QVERIFY(QFileInfo(library.filePath(QStringLiteral("Album"))).isDir());
    QCOMPARE(LibraryTest::filesUnder(root.path()).size(), 2);
}

void TestLibraryUnzip::unsafeArchivesWriteNothing_data()
{
    QTest::addColumn<QList<ArchiveEntry>>("entries");
    QTest::addColumn<QString>("logged");
    // Each archive starts with a harmless track: it must not be written either.
    const ArchiveEntry harmless{QStringLiteral("Track 001.mp3"), "music"};
    const ArchiveEntry payload{QStringLiteral("x"), "owned"};
    auto file = [&](const QString &name) { return ArchiveEntry{name, payload.content}; };
    auto link = [](const QString &name, const QByteArray &target) {
        return ArchiveEntry{name, target, ArchiveEntry::Link};
    };
    QTest::newRow("parent") << QList<ArchiveEntry>{harmless, file(QStringLiteral("a/b/../../../x"))}
                            << "refused entry \"a/b/../../../x\"";
    // "OUTSIDE" stands for the absolute path of a folder beside the library.
    QTest::newRow("absolute") << QList<ArchiveEntry>{harmless, file(QStringLiteral("OUTSIDE/abs"))}
                              << "refused entry \"OUTSIDE/abs\"";
    QTest::newRow("link out") << QList<ArchiveEntry>{harmless, link(QStringLiteral("escape"), "OUTSIDE"),
                                                     file(QStringLiteral("escape/x"))}
                              << "refused symbolic link \"escape\"";
    // Named as the folder itself, so never made, but it says what the archive is.
    QTest::newRow("link named dot out") << QList<ArchiveEntry>{harmless, link(QStringLiteral("."), "../x")}
                                        << "refused symbolic link \".\"";
}

void TestLibraryUnzip::unsafeArchivesWriteNothing()
{
    QFETCH(QList<ArchiveEntry>, entries);
    QFETCH(QString, logged);
    QTemporaryDir root;
    const QString library = root.filePath(QStringLiteral("lib/My Lyrabox Library"));
    const QString outside = root.filePath(QStringLiteral("outside"));
    QVERIFY(QDir().mkpath(library) && QDir().mkpath(outside));
    for (ArchiveEntry &entry : entries) {
        entry.name.replace(QStringLiteral("OUTSIDE"), outside);
        entry.content.replace("OUTSIDE", QFile::encodeName(outside));
    }
    logged.replace(QStringLiteral("OUTSIDE"), outside);
    const QString archive = QDir(library).filePath(QStringLiteral(".temp-3.zip"));
    QVERIFY(writeArchive(archive, entries));
    const QStringList before = LibraryTest::filesUnder(root.path());

    // The chunk fails (the coordinator goes on with the others), with a log line.
    QCOMPARE(Recorder(archive).events, QStringList{QStringLiteral("fail ") + archive});
    QCOMPARE(LibraryTest::filesUnder(root.path()), before);
    QVERIFY(!QFileInfo::exists(root.filePath(QStringLiteral("x"))));
    QVERIFY2(LibraryTest::logText().contains(QStringLiteral("Unzip .temp-3.zip: ") + logged), qPrintable(logged));
}

void TestLibraryUnzip::fullDiskLeavesNoHalfWrittenTrack()
{
    QTemporaryDir root;
    const QDir library(root.filePath(QStringLiteral("My Lyrabox Library")));
    QVERIFY(library.mkpath(QStringLiteral(".")));
    const QByteArray first = noise(100000, 3);
    const QByteArray second = noise(3 * 1024 * 1024, 4);
    const QString archive = library.filePath(QStringLiteral(".temp-0.zip"));
    QVERIFY(
        writeArchive(archive, {{QStringLiteral("Track 001.mp3"), first}, {QStringLiteral("Track 002.mp3"), second}}));
    // An older copy of the second track stays as it was until a whole new one is there.
    const QByteArray old = noise(5000, 5);
    QFile oldFile(library.filePath(QStringLiteral("Track 002.mp3")));
    QVERIFY(oldFile.open(QIODevice::WriteOnly) && oldFile.write(old) == old.size());
    oldFile.close();

    // The disk fills up half-way through the second track.
    qputenv("PELICANE_TEST_EXTRACT_SPACE", QByteArray::number(first.size() + second.size() / 2));
    const Recorder recorder(archive);
    qunsetenv("PELICANE_TEST_EXTRACT_SPACE");
    QCOMPARE(recorder.events.last(), QStringLiteral("fail ") + archive);
    QVERIFY(recorder.error);
    QCOMPARE(recorder.error->code(), ENOSPC);
    QVERIFY2(recorder.error->localizedDescription().startsWith(QStringLiteral("The disk is full")),
             qPrintable(recorder.error->localizedDescription()));
    QCOMPARE(readAll(library.filePath(QStringLiteral("Track 001.mp3"))), first);
    QCOMPARE(readAll(library.filePath(QStringLiteral("Track 002.mp3"))), old);
    QCOMPARE(LibraryTest::filesUnder(library.path()), (QStringList{".temp-0.zip", "Track 001.mp3", "Track 002.mp3"}));
}

QTEST_GUILESS_MAIN(TestLibraryUnzip)
#include "tst_libraryunzip.moc"
