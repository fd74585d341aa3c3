#include "net/ByteRanges.h"

#include <QRegularExpression>

#include <algorithm>
#include <exception>
#include <memory>
#include <utility>

namespace ByteRanges {
namespace {

// What a multipart answer adds around each part: the boundary line and the part's own headers.
// nginx spends about 100 bytes; a server's boundary and content type may take more.
constexpr qint64 kPartOverhead = 512;
// Bytes outside the parts' data a reader holds at once: a preamble, a part's headers.
constexpr qsizetype kMostPending = 8192;

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

// The Content-Range among a part's header lines.
Range rangeOfPart(const QByteArray& headers) {
    for (const QByteArray& line : headers.split('\n')) {
        const qsizetype colon = line.indexOf(':');
        if (colon > 0 && line.left(colon).trimmed().toLower() == "content-range") {
            if (const std::optional<ContentRange> range = parseContentRange(line.mid(colon + 1)))
                return range->range;
        }
    }
    refuse(QStringLiteral("has a part without a usable Content-Range"));
}


// Reads the body of an answer as it arrives, within `cap` bytes.
class Receiver : public BodyReceiver {
public:
    Receiver(qint64 cap, Take take) : cap_(cap), take_(std::move(take)) {}

    Verdict accept(const ResponseHead& head) override {
        if (head.statusCode == 200)
            return Verdict::fail(std::make_exception_ptr(
                RangesIgnored(QStringLiteral("The server answered a request for byte ranges with the whole file."))));
        if (head.statusCode != 206)
            return Verdict::fail(std::make_exception_ptr(NetworkError(
                QStringLiteral("The server answered %1 to a request for byte ranges.").arg(head.statusCode.value_or(0)))));
        if (head.contentLength && *head.contentLength > cap_)
            return Verdict::fail(std::make_exception_ptr(tooLarge()));
        try {
            reader.emplace(head.contentType, head.contentRange, take_);
        } catch (...) {
            return Verdict::fail(std::current_exception());
        }
        return Verdict::take();
    }

    std::exception_ptr write(const char* bytes, qint64 size) override {
        received_ += size;
        if (received_ > cap_)
            return std::make_exception_ptr(tooLarge());
        try {
            reader->feed(bytes, size);
        } catch (...) {
            return std::current_exception();
        }
        return {};
    }

    std::optional<BodyReader> reader;

private:
    static NetworkError tooLarge() {
        return NetworkError(QStringLiteral("The server's answer to a request for byte ranges is larger than asked for."));
    }

    qint64 cap_;
    qint64 received_ = 0;
    Take take_;
};

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

QByteArray header(std::vector<Range> ranges) {
    QByteArray text = "bytes=";
    for (const Range& range : joined(std::move(ranges))) {
        if (text.size() > 6)
            text += ',';
        text += QByteArray::number(range.first) + '-' + QByteArray::number(range.last);
    }
    return text;
}

BodyReader::BodyReader(const QByteArray& contentType, const QByteArray& contentRange, Take take)
    : take_(std::move(take)) {
    if (const QByteArray boundary = boundaryOf(contentType); !boundary.isEmpty()) {
        delimiter_ = "--" + boundary;
        return;
    }
    const std::optional<ContentRange> range = parseContentRange(contentRange);
    if (!range)
        refuse(QStringLiteral("has no usable Content-Range"));
    startPart(range->range);
}

void BodyReader::startPart(const Range& range) {
    offset_ = range.first;
    remaining_ = range.size();
    state_ = State::data;
}

void BodyReader::feed(const char* data, qint64 size) {
    while (size > 0) {
        if (state_ == State::data) {
            const qint64 taken = std::min(size, remaining_);
            take_(offset_, data, taken);
            offset_ += taken;
            remaining_ -= taken;
            data += taken;
            size -= taken;
            if (remaining_ == 0)
                state_ = delimiter_.isEmpty() ? State::end : State::afterData;
            continue;
        }
        // Outside a part's data only a few KiB are ever held: enough for what comes next.
        const qint64 room = std::max<qint64>(1, std::min<qint64>(size, kMostPending + 2 - pending_.size()));
        pending_.append(data, room);
        data += room;
        size -= room;
        step();
        if (state_ != State::data && pending_.size() > kMostPending)
            refuse(QStringLiteral("holds more than a few KiB outside its parts"));
    }
}

// Reads what `pending_` holds as far as it can; the bytes of a part's data that followed its
// headers go on to `take_`.
void BodyReader::step() {
    for (;;) {
        switch (state_) {
        case State::preamble: {
            const qsizetype at = pending_.indexOf(delimiter_);
            if (at < 0)
                return;
            pending_.remove(0, at + delimiter_.size());
            state_ = State::afterDelimiter;
            break;
        }
        case State::afterDelimiter:
            if (pending_.size() < 2)
                return;
            if (pending_.startsWith("--")) {
                pending_.remove(0, 2);
                state_ = State::end;
            } else if (pending_.startsWith("\r\n")) {
                pending_.remove(0, 2);
                state_ = State::headers;
            } else {
                refuse(QStringLiteral("has a malformed boundary line"));
            }
            break;
        case State::headers: {
            const qsizetype end = pending_.indexOf("\r\n\r\n");
            if (end < 0)
                return;
            const Range range = rangeOfPart(pending_.left(end));
            pending_.remove(0, end + 4);
            startPart(range);
            const QByteArray rest = std::exchange(pending_, QByteArray());
            feed(rest.constData(), rest.size());
            return;
        }
        case State::afterData: {
            const QByteArray expected = "\r\n" + delimiter_;
            if (pending_.size() < expected.size())
                return;
            if (!pending_.startsWith(expected))
                refuse(QStringLiteral("has a part that does not end where its Content-Range says"));
            pending_.remove(0, expected.size());
            state_ = State::afterDelimiter;
            break;
        }
        case State::end:
            if (!pending_.trimmed().isEmpty())
                refuse(QStringLiteral("goes on after its last part"));
            return;
        case State::data:
            return;
        }
    }
}

void BodyReader::finish() const {
    if (state_ == State::data)
        refuse(QStringLiteral("has a part cut short"));
    if (state_ != State::end)
        refuse(delimiter_.isEmpty() || state_ == State::preamble ? QStringLiteral("holds no part")
                                                                 : QStringLiteral("ends before its closing boundary"));
}

QCoro::Task<void> fetch(HttpClient& client, QUrl url, std::vector<Range> ranges, Take take) {
    ranges = joined(std::move(ranges));
    qint64 cap = kPartOverhead;
    for (const Range& range : ranges)
        cap += range.size() + kPartOverhead;
    Receiver receiver(cap, std::move(take));
    const RequestHeaders headers{{"Range", header(ranges)}};
    co_await client.stream(url, headers, receiver);
    if (!receiver.reader)
        refuse(QStringLiteral("is not an HTTP answer"));
    receiver.reader->finish();
}

} // namespace ByteRanges
