// The multipart envelopes, the pull-style UploadStream and the upload body
// device, byte for byte.

#include "app/logger.h"
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

AsyncUploadRequestConfiguration baseConfiguration(const QString &path)
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

// Collects delegate events, each delivery as one group.
class EventRecorder : public StreamDelegate
{
public:
    QList<int> events;
    void streamHandleEvent(UploadStream *, StreamEvent event) override { events << int(event); }
};

QByteArray writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
        return {};
    }
    return content;
}

QByteArray readAllFrom(UploadStream &stream, qint64 capacity, int maxReads = 100000)
{
    QByteArray out;
    QByteArray buffer(int(capacity), '\0');
    for (int i = 0; i < maxReads; ++i) {
        const qint64 n = stream.read(buffer.data(), capacity);
        if (n <= 0) {
            break;
        }
        out += buffer.left(int(n));
    }
    return out;
}

QStringList logLinesSince(qint64 offset)
{
    QFile file(Logger::logFileURL().toLocalFile());
    if (!file.open(QIODevice::ReadOnly) || !file.seek(offset)) {
        return {};
    }
    QStringList lines;
    for (const QByteArray &line : file.readAll().split('\n')) {
        // "<date> <time> +0000: <message>"
        const qsizetype colon = line.indexOf(": ");
        if (colon > 0) {
            lines << QString::fromUtf8(line.mid(colon + 2));
        }
    }
    return lines;
}

} // namespace

class TestUploadStream : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void envelopesWithoutOptionalFields();
    void envelopesWithPlaylistTagAndReupload();
    void playlistOrderAloneIsNotWritten();
    void fileNameIsPercentEncoded();
    void cdTrackIsNamedAfterItsTitleButTypedByItsPath();
    void mimeTypesByExtension();
    void absentMandatoryFieldsPrintAsNull();

    void readsWholeBodyAndEndsWithEvents();
    void capacityOfOneNeverYieldsTheEndEnvelope();
    void emptyFileGoesStraightToTheEndEnvelope();
    void unreadableFileSkipsToTheEndEnvelopeAndShowsAnError();
    void eventsWaitUntilScheduledAndCoalesce();
    void ownDelegateWritesToTheConsole();

    void bodyDeviceProducesTheWholeBodyInPieces();
    void bodyDeviceRefusesASecondRewind();
    void bodyDeviceFailsWhenTheFileChangesSize();

private:
    QTemporaryDir m_dir;
};

void TestUploadStream::initTestCase()
{
    QVERIFY(m_dir.isValid());
    Logger::log(QStringLiteral("tst_uploadstream"));
    QVERIFY(Logger::logFileURL().isValid());
}

void TestUploadStream::envelopesWithoutOptionalFields()
{
    const AsyncUploadRequestConfiguration c = baseConfiguration(QStringLiteral("/music/a/Song.mp3"));
    QCOMPARE(UploadStream::boundary().toLatin1(), kB);
    QCOMPARE(UploadStream::boundary().size(), 56);
    QCOMPARE(UploadStream::beginMultipartDataUpload(c),
             kPlainStart + field("file_path", "/music/a/Song.mp3") + "--" + kB +
                 "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"Song.mp3\"\r\n"
                 "Content-Type: audio/mpeg\r\n\r\n");
    QCOMPARE(UploadStream::endMultipartDataUpload(c), kEnd);
}

