// One upload run of many small files (100,000 by default) through the session
// model against the local service, as the window runs it: sign-in, scan,
// digest check and uploads, six at a time. Prints files per second over the
// first and the last tenth of the completed uploads and their ratio; a run
// that slows down as it goes (a cost per file that grows with the files done)
// shows as a ratio well below 1.
//
//   bench_scale --dir D [--files 100000] [--threads 6]

#include "fingerprint/md5cache.h"
#include "session/sessionmodel.h"
#include "support/devserverprocess.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QTimer>

#include <cstdio>

namespace {

bool makeFiles(const QString &root, int count)
{
    for (int i = 0; i < count; ++i) {
        const QString folder = QStringLiteral("%1/Artist %2").arg(root).arg(i / 1000);
        if (i % 1000 == 0 && !QDir().mkpath(folder)) {
            return false;
        }
        QFile file(QStringLiteral("%1/%2 Track.mp3").arg(folder).arg(i, 6, 10, QLatin1Char('0')));
        if (!file.open(QIODevice::WriteOnly) ||
            file.write(QByteArray("scale bench file ") + QByteArray::number(i) + QByteArray(48, '\n')) <= 0) {
            return false;
        }
    }
    return true;
}

// Waits until `done` holds, running the event loop; false after `timeoutMs`.
bool waitFor(const std::function<bool()> &done, qint64 timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > timeoutMs) {
            return false;
        }
        QEventLoop loop;
        QTimer::singleShot(20, &loop, &QEventLoop::quit);
        loop.exec();
    }
    return true;
}

double rate(const QList<qint64> &times, qsizetype from, qsizetype to)
{
    const double seconds = double(times.at(to - 1) - times.at(from)) / 1000.0;
    return seconds <= 0 ? 0 : double(to - from - 1) / seconds;
}

} // namespace

int main(int argc, char *argv[])
{
    QCommandLineParser parser;
    parser.addOption({QStringLiteral("dir"), QStringLiteral("work folder"), QStringLiteral("D")});
    parser.addOption(
        {QStringLiteral("files"), QStringLiteral("file count"), QStringLiteral("N"), QStringLiteral("100000")});
    parser.addOption(
        {QStringLiteral("threads"), QStringLiteral("simultaneous uploads"), QStringLiteral("N"), QStringLiteral("6")});
    QStringList arguments;
    for (int i = 0; i < argc; ++i) {
        arguments << QString::fromLocal8Bit(argv[i]);
    }
    parser.process(arguments);
    const QString dir = parser.value(QStringLiteral("dir"));
    const int count = parser.value(QStringLiteral("files")).toInt();
    if (dir.isEmpty() || count < 20) {
        std::fprintf(stderr, "usage: bench_scale --dir D [--files N>=20] [--threads 1-6]\n");
        return 2;
    }
    // The program's log and digest cache go to the work folder.
    qputenv("XDG_DATA_HOME", QFile::encodeName(dir + QStringLiteral("/data")));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(dir + QStringLiteral("/config")));
    QCoreApplication app(argc, argv);

    DevServerProcess server;
    if (!server.start(dir + QStringLiteral("/server"))) {
        std::fprintf(stderr, "devserver: %s\n", qPrintable(server.errorString()));
        return 1;
    }
    const QString music = dir + QStringLiteral("/music");
    QElapsedTimer step;
    step.start();
    if (!makeFiles(music, count)) {
        std::fprintf(stderr, "cannot write the files\n");
        return 1;
    }
    std::printf("made %d files in %.1f s\n", count, step.elapsed() / 1000.0);

    SessionModel model;
    model.attachToService();
    model.setEmail(QString::fromLatin1(DevServerProcess::kDemoEmail));
    model.setPassword(QString::fromLatin1(DevServerProcess::kDemoPassword));
    model.OnLogin();
    if (!waitFor([&] { return model.mainPageType() == MainPageTypeSearch; }, 30000)) {
        std::fprintf(stderr, "sign-in failed\n");
        return 1;
    }
    step.restart();
    model.setSearchFolderPath({music});
    model.OnSearchFolder();
    waitFor([&] { return !model.isFileSearchInProgress(); }, 600000);
    std::printf("scanned %lld files in %.1f s\n", qint64(model.foundFiles().size()), step.elapsed() / 1000.0);

    QList<qint64> completions;
    completions.reserve(count);
    QElapsedTimer run;
    QObject::connect(&model, &SessionModel::uploadFinished, &model, [&](const QString &, const OptionalError &error) {
        if (!error) {
            completions.append(run.elapsed());
        }
    });
    bool ended = false;
    QObject::connect(&model, &SessionModel::uploadEnded, &model, [&] { ended = true; });
    run.start();
    model.OnReuploadChecked(true);
    model.OnUploadFiles(parser.value(QStringLiteral("threads")), QString(), QString());
    qsizetype reported = 0;
    waitFor(
        [&] {
            if (completions.size() >= reported + count / 10) {
                reported = completions.size();
                std::printf("  %lld uploaded after %.1f s\n", qint64(reported), run.elapsed() / 1000.0);
                std::fflush(stdout);
            }
            return ended;
        },
        48LL * 3600 * 1000);
    model.saveDigestCacheNow();

    const qsizetype n = completions.size();
    std::printf("uploaded %lld of %d files in %.1f s (errored %lld); digest cache written %d times\n", qint64(n), count,
                run.elapsed() / 1000.0, qint64(model.erroredFiles().size()),
                MD5Cache::sharedCacheIfMade() ? MD5Cache::sharedCacheIfMade()->saveCount() : 0);
    if (n < 20) {
        return 1;
    }
    const qsizetype tenth = n / 10;
    std::printf("files/s per tenth:");
    for (int i = 0; i < 10; ++i) {
        std::printf(" %.1f", rate(completions, i * tenth, (i + 1) * tenth));
    }
    std::printf("\n");
    const double first = rate(completions, 0, tenth);
    const double last = rate(completions, n - tenth, n);
    std::printf("files/s: first tenth %.1f, last tenth %.1f, ratio %.2f\n", first, last, first > 0 ? last / first : 0);
    return n == count ? 0 : 1;
}
