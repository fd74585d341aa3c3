#pragma once

#include <QtGlobal>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

// A TCP relay on 127.0.0.1 that makes loopback look like a long link: every byte reaches the other
// side `oneWay` after it arrived, in both directions, so a request and its answer take at least
// two of them. A connection costs one round trip before its first byte, as a TCP handshake does on
// a real link (the kernel completes the local one at once): what the client sends first is held
// back one more round trip. With a rate, each direction also passes at most that many bytes a
// second, shared by all its connections as a real link's bandwidth is (a token bucket holding at
// most burstBytes()); without one, bandwidth is not limited. The kernel here has no traffic
// shaping, so all this is done in user space, on one thread of its own that the destructor stops
// and joins, closing every connection.
//
// The constructor throws std::runtime_error when it cannot listen.
class DelayProxy {
public:
    DelayProxy(quint16 targetPort, std::chrono::milliseconds oneWay, std::uint64_t bytesPerSecond = 0);
    ~DelayProxy();
    DelayProxy(const DelayProxy&) = delete;
    DelayProxy& operator=(const DelayProxy&) = delete;

    quint16 port() const { return port_; }
    // The connections accepted so far.
    int connections() const { return connections_.load(); }
    // What one direction may pass at once after a pause; 0 without a rate.
    std::uint64_t burstBytes() const { return burst_; }
    // How often bytes that were due waited for the link's rate.
    std::uint64_t throttled() const { return throttled_.load(); }
    // Pauses longer than kPause between bytes passing to clients while a connection was open, and
    // how long they lasted together: what a client that keeps its line busy never leaves.
    static constexpr std::chrono::milliseconds kPause{3};
    int pauses() const { return pauses_.load(); }
    std::chrono::nanoseconds paused() const { return std::chrono::nanoseconds(pausedNanoseconds_.load()); }

private:
    void run();

    quint16 targetPort_;
    std::chrono::milliseconds oneWay_;
    std::uint64_t rate_;
    std::uint64_t burst_;
    int listener_ = -1;
    int wake_[2] = {-1, -1}; // a pipe whose write end tells the thread to stop
    quint16 port_ = 0;
    std::atomic<int> connections_{0};
    std::atomic<std::uint64_t> throttled_{0};
    std::atomic<int> pauses_{0};
    std::atomic<std::int64_t> pausedNanoseconds_{0};
    std::thread thread_;
};