void TestUploadStream::envelopesWithPlaylistTagAndReupload()
{
    AsyncUploadRequestConfiguration c = baseConfiguration(QStringLiteral("/m/x.flac"));
    c.sanitizedFilePath = QStringLiteral("/Volumes/Blue/x.flac");
    c.createPlaylistName = QStringLiteral("Road \"Trip\"");
    c.playlistOrder = QStringLiteral("123456");
    c.createTagName = QStringLiteral("Tag");
    c.reuploadDuplicates = true;
    // Values go in as they stand: quotes are not escaped.
    QCOMPARE(UploadStream::beginMultipartDataUpload(c),
             kPlainStart + field("file_path", "/Volumes/Blue/x.flac") + field("playlist-name", "Road \"Trip\"") +
                 field("playlist-order", "123456") + field("tag-name", "Tag") + field("reupload", "1") + "--" + kB +
                 "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"x.flac\"\r\n"
                 "Content-Type: audio/flac\r\n\r\n");
    QCOMPARE(UploadStream::endMultipartDataUpload(c), kEnd);

    // A playlist without a position prints the absent position.
    c.playlistOrder = QString();
    QVERIFY(UploadStream::beginMultipartDataUpload(c).contains(field("playlist-order", "(null)")));
    // An empty (but set) tag name is still written.
    c.createTagName = QStringLiteral("");
    QVERIFY(UploadStream::beginMultipartDataUpload(c).contains(field("tag-name", "")));
}

void TestUploadStream::playlistOrderAloneIsNotWritten()
{
    AsyncUploadRequestConfiguration c = baseConfiguration(QStringLiteral("/m/x.ogg"));
    c.playlistOrder = QStringLiteral("42");
    const QByteArray start = UploadStream::beginMultipartDataUpload(c);
    QVERIFY(!start.contains("playlist-name"));
    QVERIFY(!start.contains("playlist-order"));
    QVERIFY(!start.contains("reupload"));
    QVERIFY(!start.contains("tag-name"));
}

void TestUploadStream::fileNameIsPercentEncoded()
{
    const AsyncUploadRequestConfiguration c = baseConfiguration(QStringLiteral("/m/My Song (é)&1.m4a"));
    const QByteArray start = UploadStream::beginMultipartDataUpload(c);
    QVERIFY2(start.contains("filename=\"My%20Song%20%28%C3%A9%29%261.m4a\"\r\nContent-Type: audio/mp4\r\n\r\n"),
             start.constData());
    // The path field is not encoded.
    QVERIFY(start.contains(field("file_path", "/m/My Song (\xc3\xa9)&1.m4a")));
}

void TestUploadStream::cdTrackIsNamedAfterItsTitleButTypedByItsPath()
{
    AsyncUploadRequestConfiguration c = baseConfiguration(QStringLiteral("/dev/sr0/3 Audio Track.aiff"));
    PLCID3Tag tags;
    tags.setTitle(QStringLiteral("Intro"));
    c.ID3Tags = tags;
    QVERIFY(UploadStream::beginMultipartDataUpload(c).endsWith(
        "filename=\"Intro.flac\"\r\nContent-Type: audio/aiff\r\n\r\n"));
    tags.setTitle(QStringLiteral("Blue Moon"));
    c.ID3Tags = tags;
    QCOMPARE(UploadStream::uploadFileName(c), QStringLiteral("Blue Moon.flac"));
    QVERIFY(UploadStream::beginMultipartDataUpload(c).contains("filename=\"Blue%20Moon.flac\""));
}

void TestUploadStream::mimeTypesByExtension()
{
    QCOMPARE(UploadStream::mimeTypeForPath(QStringLiteral("/a/b")), QStringLiteral("application/octet-stream"));
    QCOMPARE(UploadStream::mimeTypeForPath(QStringLiteral("/a/b.WAV")), QStringLiteral("audio/wav"));
    QCOMPARE(UploadStream::mimeTypeForPath(QStringLiteral("/a.dir/b")), QStringLiteral("application/octet-stream"));
    QCOMPARE(UploadStream::mimeTypeForPath(QStringLiteral("/a/b.zzqq")), QStringLiteral("application/octet-stream"));
    const AsyncUploadRequestConfiguration c = baseConfiguration(QStringLiteral("/m/noext"));
    QVERIFY(UploadStream::beginMultipartDataUpload(c).endsWith("Content-Type: application/octet-stream\r\n\r\n"));
}

void TestUploadStream::absentMandatoryFieldsPrintAsNull()
{
    AsyncUploadRequestConfiguration c = baseConfiguration(QStringLiteral("/m/a.mp3"));
    c.userId = QString();
    c.deviceName = QString();
    QVERIFY(UploadStream::beginMultipartDataUpload(c).contains(field("device_name", "(null)")));
    QVERIFY(UploadStream::endMultipartDataUpload(c).contains(field("user_id", "(null)")));
}

