#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QtGlobal>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

// A plain-HTTP server on 127.0.0.1 that answers with bodies no correct release server sends. It
// runs on its own threads, so a test can wait on a launcher while it streams. TestServer proxies
// /fault/ to it unbuffered, which puts it behind the test CA's TLS.
//
// Paths (as nginx forwards them; a query after any of them is ignored, so a test can tell its own
// requests apart):
//   /fault/chunked/<n>        status 200, a chunked body of <n> bytes of JSON blanks, then its end
//   /fault/endless            status 200, a chunked body that never ends
//   /fault/longer/<n>/<m>     status 200, Content-Length <n>, then <m> bytes of body
//   /fault/cut/<n>/<k>        the <n> bytes of cutBody(n) with a strong ETag, honouring
//                             "Range: bytes=<from>-" (with a matching If-Range, or none) with
//                             206 and 416; each connection is closed after at most <k> bytes of
//                             body (0: never), before the announced end
//   /fault/cutfile/<k>/<name> the same for the file <name> of fileRoot(), whose ETag is its
//                             digest
//   /fault/stuck/<n>/<k>      as cut, but an answer to a Range sends its head and no body
//   /fault/misplaced/<n>/<k>  as cut, but an answer to a Range is a 206 whose range starts
//                             1000 bytes before the one asked for
//   /fault/redirect/<port>    status 302 to https://127.0.0.1:<port>/m.json, as a server that
//                             sends its players to a mirror that is down
//
// Bounds: no connection is served longer than maximumSeconds() or past maximumBytes(); the
// destructor stops every connection and joins its thread.
class FaultServer {
public:
    FaultServer();
    ~FaultServer();
    FaultServer(const FaultServer&) = delete;
    FaultServer& operator=(const FaultServer&) = delete;

    quint16 port() const { return port_; }
    // Body bytes sent on every connection so far.
    qint64 bytesSent() const { return bytesSent_.load(); }

    // Where /fault/cutfile/ finds its files.
    void setFileRoot(const QString& folder);
    QString fileRoot() const;
    // Every Range header /fault/cut/ was asked with, in order (empty for none).
    QList<QByteArray> rangesAsked() const;
    // The same for the requests of `target` (path and query) alone. Each connection is served on
    // a thread of its own, so this is the order in which those threads read the requests, which
    // may differ from the order the client sent them on different connections: Qt sends a request
    // whose connection dropped once more by itself at times, and that copy may be read after a
    // later request. The order holds for a request that could only be sent once an earlier one
    // was answered.
    QList<QByteArray> rangesAskedFor(const QByteArray& target) const;
    // The body /fault/cut/<n>/ serves.
    static QByteArray cutBody(qint64 size);

    static constexpr int maximumSeconds() { return 120; }
    static constexpr qint64 maximumBytes() { return qint64(8) << 30; }

private:
    void acceptLoop();
    void serve(int client);
    // How an answer to a Range goes wrong, or not.
    enum class RangeFault { none, noBody, misplaced };
    void serveCut(int client, std::chrono::steady_clock::time_point deadline,
                  const QByteArray& request, const QByteArray& body, const QByteArray& etag,
                  qint64 cut, RangeFault fault = RangeFault::none);

    int listener_ = -1;
    int stopPipe_[2] = {-1, -1};
    quint16 port_ = 0;
    std::atomic<bool> stopping_{false};
    std::atomic<qint64> bytesSent_{0};
    std::thread acceptor_;
    mutable std::mutex mutex_;
    QList<std::pair<QByteArray, QByteArray>> ranges_; // target, Range
    QString fileRoot_;
    std::vector<std::thread> connections_;
};
