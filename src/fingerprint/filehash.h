#pragma once

#include <QString>

#include <cstddef>
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

    // The digest as lower-case hex, or nothing when the file cannot be opened
    // or read to its end (a directory, a missing file, a read error).
    static std::optional<QString> hashOfFileAtPath(const QString &path, const ComputationContext &context);

    static std::optional<QString> md5HashOfFileAtPath(const QString &path);    // 32 hex characters
    static std::optional<QString> sha1HashOfFileAtPath(const QString &path);   // 40
    static std::optional<QString> sha512HashOfFileAtPath(const QString &path); // 128

    // Bytes read from the file at a time.
    static constexpr std::size_t kReadChunkSize = 64 * 1024;
};