void TestUploadStream::readsWholeBodyAndEndsWithEvents()
{
    const QString path = m_dir.filePath(QStringLiteral("whole.mp3"));
    QByteArray content;
    for (int i = 0; i < 10000; ++i) {
        content += char(i * 7);
    }
    QVERIFY(!writeFile(path, content).isEmpty());
    const AsyncUploadRequestConfiguration c = baseConfiguration(path);
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

    // 700 bytes at a time: the start envelope ends short, the file follows in
    // its own reads, and the end envelope comes whole in the last read.
    QByteArray body;
    QList<qint64> counts;
    QByteArray buffer(700, '\0');
    for (;;) {
        const qint64 n = stream.read(buffer.data(), buffer.size());
        QVERIFY(n >= 0);
        if (n == 0) {
            break;
        }
        counts << n;
        body += buffer.left(int(n));
        if (stream.streamStatus() == StreamStatus::AtEnd) {
            break;
        }
    }
    QCOMPARE(body, start + content + end);
    QCOMPARE(counts.first(), qint64(qMin(700, int(start.size()))));
    QCOMPARE(counts.last(), qint64(end.size()));
    QCOMPARE(stream.streamStatus(), StreamStatus::AtEnd);
    QVERIFY(!stream.hasBytesAvailable());
    QVERIFY(!stream.streamError());
    // Many reads before the events are delivered make one delivery: bytes
    // available, then end.
    QTRY_COMPARE(recorder.events, (QList<int>{2, 16}));
    QCOMPARE(stream.getBuffer(nullptr, nullptr), false);
    QVERIFY(!stream.propertyForKey(QStringLiteral("x")).isValid());
    QVERIFY(!stream.setPropertyForKey(QVariant(1), QStringLiteral("x")));
    stream.close();
    QCOMPARE(stream.streamStatus(), StreamStatus::Closed);
}

void TestUploadStream::capacityOfOneNeverYieldsTheEndEnvelope()
{
    const QString path = m_dir.filePath(QStringLiteral("one.wav"));
    QVERIFY(!writeFile(path, "abc").isEmpty());
    const AsyncUploadRequestConfiguration c = baseConfiguration(path);
    UploadStream stream(c);
    stream.open();
    const QByteArray got = readAllFrom(stream, 1);
    QCOMPARE(got, UploadStream::beginMultipartDataUpload(c) + "abc");
    QVERIFY(stream.streamStatus() != StreamStatus::AtEnd);
    // A reader with room for the rest gets the whole end envelope.
    const QByteArray end = UploadStream::endMultipartDataUpload(c);
    QByteArray buffer(end.size() - 1, '\0');
    QCOMPARE(stream.read(buffer.data(), buffer.size()), qint64(0));
    buffer.resize(end.size());
    QCOMPARE(stream.read(buffer.data(), buffer.size()), qint64(end.size()));
    QCOMPARE(buffer, end);
    QCOMPARE(stream.streamStatus(), StreamStatus::AtEnd);
}

void TestUploadStream::emptyFileGoesStraightToTheEndEnvelope()
{
    const QString path = m_dir.filePath(QStringLiteral("empty.flac"));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.close();
    const AsyncUploadRequestConfiguration c = baseConfiguration(path);
    UploadStream stream(c);
    stream.open();
    QCOMPARE(readAllFrom(stream, 4096),
             UploadStream::beginMultipartDataUpload(c) + UploadStream::endMultipartDataUpload(c));
    QCOMPARE(stream.streamStatus(), StreamStatus::AtEnd);
}

