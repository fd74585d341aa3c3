#include "net/HttpClient.h"

#include "net/TransferWatchdog.h"
#include "net/UnreachableHosts.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>

#include <QCoroNetworkReply>

#include <memory>

namespace {

// Qt keeps at most this much of a body waiting to be read; the download drains it to disk and
// the manifest fetch into its capped buffer as it arrives, so memory stays flat whatever the
// server sends.
constexpr qint64 readBufferSize = 256 * 1024;
constexpr int maximumRedirects = 10;

QNetworkAccessManager& manager() {
    // Deliberately never destroyed: a coroutine may still be awaiting one of its replies when
    // the process ends, and destroying the manager under it crashes.
    static QNetworkAccessManager* const shared = new QNetworkAccessManager();
    return *shared;
}

QNetworkRequest requestFor(const QUrl& url) {
    QNetworkRequest request(url);
    // https -> https is followed, http -> http too; a step down from https to http is refused
    // and surfaces as a transport error.
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setMaximumRedirectsAllowed(maximumRedirects);
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute,
                         QNetworkRequest::AlwaysNetwork);
    // HTTP/1.1 even where the server offers HTTP/2: servers end an HTTP/2 connection after so many
    // requests (GOAWAY), and Qt 6.4 then fails the requests it had queued on it instead of sending
    // them on a new one, so an install of thousands of chunks would break off. Over HTTP/1.1 a
    // closed connection's queued requests simply go out on the next.
    request.setAttribute(QNetworkRequest::Http2AllowedAttribute, false);
    return request;
}

struct ReplyDeleter {
    void operator()(QNetworkReply* reply) const { reply->deleteLater(); }
};
using ReplyPtr = std::unique_ptr<QNetworkReply, ReplyDeleter>;

std::optional<int> statusCodeOf(const QNetworkReply& reply) {
    // Only an HTTP answer has a status; Qt reports a made-up 200 for some local files.
    const QString scheme = reply.url().scheme();
    if (scheme != QLatin1String("http") && scheme != QLatin1String("https"))
        return std::nullopt;
    const QVariant status = reply.attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (!status.isValid())
        return std::nullopt;
    return status.toInt();
}

QString sizeText(qint64 bytes) {
    if (bytes % (1024 * 1024) == 0)
        return QStringLiteral("%1 MiB").arg(bytes / (1024 * 1024));
    if (bytes % 1024 == 0)
        return QStringLiteral("%1 KiB").arg(bytes / 1024);
    return QStringLiteral("%1 bytes").arg(bytes);
}

// The body size the answer announces, when it announces one.
std::optional<qint64> announcedLength(const QNetworkReply& reply) {
    const QVariant length = reply.header(QNetworkRequest::ContentLengthHeader);
    if (!length.isValid())
        return std::nullopt;
    return length.toLongLong();
}

// Qt reports an HTTP error status (404, 500...) as a reply error too. Those are answers, not
// transport failures: the caller judges the status. Anything below the content layer (network,
// TLS, proxy, redirects, a broken body) or any error without an HTTP answer is a transport
// failure. A 407 is the one status Qt files under proxy errors; no proxy is ever used, so it can
// only be the origin server's answer.
void throwIfTransportFailed(const QNetworkReply& reply, const TransferWatchdog& watchdog) {
    if (watchdog.abortReason())
        throw NetworkError(*watchdog.abortReason());
    const QNetworkReply::NetworkError error = reply.error();
    if (error == QNetworkReply::NoError)
        return;
    if (error == QNetworkReply::ProxyAuthenticationRequiredError && statusCodeOf(reply) == 407)
        return;
    const bool belowContent = error < QNetworkReply::ContentAccessDenied;
    if (!statusCodeOf(reply) || belowContent || error == QNetworkReply::ProtocolFailure)
        throw NetworkError(reply.errorString());
}

// Everything a streamed answer's head tells a download.
ResponseHead headOf(const QNetworkReply& reply) {
    ResponseHead head;
    head.statusCode = statusCodeOf(reply);
    head.contentLength = announcedLength(reply);
    head.contentRange = reply.rawHeader("Content-Range");
    head.contentType = reply.rawHeader("Content-Type");
    head.etag = reply.rawHeader("ETag");
    head.lastModified = reply.rawHeader("Last-Modified");
    return head;
}

// Moves whatever the reply holds right now to `receiver`, as long as the body stays within what
// it announced; `received` counts what it took. The error that must end the transfer, if any.
std::exception_ptr drain(QNetworkReply& reply, BodyReceiver& receiver, qint64& received) {
    char buffer[64 * 1024];
    const std::optional<qint64> announced = announcedLength(reply);
    while (reply.isOpen()) { // an aborted reply is closed and has nothing more to give
        const qint64 got = reply.read(buffer, qint64(sizeof buffer));
        if (got <= 0)
            return {};
        if (announced && received + got > *announced)
            return std::make_exception_ptr(
                NetworkError(QStringLiteral("The server sent more than it announced.")));
        if (std::exception_ptr error = receiver.write(buffer, got))
            return error;
        received += got;
    }
    return {};
}

// Moves whatever the reply holds right now into `body`; false, with `body` left as it was, when
// that would make it larger than `cap`.
bool collect(QNetworkReply& reply, QByteArray& body, qint64 cap) {
    if (const std::optional<qint64> announced = announcedLength(reply); announced && *announced > cap)
        return false;
    while (reply.isOpen()) {
        const qint64 available = reply.bytesAvailable();
        if (available <= 0)
            return true;
        if (body.size() + available > cap)
            return false;
        body += reply.read(available);
    }
    return true;
}

} // namespace

