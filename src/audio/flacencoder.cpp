#include "audio/flacencoder.h"

#include "core/logger.h"
#include "core/paths.h"

#include <FLAC/metadata.h>
#include <FLAC/stream_encoder.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QUuid>

#include <cerrno>

namespace {

void appendComment(FLAC__StreamMetadata *block, const char *name, const QString &value)
{
    FLAC__StreamMetadata_VorbisComment_Entry entry;
    const QByteArray utf8 = value.toUtf8();
    if (FLAC__metadata_object_vorbiscomment_entry_from_name_value_pair(&entry, name, utf8.constData())) {
        FLAC__metadata_object_vorbiscomment_append_comment(block, entry, /*copy=*/false);
    }
}

} // namespace

FLACEncoder::FLACEncoder(QObject *parent) : QObject(parent) {}

FLACEncoder::~FLACEncoder()
{
    // The encoder holds pointers to the metadata blocks until it is deleted.
    if (m_encoder) {
        FLAC__stream_encoder_delete(m_encoder);
        m_encoder = nullptr;
    }
    for (FLAC__StreamMetadata *&block : m_metadata) {
        if (block) {
            FLAC__metadata_object_delete(block);
            block = nullptr;
        }
    }
    if (m_filepath.isLocalFile()) {
        QFile::remove(m_filepath.toLocalFile());
    }
}

OptionalError FLACEncoder::configureWithSampleCount(uint64_t sampleCount, const PLCID3Tag &tags,
                                                    ProgressCallback progressCallback,
                                                    CompletedCallback completedCallback)
{
    m_progressCallback = std::move(progressCallback);
    m_completedCallback = std::move(completedCallback);
    // A unique name in the temporary folder that says whose it is.
    const QString name = QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper() + QStringLiteral(".flac");
    m_filepath = QUrl::fromLocalFile(Paths::temporaryPath(name));
    m_sampleRate = 44100;
    m_channels = 2;
    m_bps = 16;
    m_totalSamples = sampleCount;

    m_encoder = FLAC__stream_encoder_new();
    if (!m_encoder) {
        return Error::errorWithMessage(QStringLiteral("Error creating FLAC encoder"));
    }

    // Every setting is applied before any answer is looked at.
    bool ok = true;
    ok &= FLAC__stream_encoder_set_verify(m_encoder, true) != 0;
    ok &= FLAC__stream_encoder_set_compression_level(m_encoder, 5) != 0;
    ok &= FLAC__stream_encoder_set_channels(m_encoder, m_channels) != 0;
    ok &= FLAC__stream_encoder_set_bits_per_sample(m_encoder, m_bps) != 0;
    ok &= FLAC__stream_encoder_set_sample_rate(m_encoder, m_sampleRate) != 0;
    ok &= FLAC__stream_encoder_set_total_samples_estimate(m_encoder, m_totalSamples) != 0;
    if (!ok) {
        return Error::errorWithMessage(QStringLiteral("Error setting FLAC settings"));
    }

    // Missing tags never stop a rip: a block that cannot be made is only
    // reported, and the blocks after it are not attempted.
    const FLAC__MetadataType types[3] = {FLAC__METADATA_TYPE_VORBIS_COMMENT, FLAC__METADATA_TYPE_PICTURE,
                                         FLAC__METADATA_TYPE_PADDING};
    for (int i = 0; i < 3; ++i) {
        m_metadata[i] = FLAC__metadata_object_new(types[i]);
        if (!m_metadata[i]) {
            consoleLog(QStringLiteral("ERROR: out of memory or tag error"));
            break;
        }
    }

    if (FLAC__StreamMetadata *comments = m_metadata[0]) {
        if (tags.title()) {
            appendComment(comments, "title", *tags.title());
        }
        if (tags.album()) {
            appendComment(comments, "album", *tags.album());
        }
        if (tags.artist()) {
            appendComment(comments, "artist", *tags.artist());
        }
        if (tags.albumArtist()) {
            appendComment(comments, "albumartist", *tags.albumArtist());
        }
        if (tags.year()) {
            appendComment(comments, "year", QString::number(*tags.year()));
        }
        if (tags.genreText()) {
            appendComment(comments, "genre", *tags.genreText());
        }
        if (tags.track()) {
            // Without a total, the bare number.
            QString number = QString::number(*tags.track());
            if (tags.totalTracks()) {
                number += QLatin1Char('/') + QString::number(*tags.totalTracks());
            }
            appendComment(comments, "tracknumber", number);
        }
        if (tags.discNumber()) {
            appendComment(comments, "discnumber", QString::number(*tags.discNumber()));
        }
    }

    if (FLAC__StreamMetadata *picture = m_metadata[1]) {
        if (tags.artwork()) {
            const QByteArray &artwork = *tags.artwork();
            FLAC__metadata_object_picture_set_data(
                picture, reinterpret_cast<FLAC__byte *>(const_cast<char *>(artwork.constData())),
                FLAC__uint32(artwork.size()), /*copy=*/true);
        }
        if (tags.artworkFormat()) {
            QByteArray mimeType = tags.artworkFormat()->toUtf8();
            FLAC__metadata_object_picture_set_mime_type(picture, mimeType.data(), /*copy=*/true);
        }
        // Players look for the front cover and its size.
        picture->data.picture.type = FLAC__STREAM_METADATA_PICTURE_TYPE_FRONT_COVER;
        if (tags.artwork()) {
            const QImage image = QImage::fromData(*tags.artwork());
            if (!image.isNull()) {
                picture->data.picture.width = FLAC__uint32(image.width());
                picture->data.picture.height = FLAC__uint32(image.height());
                picture->data.picture.depth = FLAC__uint32(image.depth());
            }
        }
    }

    if (m_metadata[2]) {
        m_metadata[2]->length = 1234;
    }

    // Only the comment and picture blocks are handed over; the padding block
    // is made but never written.
    FLAC__StreamMetadata *handed[2];
    unsigned handedCount = 0;
    for (int i = 0; i < 2; ++i) {
        if (m_metadata[i]) {
            handed[handedCount++] = m_metadata[i];
        }
    }
    if (!FLAC__stream_encoder_set_metadata(m_encoder, handed, handedCount)) {
        return Error::errorWithMessage(QStringLiteral(" - Error creating FLAC metadata"));
    }

    const QByteArray path = QFile::encodeName(m_filepath.toLocalFile());
    const FLAC__StreamEncoderInitStatus status = FLAC__stream_encoder_init_file(
        m_encoder, path.constData(),
        [](const FLAC__StreamEncoder *, FLAC__uint64, FLAC__uint64 samplesWritten, unsigned, unsigned,
           void *clientData) {
            auto *self = static_cast<FLACEncoder *>(clientData);
            if (self->m_progressCallback) {
                self->m_progressCallback(samplesWritten, self->m_totalSamples);
            }
        },
        this);
    if (status != FLAC__STREAM_ENCODER_INIT_STATUS_OK) {
        return Error::errorWithMessage(QStringLiteral(" - Error initializing FLAC encoder"));
    }
    return std::nullopt;
}