void TestUploadStream::unreadableFileSkipsToTheEndEnvelopeAndShowsAnError()
{
    // Missing, and cut short by the URL parser at '#'.
    const QString present = m_dir.filePath(QStringLiteral("a#b.mp3"));
    QVERIFY(!writeFile(present, "content").isEmpty());
    for (const QString &path : {m_dir.filePath(QStringLiteral("missing.mp3")), present}) {
        const AsyncUploadRequestConfiguration c = baseConfiguration(path);
        UploadStream stream(c);
        stream.open();
        QCOMPARE(readAllFrom(stream, 4096),
                 UploadStream::beginMultipartDataUpload(c) + UploadStream::endMultipartDataUpload(c));
        QVERIFY(stream.streamError().has_value());
    }
    // A file URL names its file.
    const QString urlPath = m_dir.filePath(QStringLiteral("url.mp3"));
    QVERIFY(!writeFile(urlPath, "by url").isEmpty());
    AsyncUploadRequestConfiguration c = baseConfiguration(urlPath);
    c.filePath = QUrl::fromLocalFile(urlPath).toString();
    UploadStream stream(c);
    stream.open();
    QVERIFY(readAllFrom(stream, 4096).contains("\r\n\r\nby url\r\n--"));
}

void TestUploadStream::eventsWaitUntilScheduledAndCoalesce()
{
    const QString path = m_dir.filePath(QStringLiteral("sched.mp3"));
    QVERIFY(!writeFile(path, "x").isEmpty());
    UploadStream stream(baseConfiguration(path));
    EventRecorder recorder;
    stream.setDelegate(&recorder);
    stream.open();
    char buffer[16];
    QCOMPARE(stream.read(buffer, 16), qint64(16));
    QTest::qWait(100);
    QVERIFY(recorder.events.isEmpty());
    stream.scheduleInRunLoop();
    QTRY_COMPARE(recorder.events, (QList<int>{1, 2}));
    stream.removeFromRunLoop();
    QCOMPARE(stream.read(buffer, 16), qint64(16));
    QTest::qWait(100);
    QCOMPARE(recorder.events.size(), 2);
    // Delivered by hand, as a port message would.
    QTest::ignoreMessage(QtInfoMsg, "pm: message");
    stream.handlePortMessage(QStringLiteral("message"));
    QCOMPARE(recorder.events, (QList<int>{1, 2, 2}));
}

void TestUploadStream::ownDelegateWritesToTheConsole()
{
    const QString path = m_dir.filePath(QStringLiteral("self.mp3"));
    QVERIFY(!writeFile(path, "x").isEmpty());
    UploadStream stream(baseConfiguration(path));
    EventRecorder recorder;
    stream.setDelegate(&recorder);
    stream.setDelegate(nullptr);
    QCOMPARE(stream.delegate(), static_cast<StreamDelegate *>(&stream));
    QTest::ignoreMessage(QtInfoMsg, "handle event: 1");
    stream.open();
    stream.runLoopRun();
    QVERIFY(recorder.events.isEmpty());
}

void TestUploadStream::bodyDeviceProducesTheWholeBodyInPieces()
{
    const QString path = m_dir.filePath(QStringLiteral("body.mp3"));
    QByteArray content(50000, '\0');
    for (int i = 0; i < content.size(); ++i) {
        content[i] = char(i % 251);
    }
    QVERIFY(!writeFile(path, content).isEmpty());
    const QByteArray header = "HEADER-BYTES\r\n";
    const QByteArray footer = "\r\nFOOTER";
    QStringList lines;
    UploadBodyDevice device(header, path, content.size(), footer, [&](const QString &line) { lines << line; });
    QSignalSpy footerSpy(&device, &UploadBodyDevice::footerWritten);
    QVERIFY(device.open(QIODevice::ReadOnly));
    QCOMPARE(device.size(), qint64(header.size() + content.size() + footer.size()));
    QVERIFY(!device.isSequential());
    QVERIFY(device.seek(0)); // a rewind before anything went out is harmless

    QByteArray body;
    QByteArray piece(16384, '\0');
    while (!device.atEnd()) {
        const qint64 n = device.read(piece.data(), piece.size());
        QVERIFY(n > 0);
        body += piece.left(int(n));
        if (body.size() < header.size() + content.size()) {
            QCOMPARE(device.footerBytesRemaining(), qint64(footer.size()));
            QVERIFY(lines.count(QStringLiteral("Footer written")) == 0);
        }
    }
    QCOMPARE(body, header + content + footer);
    QCOMPARE(device.headerBytesRemaining(), qint64(0));
    QCOMPARE(device.footerBytesRemaining(), qint64(0));
    QVERIFY(device.didWriteFooter());
    QCOMPARE(footerSpy.count(), 1);
    QCOMPARE(lines, (QStringList{"Writing header", "Header written", "Writing footer", " - Footer bytes written: 8",
                                 "Footer written"}));
}

