#include "uploadreceiver.h"

#include <zlib.h>

#include <algorithm>

namespace {

struct FieldRule
{
    const char *name;
    bool required;
};

// The fields of an upload in the order the client writes them; the file's owner comes
// last, after the file.
const FieldRule kFieldOrder[] = {
    {"client", true},    {"device_name", true},    {"user_agent", true},      {"version", true},
    {"file_path", true}, {"playlist-name", false}, {"playlist-order", false}, {"tag-name", false},
    {"reupload", false}, {"file", true},           {"user_id", true},         {"token", true},
};

bool allDigits(const std::string &text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

QJsonObject failure(const QString &message)
{
    return QJsonObject{{"result", false}, {"message", message}};
}

} // namespace

UploadReceiver::UploadReceiver(Store &store, const std::string &boundary, std::string userAgentHeader)
    : m_store(store), m_userAgentHeader(std::move(userAgentHeader)),
      m_parser(
          boundary, [this](const MultipartParser::PartHeader &h) { return beginPart(h); },
          [this](const char *data, size_t length) { return partData(data, length); }, [this] { return endPart(); })
{}

QString UploadReceiver::percentDecoded(const std::string &text)
{
    QByteArray decoded;
    decoded.reserve(qsizetype(text.size()));
    auto hex = [](char c) -> int {
        if (c >= '0' && c <= '9')
            return c - '0';
        if (c >= 'a' && c <= 'f')
            return c - 'a' + 10;
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        return -1;
    };
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && hex(text[i + 1]) >= 0 && hex(text[i + 2]) >= 0) {
            decoded.append(char(hex(text[i + 1]) * 16 + hex(text[i + 2])));
            i += 2;
        } else {
            decoded.append(text[i]);
        }
    }
    return QString::fromUtf8(decoded);
}

void UploadReceiver::feed(const char *data, size_t length)
{
    m_parser.feed(data, length);
}

std::string UploadReceiver::beginPart(const MultipartParser::PartHeader &header)
{
    const size_t count = std::size(kFieldOrder);
    size_t found = m_nextField;
    while (found < count && header.name != kFieldOrder[found].name)
        ++found;
    if (found == count) {
        bool known = std::any_of(std::begin(kFieldOrder), std::end(kFieldOrder),
                                 [&](const FieldRule &rule) { return header.name == rule.name; });
        return known ? "Field \"" + header.name + "\" is repeated or out of order"
                     : "Unexpected field \"" + header.name + "\"";
    }
    for (size_t i = m_nextField; i < found; ++i) {
        if (kFieldOrder[i].required)
            return "Missing field \"" + std::string(kFieldOrder[i].name) + "\" before \"" + header.name + "\"";
    }
    m_nextField = found + 1;
    m_currentName = header.name;
    m_currentValue.clear();
    m_inFile = header.name == "file";
    if (!m_inFile) {
        if (header.hasFileName)
            return "Field \"" + header.name + "\" must not carry a filename";
        return {};
    }
    if (!header.hasFileName || header.fileName.empty())
        return "The file part has no filename";
    if (header.contentType.empty())
        return "The file part has no Content-Type";
    m_fileName = header.fileName;
    m_fileType = header.contentType;
    m_file = std::make_unique<QTemporaryFile>(m_store.incomingDirectory() + "/upload-XXXXXX");
    if (!m_file->open())
        m_writeFailed = true;
    m_crc = quint32(crc32(0L, Z_NULL, 0));
    return {};
}

std::string UploadReceiver::partData(const char *data, size_t length)
{
    if (!m_inFile) {
        if (m_currentValue.size() + length > kMaxFieldLength)
            return "Field \"" + m_currentName + "\" is too long";
        m_currentValue.append(data, length);
        return {};
    }
    m_fileSize += qint64(length);
    if (m_writeFailed)
        return {};
    m_md5.addData(QByteArrayView(data, qsizetype(length)));
    m_crc = quint32(crc32(m_crc, reinterpret_cast<const Bytef *>(data), uInt(length)));
    if (m_file->write(data, qint64(length)) != qint64(length))
        m_writeFailed = true;
    return {};
}

std::string UploadReceiver::endPart()
{
    if (m_inFile) {
        m_inFile = false;
        if (!m_writeFailed && !m_file->flush())
            m_writeFailed = true;
        m_file->close();
        return {};
    }
    const std::string &value = m_currentValue;
    if (m_currentName == "playlist-order" && !allDigits(value))
        return "\"playlist-order\" must be a whole number";
    if (m_currentName == "reupload" && value != "1")
        return "\"reupload\" must be 1";
    if (m_currentName == "user_id" && !allDigits(value))
        return "\"user_id\" must be a whole number";
    if (m_currentName == "playlist-name" && value.empty())
        return "\"playlist-name\" is empty";
    m_fields[m_currentName] = value;
    return {};
}

UploadReceiver::Answer UploadReceiver::finish(bool maintenance)
{
    if (!m_parser.finish())
        return {400, failure(QString::fromStdString(m_parser.error()))};
    for (size_t i = m_nextField; i < std::size(kFieldOrder); ++i) {
        if (kFieldOrder[i].required)
            return {400, failure("Missing field \"" + QLatin1String(kFieldOrder[i].name) + "\"")};
    }
    if (m_fields.count("playlist-name") != m_fields.count("playlist-order"))
        return {400, failure("\"playlist-name\" and \"playlist-order\" go together")};
    if (m_fields["user_agent"] != m_userAgentHeader)
        return {400, failure("The User-Agent header differs from the user_agent field")};
    const QString fileName = percentDecoded(m_fileName);
    if (fileName.isEmpty() || fileName.contains(QLatin1Char('/')))
        return {400, failure("The file part's filename is not a file name")};

    std::optional<Account> account =
        m_store.authenticate(QString::fromStdString(m_fields["user_id"]), QString::fromStdString(m_fields["token"]));
    if (!account)
        return {401, failure("Invalid user or token.")};
    if (maintenance)
        return {503, failure("Lyrabox is undergoing maintenance. Please try again later.")};
    if (m_writeFailed)
        return {500, failure("The server could not store the file.")};

    auto text = [&](const char *key) {
        auto it = m_fields.find(key);
        return it == m_fields.end() ? QString() : QString::fromStdString(it->second);
    };
    StoredFile file;
    file.md5 = QString::fromLatin1(m_md5.result().toHex());
    file.crc32 = m_crc;
    file.size = m_fileSize;
    file.fileName = fileName;
    file.filePath = text("file_path");
    file.contentType = QString::fromStdString(m_fileType);
    file.client = text("client");
    file.deviceName = text("device_name");
    file.userAgent = text("user_agent");
    file.version = text("version");
    file.playlistName = text("playlist-name");
    file.playlistOrder = text("playlist-order");
    file.tagName = text("tag-name");
    file.reupload = m_fields.count("reupload") > 0;

    QString error;
    switch (m_store.addFile(account->userId, m_file->fileName(), file, file.reupload, &error)) {
    case Store::AddResult::Stored:
        return {200,
                QJsonObject{
                    {"result", true}, {"message", "File uploaded."}, {"md5", file.md5}, {"track_index", file.index}}};
    case Store::AddResult::Duplicate:
        return {200, QJsonObject{{"result", true},
                                 {"message", "File already in your library."},
                                 {"md5", file.md5},
                                 {"duplicate", true}}};
    case Store::AddResult::NoAccount:
        return {401, failure("Invalid user or token.")};
    case Store::AddResult::Failed:
        break;
    }
    return {500, failure("The server could not store the file: " + error)};
}
