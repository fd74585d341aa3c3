#pragma once

#include "net/HttpClient.h"

#include <QByteArray>
#include <QUrl>

#include <QCoroTask>

#include <functional>
#include <optional>
#include <vector>

// Asking a server for parts of one file, many in one request, and reading the answer as it
// arrives.
namespace ByteRanges {

// Bytes `first` to `last` of a file, both included, as HTTP counts them.
struct Range {
    qint64 first = 0;
    qint64 last = 0;

    qint64 size() const { return last - first + 1; }
    bool operator==(const Range&) const = default;
};

// A Content-Range value, "bytes FIRST-LAST/TOTAL" (TOTAL may be "*").
struct ContentRange {
    Range range;
    std::optional<qint64> total;
};
std::optional<ContentRange> parseContentRange(const QByteArray& text);

// `ranges` sorted, with ranges that touch or overlap joined: what one request asks for.
std::vector<Range> joined(std::vector<Range> ranges);

// "bytes=A-B,C-D,..." for `ranges`, sorted, with ranges that touch or overlap joined.
QByteArray header(std::vector<Range> ranges);

// Takes bytes of the file as they arrive: `size` bytes at `data` that the file holds at `offset`.
using Take = std::function<void(qint64 offset, const char* data, qint64 size)>;

// Reads the body of a 206 answer piece by piece, however it is cut: the one part its
// Content-Range names, or every part of a multipart/byteranges body, each read by the length its
// own Content-Range gives (so no boundary is ever looked for inside the bytes), handing each
// part's bytes to `take` as they come. Throws NetworkError for an answer that does not hold
// together: no or a malformed Content-Range, a missing boundary, headers or a preamble past a
// few KiB, a part cut short, bytes left over.
class BodyReader {
public:
    BodyReader(const QByteArray& contentType, const QByteArray& contentRange, Take take);

    void feed(const char* data, qint64 size);
    // The body is over: throws when it ended inside a part or before the closing boundary.
    void finish() const;

private:
    enum class State { preamble, afterDelimiter, headers, data, afterData, end };

    void step();
    void startPart(const Range& range);

    Take take_;
    QByteArray delimiter_; // "--" and the boundary; empty for a single part
    State state_ = State::preamble;
    QByteArray pending_;   // bytes outside a part's data not read yet
    qint64 offset_ = 0;    // where in the file the next data byte belongs
    qint64 remaining_ = 0; // data bytes of the current part still to come
};

// A 200 to a request for byte ranges: the server sends whole files, or (as many object stores and
// CDNs do) answers one range a request but not several. Refused at the answer's head.
class RangesIgnored : public NetworkError {
public:
    using NetworkError::NetworkError;
};

// Asks for `ranges` of `url` in one GET and hands the bytes of the answer's parts to `take` as
// they arrive, with the client's download limits and a body of at most the ranges' bytes plus
// room for the parts' headers. `take` may throw to end the transfer; what it throws is what this
// throws. Throws NetworkError; also for an answer other than 206, refused at its head:
// RangesIgnored for a 200.
QCoro::Task<void> fetch(HttpClient& client, QUrl url, std::vector<Range> ranges, Take take);

} // namespace ByteRanges
