// Extraction of segment archives built here with libzip: the bytes, the
// progress reports, and archives that try to write outside their folder.
#include "librarytestsupport.h"

#include "library/unzipoperation.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMutex>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

#include <zip.h>

#include <sys/stat.h>
#include <unistd.h>

namespace {

struct ArchiveEntry
{
    QString name;
    QByteArray content;
    enum Kind { File, Directory, Link } kind = File;
};

ArchiveEntry file(const QString &name, const QByteArray &content)
{
    return {name, content, ArchiveEntry::File};
}
ArchiveEntry link(const QString &name, const QByteArray &target)
{
    return {name, target, ArchiveEntry::Link};
}
ArchiveEntry directory(const QString &name)
{
    return {name, {}, ArchiveEntry::Directory};
}

// Writes an archive with the entries exactly as named (libzip does not clean
// names, which is what an attacker's archive looks like).
bool writeArchive(const QString &path, const QList<ArchiveEntry> &entries, bool compress = false)
{
    int code = 0;
    zip_t *archive = zip_open(QFile::encodeName(path).constData(), ZIP_CREATE | ZIP_TRUNCATE, &code);
    if (!archive) {
        return false;
    }
    for (const ArchiveEntry &entry : entries) {
        const QByteArray name = entry.name.toUtf8();
        if (entry.kind == ArchiveEntry::Directory) {
            if (zip_dir_add(archive, name.constData(), ZIP_FL_ENC_UTF_8) < 0) {
                zip_discard(archive);
                return false;
            }
            continue;
        }
        zip_source_t *source =
            zip_source_buffer(archive, entry.content.constData(), zip_uint64_t(entry.content.size()), 0);
        const zip_int64_t index = zip_file_add(archive, name.constData(), source, ZIP_FL_ENC_UTF_8 | ZIP_FL_OVERWRITE);
        if (index < 0) {
            zip_source_free(source);
            zip_discard(archive);
            return false;
        }
        zip_set_file_compression(archive, zip_uint64_t(index), compress ? ZIP_CM_DEFLATE : ZIP_CM_STORE, 0);
        if (entry.kind == ArchiveEntry::Link) {
            zip_file_set_external_attributes(archive, zip_uint64_t(index), 0, ZIP_OPSYS_UNIX,
                                             zip_uint32_t(S_IFLNK | 0777) << 16);
        }
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

// Records the reports in order, as the coordinator would receive them.
class Recorder : public UnzipDelegate
{
public:
    void onZKArchiveDidBeginUnzip(const QString &) override { add(QStringLiteral("begin")); }
    void onZKArchiveDidUpdateTotalSize(const QString &, qint64 totalSize) override
    {
        add(QStringLiteral("total %1").arg(totalSize));
    }
    void onZKArchiveDidUpdateBytesWritten(const QString &, qint64 bytesWritten) override
    {
        QMutexLocker locker(&m_mutex);
        m_written += bytesWritten;
    }
    void onZKArchiveDidEndUnzip(const QString &) override { add(QStringLiteral("end")); }
    void onZKArchiveDidFail(const QString &archivePath) override
    {
        add(QStringLiteral("fail"));
        m_failedPath = archivePath;
    }

    QStringList events() const
    {
        QMutexLocker locker(&m_mutex);
        return m_events;
    }
    qint64 written() const { return m_written; }
    QString failedPath() const { return m_failedPath; }

private:
    void add(const QString &event)
    {
        QMutexLocker locker(&m_mutex);
        m_events.append(event);
    }
    mutable QMutex m_mutex;
    QStringList m_events;
    qint64 m_written = 0;
    QString m_failedPath;
};

} // namespace

class TestLibraryUnzip : public QObject
{
    Q_OBJECT

private slots:
    void extractsBesideTheArchive();
    void entryNamesAndLinksAreJudged();
    void unsafeArchivesWriteNothing_data();
    void unsafeArchivesWriteNothing();
    void linksOnDiskAreNotFollowed();
    void brokenArchivesFail_data();
    void brokenArchivesFail();
};

void TestLibraryUnzip::extractsBesideTheArchive()
{
    QTemporaryDir root;
    const QString library = root.filePath(QStringLiteral("My Lyrabox Library"));
    QVERIFY(QDir().mkpath(library));
    const QByteArray big = noise(3 * 1024 * 1024 + 17, 1); // several copy buffers
    const QByteArray small = noise(1000, 2);
    const QByteArray text = QByteArrayLiteral("Ünïcode name");
    const QString archive = QDir(library).filePath(QStringLiteral(".temp-0.zip"));
    QVERIFY(writeArchive(archive, {file(QStringLiteral("Track 001.mp3"), big), directory(QStringLiteral("Album/")),
                                   file(QStringLiteral("Album/Disc 1/Track 002.flac"), small),
                                   file(QStringLiteral("Ünïcode – ñame.m4a"), text),
                                   file(QStringLiteral("empty.ogg"), QByteArray()),
                                   link(QStringLiteral("Album/latest.mp3"), "Disc 1/Track 002.flac")}));
    // An older copy of a track is replaced, not appended to.
    QFile old(QDir(library).filePath(QStringLiteral("Track 001.mp3")));
    QVERIFY(old.open(QIODevice::WriteOnly));
    old.write(noise(5 * 1024 * 1024, 9));
    old.close();

    Recorder recorder;
    UnzipOperation operation(archive, &recorder);
    operation.main();

    const qint64 total = big.size() + small.size() + text.size();
    QCOMPARE(recorder.events(),
             (QStringList{QStringLiteral("begin"), QStringLiteral("total %1").arg(total), QStringLiteral("end")}));
    QCOMPARE(recorder.written(), total);
    QCOMPARE(readAll(QDir(library).filePath(QStringLiteral("Track 001.mp3"))), big);
    QCOMPARE(readAll(QDir(library).filePath(QStringLiteral("Album/Disc 1/Track 002.flac"))), small);
    QCOMPARE(readAll(QDir(library).filePath(QStringLiteral("Ünïcode – ñame.m4a"))), text);
    QVERIFY(QFileInfo::exists(QDir(library).filePath(QStringLiteral("empty.ogg"))));
    const QFileInfo latest(QDir(library).filePath(QStringLiteral("Album/latest.mp3")));
    QVERIFY(latest.isSymLink());
    QCOMPARE(readAll(latest.filePath()), small);
    // The archive itself is left for the coordinator to remove.
    QVERIFY(QFileInfo::exists(archive));
    QCOMPARE(LibraryTest::filesUnder(root.path()).size(), 6);
}

void TestLibraryUnzip::entryNamesAndLinksAreJudged()
{
    QVERIFY(UnzipOperation::isSafeEntryName(QStringLiteral("Track.mp3")));
    QVERIFY(UnzipOperation::isSafeEntryName(QStringLiteral("Album/./Track.mp3")));
    QVERIFY(UnzipOperation::isSafeEntryName(QStringLiteral("..Track..mp3")));
    QVERIFY(!UnzipOperation::isSafeEntryName(QStringLiteral("../x")));
    QVERIFY(!UnzipOperation::isSafeEntryName(QStringLiteral("a/../../x")));
    QVERIFY(!UnzipOperation::isSafeEntryName(QStringLiteral("a/..")));
    QVERIFY(!UnzipOperation::isSafeEntryName(QStringLiteral("/etc/passwd")));
    QVERIFY(!UnzipOperation::isSafeEntryName(QString()));

    QVERIFY(UnzipOperation::isSafeLinkTarget(QStringLiteral("a/link"), QStringLiteral("b/c.mp3")));
    QVERIFY(!UnzipOperation::isSafeLinkTarget(QStringLiteral("link"), QStringLiteral("/etc")));
    QVERIFY(!UnzipOperation::isSafeLinkTarget(QStringLiteral("a/link"), QStringLiteral("../../outside")));
    QVERIFY(!UnzipOperation::isSafeLinkTarget(QStringLiteral("link"), QString()));
}

void TestLibraryUnzip::unsafeArchivesWriteNothing_data()
{
    QTest::addColumn<QList<ArchiveEntry>>("entries");
    QTest::addColumn<QString>("logged");
    const QByteArray payload = QByteArrayLiteral("owned");
    // Each archive starts with a harmless track: it must not be written either.
    const ArchiveEntry harmless = file(QStringLiteral("Track 001.mp3"), QByteArrayLiteral("music"));
    QTest::newRow("parent") << QList<ArchiveEntry>{harmless, file(QStringLiteral("../x"), payload)}
                            << "refused entry \"../x\"";
    QTest::newRow("deep parent") << QList<ArchiveEntry>{harmless, file(QStringLiteral("a/b/../../../x"), payload)}
                                 << "refused entry \"a/b/../../../x\"";
    QTest::newRow("absolute") << QList<ArchiveEntry>{harmless, file(QStringLiteral("OUTSIDE/abs"), payload)}
                              << "refused entry \"OUTSIDE/abs\"";
    QTest::newRow("link out") << QList<ArchiveEntry>{harmless, link(QStringLiteral("escape"), "OUTSIDE"),
                                                     file(QStringLiteral("escape/x"), payload)}
                              << "refused symbolic link \"escape\"";
    QTest::newRow("link up") << QList<ArchiveEntry>{harmless, link(QStringLiteral("up"), "../.."),
                                                    file(QStringLiteral("up/x"), payload)}
                             << "refused symbolic link \"up\"";
}

void TestLibraryUnzip::unsafeArchivesWriteNothing()
{
    QFETCH(QList<ArchiveEntry>, entries);
    QFETCH(QString, logged);
    QTemporaryDir root;
    const QString library = root.filePath(QStringLiteral("lib/My Lyrabox Library"));
    const QString outside = root.filePath(QStringLiteral("outside"));
    QVERIFY(QDir().mkpath(library));
    QVERIFY(QDir().mkpath(outside));
    // "OUTSIDE" stands for an absolute path into the folder beside the library.
    for (ArchiveEntry &entry : entries) {
        entry.name.replace(QStringLiteral("OUTSIDE"), outside);
        entry.content.replace("OUTSIDE", QFile::encodeName(outside));
    }
    logged.replace(QStringLiteral("OUTSIDE"), outside);

    const QString archive = QDir(library).filePath(QStringLiteral(".temp-3.zip"));
    QVERIFY(writeArchive(archive, entries));
    const QStringList before = LibraryTest::filesUnder(root.path());

    Recorder recorder;
    UnzipOperation operation(archive, &recorder);
    operation.main();

    QCOMPARE(recorder.events(), QStringList{QStringLiteral("fail")});
    QCOMPARE(recorder.failedPath(), archive);
    QCOMPARE(LibraryTest::filesUnder(root.path()), before);
    QVERIFY(LibraryTest::filesUnder(outside).isEmpty());
    QVERIFY(!QFileInfo::exists(root.filePath(QStringLiteral("lib/x"))));
    QVERIFY(!QFileInfo::exists(root.filePath(QStringLiteral("x"))));
    QVERIFY2(LibraryTest::logText().contains(QStringLiteral("Unzip .temp-3.zip: ") + logged), qPrintable(logged));
}

void TestLibraryUnzip::linksOnDiskAreNotFollowed()
{
    QTemporaryDir root;
    const QString library = root.filePath(QStringLiteral("My Lyrabox Library"));
    const QString outside = root.filePath(QStringLiteral("outside"));
    QVERIFY(QDir().mkpath(library));
    QVERIFY(QDir().mkpath(outside));
    QFile secret(QDir(outside).filePath(QStringLiteral("secret")));
    QVERIFY(secret.open(QIODevice::WriteOnly));
    secret.write("keep me");
    secret.close();
    // Links standing in the library folder before the archive arrives.
    QVERIFY(QFile::link(outside, QDir(library).filePath(QStringLiteral("Album"))));
    QVERIFY(QFile::link(secret.fileName(), QDir(library).filePath(QStringLiteral("Track.mp3"))));

    for (const QString &name :
         {QStringLiteral("Album/Track.mp3"), QStringLiteral("Album/new/Track.mp3"), QStringLiteral("Track.mp3")}) {
        const QString archive = QDir(library).filePath(QStringLiteral(".temp-0.zip"));
        QVERIFY(writeArchive(archive, {file(name, QByteArrayLiteral("overwritten"))}));
        Recorder recorder;
        UnzipOperation operation(archive, &recorder);
        operation.main();
        QCOMPARE(recorder.events().last(), QStringLiteral("fail"));
        QCOMPARE(LibraryTest::filesUnder(outside), QStringList{QStringLiteral("secret")});
        QCOMPARE(readAll(secret.fileName()), QByteArrayLiteral("keep me"));
    }
}

void TestLibraryUnzip::brokenArchivesFail_data()
{
    QTest::addColumn<QString>("damage");
    QTest::newRow("not a zip") << "garbage";
    QTest::newRow("data changed") << "flip";
    QTest::newRow("cut short") << "truncate";
    QTest::newRow("missing") << "remove";
}

void TestLibraryUnzip::brokenArchivesFail()
{
    QFETCH(QString, damage);
    QTemporaryDir root;
    const QString archive = root.filePath(QStringLiteral(".temp-0.zip"));
    const QByteArray content = noise(200000, 5);
    QVERIFY(writeArchive(archive, {file(QStringLiteral("Track.mp3"), content)}));
    QFile f(archive);
    if (damage == QLatin1String("garbage")) {
        QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
        f.write(noise(5000, 6));
    } else if (damage == QLatin1String("flip")) {
        QVERIFY(f.open(QIODevice::ReadWrite));
        f.seek(100000); // inside the stored data: only the CRC can tell
        const char byte = f.read(1).at(0);
        f.seek(100000);
        f.write(QByteArray(1, char(byte ^ 0x5a)));
    } else if (damage == QLatin1String("truncate")) {
        QVERIFY(f.resize(150000));
    } else {
        QVERIFY(f.remove());
    }
    f.close();

    Recorder recorder;
    UnzipOperation operation(archive, &recorder);
    operation.main();
    QCOMPARE(recorder.events().count(QStringLiteral("fail")), 1);
    QVERIFY(!recorder.events().contains(QStringLiteral("end")));
}

QTEST_GUILESS_MAIN(TestLibraryUnzip)
#include "tst_libraryunzip.moc"
