#pragma once

#include "cd/plcid3tag.h"
#include "core/error.h"

#include <QByteArray>
#include <QObject>
#include <QUrl>

#include <array>
#include <cstdint>
#include <functional>
#include <vector>

#include <FLAC/format.h>
#include <FLAC/stream_encoder.h>

// Encodes the 16-bit stereo samples of a CD track, as they are ripped, into
// a FLAC file with Vorbis comments and a picture block, in the temporary
// folder. The file lives as long as the encoder: destroying the encoder
// removes it, so whoever needs it copies or reads it in completedCallback.
// One encoder is used by one thread.
class FLACEncoder : public QObject
{
    Q_OBJECT

public:
    using ProgressCallback = std::function<void(uint64_t samplesWritten, uint64_t totalSamples)>;
    using CompletedCallback = std::function<void(const QUrl &fileURL)>;

    explicit FLACEncoder(QObject *parent = nullptr);
    ~FLACEncoder() override;

    // Creates the encoder and its output file for sampleCount stereo samples
    // tagged with tags. Nothing on success, else the error. Missing tag
    // blocks never fail it.
    OptionalError configureWithSampleCount(uint64_t sampleCount, const PLCID3Tag &tags,
                                           ProgressCallback progressCallback, CompletedCallback completedCallback);

    // Encodes length interleaved 16-bit values (length / 2 stereo samples).
    // False once the encoder has failed (finish then says why).
    bool processSamples(const int16_t *samples, size_t length);

    // Ends the stream (writing the final headers) and, when the file is
    // complete and its verification matched the samples, runs
    // completedCallback. Otherwise the error, and the callback is not run.
    OptionalError finish();

    FLAC__StreamEncoder *encoder() const { return m_encoder; }
    const std::array<FLAC__StreamMetadata *, 3> &metadata() const { return m_metadata; }
    uint32_t sampleRate() const { return m_sampleRate; }
    uint32_t channels() const { return m_channels; }
    uint32_t bps() const { return m_bps; }
    QUrl filepath() const { return m_filepath; }
    uint64_t totalSamples() const { return m_totalSamples; }
    QByteArray cachedFLAC() const { return m_cachedFLAC; }
    void setCachedFLAC(const QByteArray &data) { m_cachedFLAC = data; }

private:
    FLAC__StreamEncoder *m_encoder = nullptr;
    // Vorbis comment, picture, padding.
    std::array<FLAC__StreamMetadata *, 3> m_metadata{};
    uint32_t m_sampleRate = 44100;
    uint32_t m_channels = 2;
    uint32_t m_bps = 16;
    QUrl m_filepath;
    uint64_t m_totalSamples = 0;
    ProgressCallback m_progressCallback;
    CompletedCallback m_completedCallback;
    QByteArray m_cachedFLAC;
    std::vector<int32_t> m_wideSamples;
};
