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

// A context whose "digest" is the byte count and the number of calls; it
// shows what the streaming loop does with the algorithm it is given.
struct CountingState
{
    int inits = 0;
    int finals = 0;
    quint64 bytes = 0;
    std::size_t largestUpdate = 0;
};

FileHash::ComputationContext countingContext(CountingState *state)
{
    FileHash::ComputationContext context;
    context.init = [](void *s) {
        ++static_cast<CountingState *>(s)->inits;
        return true;
    };
    context.update = [](void *s, const void *, std::size_t count) {
        auto *state = static_cast<CountingState *>(s);
        state->bytes += count;
        state->largestUpdate = std::max(state->largestUpdate, count);
        return true;
    };
    context.final = [](unsigned char *digest, void *s) {
        auto *state = static_cast<CountingState *>(s);
        ++state->finals;
        for (int i = 0; i < 8; ++i) {
            digest[i] = static_cast<unsigned char>(state->bytes >> (56 - 8 * i));
        }
        return true;
    };
    context.digestLength = 8;
    context.state = state;
    return context;
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

    void generalOperationDrivesTheGivenAlgorithm()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("f"));
        const qint64 size = 3 * qint64(FileHash::kReadChunkSize) + 5;
        QVERIFY(writeFile(path, QByteArray(size, 'x')));

        // The file streams through in pieces of at most one read, never whole.
        CountingState state;
        QCOMPARE(FileHash::hashOfFileAtPath(path, countingContext(&state)),
                 QStringLiteral("%1").arg(size, 16, 16, QLatin1Char('0')));
        QCOMPARE(state.inits, 1);
        QCOMPARE(state.finals, 1);
        QVERIFY(state.largestUpdate > 0 && state.largestUpdate <= FileHash::kReadChunkSize);
    }

    void validityFollowsModificationTime()
    {
        const QString song = file(QStringLiteral("valid/song.mp3"));
        QVERIFY(setModificationTime(song, 1700000000, 250000000));
        MD5Cache cache(m_dir.filePath(QStringLiteral("valid/cache.json")));
        QVERIFY(!cache.get(song));
        cache.set(song, QStringLiteral("0123456789abcdef0123456789abcdef"));
        QCOMPARE(cache.cache().value(song).ts, 1700000000.25);
        QCOMPARE(cache.get(song), QStringLiteral("0123456789abcdef0123456789abcdef"));

        // Moving the time backwards keeps the digest.
        QVERIFY(setModificationTime(song, 1600000000));
        QCOMPARE(cache.get(song), QStringLiteral("0123456789abcdef0123456789abcdef"));
        // A later time, even by one microsecond, drops the entry.
        QVERIFY(setModificationTime(song, 1700000000, 250001000));
        QVERIFY(!cache.get(song));
        QVERIFY(!cache.cache().contains(song));
    }

    void fileFormatRoundTrips()
    {
        const QString cacheFile = m_dir.filePath(QStringLiteral("format/MD5Cache.json"));
        const QString song = file(QStringLiteral("format/a \"quoted\" é.mp3"), "abc");
        QVERIFY(setModificationTime(song, 1712345678, 123456789));
        {
            MD5Cache cache(cacheFile);
            cache.set(song, *FileHash::md5HashOfFileAtPath(song));
            cache.save();
        }
        QFile json(cacheFile);
        QVERIFY(json.open(QIODevice::ReadOnly));
        // Compact, one entry of exactly a digest and a time.
        QCOMPARE(json.readAll(), "{" +
                                     QJsonDocument(QJsonArray{song}).toJson(QJsonDocument::Compact).mid(1).chopped(1) +
                                     ":{\"md5\":\"900150983cd24fb0d6963f7d28e17f72\",\"ts\":1712345678.1234567}}");
        // A new instance trusts the stored time exactly: no precision is lost.
        QCOMPARE(MD5Cache(cacheFile).get(song), QStringLiteral("900150983cd24fb0d6963f7d28e17f72"));
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
};

QTEST_GUILESS_MAIN(TestFingerprint)
#include "tst_fingerprint.moc"
