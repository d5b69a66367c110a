#pragma once

#include <functional>
#include <string>
#include <string_view>

// A strict, streaming parser for multipart/form-data bodies.
//
// The body is fed in pieces of any size; part contents are handed out as they
// arrive, so a part of any size passes through with a bounded buffer (the
// delimiter length plus one input piece). Anything that departs from the
// grammar (a preamble, a header block without Content-Disposition, a missing
// closing delimiter, bytes after the epilogue's line break) is an error with a
// message meant for the sender.
class MultipartParser
{
public:
    struct PartHeader
    {
        std::string name;
        std::string fileName; // empty when the part carries no filename parameter
        bool hasFileName = false;
        std::string contentType;
    };

    // Each callback returns an empty string to go on, or an error message to stop.
    using PartBegin = std::function<std::string(const PartHeader &)>;
    using PartData = std::function<std::string(const char *data, size_t length)>;
    using PartEnd = std::function<std::string()>;

    MultipartParser(std::string boundary, PartBegin begin, PartData data, PartEnd end);

    // Extracts the boundary from a Content-Type value; empty when there is none.
    static std::string boundaryFromContentType(std::string_view contentType);

    // Feeds the next piece of the body. Returns false once an error occurred;
    // later calls are ignored and keep returning false.
    bool feed(const char *data, size_t length);

    // Declares the body complete. Returns false when it ended early.
    bool finish();

    bool failed() const { return !m_error.empty(); }
    const std::string &error() const { return m_error; }
    // The closing delimiter and its line break arrived and nothing went wrong,
    // before or after them.
    bool complete() const { return m_state == State::Done && !failed(); }

    static constexpr size_t kMaxHeaderBlock = 16 * 1024;

private:
    enum class State { Preamble, Headers, Content, AfterDelimiter, Epilogue, Done };

    bool fail(std::string message);
    bool parseHeaders(std::string_view block, PartHeader &header);
    bool step();

    std::string m_dashBoundary; // "--" + boundary
    std::string m_delimiter;    // "\r\n--" + boundary
    PartBegin m_begin;
    PartData m_data;
    PartEnd m_end;
    State m_state = State::Preamble;
    std::string m_buffer;
    std::string m_error;
};
