// The local service's multipart parser, fed upload bodies in arbitrary pieces.
//
// The input's first line is the request's Content-Type value; the rest is the
// body. The body is parsed whole, a byte at a time and in two chunkings drawn
// from the input itself: all must see the same parts and the same outcome.
// A body that parsed is then written again in plain form and must parse to
// the same parts.
#include "fuzzcheck.h"

#include "multipartparser.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace {

struct Part
{
    MultipartParser::PartHeader header;
    std::string data;
    bool ended = false;

    bool operator==(const Part &other) const
    {
        return header.name == other.header.name && header.fileName == other.header.fileName &&
               header.hasFileName == other.header.hasFileName && header.contentType == other.header.contentType &&
               data == other.data && ended == other.ended;
    }
};

struct Outcome
{
    std::vector<Part> parts;
    bool fed = false;
    bool finished = false;
    bool complete = false;
    std::string error;

    bool operator==(const Outcome &other) const = default;
};

// The receiver's own refusal, so that stopping from a callback is covered too.
const std::string kRefusedName = "refused";

Outcome parse(const std::string &boundary, std::string_view body, const std::vector<size_t> &pieces)
{
    Outcome outcome;
    std::string delimiter = "\r\n--" + boundary;
    MultipartParser parser(
        boundary,
        [&](const MultipartParser::PartHeader &header) {
            FUZZ_CHECK(outcome.parts.empty() || outcome.parts.back().ended);
            outcome.parts.push_back(Part{header, {}, false});
            return header.name == kRefusedName ? std::string("refused by the receiver") : std::string();
        },
        [&](const char *data, size_t length) {
            FUZZ_CHECK(!outcome.parts.empty() && !outcome.parts.back().ended);
            FUZZ_CHECK(length > 0);
            outcome.parts.back().data.append(data, length);
            return std::string();
        },
        [&]() {
            FUZZ_CHECK(!outcome.parts.empty() && !outcome.parts.back().ended);
            outcome.parts.back().ended = true;
            return std::string();
        });
    size_t at = 0;
    bool fed = true;
    for (size_t piece : pieces) {
        fed = parser.feed(body.data() + at, piece) && fed;
        at += piece;
    }
    FUZZ_CHECK(at == body.size());
    outcome.fed = fed;
    outcome.finished = parser.finish();
    outcome.complete = parser.complete();
    outcome.error = parser.error();
    FUZZ_CHECK(outcome.finished == outcome.error.empty());
    FUZZ_CHECK(outcome.finished == outcome.complete);
    // No part's content holds the delimiter that ends it.
    for (const Part &part : outcome.parts) {
        FUZZ_CHECK(part.data.find(delimiter) == std::string::npos);
    }
    return outcome;
}

// Piece sizes from a small generator seeded by the input, so each input is
// parsed the same way every time it is run.
std::vector<size_t> chunking(size_t size, uint64_t seed, size_t largest)
{
    std::vector<size_t> pieces;
    uint64_t state = seed | 1;
    size_t left = size;
    while (left > 0) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        size_t piece = std::min<size_t>(left, 1 + state % largest);
        pieces.push_back(piece);
        left -= piece;
    }
    return pieces;
}

std::string quoted(const std::string &value)
{
    std::string text = "\"";
    for (char c : value) {
        if (c == '"' || c == '\\') {
            text += '\\';
        }
        text += c;
    }
    return text + '"';
}

// The parts in the plain form a client writes.
std::string write(const std::string &boundary, const std::vector<Part> &parts)
{
    std::string body;
    for (const Part &part : parts) {
        body += "--" + boundary + "\r\nContent-Disposition: form-data; name=" + quoted(part.header.name);
        if (part.header.hasFileName) {
            body += "; filename=" + quoted(part.header.fileName);
        }
        if (!part.header.contentType.empty()) {
            body += "\r\nContent-Type: " + part.header.contentType;
        }
        body += "\r\n\r\n" + part.data + "\r\n";
    }
    return body + "--" + boundary + "--\r\n";
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string_view input(reinterpret_cast<const char *>(data), size);
    const size_t newline = input.find('\n');
    if (newline == std::string_view::npos) {
        MultipartParser::boundaryFromContentType(input);
        return 0;
    }
    const std::string_view contentType = input.substr(0, newline);
    const std::string_view body = input.substr(newline + 1);

    const std::string boundary = MultipartParser::boundaryFromContentType(contentType);
    if (boundary.empty()) {
        return 0;
    }
    // RFC 2046's bounds, and the boundary a client would send back reads as the same one.
    FUZZ_CHECK(boundary.size() <= 70);
    FUZZ_CHECK(MultipartParser::boundaryFromContentType("multipart/form-data; boundary=" + quoted(boundary)) ==
               boundary);

    uint64_t seed = 1469598103934665603ull;
    for (unsigned char c : input) {
        seed = (seed ^ c) * 1099511628211ull;
    }
    const Outcome whole = parse(boundary, body, {body.size()});
    const Outcome bytewise = parse(boundary, body, std::vector<size_t>(body.size(), 1));
    FUZZ_CHECK_SAY(bytewise == whole, "whole: " + whole.error + " / byte by byte: " + bytewise.error);
    for (size_t largest : {size_t(7), size_t(97)}) {
        const Outcome chunked = parse(boundary, body, chunking(body.size(), seed + largest, largest));
        FUZZ_CHECK_SAY(chunked == whole, "whole: " + whole.error + " / in pieces: " + chunked.error);
    }

    // A boundary with a line break in it could be found where the plain form
    // joins a part's content to the next delimiter; clients never send one.
    if (!whole.complete || boundary.find_first_of("\r\n") != std::string::npos) {
        return 0;
    }
    for (const Part &part : whole.parts) {
        // Quoting can make a header block longer than the parser takes.
        if (write(boundary, {part}).size() > MultipartParser::kMaxHeaderBlock + part.data.size()) {
            return 0;
        }
    }
    const std::string rewritten = write(boundary, whole.parts);
    const Outcome again = parse(boundary, rewritten, {rewritten.size()});
    FUZZ_CHECK_SAY(again == whole, "the plain form of the body parses differently: " + again.error);
    return 0;
}
