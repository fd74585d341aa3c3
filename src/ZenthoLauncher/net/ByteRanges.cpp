#include "net/ByteRanges.h"

#include <QRegularExpression>

#include <algorithm>
#include <exception>
#include <utility>

namespace ByteRanges {
namespace {

// What a multipart answer adds around each part: the boundary line and the part's own headers.
// nginx spends about 100 bytes; a server's boundary and content type may take more.
constexpr qint64 kPartOverhead = 512;

[[noreturn]] void refuse(const QString& why) {
    throw NetworkError(QStringLiteral("The server's answer to a request for byte ranges %1.").arg(why));
}

// The boundary of a multipart/byteranges content type, quoted or not; empty for any other type.
QByteArray boundaryOf(const QByteArray& contentType) {
    const QList<QByteArray> fields = contentType.split(';');
    if (fields.front().trimmed().toLower() != "multipart/byteranges")
        return {};
    for (qsizetype i = 1; i < fields.size(); ++i) {
        const QByteArray field = fields[i].trimmed();
        if (!field.toLower().startsWith("boundary="))
            continue;
        QByteArray boundary = field.mid(9);
        if (boundary.size() >= 2 && boundary.startsWith('"') && boundary.endsWith('"'))
            boundary = boundary.mid(1, boundary.size() - 2);
        return boundary.size() <= 70 ? boundary : QByteArray();
    }
    return {};
}

// Reads `text` at `at` and moves past it; false, not moving, when it is not there.
bool skip(const QByteArray& body, qsizetype& at, QByteArrayView text) {
    if (at > body.size() - text.size() || QByteArrayView(body.constData() + at, text.size()) != text)
        return false;
    at += text.size();
    return true;
}

// The Content-Range of the part whose headers start at `at`, which moves past the empty line
// that ends them.
Range partHeaders(const QByteArray& body, qsizetype& at) {
    std::optional<ContentRange> range;
    for (;;) {
        const qsizetype end = body.indexOf("\r\n", at);
        if (end < 0)
            refuse(QStringLiteral("has a part whose headers do not end"));
        const QByteArray line = body.mid(at, end - at);
        at = end + 2;
        if (line.isEmpty())
            break;
        const qsizetype colon = line.indexOf(':');
        if (colon > 0 && line.left(colon).trimmed().toLower() == "content-range")
            range = parseContentRange(line.mid(colon + 1));
    }
    if (!range)
        refuse(QStringLiteral("has a part without a usable Content-Range"));
    return range->range;
}

std::vector<Part> multipart(const QByteArray& boundary, const QByteArray& body) {
    const QByteArray delimiter = "--" + boundary;
    // Whatever comes before the first delimiter is a preamble, which nginx makes an empty line.
    qsizetype at = body.indexOf(delimiter);
    if (at < 0)
        refuse(QStringLiteral("holds no part"));
    std::vector<Part> parts;
    for (;;) {
        if (!skip(body, at, delimiter))
            refuse(QStringLiteral("has a part that does not end where its Content-Range says"));
        if (skip(body, at, "--"))
            break;
        if (!skip(body, at, "\r\n"))
            refuse(QStringLiteral("has a malformed boundary line"));
        const Range range = partHeaders(body, at);
        if (range.size() > body.size() - at)
            refuse(QStringLiteral("has a part cut short"));
        parts.push_back(Part{range, body.mid(at, range.size())});
        at += range.size();
        if (!skip(body, at, "\r\n"))
            refuse(QStringLiteral("has a part that does not end where its Content-Range says"));
    }
    if (!body.mid(at).trimmed().isEmpty())
        refuse(QStringLiteral("goes on after its last part"));
    return parts;
}

// Keeps the whole body of a 206 answer in memory, up to `cap` bytes.
class Collector : public BodyReceiver {
public:
    explicit Collector(qint64 cap) : cap_(cap) {}

    Verdict accept(const ResponseHead& head) override {
        if (head.statusCode != 206)
            return Verdict::fail(std::make_exception_ptr(NetworkError(
                QStringLiteral("The server answered %1 to a request for byte ranges.").arg(head.statusCode.value_or(0)))));
        if (head.contentLength && *head.contentLength > cap_)
            return Verdict::fail(std::make_exception_ptr(
                NetworkError(QStringLiteral("The server's answer to a request for byte ranges is larger than asked for."))));
        return Verdict::take();
    }

    std::exception_ptr write(const char* bytes, qint64 size) override {
        if (body.size() + size > cap_)
            return std::make_exception_ptr(
                NetworkError(QStringLiteral("The server's answer to a request for byte ranges is larger than asked for.")));
        body.append(bytes, size);
        return {};
    }

    QByteArray body;

private:
    qint64 cap_;
};

std::vector<Range> joined(std::vector<Range> ranges) {
    std::sort(ranges.begin(), ranges.end(), [](const Range& a, const Range& b) { return a.first < b.first; });
    std::vector<Range> result;
    for (const Range& range : ranges) {
        if (!result.empty() && range.first <= result.back().last + 1)
            result.back().last = std::max(result.back().last, range.last);
        else
            result.push_back(range);
    }
    return result;
}

} // namespace

std::optional<ContentRange> parseContentRange(const QByteArray& text) {
    static const QRegularExpression pattern(QStringLiteral("^bytes (\\d{1,18})-(\\d{1,18})/(\\d{1,18}|\\*)$"));
    const QRegularExpressionMatch match = pattern.match(QString::fromLatin1(text.trimmed()));
    if (!match.hasMatch())
        return std::nullopt;
    ContentRange result{Range{match.captured(1).toLongLong(), match.captured(2).toLongLong()}, std::nullopt};
    if (match.captured(3) != QLatin1String("*"))
        result.total = match.captured(3).toLongLong();
    if (result.range.last < result.range.first || (result.total && result.range.last >= *result.total))
        return std::nullopt;
    return result;
}

QByteArray header(std::vector<Range> ranges) {
    QByteArray text = "bytes=";
    for (const Range& range : joined(std::move(ranges))) {
        if (text.size() > 6)
            text += ',';
        text += QByteArray::number(range.first) + '-' + QByteArray::number(range.last);
    }
    return text;
}

std::vector<Part> parts(const QByteArray& contentType, const QByteArray& contentRange, const QByteArray& body) {
    if (const QByteArray boundary = boundaryOf(contentType); !boundary.isEmpty())
        return multipart(boundary, body);
    const std::optional<ContentRange> range = parseContentRange(contentRange);
    if (!range)
        refuse(QStringLiteral("has no usable Content-Range"));
    if (range->range.size() != body.size())
        refuse(QStringLiteral("is not as long as its Content-Range says"));
    return {Part{range->range, body}};
}

QCoro::Task<std::vector<Part>> fetch(HttpClient& client, QUrl url, std::vector<Range> ranges) {
    ranges = joined(std::move(ranges));
    qint64 cap = kPartOverhead;
    for (const Range& range : ranges)
        cap += range.size() + kPartOverhead;
    Collector collector(cap);
    const RequestHeaders headers{{"Range", header(ranges)}};
    const ResponseHead head = co_await client.stream(url, headers, collector);
    co_return parts(head.contentType, head.contentRange, collector.body);
}

} // namespace ByteRanges
