#include "net/UnreachableHosts.h"

#include "net/HttpClient.h"
#include "net/TransferWatchdog.h"

#include <QNetworkReply>

namespace {
// Only the main thread starts requests, and one flow runs at a time.
UnreachableHosts* currentMemo = nullptr;
} // namespace

QString UnreachableHosts::keyOf(const QUrl& url) {
    const int defaultPort = url.scheme() == QLatin1String("http") ? 80 : 443;
    return url.host().toLower() + QLatin1Char(':') + QString::number(url.port(defaultPort));
}

std::optional<QString> UnreachableHosts::failureFor(const QUrl& url) const {
    if (url.isLocalFile() || url.host().isEmpty())
        return std::nullopt;
    const auto found = failures_.constFind(keyOf(url));
    if (found == failures_.constEnd())
        return std::nullopt;
    return *found;
}

void UnreachableHosts::remember(const QUrl& url, const QString& error) {
    if (!url.isLocalFile() && !url.host().isEmpty())
        failures_.insert(keyOf(url), error);
}

UnreachableHosts* UnreachableHosts::current() {
    return currentMemo;
}

void UnreachableHosts::refuseKnown(const QUrl& url) {
    if (const UnreachableHosts* memo = current()) {
        if (const std::optional<QString> failure = memo->failureFor(url))
            throw NetworkError(*failure);
    }
}

void UnreachableHosts::noteFailure(const QNetworkReply& reply, const TransferWatchdog& watchdog) {
    UnreachableHosts* const memo = current();
    if (!memo)
        return;
    // The address the request last went to: after a redirect, that server is the one that failed.
    if (watchdog.connectTimedOut()) {
        memo->remember(reply.url(), *watchdog.abortReason());
    } else if (reply.error() == QNetworkReply::ConnectionRefusedError ||
               reply.error() == QNetworkReply::HostNotFoundError) {
        memo->remember(reply.url(), reply.errorString());
    }
}

UnreachableHosts::FlowScope::FlowScope() : outer_(currentMemo) {
    currentMemo = &memo_;
}

UnreachableHosts::FlowScope::~FlowScope() {
    currentMemo = outer_;
}
