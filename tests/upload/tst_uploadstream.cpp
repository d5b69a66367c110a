// The multipart envelopes, the pull-style UploadStream and the upload body device, byte for
// byte.
#include "upload/uploadbodydevice.h"
#include "upload/uploadstream.h"

#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

namespace {

QByteArray field(const QByteArray &name, const QByteArray &value)
{
    return "-----------------------------14737809831466499882746641449\r\nContent-Disposition: form-data; name=\"" +
           name + "\"\r\n\r\n" + value + "\r\n";
}

QByteArray filePart(const QByteArray &name, const QByteArray &type)
{
    return "-----------------------------14737809831466499882746641449\r\nContent-Disposition: form-data; "
           "name=\"file\"; filename=\"" +
           name + "\"\r\nContent-Type: " + type + "\r\n\r\n";
}

AsyncUploadRequestConfiguration configuration(const QString &path)
{
    AsyncUploadRequestConfiguration c;
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
const QByteArray kEnd = "\r\n" + field("user_id", "1001") + field("token", "tok&en") +
                        "-----------------------------14737809831466499882746641449--\r\n";

bool writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

// Reads until a read yields nothing; the sizes of the reads go to `counts`.
QByteArray readAllFrom(UploadStream &stream, qint64 capacity, QList<qint64> *counts = nullptr)
{
    QByteArray out;
    QByteArray buffer(int(capacity), '\0');
    for (qint64 n = 0; (n = stream.read(buffer.data(), capacity)) > 0;) {
        out += buffer.left(int(n));
        if (counts) {
            *counts << n;
        }
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

        // Optional fields in their order; values go in as they stand (quotes unescaped); the
        // file name is percent-encoded, the path field is not.
        c = configuration(QStringLiteral("/m/My Song (é)&1.m4a"));
        c.createPlaylistName = QStringLiteral("Road \"Trip\"");
        c.playlistOrder = QStringLiteral("123456");
        c.createTagName = QStringLiteral("Tag");
        c.reuploadDuplicates = true;
        QCOMPARE(UploadStream::beginMultipartDataUpload(c),
                 kPlainStart + field("file_path", "/m/My Song (\xc3\xa9)&1.m4a") +
                     field("playlist-name", "Road \"Trip\"") + field("playlist-order", "123456") +
                     field("tag-name", "Tag") + field("reupload", "1") +
                     filePart("My%20Song%20%28%C3%A9%29%261.m4a", "audio/mp4"));

        // A CD track is named after its title but typed by its path.
        c = configuration(QStringLiteral("/dev/sr0/3 Audio Track.aiff"));
        PLCID3Tag tags;
        tags.setTitle(QStringLiteral("Blue Moon"));
        c.ID3Tags = tags;
        QVERIFY(UploadStream::beginMultipartDataUpload(c).endsWith(filePart("Blue%20Moon.flac", "audio/aiff")));
    }

    void streamReadsTheBodyAndSignals()
    {
        const QString path = m_dir.filePath(QStringLiteral("whole.mp3"));
        QByteArray content;
        for (int i = 0; i < 10000; ++i) {
            content += char(i * 7);
        }
        QVERIFY(writeFile(path, content));
        const AsyncUploadRequestConfiguration c = configuration(path);
        const QByteArray start = UploadStream::beginMultipartDataUpload(c);

        UploadStream stream(c);
        QStringList events;
        connect(&stream, &UploadStream::opened, this, [&] { events << QStringLiteral("opened"); });
        connect(&stream, &UploadStream::bytesAvailable, this, [&] { events << QStringLiteral("bytes"); });
        connect(&stream, &UploadStream::endEncountered, this, [&] { events << QStringLiteral("end"); });
        stream.scheduleInRunLoop();
        QCOMPARE(stream.streamStatus(), StreamStatus::NotOpen);
        stream.open();
        QCOMPARE(stream.streamStatus(), StreamStatus::Open);
        QTRY_COMPARE(events, QStringList{QStringLiteral("opened")});

        // 700 bytes at a time: the start envelope ends short, the file follows in its own
        // reads, and the end envelope comes whole in the last read.
        QList<qint64> counts;
        QCOMPARE(readAllFrom(stream, 700, &counts), start + content + kEnd);
        QCOMPARE(counts.first(), qint64(qMin(700, int(start.size()))));
        QCOMPARE(counts.last(), qint64(kEnd.size()));
        QCOMPARE(stream.streamStatus(), StreamStatus::AtEnd);
        QVERIFY(!stream.hasBytesAvailable() && !stream.streamError());
        // Many reads before the events are delivered make one delivery: bytes, then end.
        QTRY_COMPARE(events, (QStringList{"opened", "bytes", "end"}));
        stream.close();
        QCOMPARE(stream.streamStatus(), StreamStatus::Closed);

        // Nobody listening: the events go to the console.
        UploadStream unheard(c);
        unheard.scheduleInRunLoop();
        QTest::ignoreMessage(QtInfoMsg, "handle event: 1");
        unheard.open();
        QTest::ignoreMessage(QtInfoMsg, "handle event: 2");
        QTest::ignoreMessage(QtInfoMsg, "handle event: 16");
        readAllFrom(unheard, 1 << 20);
        QTest::qWait(50);
    }

    void smallReadsAndShortFiles()
    {
        // A capacity of one never yields the end envelope (the stream looks ended early);
        // room for all of it does.
        const QString path = m_dir.filePath(QStringLiteral("one.wav"));
        QVERIFY(writeFile(path, "abc"));
        UploadStream stream(configuration(path));
        stream.open();
        QCOMPARE(readAllFrom(stream, 1), UploadStream::beginMultipartDataUpload(configuration(path)) + "abc");
        QVERIFY(stream.streamStatus() != StreamStatus::AtEnd);
        QCOMPARE(readAllFrom(stream, kEnd.size()), kEnd);
        QCOMPARE(stream.streamStatus(), StreamStatus::AtEnd);

        // Empty, missing, or cut short by the URL parser at '#': straight to the end envelope,
        // the last two with an error.
        const QString empty = m_dir.filePath(QStringLiteral("empty.flac"));
        const QString hash = m_dir.filePath(QStringLiteral("a#b.mp3"));
        QVERIFY(writeFile(empty, {}) && writeFile(hash, "content"));
        for (const QString &file : {empty, m_dir.filePath(QStringLiteral("missing.mp3")), hash}) {
            UploadStream stream(configuration(file));
            stream.open();
            QCOMPARE(readAllFrom(stream, 4096), UploadStream::beginMultipartDataUpload(configuration(file)) + kEnd);
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
