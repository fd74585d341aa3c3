#pragma once

#include <QHash>
#include <QString>
#include <QUrl>

#include <optional>

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
