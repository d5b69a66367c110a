// The digest cache file as the program finds it on disk, whatever it holds:
// read, saved and read again, nothing it held may change or go missing.
#include "fuzzcheck.h"

#include "fingerprint/md5cache.h"

#include <QFile>
#include <QTemporaryDir>

#include <cstdint>
#include <memory>

namespace {

// Removed at exit.
QTemporaryDir &folder()
{
    static QTemporaryDir folder;
    return folder;
}

std::string describe(const MD5Cache::Dictionary &cache)
{
    return MD5Cache::serialize(cache).left(400).toStdString();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), qsizetype(size));

    // In memory: what a save writes reads back as what was read.
    const std::optional<MD5Cache::Dictionary> parsed = MD5Cache::parse(bytes);
    if (parsed) {
        const QByteArray written = MD5Cache::serialize(*parsed);
        const std::optional<MD5Cache::Dictionary> reread = MD5Cache::parse(written);
        FUZZ_CHECK_SAY(reread.has_value(), "unreadable after a save: " + written.left(400).toStdString());
        FUZZ_CHECK_SAY(*reread == *parsed, describe(*parsed) + " came back as " + describe(*reread));
        FUZZ_CHECK(MD5Cache::serialize(*reread) == written);
    }

    // Through the file: the instance holds what the file held (a damaged file
    // is an empty cache), and a save adds its own entry without losing any.
    FUZZ_CHECK(folder().isValid());
    const QString path = folder().filePath(QStringLiteral("MD5Cache.json"));
    QFile::remove(path);
    {
        QFile file(path);
        FUZZ_CHECK(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
    }
    MD5Cache::Dictionary expected = parsed.value_or(MD5Cache::Dictionary());
    {
        MD5Cache cache(path);
        FUZZ_CHECK(cache.cache() == expected);
        // An existing file, so the entry gets its real modification time.
        cache.set(folder().path(), QStringLiteral("d41d8cd98f00b204e9800998ecf8427e"));
        expected = cache.cache();
        cache.save();
        FUZZ_CHECK(!cache.hasUnsavedChanges());
    }
    const MD5Cache again(path);
    FUZZ_CHECK_SAY(again.cache() == expected, describe(expected) + " was saved as " + describe(again.cache()));
    return 0;
}