void TestUploadStream::bodyDeviceRefusesASecondRewind()
{
    const QString path = m_dir.filePath(QStringLiteral("rewind.mp3"));
    QVERIFY(!writeFile(path, QByteArray(1000, 'r')).isEmpty());
    const qint64 before = Logger::logSize();
    UploadBodyDevice device("H", path, 1000, "F", [](const QString &line) { Logger::log(line); });
    QSignalSpy spy(&device, &UploadBodyDevice::newBodyRequested);
    QVERIFY(device.open(QIODevice::ReadOnly));
    char buffer[100];
    QCOMPARE(device.read(buffer, 100), qint64(100));
    QVERIFY(!device.reset());
    QCOMPARE(spy.count(), 1);
    QCOMPARE(device.pos(), qint64(100));
    QVERIFY(logLinesSince(before).contains(
        QStringLiteral("New body stream requested but one already exists. Something must have errored.")));
    // The body goes on where it was.
    QCOMPARE(device.read(buffer, 100), qint64(100));
    QCOMPARE(QByteArray(buffer, 100), QByteArray(100, 'r'));
}

void TestUploadStream::bodyDeviceFailsWhenTheFileChangesSize()
{
    QByteArray piece(4096, '\0');
    // Shorter than announced.
    {
        const QString path = m_dir.filePath(QStringLiteral("shrinks.mp3"));
        QVERIFY(!writeFile(path, QByteArray(10000, 's')).isEmpty());
        UploadBodyDevice device("H", path, 10000, "F", {});
        QSignalSpy spy(&device, &UploadBodyDevice::sourceFailed);
        QVERIFY(device.open(QIODevice::ReadOnly));
        QCOMPARE(device.read(piece.data(), piece.size()), qint64(4096));
        QVERIFY(QFile::resize(path, 5000));
        qint64 n = 0;
        while ((n = device.read(piece.data(), piece.size())) > 0) {
        }
        QCOMPARE(n, qint64(-1));
        QCOMPARE(spy.count(), 1);
        QVERIFY(!device.didWriteFooter());
    }
    // Longer than announced: found before the end envelope goes out.
    {
        const QString path = m_dir.filePath(QStringLiteral("grows.mp3"));
        QVERIFY(!writeFile(path, QByteArray(6000, 'g')).isEmpty());
        UploadBodyDevice device("H", path, 6000, "F", {});
        QSignalSpy spy(&device, &UploadBodyDevice::sourceFailed);
        QVERIFY(device.open(QIODevice::ReadOnly));
        QCOMPARE(device.read(piece.data(), piece.size()), qint64(4096));
        QVERIFY(QFile::resize(path, 9000));
        qint64 total = 4096;
        qint64 n = 0;
        while ((n = device.read(piece.data(), piece.size())) > 0) {
            total += n;
        }
        QCOMPARE(n, qint64(-1));
        QCOMPARE(total, qint64(1 + 6000));
        QCOMPARE(spy.count(), 1);
        QVERIFY(!device.didWriteFooter());
    }
    // A file that cannot be opened.
    UploadBodyDevice missing("H", m_dir.filePath(QStringLiteral("nothing.mp3")), 1, "F", {});
    QVERIFY(!missing.open(QIODevice::ReadOnly));
    QVERIFY(!missing.errorString().isEmpty());
}

QTEST_GUILESS_MAIN(TestUploadStream)
#include "tst_uploadstream.moc"
