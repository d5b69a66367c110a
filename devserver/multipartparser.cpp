#include "multipartparser.h"

#include <algorithm>
#include <cctype>

namespace {

std::string lower(std::string_view text)
{
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), [](unsigned char c) { return std::tolower(c); });
    return result;
}

std::string_view trim(std::string_view text)
{
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
        text.remove_suffix(1);
    return text;
}

// Reads `key=value` or `key="value"` parameters after the first `;` of a header value.
// Returns false on a syntax error (unterminated quote, parameter without `=`).
bool parseParameters(std::string_view text, std::string &type,
                     const std::function<bool(const std::string &, const std::string &)> &parameter)
{
    size_t semicolon = text.find(';');
    type = lower(trim(text.substr(0, semicolon)));
    if (semicolon == std::string_view::npos)
        return true;
    size_t pos = semicolon + 1;
    while (pos < text.size()) {
        while (pos < text.size() && (text[pos] == ' ' || text[pos] == '\t'))
            ++pos;
        size_t equals = text.find('=', pos);
        if (equals == std::string_view::npos)
            return false;
        std::string key = lower(trim(text.substr(pos, equals - pos)));
        if (key.empty())
            return false;
        pos = equals + 1;
        std::string value;
        if (pos < text.size() && text[pos] == '"') {
            ++pos;
            bool closed = false;
            while (pos < text.size()) {
                char c = text[pos++];
                if (c == '\\' && pos < text.size()) {
                    value += text[pos++];
                } else if (c == '"') {
                    closed = true;
                    break;
                } else {
                    value += c;
                }
            }
            if (!closed)
                return false;
            while (pos < text.size() && (text[pos] == ' ' || text[pos] == '\t'))
                ++pos;
            if (pos < text.size() && text[pos] != ';')
                return false;
        } else {
            size_t end = text.find(';', pos);
            value = std::string(trim(text.substr(pos, end == std::string_view::npos ? text.npos : end - pos)));
            pos = end == std::string_view::npos ? text.size() : end;
        }
        if (!parameter(key, value))
            return false;
        if (pos < text.size() && text[pos] == ';')
            ++pos;
    }
    return true;
}

} // namespace

MultipartParser::MultipartParser(std::string boundary, PartBegin begin, PartData data, PartEnd end)
    : m_dashBoundary("--" + boundary), m_delimiter("\r\n--" + boundary), m_begin(std::move(begin)),
      m_data(std::move(data)), m_end(std::move(end))
{}

std::string MultipartParser::boundaryFromContentType(std::string_view contentType)
{
    std::string type;
    std::string boundary;
    bool ok = parseParameters(contentType, type, [&](const std::string &key, const std::string &value) {
        if (key == "boundary")
            boundary = value;
        return true;
    });
    // RFC 2046: 1 to 70 characters.
    if (!ok || type != "multipart/form-data" || boundary.empty() || boundary.size() > 70)
        return {};
    return boundary;
}

bool MultipartParser::fail(std::string message)
{
    if (m_error.empty())
        m_error = std::move(message);
    m_buffer.clear();
    return false;
}

bool MultipartParser::feed(const char *data, size_t length)
{
    if (failed())
        return false;
    if (m_state == State::Done) {
        if (length > 0)
            return fail("Unexpected data after the closing boundary");
        return true;
    }
    m_buffer.append(data, length);
    while (step()) {
    }
    return !failed();
}

bool MultipartParser::finish()
{
    if (failed())
        return false;
    if (m_state == State::Epilogue && m_buffer.empty())
        m_state = State::Done;
    if (m_state != State::Done)
        return fail("The multipart body ended before its closing boundary");
    return true;
}

