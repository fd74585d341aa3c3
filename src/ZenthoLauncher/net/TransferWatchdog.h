#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QTimer>
#include <QUrl>

#include <chrono>
#include <optional>

class QNetworkReply;

// Keeps one network transfer from hanging. It aborts the reply when the connection (TCP and TLS,
// up to the request having been sent) takes too long, when no byte arrives for too long, when
// bytes arrive but so slowly that the transfer would practically never end, or when the whole
// transfer outlasts its deadline. The owner of the transfer may also stop it through giveUp()
// for a reason of its own (a body too large). Lives as a child of the reply it watches, so it
// never outlives it.
class TransferWatchdog : public QObject {
    Q_OBJECT

public:
    struct Limits {
        std::chrono::milliseconds connect{5000};
        std::chrono::milliseconds inactivity{15000};
        // The throughput floor: at least `minimumBytesPerWindow` must arrive in every window.
        std::chrono::milliseconds window{20000};
        qint64 minimumBytesPerWindow = 64 * 1024;
        // The whole transfer, from the request to the last byte; zero for none.
        std::chrono::milliseconds deadline{0};
    };

    TransferWatchdog(QNetworkReply* reply, Limits limits);
    explicit TransferWatchdog(QNetworkReply* reply) : TransferWatchdog(reply, Limits{}) {}

    // Why the watchdog aborted the transfer, or nothing when it did not.
    const std::optional<QString>& abortReason() const { return abortReason_; }
    // True when it aborted because the connection was not made in time.
    bool connectTimedOut() const { return connectTimedOut_; }

    // Aborts the transfer with `reason` unless it has already finished.
    void giveUp(const QString& reason);

private:
    static bool sameServer(const QUrl& a, const QUrl& b);
    void connected();
    void received(qint64 progress);

    QNetworkReply* reply_;
    Limits limits_;
    QUrl server_; // where the current hop goes
    QTimer connectTimer_;
    QTimer inactivityTimer_;
    QTimer windowTimer_;
    QTimer deadlineTimer_;
    bool connected_ = false;
    qint64 lastProgress_ = 0; // what the current hop reported; a redirect starts it again
    qint64 totalBytes_ = 0;   // every byte of every hop
    qint64 bytesAtWindowStart_ = 0;
    std::optional<QString> abortReason_;
    bool connectTimedOut_ = false;
};
