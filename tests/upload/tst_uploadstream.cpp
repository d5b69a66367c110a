// The multipart envelopes, the pull-style UploadStream and the upload body device, byte for
// byte.
#include "core/logger.h"
#include "upload/uploadbodydevice.h"
#include "upload/uploadstream.h"

#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

namespace {

const QByteArray kB = "---------------------------14737809831466499882746641449";

QByteArray field(const QByteArray &name, const QByteArray &value)
{
    return "--" + kB + "\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" + value + "\r\n";
}

QByteArray filePart(const QByteArray &name, const QByteArray &type)
{
    return "--" + kB + "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"" + name +
           "\"\r\nContent-Type: " + type + "\r\n\r\n";
}

AsyncUploadRequestConfiguration configuration(const QString &path)
{
    AsyncUploadRequestConfiguration c;
    c.uploadURL = QStringLiteral("http://127.0.0.1:1/upload/");
    c.filePath = path;
    c.sanitizedFilePath = path;
    c.userId = QStringLiteral("1001");
    c.userToken = QStringLiteral("tok&en");
    c.clientName = QStringLiteral("pelicane mac");
    c.deviceName = QStringLiteral("Pelicane for Mac 2.1");
    c.userAgent = QStringLiteral("Lyrabox pelicane mac 2.1 (57)");
    c.versionString = QStringLiteral("2.1 (57)");
    return c;
}

const QByteArray kPlainStart = field("client", "pelicane mac") + field("device_name", "Pelicane for Mac 2.1") +
                               field("user_agent", "Lyrabox pelicane mac 2.1 (57)") + field("version", "2.1 (57)");
const QByteArray kEnd = "\r\n" + field("user_id", "1001") + field("token", "tok&en") + "--" + kB + "--\r\n";

class EventRecorder : public StreamDelegate
{
public:
    QList<int> events;
    void streamHandleEvent(UploadStream *, StreamEvent event) override { events << int(event); }
};

bool writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

QByteArray readAllFrom(UploadStream &stream, qint64 capacity)
{
    QByteArray out;
    QByteArray buffer(int(capacity), '\0');
    for (qint64 n = 0; (n = stream.read(buffer.data(), capacity)) > 0;) {
        out += buffer.left(int(n));
    }
    return out;
}

} // namespace

class TestUploadStream : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

