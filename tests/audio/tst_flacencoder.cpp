#include "audio/flacencoder.h"
#include "support/discimage.h"

#include <FLAC/metadata.h>
#include <FLAC/stream_decoder.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QtTest>

#include <vector>

namespace {

// The file as libFLAC's own decoder reads it back.
struct Decoded
{
    bool ok = false;
    QByteArray samples; // 16-bit little-endian interleaved
    unsigned channels = 0;
    unsigned bitsPerSample = 0;
    unsigned sampleRate = 0;
};

FLAC__StreamDecoderWriteStatus writeFrame(const FLAC__StreamDecoder *, const FLAC__Frame *frame,
                                          const FLAC__int32 *const buffer[], void *clientData)
{
    auto *decoded = static_cast<Decoded *>(clientData);
    for (unsigned i = 0; i < frame->header.blocksize; ++i) {
        for (unsigned channel = 0; channel < frame->header.channels; ++channel) {
            const auto value = static_cast<qint16>(buffer[channel][i]);
            decoded->samples.append(char(value & 0xFF));
            decoded->samples.append(char((value >> 8) & 0xFF));
        }
    }
    return FLAC__STREAM_DECODER_WRITE_STATUS_CONTINUE;
}

void readMetadata(const FLAC__StreamDecoder *, const FLAC__StreamMetadata *metadata, void *clientData)
{
    auto *decoded = static_cast<Decoded *>(clientData);
    if (metadata->type == FLAC__METADATA_TYPE_STREAMINFO) {
        decoded->channels = metadata->data.stream_info.channels;
        decoded->bitsPerSample = metadata->data.stream_info.bits_per_sample;
        decoded->sampleRate = metadata->data.stream_info.sample_rate;
    }
}

void decodeError(const FLAC__StreamDecoder *, FLAC__StreamDecoderErrorStatus, void *clientData)
{
    static_cast<Decoded *>(clientData)->ok = false;
}

Decoded decode(const QString &path)
{
    Decoded decoded;
    FLAC__StreamDecoder *decoder = FLAC__stream_decoder_new();
    FLAC__stream_decoder_set_md5_checking(decoder, true);
    if (FLAC__stream_decoder_init_file(decoder, QFile::encodeName(path).constData(), writeFrame, readMetadata,
                                       decodeError, &decoded) == FLAC__STREAM_DECODER_INIT_STATUS_OK) {
        decoded.ok = true;
        decoded.ok = FLAC__stream_decoder_process_until_end_of_stream(decoder) && decoded.ok;
        // finish() answers false when the MD5 of the decoded audio differs.
        decoded.ok = FLAC__stream_decoder_finish(decoder) && decoded.ok;
    }
    FLAC__stream_decoder_delete(decoder);
    return decoded;
}

struct Blocks
{
    QList<FLAC__MetadataType> types;
    QList<QPair<QByteArray, QByteArray>> comments;
    QByteArray pictureData;
    QByteArray pictureMimeType;
};

Blocks readBlocks(const QString &path)
{
    Blocks blocks;
    FLAC__Metadata_Chain *chain = FLAC__metadata_chain_new();
    if (FLAC__metadata_chain_read(chain, QFile::encodeName(path).constData())) {
        FLAC__Metadata_Iterator *iterator = FLAC__metadata_iterator_new();
        FLAC__metadata_iterator_init(iterator, chain);
        do {
            const FLAC__StreamMetadata *block = FLAC__metadata_iterator_get_block(iterator);
            blocks.types.append(block->type);
            if (block->type == FLAC__METADATA_TYPE_VORBIS_COMMENT) {
                for (FLAC__uint32 i = 0; i < block->data.vorbis_comment.num_comments; ++i) {
                    const FLAC__StreamMetadata_VorbisComment_Entry &entry = block->data.vorbis_comment.comments[i];
                    const QByteArray text(reinterpret_cast<const char *>(entry.entry), qsizetype(entry.length));
                    const qsizetype equals = text.indexOf('=');
                    blocks.comments.append({text.left(equals), text.mid(equals + 1)});
                }
            } else if (block->type == FLAC__METADATA_TYPE_PICTURE) {
                blocks.pictureData = QByteArray(reinterpret_cast<const char *>(block->data.picture.data),
                                                qsizetype(block->data.picture.data_length));
                blocks.pictureMimeType = QByteArray(block->data.picture.mime_type);
            }
        } while (FLAC__metadata_iterator_next(iterator));
        FLAC__metadata_iterator_delete(iterator);
    }
    FLAC__metadata_chain_delete(chain);
    return blocks;
}

QByteArray pngBytes()
{
    return QByteArray::fromHex("89504E470D0A1A0A0000000D49484452000000010000000108060000001F15C489");
}

} // namespace

