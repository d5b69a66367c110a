// Upload throughput and memory against curl, both sending the same multipart
// body to the same local service.
//
//   bench_upload large  --dir D [--mb 1024]
//   bench_upload many   --dir D [--files 1000] [--kb 1024] [--parallel 3]
//   bench_upload memory --dir D [--mb 2048]
//
// Each prints its figures and the ratio (ours against curl's throughput, or
// our peak memory above idle against curl's).

#include "platform/operationqueue.h"
#include "support/devserverprocess.h"
#include "upload/asyncuploadrequestoperation.h"
#include "upload/uploadtestsupport.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTimer>

#include <atomic>
#include <cstdio>
#include <sys/resource.h>
#include <thread>

namespace {

struct Options
{
    QString dir;
    qint64 megabytes = 0;
    int files = 1000;
    qint64 kilobytes = 1024;
    int parallel = 3;
    int rounds = 3;
};

qint64 statusKiB(qint64 pid, const char *key)
{
    QFile status(pid ? QStringLiteral("/proc/%1/status").arg(pid) : QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly)) {
        return -1;
    }
    const QByteArray wanted = QByteArray(key) + ':';
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith(wanted)) {
            return line.mid(wanted.size()).trimmed().split(' ').first().toLongLong();
        }
    }
    return -1;
}