private slots:
    void envelopes()
    {
        AsyncUploadRequestConfiguration c = configuration(QStringLiteral("/music/a/Song.mp3"));
        QCOMPARE(UploadStream::beginMultipartDataUpload(c),
                 kPlainStart + field("file_path", "/music/a/Song.mp3") + filePart("Song.mp3", "audio/mpeg"));
        QCOMPARE(UploadStream::endMultipartDataUpload(c), kEnd);

        // Optional fields in their order; values go in as they stand (quotes unescaped).
        c.sanitizedFilePath = QStringLiteral("/Volumes/Blue/Song.mp3");
        c.createPlaylistName = QStringLiteral("Road \"Trip\"");
        c.playlistOrder = QStringLiteral("123456");
        c.createTagName = QStringLiteral("Tag");
        c.reuploadDuplicates = true;
        QCOMPARE(UploadStream::beginMultipartDataUpload(c),
                 kPlainStart + field("file_path", "/Volumes/Blue/Song.mp3") + field("playlist-name", "Road \"Trip\"") +
                     field("playlist-order", "123456") + field("tag-name", "Tag") + field("reupload", "1") +
                     filePart("Song.mp3", "audio/mpeg"));
        QCOMPARE(UploadStream::endMultipartDataUpload(c), kEnd);
    }

    void fileNameAndType()
    {
        // The file name is percent-encoded, the path field is not.
        const QByteArray start =
            UploadStream::beginMultipartDataUpload(configuration(QStringLiteral("/m/My Song (é)&1.m4a")));
        QVERIFY(start.endsWith(filePart("My%20Song%20%28%C3%A9%29%261.m4a", "audio/mp4")));
        QVERIFY(start.contains(field("file_path", "/m/My Song (\xc3\xa9)&1.m4a")));

        // A CD track is named after its title but typed by its path.
        AsyncUploadRequestConfiguration c = configuration(QStringLiteral("/dev/sr0/3 Audio Track.aiff"));
        PLCID3Tag tags;
        tags.setTitle(QStringLiteral("Blue Moon"));
        c.ID3Tags = tags;
        QVERIFY(UploadStream::beginMultipartDataUpload(c).endsWith(filePart("Blue%20Moon.flac", "audio/aiff")));
    }

    void readsWholeBodyAndEndsWithEvents()
    {
        const QString path = m_dir.filePath(QStringLiteral("whole.mp3"));
        QByteArray content;
        for (int i = 0; i < 10000; ++i) {
            content += char(i * 7);
        }
        QVERIFY(writeFile(path, content));
        const AsyncUploadRequestConfiguration c = configuration(path);
        const QByteArray start = UploadStream::beginMultipartDataUpload(c);
        const QByteArray end = UploadStream::endMultipartDataUpload(c);

        UploadStream stream(c);
        EventRecorder recorder;
        stream.setDelegate(&recorder);
        stream.scheduleInRunLoop();
        QCOMPARE(stream.streamStatus(), StreamStatus::NotOpen);
        stream.open();
        QCOMPARE(stream.streamStatus(), StreamStatus::Open);
        QVERIFY(stream.hasBytesAvailable());
        QTRY_COMPARE(recorder.events, QList<int>{1});
        recorder.events.clear();

        // 700 bytes at a time: the start envelope ends short, the file follows in its own
        // reads, and the end envelope comes whole in the last read.
        QByteArray body;
        QList<qint64> counts;
        QByteArray buffer(700, '\0');
        while (stream.streamStatus() != StreamStatus::AtEnd) {
            const qint64 n = stream.read(buffer.data(), buffer.size());
            QVERIFY(n > 0);
            counts << n;
            body += buffer.left(int(n));
        }
        QCOMPARE(body, start + content + end);
        QCOMPARE(counts.first(), qint64(qMin(700, int(start.size()))));
        QCOMPARE(counts.last(), qint64(end.size()));
        QVERIFY(!stream.hasBytesAvailable());
        QVERIFY(!stream.streamError());
        // Many reads before the events are delivered make one delivery: bytes, then end.
        QTRY_COMPARE(recorder.events, (QList<int>{2, 16}));
        stream.close();
        QCOMPARE(stream.streamStatus(), StreamStatus::Closed);
    }

    void smallReadsAndShortFiles()
    {
        const QString path = m_dir.filePath(QStringLiteral("one.wav"));
        QVERIFY(writeFile(path, "abc"));
        AsyncUploadRequestConfiguration c = configuration(path);
        const QByteArray end = UploadStream::endMultipartDataUpload(c);
        {
            // A capacity of one never yields the end envelope; room for all of it does.
            UploadStream stream(c);
            stream.open();
            QCOMPARE(readAllFrom(stream, 1), UploadStream::beginMultipartDataUpload(c) + "abc");
            QVERIFY(stream.streamStatus() != StreamStatus::AtEnd);
            QByteArray buffer(end.size() - 1, '\0');
            QCOMPARE(stream.read(buffer.data(), buffer.size()), qint64(0));
            buffer.resize(end.size());
            QCOMPARE(stream.read(buffer.data(), buffer.size()), qint64(end.size()));
            QCOMPARE(buffer, end);
            QCOMPARE(stream.streamStatus(), StreamStatus::AtEnd);
        }
        // Empty, missing, or cut short by the URL parser at '#': straight to the end envelope,
        // the last two with an error.
        const QString empty = m_dir.filePath(QStringLiteral("empty.flac"));
        const QString hash = m_dir.filePath(QStringLiteral("a#b.mp3"));
        QVERIFY(writeFile(empty, {}) && writeFile(hash, "content"));
        for (const QString &file : {empty, m_dir.filePath(QStringLiteral("missing.mp3")), hash}) {
            c = configuration(file);
            UploadStream stream(c);
            stream.open();
            QCOMPARE(readAllFrom(stream, 4096),
                     UploadStream::beginMultipartDataUpload(c) + UploadStream::endMultipartDataUpload(c));
            QCOMPARE(stream.streamStatus(), StreamStatus::AtEnd);
            QCOMPARE(stream.streamError().has_value(), file != empty);
        }
    }

    void bodyDeviceProducesTheWholeBody()
    {
        const QString path = m_dir.filePath(QStringLiteral("body.mp3"));
        QByteArray content(50000, '\0');
        for (int i = 0; i < content.size(); ++i) {
            content[i] = char(i % 251);
        }
        QVERIFY(writeFile(path, content));
        const QByteArray header = "HEADER-BYTES\r\n";
        const QByteArray footer = "\r\nFOOTER";
        QStringList lines;
        UploadBodyDevice device(header, path, content.size(), footer, [&](const QString &line) { lines << line; });
        QSignalSpy footerSpy(&device, &UploadBodyDevice::footerWritten);
        QSignalSpy rewinds(&device, &UploadBodyDevice::newBodyRequested);
        QVERIFY(device.open(QIODevice::ReadOnly));
        QCOMPARE(device.size(), qint64(header.size() + content.size() + footer.size()));
        QVERIFY(device.seek(0)); // a rewind before anything went out is harmless

        QByteArray body;
        QByteArray piece(16384, '\0');
        while (!device.atEnd()) {
            const qint64 n = device.read(piece.data(), piece.size());
            QVERIFY(n > 0);
            body += piece.left(int(n));
            if (body.size() < header.size() + content.size()) {
                QCOMPARE(device.footerBytesRemaining(), qint64(footer.size()));
                QVERIFY(!lines.contains(QStringLiteral("Footer written")));
            }
            if (body.size() == 16384) {
                // A second rewind is refused: the body goes on where it was.
                QVERIFY(!device.reset());
                QCOMPARE(rewinds.count(), 1);
                QCOMPARE(device.pos(), qint64(16384));
            }
        }
        QCOMPARE(body, header + content + footer);
        QVERIFY(device.didWriteFooter());
        QCOMPARE(footerSpy.count(), 1);
        QCOMPARE(lines, (QStringList{"Writing header", "Header written",
                                     "New body stream requested but one already exists. Something must have errored.",
                                     "Writing footer", " - Footer bytes written: 8", "Footer written"}));
    }
};

QTEST_GUILESS_MAIN(TestUploadStream)
#include "tst_uploadstream.moc"