class TestFLACEncoder : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void encodesTheSamplesExactly();
    void commentsInOrderAndOnlyWhenPresent_data();
    void commentsInOrderAndOnlyWhenPresent();
    void pictureBlockWithArtwork();
    void temporaryFileLivesWithTheEncoder();
    void initializationFailureIsReported();

private:
    // Encodes the audio sector by sector as a rip hands it over.
    QString encode(FLACEncoder &encoder, const QByteArray &audio, const PLCID3Tag &tags, OptionalError *error,
                   QList<quint64> *progress = nullptr);

    QTemporaryDir m_dir;
    QByteArray m_audio;
};

void TestFLACEncoder::initTestCase()
{
    QVERIFY(m_dir.isValid());
    const DiscImage image =
        DiscImage::create(m_dir.path(), QStringLiteral("disc"), DiscImage::audioOptions({1500, 37}));
    QVERIFY(image.isValid());
    m_audio = image.trackBytes(0) + image.trackBytes(1);
    QCOMPARE(m_audio.size(), 1537 * 2352);
}

QString TestFLACEncoder::encode(FLACEncoder &encoder, const QByteArray &audio, const PLCID3Tag &tags,
                                OptionalError *error, QList<quint64> *progress)
{
    QString completedPath;
    *error = encoder.configureWithSampleCount(
        quint64(audio.size() / 4), tags,
        [progress](uint64_t written, uint64_t total) {
            if (progress) {
                progress->append(written);
                progress->append(total);
            }
        },
        [&completedPath](const QUrl &url) { completedPath = url.toLocalFile(); });
    if (*error) {
        return QString();
    }
    const auto *samples = reinterpret_cast<const int16_t *>(audio.constData());
    for (qsizetype offset = 0; offset < audio.size() / 2; offset += 1176) {
        encoder.processSamples(samples + offset, size_t(std::min<qsizetype>(1176, audio.size() / 2 - offset)));
    }
    encoder.finish();
    return completedPath;
}

void TestFLACEncoder::encodesTheSamplesExactly()
{
    FLACEncoder encoder;
    OptionalError error;
    QList<quint64> progress;
    QString completedPath;
    PLCID3Tag tags;
    tags.setTitle(QStringLiteral("Sine"));
    error = encoder.configureWithSampleCount(
        quint64(m_audio.size() / 4), tags,
        [&progress](uint64_t written, uint64_t total) { progress << written << total; },
        [&completedPath](const QUrl &url) { completedPath = url.toLocalFile(); });
    QVERIFY2(!error, qPrintable(error ? error->localizedDescription() : QString()));
    // Verification and level 5 (4096-sample blocks, LPC order 8, mid-side),
    // read before finish() resets them.
    QVERIFY(FLAC__stream_encoder_get_verify(encoder.encoder()));
    QCOMPARE(FLAC__stream_encoder_get_blocksize(encoder.encoder()), 4096u);
    QCOMPARE(FLAC__stream_encoder_get_max_lpc_order(encoder.encoder()), 8u);
    QVERIFY(FLAC__stream_encoder_get_do_mid_side_stereo(encoder.encoder()));
    QCOMPARE(FLAC__stream_encoder_get_total_samples_estimate(encoder.encoder()), FLAC__uint64(m_audio.size() / 4));

    const auto *samples = reinterpret_cast<const int16_t *>(m_audio.constData());
    for (qsizetype offset = 0; offset < m_audio.size() / 2; offset += 1176) {
        encoder.processSamples(samples + offset, 1176);
    }
    QCOMPARE(FLAC__stream_encoder_get_state(encoder.encoder()), FLAC__STREAM_ENCODER_OK);
    encoder.finish();

    QCOMPARE(completedPath, encoder.filepath().toLocalFile());
    const Decoded decoded = decode(completedPath);
    QVERIFY(decoded.ok);
    QCOMPARE(decoded.channels, 2u);
    QCOMPARE(decoded.bitsPerSample, 16u);
    QCOMPARE(decoded.sampleRate, 44100u);
    QCOMPARE(decoded.samples.size(), m_audio.size());
    QVERIFY(decoded.samples == m_audio);

    QVERIFY(!progress.isEmpty());
    QCOMPARE(progress.last(), quint64(m_audio.size() / 4));
    QCOMPARE(progress.at(progress.size() - 2), quint64(m_audio.size() / 4));
}

