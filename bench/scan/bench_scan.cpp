// Scan and digest speed against the standard tools doing the same work:
//   bench_scan scan    --dir D [--files N]  FolderScan vs "find D -type f" on a generated tree
//   bench_scan digest  --dir D [--mb M]     FileHash MD5 (and QCryptographicHash) vs "md5sum" over M MB of files
//   bench_scan recheck --dir D [--files N]  MD5Cache::get() of N cached files vs "find -printf %T@" (one stat each)
//   bench_scan stall   --dir D [--files N]  longest GUI event-loop stall while the session scans the tree
//   bench_scan window  --dir D [--rows R]   longest GUI event-loop stall while the List page takes R rows,
//                                           selects them all and removes half
// Each prints the times and a ratio measured in the same run.

#include "benchtool.h"
#include "fingerprint/filehash.h"
#include "fingerprint/md5cache.h"
#include "session/folderscan.h"
#include "session/orderedpathset.h"

#include <QApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

namespace {

const QStringList kFormats{QStringLiteral("mp3"), QStringLiteral("m4a"), QStringLiteral("flac"),
                           QStringLiteral("wav"), QStringLiteral("ogg"), QStringLiteral("aiff"),
                           QStringLiteral("aif"), QStringLiteral("wma"), QStringLiteral("aac")};

QString argument(const QStringList &args, const QString &name, const QString &fallback = QString())
{
    const qsizetype at = args.indexOf(name);
    return at >= 0 && at + 1 < args.size() ? args.at(at + 1) : fallback;
}

// A music library of `files` files, 100 to a folder in artist/album folders;
// 7 in 10 are of supported types. Made once and reused.
QString makeTree(const QString &dir, int files)
{
    const QString root = dir + QStringLiteral("/tree-%1").arg(files);
    if (QFile::exists(root + QStringLiteral("/.complete"))) {
        return root;
    }
    static const char *const supported[] = {"mp3", "m4a", "flac", "MP3", "ogg", "wav", "aiff"};
    static const char *const others[] = {"jpg", "txt", "cue"};
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < files; ++i) {
        const int folder = i / 100;
        const QString path = root + QStringLiteral("/Artist %1/Album %2").arg(folder / 10).arg(folder % 10);
        if (i % 100 == 0) {
            QDir().mkpath(path);
        }
        const int kind = i % 10;
        const QByteArray name = QFile::encodeName(path) + "/" + QByteArray::number(i % 100) + " Track." +
                                (kind < 7 ? supported[kind] : others[kind - 7]);
        const int fd = ::open(name.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd >= 0) {
            (void)::write(fd, name.constData(), size_t(name.size()));
            ::close(fd);
        }
    }
    QFile(root + QStringLiteral("/.complete")).open(QIODevice::WriteOnly);
    std::printf("tree: %d files made in %.2f s\n", files, double(timer.elapsed()) / 1000.0);
    return root;
}

int benchScan(const QString &dir, int files)
{
    const QString root = makeTree(dir, files);
    runTool(QStringLiteral("find"), {root, QStringLiteral("-type"), QStringLiteral("f")}); // warm the caches
    double best = 1e9;
    double bestFind = 1e9;
    qsizetype found = 0;
    for (int round = 0; round < 3; ++round) {
        bestFind =
            std::min(bestFind, runTool(QStringLiteral("find"), {root, QStringLiteral("-type"), QStringLiteral("f")}));
        OrderedPathSet set;
        QElapsedTimer timer;
        timer.start();
        const FolderScan::Outcome outcome =
            FolderScan(kFormats).scan({root}, [&set](const QString &path) { set.append(path); });
        best = std::min(best, double(timer.nsecsElapsed()) / 1e9);
        found = set.size();
        if (!outcome.finished || outcome.errorCount != 0) {
            std::fprintf(stderr, "scan failed\n");
            return 1;
        }
    }
    std::printf("scan:    %lld of %d files kept in %.3f s (best of 3)\n", qint64(found), files, best);
    std::printf("find:    %.3f s for \"find -type f\" over the same tree (best of 3)\n", bestFind);
    std::printf("ratio:   %.2f (find time / scan time; above 1 is faster than find)\n", bestFind / best);
    return 0;
}

// The same read loop as FileHash, through Qt's digest, for the choice of library.
double qtDigestSeconds(const QStringList &paths)
{
    std::vector<char> buffer(FileHash::kReadChunkSize);
    QElapsedTimer timer;
    timer.start();
    for (const QString &path : paths) {
        const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY);
        QCryptographicHash hash(QCryptographicHash::Md5);
        ssize_t count = 0;
        while ((count = ::read(fd, buffer.data(), buffer.size())) > 0) {
            hash.addData(QByteArrayView(buffer.data(), count));
        }
        ::close(fd);
        if (hash.result().size() != 16) {
            return -1;
        }
    }
    return double(timer.nsecsElapsed()) / 1e9;
}

