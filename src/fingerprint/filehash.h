#pragma once

#include <QString>

#include <cstddef>
#include <functional>
#include <optional>

// Streaming digests of whole files. Memory use is one fixed buffer whatever the
// file size, and all state lives in the caller's context, so every operation is
// re-entrant.
class FileHash
{
public:
    // One digest algorithm and its running state. The state belongs to the
    // caller for the duration of the call.
    struct ComputationContext
    {
        bool (*init)(void *state) = nullptr;
        bool (*update)(void *state, const void *bytes, std::size_t count) = nullptr;
        bool (*final)(unsigned char *digest, void *state) = nullptr;
        unsigned digestLength = 0;
        void *state = nullptr;
    };

    // Asked between reads; true abandons the digest.
    using CancelCheck = std::function<bool()>;

    // The digest as lower-case hex, or nothing when the path is not a regular
    // file (a folder, a FIFO, a device, nothing at all), cannot be read to its
    // end, or the digest was abandoned. A FIFO never blocks the open.
    static std::optional<QString> hashOfFileAtPath(const QString &path, const ComputationContext &context,
                                                   const CancelCheck &isCanceled = {});

    // 32, 40 and 128 hex characters.
    static std::optional<QString> md5HashOfFileAtPath(const QString &path, const CancelCheck &isCanceled = {});
    static std::optional<QString> sha1HashOfFileAtPath(const QString &path);
    static std::optional<QString> sha512HashOfFileAtPath(const QString &path);

    // Bytes read from the file at a time.
    static constexpr std::size_t kReadChunkSize = std::size_t(64) * 1024;
};
