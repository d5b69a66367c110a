// Extraction of segment archives built here with libzip: the bytes, the progress signals,
// and archives that are damaged or try to write outside their folder.
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
    for (qsizetype i = 0; ok && i < entries.size(); ++i) {
        const ArchiveEntry &entry = entries[i];
        const QByteArray name = entry.name.toUtf8();
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

// Runs one extraction on this thread and keeps its signals in order.
struct Extracted
{
    explicit Extracted(const QString &archive)
    {
        UnzipOperation operation(archive);
        QObject::connect(&operation, &UnzipOperation::began, [this] { events << QStringLiteral("begin"); });
        QObject::connect(&operation, &UnzipOperation::totalSizeKnown,
                         [this](const QString &, qint64 size) { events << QStringLiteral("total %1").arg(size); });
        QObject::connect(&operation, &UnzipOperation::bytesWritten,
                         [this](const QString &, qint64 bytes) { written += bytes; });
        QObject::connect(&operation, &UnzipOperation::ended, [this] { events << QStringLiteral("end"); });
        QObject::connect(&operation, &UnzipOperation::failed, [this](const QString &path, const Error &failure) {
            events << QStringLiteral("fail ") + path;
            error = failure;
        });
        operation.start();
    }

    QStringList events;
    qint64 written = 0;
    OptionalError error;
};

} // namespace

class TestLibraryUnzip : public QObject
{
    Q_OBJECT

    QTemporaryDir m_root;
    QString m_base; // the test function's own folder
    QString m_library;

private slots:
    void init()
    {
        m_base = m_root.filePath(QString::fromLatin1(QTest::currentTestFunction()));
        m_library = m_base + QStringLiteral("/My Lyrabox Library");
        QVERIFY(QDir().mkpath(m_library));
    }

    void extractsBesideTheArchive()
    {
        const QDir library(m_library);
        const QByteArray big = noise(3 * 1024 * 1024 + 17, 1); // several copy buffers
        const QByteArray small = noise(1000, 2);
        const QByteArray text = QByteArrayLiteral("Ünïcode name");
        const QString archive = library.filePath(QStringLiteral(".temp-0.zip"));
        QVERIFY(
            writeArchive(archive, {{QStringLiteral("Track 001.mp3"), big},
                                   {QStringLiteral("Album/"), {}, ArchiveEntry::Directory},
                                   {QStringLiteral("Album/Disc 1/Track 002.flac"), small},
                                   {QStringLiteral("Ünïcode – ñame.m4a"), text},
                                   {QStringLiteral("..empty..ogg"), {}}, // dots that are no parent step
                                   {QStringLiteral("Album/latest.mp3"), "Disc 1/Track 002.flac", ArchiveEntry::Link},
                                   // Names of the folder itself: nothing written, nothing counted.
                                   {QStringLiteral("."), noise(3000, 5)},
                                   {QStringLiteral("./."), noise(700, 6)}}));
        // An older, longer copy of a track is replaced, not appended to.
        QFile old(library.filePath(QStringLiteral("Track 001.mp3")));
        QVERIFY(old.open(QIODevice::WriteOnly) && old.write(noise(5 * 1024 * 1024, 9)) > 0);
        old.close();

        const Extracted extracted(archive);
        const qint64 total = big.size() + small.size() + text.size();
        QCOMPARE(extracted.events, (QStringList{"begin", QStringLiteral("total %1").arg(total), "end"}));
        QCOMPARE(extracted.written, total);
        QCOMPARE(readAll(library.filePath(QStringLiteral("Track 001.mp3"))), big);
        QCOMPARE(readAll(library.filePath(QStringLiteral("Album/Disc 1/Track 002.flac"))), small);
        QCOMPARE(readAll(library.filePath(QStringLiteral("Ünïcode – ñame.m4a"))), text);
        QCOMPARE(readAll(library.filePath(QStringLiteral("Album/latest.mp3"))), small);
        QVERIFY(QFileInfo(library.filePath(QStringLiteral("Album/latest.mp3"))).isSymLink());
        // The archive itself is left for the coordinator to remove.
        QCOMPARE(LibraryTest::filesUnder(m_library),
                 (QStringList{"..empty..ogg", ".temp-0.zip", "Album/Disc 1/Track 002.flac", "Album/latest.mp3",
                              "Track 001.mp3", "Ünïcode – ñame.m4a"}));
    }

