#include "net/TransferWatchdog.h"

#include <QNetworkReply>

#include <utility>

TransferWatchdog::TransferWatchdog(QNetworkReply* reply, Limits limits)
    : QObject(reply), reply_(reply), limits_(limits), server_(reply->url()) {
    connectTimer_.setSingleShot(true);
    inactivityTimer_.setSingleShot(true);
    deadlineTimer_.setSingleShot(true);
    connect(&connectTimer_, &QTimer::timeout, this, [this] {
        connectTimedOut_ = !reply_->isFinished();
        giveUp(QStringLiteral("Could not connect to the server in time."));
    });
    connect(&inactivityTimer_, &QTimer::timeout, this,
            [this] { giveUp(QStringLiteral("The server stopped sending data.")); });
    connect(&deadlineTimer_, &QTimer::timeout, this,
            [this] { giveUp(QStringLiteral("The server did not send its whole answer in time.")); });
    connect(&windowTimer_, &QTimer::timeout, this, [this] {
        if (totalBytes_ - bytesAtWindowStart_ < limits_.minimumBytesPerWindow)
            giveUp(QStringLiteral("The server is sending data too slowly."));
        bytesAtWindowStart_ = totalBytes_;
    });

    // Any sign of life from the server after the handshake ends the connect phase; a request
    // that needs no connection (a file) finishes before any of these matter.
    connect(reply, &QNetworkReply::encrypted, this, &TransferWatchdog::connected);
    connect(reply, &QNetworkReply::requestSent, this, &TransferWatchdog::connected);
    connect(reply, &QNetworkReply::metaDataChanged, this, &TransferWatchdog::connected);
    // A redirect to another server is a connection of its own, held to the connect limit again:
    // a black-holed target must cost what a black-holed server costs, not the no-data limit.
    connect(reply, &QNetworkReply::redirected, this, [this](const QUrl& target) {
        const QUrl previous = std::exchange(server_, target);
        if (sameServer(previous, target) || reply_->isFinished())
            return;
        connected_ = false;
        inactivityTimer_.stop();
        windowTimer_.stop();
        connectTimer_.start(limits_.connect);
    });
    connect(reply, &QNetworkReply::downloadProgress, this,
            [this](qint64 received, qint64) { this->received(received); });
    connect(reply, &QNetworkReply::finished, this, [this] {
        connectTimer_.stop();
        inactivityTimer_.stop();
        windowTimer_.stop();
        deadlineTimer_.stop();
    });
    connectTimer_.start(limits_.connect);
    if (limits_.deadline.count() > 0)
        deadlineTimer_.start(limits_.deadline);
}

bool TransferWatchdog::sameServer(const QUrl& a, const QUrl& b) {
    return a.scheme() == b.scheme() && a.host().compare(b.host(), Qt::CaseInsensitive) == 0 &&
           a.port(-1) == b.port(-1);
}

void TransferWatchdog::connected() {
    if (connected_ || reply_->isFinished())
        return;
    connected_ = true;
    connectTimer_.stop();
    inactivityTimer_.start(limits_.inactivity);
    bytesAtWindowStart_ = totalBytes_;
    windowTimer_.start(limits_.window);
}

void TransferWatchdog::received(qint64 progress) {
    connected();
    const qint64 fresh = progress >= lastProgress_ ? progress - lastProgress_ : progress;
    lastProgress_ = progress;
    if (fresh > 0) {
        totalBytes_ += fresh;
        if (!reply_->isFinished())
            inactivityTimer_.start(limits_.inactivity);
    }
}

void TransferWatchdog::giveUp(const QString& reason) {
    if (reply_->isFinished())
        return;
    abortReason_ = reason;
    // Aborting emits finished at once; the reply (and with it this object) is only deleted later.
    reply_->abort();
}
