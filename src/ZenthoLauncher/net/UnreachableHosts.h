#pragma once

#include <QHash>
#include <QString>
#include <QUrl>

#include <optional>

class QNetworkReply;
class TransferWatchdog;

// The servers that failed to connect (refused, not found, or no answer within the connect time)
// during one press of the main button. The launcher manifest and the game manifest usually live on
// one server: when it is down, the second request fails at once with the first one's error instead
// of waiting out a second connect timeout before the installed game starts. Other servers, and
// the next press, are tried as usual. The model makes one per press and lends it to its
// HttpClient for the press.
class UnreachableHosts {
public:
    // The error a request to `url` ends with because its server failed to connect before.
    std::optional<QString> failureFor(const QUrl& url) const;
    void remember(const QUrl& url, const QString& error);

    // Where a request starts: throws NetworkError with the earlier error when `url`'s server
    // failed to connect before.
    void refuseKnown(const QUrl& url) const;
    // Where a request has ended: remembers its server when no connection could be made to it.
    void noteFailure(const QNetworkReply& reply, const TransferWatchdog& watchdog);

private:
    static QString keyOf(const QUrl& url);
    QHash<QString, QString> failures_;
};
