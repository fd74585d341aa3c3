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
//
// A request Qt holds back because every connection it allows to the server is busy has not begun
// to connect: while other transfers to the same server are under way on a connection made, or
// the server showed one of them a sign of life within the connect limit, its connect limit starts
// again instead of running out. Against a server that shows nothing, every request still ends at
// the connect limit.
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
    ~TransferWatchdog() override;

    // Why the watchdog aborted the transfer, or nothing when it did not.
    const std::optional<QString>& abortReason() const { return abortReason_; }
    // True when it aborted because the connection was not made in time.
    bool connectTimedOut() const { return connectTimedOut_; }
    // True once the server has shown anything of this transfer: its connection made, the request
    // sent, an answer begun.
    bool sawServer() const { return connected_; }

    // Aborts the transfer with `reason` unless it has already finished.
    void giveUp(const QString& reason);

private:
    static bool sameServer(const QUrl& a, const QUrl& b);
    bool serverBusyWithOthers() const;
    void noteSignOfLife() const;
    void uncount();
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
    QString countedAt_; // the server this transfer counts as connected to, if any
    qint64 lastProgress_ = 0; // what the current hop reported; a redirect starts it again
    qint64 totalBytes_ = 0;   // every byte of every hop
    qint64 bytesAtWindowStart_ = 0;
    std::optional<QString> abortReason_;
    bool connectTimedOut_ = false;
};