// Consumes what it can from the buffer; returns true when another step may make progress.
bool MultipartParser::step()
{
    switch (m_state) {
    case State::Preamble: {
        const std::string opening = m_dashBoundary + "\r\n";
        size_t n = std::min(opening.size(), m_buffer.size());
        if (m_buffer.compare(0, n, opening, 0, n) != 0)
            return fail("The body does not start with the boundary");
        if (m_buffer.size() < opening.size())
            return false;
        m_buffer.erase(0, opening.size());
        m_state = State::Headers;
        return true;
    }
    case State::Headers: {
        size_t end = m_buffer.find("\r\n\r\n");
        if (end == std::string::npos) {
            if (m_buffer.size() > kMaxHeaderBlock)
                return fail("Part headers are too long");
            return false;
        }
        if (end + 4 > kMaxHeaderBlock)
            return fail("Part headers are too long");
        PartHeader header;
        if (!parseHeaders(std::string_view(m_buffer).substr(0, end), header))
            return false;
        m_buffer.erase(0, end + 4);
        if (std::string message = m_begin(header); !message.empty())
            return fail(message);
        m_state = State::Content;
        return true;
    }
    case State::Content: {
        size_t at = m_buffer.find(m_delimiter);
        if (at == std::string::npos) {
            // Keep a tail that could be the start of a delimiter split across pieces.
            size_t keep = std::min(m_buffer.size(), m_delimiter.size() - 1);
            size_t emit = m_buffer.size() - keep;
            if (emit > 0) {
                if (std::string message = m_data(m_buffer.data(), emit); !message.empty())
                    return fail(message);
                m_buffer.erase(0, emit);
            }
            return false;
        }
        if (at > 0) {
            if (std::string message = m_data(m_buffer.data(), at); !message.empty())
                return fail(message);
        }
        m_buffer.erase(0, at + m_delimiter.size());
        if (std::string message = m_end(); !message.empty())
            return fail(message);
        m_state = State::AfterDelimiter;
        return true;
    }
    case State::AfterDelimiter: {
        if (m_buffer.size() < 2)
            return false;
        if (m_buffer.compare(0, 2, "\r\n") == 0) {
            m_buffer.erase(0, 2);
            m_state = State::Headers;
            return true;
        }
        if (m_buffer.compare(0, 2, "--") == 0) {
            m_buffer.erase(0, 2);
            m_state = State::Epilogue;
            return true;
        }
        return fail("Malformed boundary line");
    }
    case State::Epilogue: {
        // Only the line break that ends the closing delimiter may follow.
        size_t n = std::min<size_t>(2, m_buffer.size());
        if (m_buffer.compare(0, n, "\r\n", 0, n) != 0)
            return fail("Unexpected data after the closing boundary");
        if (m_buffer.size() < 2)
            return false;
        if (m_buffer.size() > 2)
            return fail("Unexpected data after the closing boundary");
        m_buffer.clear();
        m_state = State::Done;
        return false;
    }
    case State::Done:
        return false;
    }
    return false;
}

bool MultipartParser::parseHeaders(std::string_view block, PartHeader &header)
{
    bool sawDisposition = false;
    bool sawType = false;
    size_t pos = 0;
    while (pos <= block.size()) {
        size_t end = block.find("\r\n", pos);
        std::string_view line = block.substr(pos, end == std::string_view::npos ? block.npos : end - pos);
        pos = end == std::string_view::npos ? block.size() + 1 : end + 2;
        size_t colon = line.find(':');
        if (colon == std::string_view::npos || colon == 0)
            return fail("Malformed part header line");
        std::string name = lower(line.substr(0, colon));
        std::string_view value = trim(line.substr(colon + 1));
        if (name == "content-disposition") {
            if (sawDisposition)
                return fail("Duplicate Content-Disposition header");
            sawDisposition = true;
            bool sawName = false;
            std::string type;
            bool ok = parseParameters(value, type, [&](const std::string &key, const std::string &v) {
                if (key == "name") {
                    if (sawName)
                        return false;
                    sawName = true;
                    header.name = v;
                } else if (key == "filename") {
                    if (header.hasFileName)
                        return false;
                    header.hasFileName = true;
                    header.fileName = v;
                }
                return true;
            });
            if (!ok || type != "form-data")
                return fail("Malformed Content-Disposition header");
            if (!sawName || header.name.empty())
                return fail("A part has no field name");
        } else if (name == "content-type") {
            if (sawType)
                return fail("Duplicate Content-Type header");
            sawType = true;
            if (value.empty())
                return fail("Empty Content-Type header");
            header.contentType = std::string(value);
        } else if (name != "content-transfer-encoding") {
            return fail("Unexpected part header \"" + name + "\"");
        }
    }
    if (!sawDisposition)
        return fail("A part has no Content-Disposition header");
    return true;
}
