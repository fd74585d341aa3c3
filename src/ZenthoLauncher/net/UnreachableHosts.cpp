#include "net/UnreachableHosts.h"

#include "errors/Failure.h"
#include "net/TransferWatchdog.h"

#include <QNetworkReply>

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

void UnreachableHosts::refuseKnown(const QUrl& url) const {
    if (const std::optional<QString> failure = failureFor(url))
        throw NetworkError(*failure);
}

void UnreachableHosts::noteFailure(const QNetworkReply& reply, const TransferWatchdog& watchdog) {
    // The address the request last went to: after a redirect, that server is the one that failed.
    if (watchdog.connectTimedOut()) {
        remember(reply.url(), *watchdog.abortReason());
    } else if (reply.error() == QNetworkReply::ConnectionRefusedError ||
               reply.error() == QNetworkReply::HostNotFoundError) {
        remember(reply.url(), reply.errorString());
    }
}
