#include "fingerprint/filehash.h"

#include <QFile>

#include <openssl/evp.h>

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool evpUpdate(void *state, const void *bytes, std::size_t count)
{
    return EVP_DigestUpdate(static_cast<EVP_MD_CTX *>(state), bytes, count) == 1;
}

bool evpFinal(unsigned char *digest, void *state)
{
    return EVP_DigestFinal_ex(static_cast<EVP_MD_CTX *>(state), digest, nullptr) == 1;
}

template <const EVP_MD *(*Algorithm)()> bool evpInit(void *state)
{
    return EVP_DigestInit_ex(static_cast<EVP_MD_CTX *>(state), Algorithm(), nullptr) == 1;
}

template <const EVP_MD *(*Algorithm)()>
std::optional<QString> evpHashOfFile(const QString &path, unsigned length, const FileHash::CancelCheck &isCanceled = {})
{
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> state(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    if (!state) {
        return std::nullopt;
    }
    FileHash::ComputationContext context;
    context.init = &evpInit<Algorithm>;
    context.update = &evpUpdate;
    context.final = &evpFinal;
    context.digestLength = length;
    context.state = state.get();
    return FileHash::hashOfFileAtPath(path, context, isCanceled);
}

QString hexText(const unsigned char *digest, unsigned length)
{
    static constexpr char digits[] = "0123456789abcdef";
    QString text(qsizetype(length) * 2, Qt::Uninitialized);
    QChar *out = text.data();
    for (unsigned i = 0; i < length; ++i) {
        *out++ = QLatin1Char(digits[digest[i] >> 4]);
        *out++ = QLatin1Char(digits[digest[i] & 0x0f]);
    }
    return text;
}

} // namespace

std::optional<QString> FileHash::hashOfFileAtPath(const QString &path, const ComputationContext &context,
                                                  const CancelCheck &isCanceled)
{
    if (path.isEmpty() || !context.init || !context.update || !context.final || context.digestLength == 0 ||
        context.digestLength > EVP_MAX_MD_SIZE) {
        return std::nullopt;
    }
    // Non-blocking, so a FIFO put in a file's place does not wait for a
    // writer; anything but a regular file (a FIFO, /dev/zero) would never end.
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        return std::nullopt;
    }
    struct stat info;
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        ::close(fd);
        return std::nullopt;
    }
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);

    // A fixed buffer: memory does not grow with the file. 64 KiB rather than
    // 4 KiB pieces, because the extra system calls of small reads cost about a
    // tenth of the throughput.
    std::array<unsigned char, kReadChunkSize> buffer;
    bool readError = !context.init(context.state);
    while (!readError) {
        if (isCanceled && isCanceled()) {
            readError = true;
            break;
        }
        const ssize_t count = ::read(fd, buffer.data(), buffer.size());
        if (count == 0) {
            break;
        }
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            readError = true;
            break;
        }
        if (!context.update(context.state, buffer.data(), std::size_t(count))) {
            readError = true;
        }
    }
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    const bool finalised = context.final(digest.data(), context.state);
    ::close(fd);
    if (readError || !finalised) {
        return std::nullopt;
    }
    return hexText(digest.data(), context.digestLength);
}

std::optional<QString> FileHash::md5HashOfFileAtPath(const QString &path, const CancelCheck &isCanceled)
{
    return evpHashOfFile<&EVP_md5>(path, 16, isCanceled);
}

std::optional<QString> FileHash::sha1HashOfFileAtPath(const QString &path)
{
    return evpHashOfFile<&EVP_sha1>(path, 20);
}

std::optional<QString> FileHash::sha512HashOfFileAtPath(const QString &path)
{
    return evpHashOfFile<&EVP_sha512>(path, 64);
}
