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
// the next press, are tried as usual.
class UnreachableHosts {
public:
    // The error a request to `url` ends with because its server failed to connect before.
    std::optional<QString> failureFor(const QUrl& url) const;
    void remember(const QUrl& url, const QString& error);

    // The memo of the flow under way, consulted where requests start; none outside a flow.
    static UnreachableHosts* current();
    // Where a request starts: throws NetworkError with the earlier error when the current flow
    // saw `url`'s server fail to connect.
    static void refuseKnown(const QUrl& url);
    // Where a request has ended: remembers its server in the current flow when no connection
    // could be made to it.
    static void noteFailure(const QNetworkReply& reply, const TransferWatchdog& watchdog);

    class FlowScope;

private:
    static QString keyOf(const QUrl& url);
    QHash<QString, QString> failures_;
};

// Makes a fresh memo current for its lifetime: one per press.
class UnreachableHosts::FlowScope {
public:
    FlowScope();
    ~FlowScope();
    FlowScope(const FlowScope&) = delete;
    FlowScope& operator=(const FlowScope&) = delete;

private:
    UnreachableHosts memo_;
    UnreachableHosts* outer_;
};
