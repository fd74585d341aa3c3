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
    QByteArray contentType;
    QByteArray etag;
    QByteArray lastModified;
};

// Takes the body of a streamed GET as it arrives. A non-null error ends the transfer and is what
// stream() throws.
class BodyReceiver {
public:
    // What the receiver makes of an answer's head.
    struct Verdict {
        // Nothing of this answer's body is wanted: the transfer ends at its head, and stream()
        // returns that head, or throws `error` when there is one.
        bool declined = false;
        std::exception_ptr error;

        static Verdict take() { return {}; }
        static Verdict decline() { return {true, nullptr}; }
        static Verdict fail(std::exception_ptr error) { return {true, std::move(error)}; }
    };

    virtual ~BodyReceiver() = default;
    // The answer's head, before any byte of its body (and once more if a redirect is followed).
    virtual Verdict accept(const ResponseHead& head) = 0;
    virtual std::exception_ptr write(const char* bytes, qint64 size) = 0;
};

using RequestHeaders = QList<std::pair<QByteArray, QByteArray>>;

class QNetworkReply;
class UnreachableHosts;

// Every transfer of the launcher goes through an HttpClient, handed to the engines by the model.
// All clients share one network manager, which lives until the process ends, because a coroutine
// awaiting a reply must never see its manager destroyed. Operations run on the main thread and
// suspend only while the transfer runs. Transport failures throw NetworkError; HTTP error statuses
// do not throw.
class HttpClient {
public:
    // The product's limits unless a test asks for smaller ones.
    explicit HttpClient(TransferLimits limits = {}) : limits_(limits) {}

    // The servers that failed to connect while `memo` is set are remembered there, and a request
    // to one of them fails at once with the same error; none by default, so every request tries.
    void rememberUnreachableIn(UnreachableHosts* memo) { unreachable_ = memo; }

    // One GET of `url` into memory: a manifest. Its body is capped and the whole fetch has a
    // deadline.
    QCoro::Task<HttpResponse> data(QUrl url);
    // One GET of `url` into memory with the download limits and a body of at most `maximumBytes`:
    // a chunk.
    QCoro::Task<HttpResponse> capped(QUrl url, qint64 maximumBytes);
    // One GET of `url` into memory with a manifest's limits, its overall deadline included, and a
    // body of at most `maximumBytes`: the small files an update reads before it knows what to
    // fetch (a chunk index), which must not keep the player waiting on a server that drip-feeds.
    QCoro::Task<HttpResponse> metadata(QUrl url, qint64 maximumBytes);
    // One GET of `url` with `headers` whose body streams into `receiver`: an archive. It stops
    // when the body outgrows its Content-Length, or at the head when the receiver declines the
    // body; the receiver keeps to the free-space reserve.
    QCoro::Task<ResponseHead> stream(QUrl url, RequestHeaders headers, BodyReceiver& receiver);

    const TransferLimits& limits() const { return limits_; }

private:
    QCoro::Task<HttpResponse> fetch(QUrl url, qint64 cap, TransferWatchdog::Limits limits, QString tooLarge);
    void refuseUnreachableRedirects(QNetworkReply& reply, TransferWatchdog& watchdog) const;

    TransferLimits limits_;
    UnreachableHosts* unreachable_ = nullptr;
};
