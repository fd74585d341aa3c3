#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QTimer>

#include <chrono>
#include <optional>

class QNetworkReply;

// Keeps one network transfer from hanging. It aborts the reply when the connection (TCP and TLS,
// up to the request having been sent) takes too long, when no byte arrives for too long, or when
// bytes arrive but so slowly that the transfer would practically never end. Lives as a child of
// the reply it watches, so it never outlives it.
class TransferWatchdog : public QObject {
    Q_OBJECT

public:
    struct Limits {
        std::chrono::milliseconds connect{5000};
        std::chrono::milliseconds inactivity{15000};
        // The throughput floor: at least `minimumBytesPerWindow` must arrive in every window.
        std::chrono::milliseconds window{20000};
        qint64 minimumBytesPerWindow = 64 * 1024;
    };

    TransferWatchdog(QNetworkReply* reply, Limits limits);
    explicit TransferWatchdog(QNetworkReply* reply) : TransferWatchdog(reply, Limits{}) {}

    // Why the watchdog aborted the transfer, or nothing when it did not.
    const std::optional<QString>& abortReason() const { return abortReason_; }

private:
    void connected();
    void received(qint64 progress);
    void giveUp(const QString& reason);

    QNetworkReply* reply_;
    Limits limits_;
    QTimer connectTimer_;
    QTimer inactivityTimer_;
    QTimer windowTimer_;
    bool connected_ = false;
    qint64 lastProgress_ = 0; // what the current hop reported; a redirect starts it again
    qint64 totalBytes_ = 0;   // every byte of every hop
    qint64 bytesAtWindowStart_ = 0;
    std::optional<QString> abortReason_;
};
