#pragma once

#include <QtGlobal>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

// A plain-HTTP server on 127.0.0.1 that answers with bodies no correct release server sends. It
// runs on its own threads, so a test can wait on a launcher while it streams. TestServer proxies
// /fault/ to it unbuffered, which puts it behind the test CA's TLS.
//
// Paths (as nginx forwards them):
//   /fault/chunked/<n>        status 200, a chunked body of <n> bytes of JSON blanks, then its end
//   /fault/endless            status 200, a chunked body that never ends
//   /fault/longer/<n>/<m>     status 200, Content-Length <n>, then <m> bytes of body
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

    static constexpr int maximumSeconds() { return 120; }
    static constexpr qint64 maximumBytes() { return qint64(8) << 30; }

private:
    void acceptLoop();
    void serve(int client);

    int listener_ = -1;
    int stopPipe_[2] = {-1, -1};
    quint16 port_ = 0;
    std::atomic<bool> stopping_{false};
    std::atomic<qint64> bytesSent_{0};
    std::thread acceptor_;
    std::mutex mutex_;
    std::vector<std::thread> connections_;
};
