#include "core/logger.h"
#include "fingerprint/filehash.h"
#include "fingerprint/md5cache.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

// Sets the file's modification time, seconds plus nanoseconds.
bool setModificationTime(const QString &path, time_t seconds, long nanoseconds = 0)
{
    struct timespec times[2];
    times[0].tv_sec = seconds;
    times[0].tv_nsec = nanoseconds;
    times[1] = times[0];
    return ::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, 0) == 0;
}

} // namespace

class TestFingerprint : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

    // Writes a file below the test's folder; its path.
    QString file(const QString &name, const QByteArray &bytes = "x")
    {
        const QString path = m_dir.filePath(name);
        QDir().mkpath(QFileInfo(path).path());
        return writeFile(path, bytes) ? path : QString();
    }

private slots:
    void initTestCase()
    {
        // The log file is found once; fix it before a test moves the data folder.
        Logger::log(QStringLiteral("tst_fingerprint"));
        QVERIFY(Logger::logFileURL().isValid());
    }

    // Sizes around the read size catch a lost or repeated tail.
    void largeFilesMatchQtDigests_data()
    {
        QTest::addColumn<qint64>("size");
        const qint64 chunk = qint64(FileHash::kReadChunkSize);
        QTest::newRow("empty") << qint64(0);
        QTest::newRow("one byte over") << chunk + 1;
        QTest::newRow("3 MiB and 7 bytes") << qint64(3 * 1024 * 1024 + 7);
    }
    void largeFilesMatchQtDigests()
    {
        QFETCH(qint64, size);
        QTemporaryDir dir;
        QByteArray bytes(size, Qt::Uninitialized);
        QRandomGenerator generator(size);
        for (char &byte : bytes) {
            byte = char(generator.generate());
        }
        const QString path = dir.filePath(QStringLiteral("data.bin"));
        QVERIFY(writeFile(path, bytes));

        const auto md5 = FileHash::md5HashOfFileAtPath(path);
        QCOMPARE(md5, QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex()));
        QCOMPARE(FileHash::sha1HashOfFileAtPath(path),
                 QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha1).toHex()));
    }

    // A FIFO would block the open and a device never ends: neither has a digest.
    void onlyRegularFilesHaveDigests()
    {
        const QString fifo = m_dir.filePath(QStringLiteral("fifo.mp3"));
        QCOMPARE(::mkfifo(QFile::encodeName(fifo).constData(), 0644), 0);
        for (const QString &path : {fifo, QStringLiteral("/dev/zero"), m_dir.path()}) {
            QVERIFY2(!FileHash::md5HashOfFileAtPath(path), qPrintable(path));
        }
    }

    // An entry holds while the file's time does not move forward, even by a
    // microsecond; the file stores each as a digest and a time, compact, and
    // another instance trusts the stored time exactly.
    void entriesFollowModificationTimeAndRoundTrip()
    {
        const QString cacheFile = m_dir.filePath(QStringLiteral("format/MD5Cache.json"));
        const QString song = file(QStringLiteral("format/a \"quoted\" é.mp3"), "abc");
        QVERIFY(setModificationTime(song, 1712345678, 123456789));
        MD5Cache cache(cacheFile);
        QVERIFY(!cache.get(song));
        cache.set(song, *FileHash::md5HashOfFileAtPath(song));
        QCOMPARE(cache.cache().value(song).ts, 1712345678.123456789);
        cache.save();
        QFile json(cacheFile);
        QVERIFY(json.open(QIODevice::ReadOnly));
        QCOMPARE(json.readAll(), "{" +
                                     QJsonDocument(QJsonArray{song}).toJson(QJsonDocument::Compact).mid(1).chopped(1) +
                                     ":{\"md5\":\"900150983cd24fb0d6963f7d28e17f72\",\"ts\":1712345678.1234567}}");
        QCOMPARE(MD5Cache(cacheFile).get(song), QStringLiteral("900150983cd24fb0d6963f7d28e17f72"));
        QVERIFY(setModificationTime(song, 1600000000));
        QCOMPARE(cache.get(song), QStringLiteral("900150983cd24fb0d6963f7d28e17f72"));
        QVERIFY(setModificationTime(song, 1712345678, 123457789));
        QVERIFY(!cache.get(song));
        QVERIFY(!cache.cache().contains(song));
    }

    void damagedFilesGiveAnEmptyCache_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::newRow("not JSON") << QByteArray("{\"/a.mp3\": {\"md5\": \"x\", \"ts\": 1");
        QTest::newRow("an array") << QByteArray("[{\"md5\":\"x\",\"ts\":1}]");
        QTest::newRow("entry without ts") << QByteArray("{\"/a.mp3\":{\"md5\":\"x\"}}");
    }
    void damagedFilesGiveAnEmptyCache()
    {
        QFETCH(QByteArray, content);
        const QString song = file(QStringLiteral("damaged/song.mp3"));
        const QString cacheFile = file(QStringLiteral("damaged/cache.json"), content);
        MD5Cache cache(cacheFile);
        QVERIFY(cache.cache().isEmpty());
        cache.set(song, QStringLiteral("ff"));
        cache.save();
        QCOMPARE(MD5Cache(cacheFile).get(song), QStringLiteral("ff"));
    }

    // Two instances (the check phase and the shared cache, or the window and
    // pelicane-cli) saving in turn keep each other's entries, also entries
    // dropped as stale stay dropped; saves from four threads at once lose none.
    void savesMergeWhatOthersSaved()
    {
        const QString cacheFile = m_dir.filePath(QStringLiteral("merge/MD5Cache.json"));
        const QString a = file(QStringLiteral("merge/a.mp3"));
        const QString b = file(QStringLiteral("merge/b.mp3"));
        const QString stale = file(QStringLiteral("merge/stale.mp3"));
        QVERIFY(setModificationTime(stale, 1600000000));
        {
            MD5Cache seed(cacheFile);
            seed.set(stale, QStringLiteral("5555"));
            seed.save();
        }
        MD5Cache check(cacheFile);
        MD5Cache shared(cacheFile);
        check.set(a, QStringLiteral("aaaa"));
        shared.set(b, QStringLiteral("bbbb"));
        QVERIFY(setModificationTime(stale, 1700000000));
        QVERIFY(!shared.get(stale));
        shared.save();
        check.save();
        MD5Cache after(cacheFile);
        QCOMPARE(after.get(a), QStringLiteral("aaaa"));
        QCOMPARE(after.get(b), QStringLiteral("bbbb"));
        QVERIFY(!after.cache().contains(stale));
        // The instance that saved first learns the others' entries at its next save.
        shared.set(a, QStringLiteral("a2a2"));
        shared.save();
        QCOMPARE(MD5Cache(cacheFile).get(a), QStringLiteral("a2a2"));

        const QString crowded = m_dir.filePath(QStringLiteral("merge/crowded.json"));
        QList<QString> songs;
        for (int i = 0; i < 240; ++i) {
            songs << file(QStringLiteral("merge/songs/%1.mp3").arg(i));
        }
        std::vector<std::thread> writers;
        for (int w = 0; w < 4; ++w) {
            writers.emplace_back([&, w] {
                MD5Cache mine(crowded);
                for (int i = w; i < songs.size(); i += 4) {
                    mine.set(songs.at(i), QStringLiteral("%1").arg(i, 32, 16, QLatin1Char('0')));
                    if (i % 20 < 4) {
                        mine.save();
                    }
                }
                mine.save();
            });
        }
        for (std::thread &writer : writers) {
            writer.join();
        }
        MD5Cache all(crowded);
        QCOMPARE(all.cache().size(), songs.size());
    }

    // A save replaces the file through a new one renamed over it, so a reader
    // or a crash never meets half a file; nothing is left beside it.
    void saveReplacesTheFileWhole()
    {
        QTemporaryDir dir;
        const QString cacheFile = dir.filePath(QStringLiteral("MD5Cache.json"));
        MD5Cache cache(cacheFile);
        cache.set(file(QStringLiteral("whole.mp3")), QStringLiteral("aaaa"));
        cache.save();
        QFile reader(cacheFile);
        QVERIFY(reader.open(QIODevice::ReadOnly | QIODevice::Unbuffered));
        cache.set(m_dir.filePath(QStringLiteral("whole.mp3")), QStringLiteral("bbbb"));
        cache.save();
        // The reader that opened the old version still reads it whole.
        QVERIFY(reader.readAll().contains("aaaa"));
        QCOMPARE(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden), QStringList{QStringLiteral("MD5Cache.json")});
    }

    // Saving at most every few seconds: a thousand changes in a burst write
    // the file once, and a save without changes waits for the next change.
    void saveIfDueWritesAtMostOncePerInterval()
    {
        QTemporaryDir dir;
        const QString cacheFile = dir.filePath(QStringLiteral("MD5Cache.json"));
        MD5Cache cache(cacheFile);
        QVERIFY(!cache.saveIfDue(0));
        for (int i = 0; i < 1000; ++i) {
            cache.set(dir.filePath(QStringLiteral("%1.mp3").arg(i)), QStringLiteral("ff"));
            cache.saveIfDue(i == 0 ? 0.0 : 3.0);
        }
        QCOMPARE(cache.saveCount(), 1);
        QVERIFY(cache.hasUnsavedChanges());
        cache.save();
        QVERIFY(!cache.hasUnsavedChanges());
        QCOMPARE(MD5Cache(cacheFile).cache().size(), 1000);
    }
};

QTEST_GUILESS_MAIN(TestFingerprint)
#include "tst_fingerprint.moc"
