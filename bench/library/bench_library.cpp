// Library download benchmark: Pelicane's download (segments streamed to disk,
// end marker checked, each archive extracted while the next one downloads)
// against curl fetching the same segments followed by unzip, on one local
// service, one after the other in the same run.
#include "library/librarytestsupport.h"

#include "library/downloadlibrarymodel.h"
#include "protocol/endpoints.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QJsonArray>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTextStream>
#include <QTimer>

#include <unistd.h>

namespace {

QTextStream out(stdout);

struct Options
{
    int tracks = 120;
    qint64 megabytes = 600;
    int rounds = 2;
};

Options parse(const QStringList &arguments)
{
    Options options;
    for (int i = 1; i + 1 < arguments.size(); i += 2) {
        const QString name = arguments.at(i);
        const qint64 value = arguments.at(i + 1).toLongLong();
        if (name == QLatin1String("--tracks")) {
            options.tracks = int(value);
        } else if (name == QLatin1String("--megabytes")) {
            options.megabytes = value;
        } else if (name == QLatin1String("--rounds")) {
            options.rounds = int(value);
        }
    }
    return options;
}

bool seed(const DevServerProcess &server, int tracks, qint64 bytes)
{
    const qint64 each = bytes / tracks;
    constexpr int kBatch = 10;
    for (int first = 0; first < tracks; first += kBatch) {
        QJsonArray files;
        for (int i = first; i < std::min(tracks, first + kBatch); ++i) {
            files.append(QJsonObject{{"name", QStringLiteral("Track %1.flac").arg(i + 1, 3, 10, QLatin1Char('0'))},
                                     {"size", each}});
        }
        if (server.seed(files).size() != files.size()) {
            return false;
        }
    }
    return true;
}

qint64 folderBytes(const QString &folder)
{
    qint64 total = 0;
    for (const QString &file : LibraryTest::filesUnder(folder)) {
        if (!file.endsWith(QLatin1String(".json"))) {
            total += QFileInfo(QDir(folder).filePath(file)).size();
        }
    }
    return total;
}

// curl fetches each segment to a file, then unzip extracts each one.
double runPeer(const LibraryTest::Identity &identity, int tracks, const QString &folder)
{
    QElapsedTimer clock;
    clock.start();
    QStringList archives;
    const auto chunks = DownloadLibraryModel::chunksFrom(0, tracks);
    for (const auto &[offset, length] : chunks) {
        QString url =
            Endpoints::libraryDownloadURL(identity.userId, identity.token, Endpoints::LibrarySegment{offset, length})
                .toString(QUrl::FullyEncoded);
        url.replace(QLatin1String("&end_marker=1"), QLatin1String("&end_marker=0"));
        const QString archive = QDir(folder).filePath(QStringLiteral("segment-%1.zip").arg(offset));
        if (QProcess::execute(QStringLiteral("curl"), {QStringLiteral("-sSf"), QStringLiteral("-o"), archive, url}) !=
            0) {
            return -1;
        }
        archives.append(archive);
    }
    const QString target = QDir(folder).filePath(QStringLiteral("My Lyrabox Library"));
    for (const QString &archive : archives) {
        if (QProcess::execute(QStringLiteral("unzip"),
                              {QStringLiteral("-qo"), archive, QStringLiteral("-d"), target}) != 0) {
            return -1;
        }
        QFile::remove(archive);
    }
    return clock.elapsed() / 1000.0;
}

double runPelicane(const LibraryTest::Identity &identity, const QString &folder)
{
    DownloadLibraryModel model(QUrl::fromLocalFile(folder), identity.userId, identity.token, nullptr);
    QEventLoop loop;
    bool failed = false;
    QObject::connect(&model, &DownloadLibraryModel::completed, &loop, &QEventLoop::quit);
    QObject::connect(&model, &DownloadLibraryModel::chunkFailed, &loop, [&] {
        failed = true;
        loop.quit();
    });
    QElapsedTimer clock;
    clock.start();
    model.start();
    loop.exec();
    return failed ? -1 : clock.elapsed() / 1000.0;
}

// Peak resident memory of this process, in MiB (it runs the download).
double peakResidentMiB()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly)) {
        return -1;
    }
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith("VmHWM:")) {
            return line.mid(6).trimmed().split(' ').first().toDouble() / 1024.0;
        }
    }
    return -1;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const Options options = parse(app.arguments());
    const qint64 bytes = options.megabytes * 1000 * 1000;

    DevServerProcess server;
    if (!server.start()) {
        out << "cannot start the local service: " << server.errorString() << Qt::endl;
        return 1;
    }
    const LibraryTest::Identity identity = server.signInDemo();
    out << "seeding " << options.tracks << " tracks, " << options.megabytes << " MB..." << Qt::endl;
    if (identity.token.isEmpty() || !seed(server, options.tracks, bytes)) {
        out << "cannot prepare the library" << Qt::endl;
        return 1;
    }
    qint64 libraryBytes = 0;
    for (const QJsonValue &file : server.library().value("files").toArray()) {
        libraryBytes += file.toObject().value("size").toInteger();
    }

    double bestPeer = 0;
    double bestOurs = 0;
    for (int round = 1; round <= options.rounds; ++round) {
        QTemporaryDir peerFolder(QDir::tempPath() + QStringLiteral("/bench-library-peer-XXXXXX"));
        ::sync();
        const double peer = runPeer(identity, options.tracks, peerFolder.path());
        const qint64 peerBytes = folderBytes(QDir(peerFolder.path()).filePath(QStringLiteral("My Lyrabox Library")));
        peerFolder.remove();
        ::sync();

        QTemporaryDir ourFolder(QDir::tempPath() + QStringLiteral("/bench-library-ours-XXXXXX"));
        const double ours = runPelicane(identity, ourFolder.path());
        const QString library = QDir(ourFolder.path()).filePath(QStringLiteral("My Lyrabox Library"));
        const qint64 ourBytes = folderBytes(library);
        const bool identical = LibraryTest::compareWithLibrary(server, library).isEmpty();
        ourFolder.remove();

        if (peer <= 0 || ours <= 0 || peerBytes != libraryBytes || ourBytes != libraryBytes || !identical) {
            out << "round " << round << " failed (peer " << peer << " s, " << peerBytes << " B; ours " << ours << " s, "
                << ourBytes << " B, identical " << identical << ")" << Qt::endl;
            return 1;
        }
        const double peerRate = libraryBytes / peer / 1e6;
        const double ourRate = libraryBytes / ours / 1e6;
        bestPeer = std::max(bestPeer, peerRate);
        bestOurs = std::max(bestOurs, ourRate);
        out << QStringLiteral("round %1: curl+unzip %2 s (%3 MB/s), pelicane %4 s (%5 MB/s), ratio %6")
                   .arg(round)
                   .arg(peer, 0, 'f', 2)
                   .arg(peerRate, 0, 'f', 1)
                   .arg(ours, 0, 'f', 2)
                   .arg(ourRate, 0, 'f', 1)
                   .arg(ourRate / peerRate, 0, 'f', 2)
            << Qt::endl;
    }
    out << QStringLiteral("library: %1 tracks, %2 bytes; best curl+unzip %3 MB/s, best pelicane %4 MB/s; "
                          "throughput ratio pelicane / (curl+unzip) = %5")
               .arg(options.tracks)
               .arg(libraryBytes)
               .arg(bestPeer, 0, 'f', 1)
               .arg(bestOurs, 0, 'f', 1)
               .arg(bestOurs / bestPeer, 0, 'f', 2)
        << Qt::endl;
    out << QStringLiteral("peak resident memory of the downloading process: %1 MiB").arg(peakResidentMiB(), 0, 'f', 1)
        << Qt::endl;
    return 0;
}