double cpuSeconds(int who)
{
    rusage usage{};
    getrusage(who, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// CPU time of the last measurement of each side.
double g_oursCpu = 0;
double g_curlCpu = 0;

// Uploads the files with our operation, at most `parallel` at once; the
// seconds taken, or -1 when any failed.
double uploadOurs(const DevServerProcess &server, const Credentials &credentials, const QStringList &paths,
                  int parallel)
{
    OperationQueue queue;
    queue.setMaxConcurrentOperationCount(parallel);
    int done = 0;
    int failed = 0;
    QEventLoop loop;
    QElapsedTimer timer;
    timer.start();
    const double cpuBefore = cpuSeconds(RUSAGE_SELF);
    for (const QString &path : paths) {
        AsyncUploadRequestConfiguration config = uploadConfiguration(server.uploadUrl(), path, credentials);
        config.reuploadDuplicates = true;
        auto operation = std::make_shared<AsyncUploadRequestOperation>(config);
        QObject::connect(operation.get(), &AsyncUploadRequestOperation::fileLoadSucceeded, &loop, [&] {
            if (++done == paths.size()) {
                loop.quit();
            }
        });
        QObject::connect(operation.get(), &AsyncUploadRequestOperation::fileLoadFailed, &loop, [&](const Error &error) {
            std::fprintf(stderr, "upload failed: %s\n", qPrintable(error.localizedDescription()));
            ++failed;
            if (++done == paths.size()) {
                loop.quit();
            }
        });
        queue.addOperation(operation);
    }
    loop.exec();
    const double seconds = timer.nsecsElapsed() / 1e9;
    g_oursCpu = cpuSeconds(RUSAGE_SELF) - cpuBefore;
    queue.waitUntilAllOperationsAreFinished();
    return failed ? -1 : seconds;
}

// One curl transfer's options in config-file form: the same fields in the
// same order, the same file part.
QString curlTransfer(const DevServerProcess &server, const Credentials &credentials, const QString &path)
{
    const AsyncUploadRequestConfiguration c = uploadConfiguration(server.uploadUrl(), path, credentials);
    auto quoted = [](const QString &text) -> QString {
        QString escaped = text;
        escaped.replace(QLatin1Char('\\'), QStringLiteral("\\\\")).replace(QLatin1Char('"'), QStringLiteral("\\\""));
        return QLatin1Char('"') + escaped + QLatin1Char('"');
    };
    QStringList lines;
    lines << QStringLiteral("url = ") + quoted(c.uploadURL);
    lines << QStringLiteral("output = \"/dev/null\"");
    lines << QStringLiteral("write-out = \"%{http_code}\\n\"");
    lines << QStringLiteral("header = ") + quoted(QStringLiteral("User-Agent: ") + c.userAgent);
    // Both sides send the body at once.
    lines << QStringLiteral("header = \"Expect:\"");
    const QList<QPair<QString, QString>> fields{{"client", c.clientName},           {"device_name", c.deviceName},
                                                {"user_agent", c.userAgent},        {"version", c.versionString},
                                                {"file_path", c.sanitizedFilePath}, {"reupload", "1"}};
    for (const auto &[name, value] : fields) {
        lines << QStringLiteral("form-string = ") + quoted(name + QLatin1Char('=') + value);
    }
    lines << QStringLiteral("form = ") +
                 quoted(QStringLiteral("file=@%1;filename=%2;type=%3")
                            .arg(path, QFileInfo(path).fileName(), AsyncUploadRequestOperation::mimeTypeForPath(path)));
    lines << QStringLiteral("form-string = ") + quoted(QStringLiteral("user_id=") + credentials.userId);
    lines << QStringLiteral("form-string = ") + quoted(QStringLiteral("token=") + credentials.token);
    return lines.join(QLatin1Char('\n'));
}

struct CurlRun
{
    double seconds = -1;
    qint64 peakKiB = -1;
};

// Runs one curl process for all the files, `parallel` transfers at once.
CurlRun uploadCurl(const DevServerProcess &server, const Credentials &credentials, const QStringList &paths,
                   int parallel, const QString &workDir)
{
    QStringList transfers;
    for (const QString &path : paths) {
        transfers << curlTransfer(server, credentials, path);
    }
    const QString configPath = workDir + QStringLiteral("/curl.config");
    QFile config(configPath);
    if (!config.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        return {};
    }
    config.write(transfers.join(QStringLiteral("\nnext\n")).toUtf8() + '\n');
    config.close();

    QStringList arguments{QStringLiteral("-s"), QStringLiteral("-K"), configPath};
    if (parallel > 1) {
        arguments << QStringLiteral("--parallel") << QStringLiteral("--parallel-max") << QString::number(parallel);
    }
    QProcess curl;
    CurlRun run;
    QElapsedTimer timer;
    timer.start();
    const double cpuBefore = cpuSeconds(RUSAGE_CHILDREN);
    curl.start(QStringLiteral("curl"), arguments);
    if (!curl.waitForStarted()) {
        return {};
    }
    const qint64 pid = curl.processId();
    while (!curl.waitForFinished(10)) {
        run.peakKiB = std::max(run.peakKiB, statusKiB(pid, "VmHWM"));
    }
    run.seconds = timer.nsecsElapsed() / 1e9;
    g_curlCpu = cpuSeconds(RUSAGE_CHILDREN) - cpuBefore;
    const QList<QByteArray> codes = curl.readAllStandardOutput().trimmed().split('\n');
    if (curl.exitCode() != 0 || codes.size() != paths.size() || codes.count("200") != paths.size()) {
        std::fprintf(stderr, "curl failed: exit %d, %lld answers, %lld of them 200\n", curl.exitCode(),
                     qint64(codes.size()), qint64(codes.count("200")));
        run.seconds = -1;
    }
    return run;
}

// Runs one measurement against a service of its own, in a fresh data folder,
// so each side meets an empty library (the service rewrites its library file
// on every upload, which grows with the library).
template <class Measure>
auto withFreshServer(const Options &options, Measure measure)
    -> decltype(measure(std::declval<const DevServerProcess &>(), std::declval<const Credentials &>()))
{
    static int serial = 0;
    const QString dataDir = options.dir + QStringLiteral("/server-%1").arg(++serial);
    QDir().mkpath(dataDir);
    DevServerProcess server;
    using Result = decltype(measure(server, Credentials()));
    if (!server.start(dataDir)) {
        std::fprintf(stderr, "devserver: %s\n", qPrintable(server.errorString()));
        return Result();
    }
    const Credentials credentials = server.signInDemo();
    if (credentials.token.isEmpty()) {
        std::fprintf(stderr, "sign-in failed\n");
        return Result();
    }
    Result result = measure(server, credentials);
    server.stop();
    QDir(dataDir).removeRecursively();
    return result;
}

struct Best
{
    double ours = 1e300;
    double curl = 1e300;
    qint64 curlPeakKiB = -1;
    bool failed = false;
};

// Alternating rounds (each side goes first in turn), best of each: the
// machine is shared.
Best bestOf(const Options &options, const QStringList &paths, int parallel)
{
    Best best;
    for (int round = 0; round < options.rounds && !best.failed; ++round) {
        auto ours = [&] {
            const double seconds = withFreshServer(options, [&](const DevServerProcess &server, const Credentials &c) {
                return uploadOurs(server, c, paths, parallel);
            });
            best.failed |= seconds <= 0;
            best.ours = std::min(best.ours, seconds);
        };
        auto curl = [&] {
            const CurlRun run = withFreshServer(options, [&](const DevServerProcess &server, const Credentials &c) {
                return uploadCurl(server, c, paths, parallel, options.dir);
            });
            best.failed |= run.seconds <= 0;
            best.curl = std::min(best.curl, run.seconds);
            best.curlPeakKiB = std::max(best.curlPeakKiB, run.peakKiB);
        };
        if (round % 2 == 0) {
            ours();
            curl();
        } else {
            curl();
            ours();
        }
    }
    return best;
}

void printThroughput(const char *what, qint64 bytes, double ours, double curl)
{
    const double mb = double(bytes) / (1024 * 1024);
    std::printf("%s: ours %.2f s (%.1f MB/s), curl %.2f s (%.1f MB/s), throughput ratio ours/curl %.2f\n", what, ours,
                mb / ours, curl, mb / curl, curl / ours);
    std::printf("  CPU time of the last run: ours %.2f s, curl %.2f s\n", g_oursCpu, g_curlCpu);
}

int runLarge(const Options &options)
{
    const qint64 bytes = options.megabytes * 1024 * 1024;
    const QString path = options.dir + QStringLiteral("/large.flac");
    if (!writePatternFile(path, bytes, 7)) {
        return 1;
    }
    const Best best = bestOf(options, {path}, 1);
    QFile::remove(path);
    if (best.failed) {
        return 1;
    }
    printThroughput(
        qPrintable(QStringLiteral("one file of %1 MB, best of %2").arg(options.megabytes).arg(options.rounds)), bytes,
        best.ours, best.curl);
    return 0;
}

int runMany(const Options &options)
{
    QStringList paths;
    const QString folder = options.dir + QStringLiteral("/many");
    QDir().mkpath(folder);
    for (int i = 0; i < options.files; ++i) {
        paths << folder + QStringLiteral("/track %1.mp3").arg(i, 4, 10, QLatin1Char('0'));
        if (!writePatternFile(paths.last(), options.kilobytes * 1024, quint32(100 + i))) {
            return 1;
        }
    }
    const Best best = bestOf(options, paths, options.parallel);
    QDir(folder).removeRecursively();
    if (best.failed) {
        return 1;
    }
    printThroughput(qPrintable(QStringLiteral("%1 files of %2 KB, %3 at once, best of %4")
                                   .arg(options.files)
                                   .arg(options.kilobytes)
                                   .arg(options.parallel)
                                   .arg(options.rounds)),
                    options.kilobytes * 1024 * options.files, best.ours, best.curl);
    std::printf("  files per second: ours %.0f, curl %.0f\n", options.files / best.ours, options.files / best.curl);
    return 0;
}

int runMemory(const Options &options)
{
    const qint64 bytes = options.megabytes * 1024 * 1024;
    const QString path = options.dir + QStringLiteral("/memory.flac");
    if (!writePatternFile(path, bytes, 9)) {
        return 1;
    }
    // Ours first, in this still fresh process: idle is what it holds before
    // the upload.
    const qint64 idle = statusKiB(0, "VmRSS");
    std::atomic<bool> sampling{true};
    std::atomic<qint64> peak{idle};
    std::thread sampler([&] {
        while (sampling) {
            peak = std::max(peak.load(), statusKiB(0, "VmRSS"));
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    const double ours = withFreshServer(options, [&](const DevServerProcess &server, const Credentials &c) {
        return uploadOurs(server, c, {path}, 1);
    });
    sampling = false;
    sampler.join();
    const CurlRun curl = withFreshServer(options, [&](const DevServerProcess &server, const Credentials &c) {
        return uploadCurl(server, c, {path}, 1, options.dir);
    });
    QFile::remove(path);
    if (ours <= 0 || curl.seconds <= 0) {
        return 1;
    }
    const double growthMiB = double(peak - idle) / 1024;
    std::printf("memory while sending %lld MB: ours idle %.1f MiB, peak %.1f MiB, %.1f MiB above idle "
                "(target < 64); curl peak %.1f MiB; ratio ours-above-idle/curl-peak %.2f\n",
                options.megabytes, idle / 1024.0, peak / 1024.0, growthMiB, curl.peakKiB / 1024.0,
                growthMiB / (curl.peakKiB / 1024.0));
    printThroughput(qPrintable(QStringLiteral("one file of %1 MB").arg(options.megabytes)), bytes, ours, curl.seconds);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.addPositionalArgument(QStringLiteral("mode"), QStringLiteral("large, many or memory"));
    const QCommandLineOption dirOption(QStringLiteral("dir"), QStringLiteral("work folder"), QStringLiteral("dir"));
    const QCommandLineOption mbOption(QStringLiteral("mb"), QStringLiteral("file size in MB"), QStringLiteral("mb"));
    const QCommandLineOption filesOption(QStringLiteral("files"), QStringLiteral("file count"), QStringLiteral("n"));
    const QCommandLineOption kbOption(QStringLiteral("kb"), QStringLiteral("size of each file in KB"),
                                      QStringLiteral("kb"));
    const QCommandLineOption parallelOption(QStringLiteral("parallel"), QStringLiteral("uploads at once"),
                                            QStringLiteral("n"));
    const QCommandLineOption roundsOption(QStringLiteral("rounds"), QStringLiteral("alternating rounds, best taken"),
                                          QStringLiteral("n"));
    parser.addOptions({dirOption, mbOption, filesOption, kbOption, parallelOption, roundsOption});
    parser.addHelpOption();
    parser.process(app);
    const QStringList positional = parser.positionalArguments();
    if (positional.size() != 1 || !parser.isSet(dirOption)) {
        parser.showHelp(2);
    }
    Options options;
    options.dir = parser.value(dirOption);
    QDir().mkpath(options.dir);
    const QString mode = positional.first();
    options.megabytes = parser.isSet(mbOption) ? parser.value(mbOption).toLongLong() : (mode == "memory" ? 2048 : 1024);
    if (parser.isSet(filesOption)) {
        options.files = parser.value(filesOption).toInt();
    }
    if (parser.isSet(kbOption)) {
        options.kilobytes = parser.value(kbOption).toLongLong();
    }
    if (parser.isSet(parallelOption)) {
        options.parallel = parser.value(parallelOption).toInt();
    }
    if (parser.isSet(roundsOption)) {
        options.rounds = std::max(1, parser.value(roundsOption).toInt());
    }
    if (mode == QLatin1String("large")) {
        return runLarge(options);
    }
    if (mode == QLatin1String("many")) {
        return runMany(options);
    }
    if (mode == QLatin1String("memory")) {
        return runMemory(options);
    }
    parser.showHelp(2);
}