void TestFLACEncoder::commentsInOrderAndOnlyWhenPresent_data()
{
    using Comments = QList<QPair<QByteArray, QByteArray>>;
    QTest::addColumn<PLCID3Tag>("tags");
    QTest::addColumn<Comments>("expected");

    PLCID3Tag few;
    few.setTitle(QStringLiteral("Song"));
    few.setArtist(QStringLiteral("Band"));
    few.setTrack(3);
    few.setTotalTracks(12);
    QTest::newRow("title, artist, track 3 of 12")
        << few << Comments{{"title", "Song"}, {"artist", "Band"}, {"tracknumber", "3/12"}};

    PLCID3Tag all;
    all.setDiscNumber(2);
    all.setTrack(7);
    all.setTotalTracks(9);
    all.setGenreText(QStringLiteral("Jazz"));
    all.setYear(1999);
    all.setAlbumArtist(QStringLiteral("Various"));
    all.setArtist(QStringLiteral("Zoë"));
    all.setAlbum(QStringLiteral("Année"));
    all.setTitle(QStringLiteral("Tïtle"));
    QTest::newRow("every field") << all << Comments{{"title", "Tïtle"},         {"album", "Année"}, {"artist", "Zoë"},
                                                    {"albumartist", "Various"}, {"year", "1999"},   {"genre", "Jazz"},
                                                    {"tracknumber", "7/9"},     {"discnumber", "2"}};

    PLCID3Tag noTotal;
    noTotal.setTrack(4);
    noTotal.setYear(0);
    noTotal.setAlbum(QString());
    QTest::newRow("track without total, year 0, empty album")
        << noTotal << Comments{{"album", ""}, {"year", "0"}, {"tracknumber", "4/(null)"}};

    QTest::newRow("nothing") << PLCID3Tag() << Comments{};
}

void TestFLACEncoder::commentsInOrderAndOnlyWhenPresent()
{
    using Comments = QList<QPair<QByteArray, QByteArray>>;
    QFETCH(PLCID3Tag, tags);
    QFETCH(Comments, expected);
    FLACEncoder encoder;
    OptionalError error;
    const QString path = encode(encoder, m_audio.left(20 * 2352), tags, &error);
    QVERIFY(!error);
    const Blocks blocks = readBlocks(path);
    QCOMPARE(blocks.comments, expected);
    // The picture block is there even without artwork, and the padding block
    // is never written.
    QCOMPARE(blocks.types,
             (QList<FLAC__MetadataType>{FLAC__METADATA_TYPE_STREAMINFO, FLAC__METADATA_TYPE_VORBIS_COMMENT,
                                        FLAC__METADATA_TYPE_PICTURE}));
    QVERIFY(blocks.pictureData.isEmpty());
    QVERIFY(blocks.pictureMimeType.isEmpty());
}

void TestFLACEncoder::pictureBlockWithArtwork()
{
    PLCID3Tag tags;
    tags.setArtwork(pngBytes());
    FLACEncoder encoder;
    OptionalError error;
    const QString path = encode(encoder, m_audio.left(10 * 2352), tags, &error);
    QVERIFY(!error);
    const Blocks blocks = readBlocks(path);
    QCOMPARE(blocks.pictureData, pngBytes());
    QCOMPARE(blocks.pictureMimeType, QByteArray("image/png"));
    QVERIFY(!blocks.types.contains(FLAC__METADATA_TYPE_PADDING));
    QCOMPARE(decode(path).samples, m_audio.left(10 * 2352));
}

void TestFLACEncoder::temporaryFileLivesWithTheEncoder()
{
    QString path;
    {
        FLACEncoder encoder;
        OptionalError error;
        path = encode(encoder, m_audio.left(5 * 2352), PLCID3Tag(), &error);
        QVERIFY(!error);
        const QFileInfo info(path);
        QVERIFY(info.isFile());
        QVERIFY(info.size() > 0);
        QVERIFY(info.suffix().isEmpty());
        QCOMPARE(info.absolutePath(), QFileInfo(QDir::tempPath()).absoluteFilePath());
        QCOMPARE(encoder.totalSamples(), quint64(5 * 588));
    }
    QVERIFY(!QFileInfo::exists(path));

    // Two encoders never share a file.
    FLACEncoder first;
    FLACEncoder second;
    OptionalError error;
    QVERIFY(!first.configureWithSampleCount(1, PLCID3Tag(), nullptr, nullptr));
    QVERIFY(!second.configureWithSampleCount(1, PLCID3Tag(), nullptr, nullptr));
    QVERIFY(first.filepath() != second.filepath());
}

void TestFLACEncoder::initializationFailureIsReported()
{
    const QByteArray savedTemp = qgetenv("TMPDIR");
    // A temporary folder where no file can be made, even by root.
    qputenv("TMPDIR", "/proc");
    FLACEncoder encoder;
    bool completed = false;
    const OptionalError error =
        encoder.configureWithSampleCount(100, PLCID3Tag(), nullptr, [&completed](const QUrl &) { completed = true; });
    if (savedTemp.isNull()) {
        qunsetenv("TMPDIR");
    } else {
        qputenv("TMPDIR", savedTemp);
    }
    QVERIFY(error.has_value());
    QCOMPARE(error->localizedDescription(), QStringLiteral(" - Error initializing FLAC encoder"));
    QVERIFY(!completed);
}

QTEST_GUILESS_MAIN(TestFLACEncoder)
#include "tst_flacencoder.moc"