bool FLACEncoder::processSamples(const int16_t *samples, size_t length)
{
    if (!m_encoder) {
        return false;
    }
    m_wideSamples.resize(length);
    for (size_t i = 0; i < length; ++i) {
        m_wideSamples[i] = samples[i];
    }
    return FLAC__stream_encoder_process_interleaved(m_encoder, m_wideSamples.data(), unsigned(length / 2)) != 0;
}

OptionalError FLACEncoder::finish()
{
    if (!m_encoder) {
        return Error::errorWithMessage(QStringLiteral("Error creating FLAC encoder"));
    }
    // The state is read before finishing, which resets it.
    const FLAC__StreamEncoderState before = FLAC__stream_encoder_get_state(m_encoder);
    const bool finished = FLAC__stream_encoder_finish(m_encoder) != 0;
    if (before == FLAC__STREAM_ENCODER_VERIFY_MISMATCH_IN_AUDIO_DATA ||
        before == FLAC__STREAM_ENCODER_VERIFY_DECODER_ERROR) {
        return Error::errorWithMessage(
            QStringLiteral("FLAC verification failed: the encoded audio does not match the ripped audio."));
    }
    const bool writeFailed =
        before == FLAC__STREAM_ENCODER_CLIENT_ERROR || before == FLAC__STREAM_ENCODER_IO_ERROR || !finished;
    if (writeFailed && Paths::isDiskFull(m_filepath.toLocalFile())) {
        return Error::errorWithMessage(QStringLiteral("The FLAC file could not be written to %1: the disk is full.")
                                           .arg(QFileInfo(m_filepath.toLocalFile()).absolutePath()),
                                       ENOSPC);
    }
    if (before != FLAC__STREAM_ENCODER_OK || !finished) {
        return Error::errorWithMessage(QStringLiteral("Error finishing the FLAC file (%1).")
                                           .arg(QString::fromLatin1(FLAC__StreamEncoderStateString[before])));
    }
    if (m_completedCallback) {
        m_completedCallback(m_filepath);
    }
    return std::nullopt;
}