void HttpClient::refuseUnreachableRedirects(QNetworkReply& reply, TransferWatchdog& watchdog) const {
    if (!unreachable_)
        return;
    // A redirect to a server that failed to connect before fails as a request to it would.
    QObject::connect(&reply, &QNetworkReply::redirected, &watchdog,
                     [memo = unreachable_, watchdog = &watchdog](const QUrl& target) {
                         if (const std::optional<QString> failure = memo->failureFor(target))
                             watchdog->giveUp(*failure);
                     });
}

QCoro::Task<HttpResponse> HttpClient::data(QUrl url) {
    const qint64 cap = limits_.maximumManifestBytes;
    const QString tooLarge = QStringLiteral("The manifest is larger than %1.").arg(sizeText(cap));
    co_return co_await fetch(url, cap, limits_.manifest, tooLarge);
}

QCoro::Task<HttpResponse> HttpClient::capped(QUrl url, qint64 maximumBytes) {
    const QString tooLarge = QStringLiteral("The answer is larger than %1.").arg(sizeText(maximumBytes));
    co_return co_await fetch(url, maximumBytes, limits_.download, tooLarge);
}

QCoro::Task<HttpResponse> HttpClient::metadata(QUrl url, qint64 maximumBytes) {
    const QString tooLarge = QStringLiteral("The answer is larger than %1.").arg(sizeText(maximumBytes));
    co_return co_await fetch(url, maximumBytes, limits_.manifest, tooLarge);
}

QCoro::Task<HttpResponse> HttpClient::fetch(QUrl url, qint64 cap, TransferWatchdog::Limits limits,
                                            QString tooLarge) {
    QByteArray body;

    if (unreachable_)
        unreachable_->refuseKnown(url);
    ReplyPtr reply(manager().get(requestFor(url)));
    reply->setReadBufferSize(readBufferSize);
    auto* const watchdog = new TransferWatchdog(reply.get(), limits);
    refuseUnreachableRedirects(*reply, *watchdog);
    QNetworkReply* const raw = reply.get();
    const auto take = [&, raw] {
        if (!collect(*raw, body, cap))
            watchdog->giveUp(tooLarge); // resumes the coroutine; nothing may follow this call
    };
    const QMetaObject::Connection announced =
        QObject::connect(raw, &QNetworkReply::metaDataChanged, raw, take);
    const QMetaObject::Connection streaming =
        QObject::connect(raw, &QNetworkReply::readyRead, raw, take);
    co_await raw;
    QObject::disconnect(announced);
    QObject::disconnect(streaming);
    if (!watchdog->abortReason() && !collect(*raw, body, cap))
        throw NetworkError(tooLarge);
    if (unreachable_)
        unreachable_->noteFailure(*raw, *watchdog);
    throwIfTransportFailed(*raw, *watchdog);
    co_return HttpResponse{statusCodeOf(*raw), std::move(body)};
}

QCoro::Task<ResponseHead> HttpClient::stream(QUrl url, RequestHeaders headers,
                                             BodyReceiver& receiver) {
    QNetworkRequest request = requestFor(url);
    for (const auto& [name, value] : headers)
        request.setRawHeader(name, value);
    std::exception_ptr failure;
    bool accepted = false;
    bool declined = false;
    qint64 received = 0;

    if (unreachable_)
        unreachable_->refuseKnown(url);
    ReplyPtr reply(manager().get(request));
    reply->setReadBufferSize(readBufferSize);
    auto* const watchdog = new TransferWatchdog(reply.get(), limits_.download);
    refuseUnreachableRedirects(*reply, *watchdog);
    QNetworkReply* const raw = reply.get();
    // The receiver sees the head once, before the first byte of the body; the head of a
    // redirect that is being followed is not the answer.
    const auto takeHead = [&, raw] {
        if (!accepted) {
            const ResponseHead head = headOf(*raw);
            if (head.statusCode && *head.statusCode / 100 == 3 && raw->hasRawHeader("Location"))
                return false;
            accepted = true;
            const BodyReceiver::Verdict verdict = receiver.accept(head);
            declined = verdict.declined;
            failure = verdict.error;
        }
        return !declined;
    };
    const QMetaObject::Connection announced =
        QObject::connect(raw, &QNetworkReply::metaDataChanged, raw, [&, raw] {
            if (!declined && !takeHead() && declined)
                raw->abort(); // resumes the coroutine; nothing may follow this call
        });
    const QMetaObject::Connection streaming =
        QObject::connect(raw, &QNetworkReply::readyRead, raw, [&, raw] {
            if (declined || failure)
                return;
            if (!takeHead()) {
                if (declined)
                    raw->abort(); // resumes the coroutine; nothing may follow this call
                return;
            }
            failure = drain(*raw, receiver, received);
            if (failure)
                raw->abort(); // resumes the coroutine; nothing may follow this call
        });
    co_await raw;
    QObject::disconnect(announced);
    QObject::disconnect(streaming);
    // What arrived before the answer ended, also when it ended early: a download that resumes
    // keeps every byte it got.
    if (!declined && !failure && (raw->error() == QNetworkReply::NoError || statusCodeOf(*raw)) &&
        takeHead())
        failure = drain(*raw, receiver, received);
    if (failure)
        std::rethrow_exception(failure);
    if (declined)
        co_return headOf(*raw);
    if (unreachable_)
        unreachable_->noteFailure(*raw, *watchdog);
    throwIfTransportFailed(*raw, *watchdog);
    co_return headOf(*raw);
}
