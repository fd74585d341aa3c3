#pragma once

#include "net/HttpClient.h"

#include <QByteArray>
#include <QUrl>

#include <QCoroTask>

#include <optional>
#include <vector>

// Asking a server for parts of one file, many in one request.
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

// "bytes=A-B,C-D,..." for `ranges`, sorted, with ranges that touch or overlap joined.
QByteArray header(std::vector<Range> ranges);

// One part of a 206 answer: the bytes of `range`.
struct Part {
    Range range;
    QByteArray bytes;
};

// The parts of a 206 answer with the head `contentType` and `contentRange` and the body `body`:
// the one part Content-Range names, or every part of a multipart/byteranges body, each read by
// the length its own Content-Range gives (so no boundary is looked for inside the bytes). Throws
// NetworkError for an answer that does not hold together: no or a malformed Content-Range, a
// missing boundary, a part cut short, bytes left over.
std::vector<Part> parts(const QByteArray& contentType, const QByteArray& contentRange, const QByteArray& body);

// Asks for `ranges` of `url` in one GET and returns the parts of the answer, with the client's
// download limits and a body of at most the ranges' bytes plus room for the parts' headers.
// Throws NetworkError; also for an answer other than 206, which a server that ignores ranges
// gives.
QCoro::Task<std::vector<Part>> fetch(HttpClient& client, QUrl url, std::vector<Range> ranges);

} // namespace ByteRanges
