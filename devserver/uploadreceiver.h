#pragma once

#include "multipartparser.h"
#include "store.h"

#include <QCryptographicHash>
#include <QJsonObject>
#include <QTemporaryFile>

#include <map>
#include <memory>

// Receives one multipart upload: checks its fields in the order the client sends them,
// streams the file part to a temporary file in the data folder while taking its MD5 and
// CRC-32, and, at the end, decides the answer (stored, duplicate, refused).
class UploadReceiver
{
public:
    UploadReceiver(Store &store, const std::string &boundary, std::string userAgentHeader);

    // Feeds raw body bytes; never asks to stop reading (a malformed body is read to its end
    // and then refused, so the client gets the answer instead of a broken connection).
    void feed(const char *data, size_t length);

    struct Answer
    {
        int status = 200;
        QJsonObject body;
    };
    // The body has been read whole. `maintenance` refuses an otherwise valid upload.
    Answer finish(bool maintenance);

    // Percent-decodes text (as the client encodes file names); '+' stays as it is.
    static QString percentDecoded(const std::string &text);

    static constexpr size_t kMaxFieldLength = 8 * 1024;

private:
    std::string beginPart(const MultipartParser::PartHeader &header);
    std::string partData(const char *data, size_t length);
    std::string endPart();

    Store &m_store;
    std::string m_userAgentHeader;
    MultipartParser m_parser;
    size_t m_nextField = 0;
    std::string m_currentName;
    std::string m_currentValue;
    bool m_inFile = false;
    std::map<std::string, std::string> m_fields;
    std::unique_ptr<QTemporaryFile> m_file;
    QCryptographicHash m_md5{QCryptographicHash::Md5};
    quint32 m_crc = 0;
    qint64 m_fileSize = 0;
    std::string m_fileName;
    std::string m_fileType;
    bool m_writeFailed = false;
};