    void refusedArchivesWriteNothing_data()
    {
        QTest::addColumn<QList<ArchiveEntry>>("entries");
        QTest::addColumn<QByteArray>("damage"); // written over the archive's tail
        QTest::addColumn<QString>("logged");
        // Each archive starts with a harmless track: it must not be written either.
        const ArchiveEntry harmless{QStringLiteral("Track 001.mp3"), "music"};
        auto file = [](const QString &name) { return ArchiveEntry{name, "owned"}; };
        auto link = [](const QString &name, const QByteArray &target) {
            return ArchiveEntry{name, target, ArchiveEntry::Link};
        };
        QTest::newRow("parent") << QList<ArchiveEntry>{harmless, file(QStringLiteral("a/b/../../../x"))} << QByteArray()
                                << "refused entry \"a/b/../../../x\"";
        // "OUTSIDE" stands for the absolute path of a folder beside the library.
        QTest::newRow("absolute") << QList<ArchiveEntry>{harmless, file(QStringLiteral("OUTSIDE/abs"))} << QByteArray()
                                  << "refused entry \"OUTSIDE/abs\"";
        QTest::newRow("link out") << QList<ArchiveEntry>{harmless, link(QStringLiteral("escape"), "OUTSIDE"),
                                                         file(QStringLiteral("escape/x"))}
                                  << QByteArray() << "refused symbolic link \"escape\"";
        // Named as the folder itself, so never made, but it says what the archive is.
        QTest::newRow("link named dot out") << QList<ArchiveEntry>{harmless, link(QStringLiteral("."), "../x")}
                                            << QByteArray() << "refused symbolic link \".\"";
        // Damaged on its way: the directory at the end is garbage.
        QTest::newRow("damaged") << QList<ArchiveEntry>{harmless} << QByteArray(40, 'Z') << "cannot open the archive: ";
    }

    void refusedArchivesWriteNothing()
    {
        QFETCH(QList<ArchiveEntry>, entries);
        QFETCH(QByteArray, damage);
        QFETCH(QString, logged);
        const QString outside = m_base + QStringLiteral("/outside");
        QVERIFY(QDir().mkpath(outside));
        for (ArchiveEntry &entry : entries) {
            entry.name.replace(QStringLiteral("OUTSIDE"), outside);
            entry.content.replace("OUTSIDE", QFile::encodeName(outside));
        }
        logged.replace(QStringLiteral("OUTSIDE"), outside);
        const QString archive = QDir(m_library).filePath(QStringLiteral(".temp-3.zip"));
        QVERIFY(writeArchive(archive, entries));
        QFile damaged(archive);
        QVERIFY(damaged.open(QIODevice::ReadWrite) && damaged.seek(damaged.size() - damage.size()));
        QVERIFY(damaged.write(damage) == damage.size());
        damaged.close();

        // The chunk fails (the coordinator goes on with the others), with a log line.
        const Extracted extracted(archive);
        QCOMPARE(extracted.events, QStringList{QStringLiteral("fail ") + archive});
        QVERIFY(extracted.error->localizedDescription().startsWith(
            QStringLiteral("A library segment could not be extracted (") + logged));
        QCOMPARE(LibraryTest::filesUnder(m_base), QStringList{QStringLiteral("My Lyrabox Library/.temp-3.zip")});
        QVERIFY2(LibraryTest::logText().contains(QStringLiteral("Unzip .temp-3.zip: ") + logged), qPrintable(logged));
    }

    void fullDiskLeavesNoHalfWrittenTrack()
    {
        const QDir library(m_library);
        const QByteArray first = noise(100000, 3);
        const QByteArray second = noise(3 * 1024 * 1024, 4);
        const QString archive = library.filePath(QStringLiteral(".temp-0.zip"));
        QVERIFY(writeArchive(archive,
                             {{QStringLiteral("Track 001.mp3"), first}, {QStringLiteral("Track 002.mp3"), second}}));
        // An older copy of the second track stays as it was until a whole new one is there.
        const QByteArray old = noise(5000, 5);
        QFile oldFile(library.filePath(QStringLiteral("Track 002.mp3")));
        QVERIFY(oldFile.open(QIODevice::WriteOnly) && oldFile.write(old) == old.size());
        oldFile.close();

        // The disk fills up half-way through the second track.
        qputenv("PELICANE_TEST_EXTRACT_SPACE", QByteArray::number(first.size() + second.size() / 2));
        const Extracted extracted(archive);
        qunsetenv("PELICANE_TEST_EXTRACT_SPACE");
        QCOMPARE(extracted.events.last(), QStringLiteral("fail ") + archive);
        QCOMPARE(extracted.error->code(), ENOSPC);
        QVERIFY2(extracted.error->localizedDescription().startsWith(QStringLiteral("The disk is full")),
                 qPrintable(extracted.error->localizedDescription()));
        QCOMPARE(readAll(library.filePath(QStringLiteral("Track 001.mp3"))), first);
        QCOMPARE(readAll(library.filePath(QStringLiteral("Track 002.mp3"))), old);
        QCOMPARE(LibraryTest::filesUnder(m_library), (QStringList{".temp-0.zip", "Track 001.mp3", "Track 002.mp3"}));
    }
};

QTEST_GUILESS_MAIN(TestLibraryUnzip)
#include "tst_libraryunzip.moc"
