#pragma once

#include "errors/Failure.h"
#include "net/TransferLimits.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QUrl>

#include <QCoroTask>

#include <exception>
#include <optional>
#include <utility>

// What a GET brought back. `statusCode` is absent when the answer was not HTTP at all (a file:
// URL); callers decide what a status means.
struct HttpResponse {
    std::optional<int> statusCode;
    QByteArray body;
};

// What a streamed GET learns before its body: the status and the headers a download decides on.
struct ResponseHead {
    std::optional<int> statusCode; // absent when the answer was not HTTP at all
    std::optional<qint64> contentLength;
    QByteArray contentRange;
    QByteArray etag;
    QByteArray lastModified;
};

// Takes the body of a streamed GET as it arrives. A non-null error ends the transfer and is what
// stream() throws.
class BodyReceiver {
public:
    virtual ~BodyReceiver() = default;
    // The answer's head, before any byte of its body (and once more if a redirect is followed).
    virtual std::exception_ptr accept(const ResponseHead& head) = 0;
    virtual std::exception_ptr write(const char* bytes, qint64 size) = 0;
};

using RequestHeaders = QList<std::pair<QByteArray, QByteArray>>;

// The launcher's one HTTP client, shared by every task. Its network manager lives until the
// process ends, because a coroutine awaiting a reply must never see its manager destroyed.
// Operations run on the main thread and suspend only while the transfer runs. Transport failures
// throw NetworkError; HTTP error statuses do not throw.
class HttpClient {
public:
    explicit HttpClient(TransferLimits limits = {}) : limits_(limits) {}
    // The client with the product's limits.
    static HttpClient& shared();

    // One GET of `url` into memory: a manifest. Its body is capped and the whole fetch has a
    // deadline.
    QCoro::Task<HttpResponse> data(QUrl url);
    // One GET of `url` into memory with the download limits and a body of at most `maximumBytes`:
    // a chunk index or a chunk.
    QCoro::Task<HttpResponse> capped(QUrl url, qint64 maximumBytes);
    // One GET of `url` with `headers` whose body streams into `receiver`: an archive. It stops
    // when the body outgrows its Content-Length; the receiver keeps to the free-space reserve.
    QCoro::Task<ResponseHead> stream(QUrl url, RequestHeaders headers, BodyReceiver& receiver);

    const TransferLimits& limits() const { return limits_; }

private:
    QCoro::Task<HttpResponse> fetch(QUrl url, qint64 cap, TransferWatchdog::Limits limits, QString tooLarge);

    TransferLimits limits_;
};