int benchDigest(const QString &dir, int megabytes)
{
    // Files of 16 MB of pseudo-random bytes (incompressible, as audio is).
    const int fileCount = std::max(1, megabytes / 16);
    QStringList paths;
    std::vector<quint64> block(16 * 1024 * 1024 / 8);
    quint64 state = 0x9E3779B97F4A7C15ull;
    for (int i = 0; i < fileCount; ++i) {
        const QString path = dir + QStringLiteral("/digest-%1.bin").arg(i);
        paths << path;
        if (QFileInfo(path).size() == qint64(block.size() * 8)) {
            continue;
        }
        for (quint64 &word : block) {
            state ^= state << 13;
            state ^= state >> 7;
            state ^= state << 17;
            word = state;
        }
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(reinterpret_cast<const char *>(block.data()),
                                                           qint64(block.size() * 8)) != qint64(block.size() * 8)) {
            std::fprintf(stderr, "cannot write %s\n", qPrintable(path));
            return 1;
        }
    }
    const double totalMB = double(fileCount) * 16 * 1024 * 1024 / 1e6;
    runTool(QStringLiteral("md5sum"), paths); // into the page cache, for both

    double best = 1e9, bestTool = 1e9, bestQt = 1e9;
    for (int round = 0; round < 3; ++round) {
        bestTool = std::min(bestTool, runTool(QStringLiteral("md5sum"), paths));
        QElapsedTimer timer;
        timer.start();
        for (const QString &path : paths) {
            if (!FileHash::md5HashOfFileAtPath(path)) {
                std::fprintf(stderr, "no digest for %s\n", qPrintable(path));
                return 1;
            }
        }
        best = std::min(best, double(timer.nsecsElapsed()) / 1e9);
        bestQt = std::min(bestQt, qtDigestSeconds(paths));
    }
    std::printf("digest:  %.0f MB in %.3f s, %.0f MB/s (FileHash, OpenSSL MD5, best of 3)\n", totalMB, best,
                totalMB / best);
    std::printf("qt:      %.3f s, %.0f MB/s (same loop through QCryptographicHash)\n", bestQt, totalMB / bestQt);
    std::printf("md5sum:  %.3f s, %.0f MB/s\n", bestTool, totalMB / bestTool);
    std::printf("ratio:   %.2f (our throughput / md5sum's; target >= 0.9)\n", bestTool / best);
    return 0;
}

int benchRecheck(const QString &dir, int files)
{
    const QString root = makeTree(dir, files);
    QStringList paths;
    FolderScan(QStringList{QStringLiteral("mp3"), QStringLiteral("m4a"), QStringLiteral("flac"), QStringLiteral("ogg"),
                           QStringLiteral("wav"), QStringLiteral("aiff"), QStringLiteral("jpg"), QStringLiteral("txt"),
                           QStringLiteral("cue")})
        .scan({root}, [&paths](const QString &path) { paths << path; });
    const QString cacheFile = dir + QStringLiteral("/MD5Cache.json");
    {
        MD5Cache cache(cacheFile);
        for (const QString &path : std::as_const(paths)) {
            cache.set(path, QStringLiteral("d41d8cd98f00b204e9800998ecf8427e"));
        }
        QElapsedTimer timer;
        timer.start();
        cache.save();
        std::printf("save:    %lld entries written in %.3f s (%.1f MB)\n", qint64(paths.size()),
                    double(timer.nsecsElapsed()) / 1e9, double(QFileInfo(cacheFile).size()) / 1e6);
    }
    const QStringList findArgs{root, QStringLiteral("-type"), QStringLiteral("f"), QStringLiteral("-printf"),
                               QStringLiteral("%T@\\n")};
    runTool(QStringLiteral("find"), findArgs);
    double bestGet = 1e9, bestLoad = 1e9, bestFind = 1e9;
    for (int round = 0; round < 3; ++round) {
        bestFind = std::min(bestFind, runTool(QStringLiteral("find"), findArgs));
        QElapsedTimer timer;
        timer.start();
        MD5Cache cache(cacheFile);
        bestLoad = std::min(bestLoad, double(timer.nsecsElapsed()) / 1e9);
        timer.restart();
        qsizetype hits = 0;
        for (const QString &path : std::as_const(paths)) {
            hits += cache.get(path).has_value();
        }
        bestGet = std::min(bestGet, double(timer.nsecsElapsed()) / 1e9);
        if (hits != paths.size()) {
            std::fprintf(stderr, "only %lld of %lld cached\n", qint64(hits), qint64(paths.size()));
            return 1;
        }
    }
    const double count = double(paths.size());
    std::printf("load:    %.3f s to read the cache file (best of 3)\n", bestLoad);
    std::printf("recheck: %.0f files in %.3f s, %.0f files/s (get() after load; target >= 50,000)\n", count, bestGet,
                count / bestGet);
    std::printf("with load: %.0f files/s\n", count / (bestGet + bestLoad));
    std::printf("find:    %.3f s for \"find -printf %%T@\" (one stat a file), %.0f files/s\n", bestFind,
                count / bestFind);
    std::printf("ratio:   %.2f (find time / get() time; above 1 is faster than find)\n", bestFind / bestGet);
    return 0;
}

} // namespace

int benchStall(const QString &dir, int files); // bench_stall.cpp
int benchWindow(const QString &dir, int rows); // bench_stall.cpp

int main(int argc, char **argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    const QStringList args = app.arguments();
    const QString mode = args.value(1);
    const QString dir = argument(args, QStringLiteral("--dir"), QDir::tempPath());
    const int files = argument(args, QStringLiteral("--files"), QStringLiteral("100000")).toInt();
    if (mode == QLatin1String("scan")) {
        return benchScan(dir, files);
    }
    if (mode == QLatin1String("digest")) {
        return benchDigest(dir, argument(args, QStringLiteral("--mb"), QStringLiteral("2048")).toInt());
    }
    if (mode == QLatin1String("recheck")) {
        return benchRecheck(dir, files);
    }
    if (mode == QLatin1String("stall")) {
        return benchStall(dir, files);
    }
    if (mode == QLatin1String("window")) {
        return benchWindow(dir, argument(args, QStringLiteral("--rows"), QStringLiteral("100000")).toInt());
    }
    std::fprintf(stderr,
                 "usage: bench_scan scan|digest|recheck|stall|window --dir D [--files N] [--mb M] [--rows R]\n");
    return 2;
}

// The generated tree, for bench_stall.cpp.
QString benchTree(const QString &dir, int files)
{
    return makeTree(dir, files);
}
