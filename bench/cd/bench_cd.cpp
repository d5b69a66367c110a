// Ripping and encoding speed against the standard tools doing the same work:
//   bench_cd rip  [--minutes M] [--dir D]   our engine vs "cd-paranoia" on one image
//   bench_cd flac [--minutes M] [--dir D]   FLACEncoder vs "flac -5 -V" on its audio
// Each prints both times and the ratio (tool time / our time; above 1 is faster).

#include "audio/cdripper.h"
#include "audio/flacencoder.h"
#include "benchtool.h"
#include "support/discimage.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

#include <cstdio>
#include <cstring>

namespace {

constexpr int kTrackMinutes = 4;

// A disc of minutes of audio in four-minute tracks (the last one shorter).
DiscImage makeImage(const QString &dir, int minutes)
{
    QList<int> sectors;
    for (int left = minutes; left > 0; left -= kTrackMinutes) {
        sectors.append(std::min(left, kTrackMinutes) * 60 * 75);
    }
    DiscImage::Options options = DiscImage::audioOptions(sectors);
    options.title = QStringLiteral("Benchmark");
    const QString cue = dir + QStringLiteral("/bench.cue");
    QElapsedTimer timer;
    timer.start();
    DiscImage image = DiscImage::create(dir, QStringLiteral("bench"), options);
    std::printf("image: %d tracks, %d sectors (%.1f MB), written in %.2f s\n", image.trackCount(), image.totalSectors(),
                double(image.totalSectors()) * 2352 / 1e6, timer.elapsed() / 1000.0);
    return image;
}

// Rips every track as the CD upload does (full paranoia, 5 retries); checks
// each against the image outside the timed part.
double ripWithEngine(const DiscImage &image, bool *exact)
{
    CdIo_t *disc = cdio_open(image.cuePath().toLocal8Bit().constData(), DRIVER_UNKNOWN);
    if (!disc) {
        return -1;
    }
    RipSettings settings;
    settings.readRetries = 5;
    RipContext *context = nullptr;
    double seconds = 0;
    *exact = true;
    QElapsedTimer timer;
    timer.start();
    if (ripOpen(&context, &settings, disc) != 0) {
        cdio_destroy(disc);
        return -1;
    }
    seconds += timer.nsecsElapsed() / 1e9;
    quint64 sectorsSeen = 0;
    for (int i = 0; i < image.trackCount(); ++i) {
        RipTrack *track = ripTrackRecord(context, uint32_t(image.firstTrackNumber() + i));
        timer.restart();
        const int status = ripTrack(
            context, track, [&](int32_t, int32_t, const int16_t *samples, bool *) { sectorsSeen += samples ? 1 : 0; },
            nullptr);
        seconds += timer.nsecsElapsed() / 1e9;
        if (status != 0) {
            *exact = false;
            break;
        }
        const QByteArray expected = image.trackBytes(i);
        *exact = *exact && std::memcmp(track->audio, expected.constData(), size_t(expected.size())) == 0;
        ripReleaseTrack(track);
    }
    timer.restart();
    ripFree(&context);
    seconds += timer.nsecsElapsed() / 1e9;
    cdio_destroy(disc);
    *exact = *exact && sectorsSeen == quint64(image.totalSectors());
    return seconds;
}

// Feeds the image's audio to one encoder a sector at a time, as a rip does.
double encodeWithFLACEncoder(const DiscImage &image, qint64 *size)
{
    QFile bin(image.binPath());
    if (!bin.open(QIODevice::ReadOnly)) {
        return -1;
    }
    PLCID3Tag tags;
    tags.setTitle(QStringLiteral("Benchmark"));
    tags.setTrack(1);
    tags.setTotalTracks(1);
    QElapsedTimer timer;
    timer.start();
    FLACEncoder encoder;
    if (encoder.configureWithSampleCount(quint64(bin.size() / 4), tags, nullptr,
                                         [size](const QUrl &url) { *size = QFileInfo(url.toLocalFile()).size(); })) {
        return -1;
    }
    QByteArray chunk(75 * 2352, Qt::Uninitialized);
    qint64 got;
    while ((got = bin.read(chunk.data(), chunk.size())) > 0) {
        const auto *samples = reinterpret_cast<const int16_t *>(chunk.constData());
        for (qint64 offset = 0; offset < got / 2; offset += 1176) {
            encoder.processSamples(samples + offset, size_t(std::min<qint64>(1176, got / 2 - offset)));
        }
    }
    if (encoder.finish()) {
        return -1;
    }
    return timer.nsecsElapsed() / 1e9;
}

void printRatio(const char *what, const char *tool, double ours, double theirs, double target)
{
    const double ratio = theirs / ours;
    std::printf("%s: ours %.2f s, %s %.2f s, ratio %.2f (target >= %.2f) %s\n", what, ours, tool, theirs, ratio, target,
                ratio >= target ? "OK" : "BELOW TARGET");
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    const QString mode = args.value(1);
    int minutes = 40;
    QString dir;
    for (int i = 2; i + 1 < args.size(); i += 2) {
        if (args.at(i) == QLatin1String("--minutes")) {
            minutes = args.at(i + 1).toInt();
        } else if (args.at(i) == QLatin1String("--dir")) {
            dir = args.at(i + 1);
        }
    }
    if ((mode != QLatin1String("rip") && mode != QLatin1String("flac")) || minutes < 1) {
        std::fprintf(stderr, "usage: bench_cd rip|flac [--minutes M] [--dir D]\n");
        return 2;
    }
    QTemporaryDir temporary;
    if (dir.isEmpty()) {
        dir = temporary.path();
    }
    const DiscImage image = makeImage(dir, minutes);
    if (!image.isValid()) {
        std::fprintf(stderr, "could not write the image in %s\n", qPrintable(dir));
        return 1;
    }

    if (mode == QLatin1String("rip")) {
        bool exact = false;
        const double ours = ripWithEngine(image, &exact);
        const double theirs = runTool(QStringLiteral("cd-paranoia"),
                                      {QStringLiteral("-q"), QStringLiteral("-d"), image.cuePath(),
                                       QStringLiteral("-r"), QStringLiteral("1-"), QStringLiteral("/dev/null")});
        if (ours <= 0 || theirs <= 0) {
            return 1;
        }
        std::printf("rip of %d minutes bit-exact: %s\n", minutes, exact ? "yes" : "NO");
        printRatio("rip", "cd-paranoia", ours, theirs, 0.8);
        return exact ? 0 : 1;
    }

    qint64 ourSize = 0;
    const double ours = encodeWithFLACEncoder(image, &ourSize);
    const QString output = dir + QStringLiteral("/bench-reference.flac");
    const double theirs =
        runTool(QStringLiteral("flac"),
                {QStringLiteral("-5"), QStringLiteral("-V"), QStringLiteral("-f"), QStringLiteral("--silent"),
                 QStringLiteral("--force-raw-format"), QStringLiteral("--endian=little"),
                 QStringLiteral("--sign=signed"), QStringLiteral("--channels=2"), QStringLiteral("--bps=16"),
                 QStringLiteral("--sample-rate=44100"), QStringLiteral("-o"), output, image.binPath()});
    if (ours <= 0 || theirs <= 0) {
        return 1;
    }
    std::printf("flac of %d minutes: ours %lld bytes, flac %lld bytes\n", minutes, static_cast<long long>(ourSize),
                static_cast<long long>(QFileInfo(output).size()));
    QFile::remove(output);
    printRatio("flac", "flac -5 -V", ours, theirs, 0.9);
    return 0;
}
