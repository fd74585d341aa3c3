#include "DelayProxy.h"

#include <algorithm>
#include <cerrno>
#include <deque>
#include <list>
#include <stdexcept>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

// Bytes one side has sent and not yet handed to the other: about one link's worth of a round
// trip. Past this the relay stops reading that side, as a full TCP window would.
constexpr std::size_t maximumHeldBytes = 16 * 1024 * 1024;

struct Held {
    Clock::time_point due;
    std::string bytes;
};

// One direction of a relayed connection.
struct Flow {
    int from = -1;
    int to = -1;
    std::deque<Held> held;
    std::size_t heldBytes = 0;
    std::size_t sentOfFront = 0;
    bool ended = false;    // `from` has closed its side
    bool shutDown = false; // ...and that was passed on once everything before it was
    bool blocked = false;  // `to` would not take more
};

// One direction's share of the link: bytes may leave while tokens last; they come back at the
// rate, up to the burst.
// Times nothing passed to the clients while a connection stayed open. Each is counted before the
// bytes that end it leave, so a client that has those bytes also finds the pause counted.
struct Pauses {
    std::atomic<int>& count;
    std::atomic<std::int64_t>& nanoseconds;
    bool passing = false; // bytes passed since connections opened
    Clock::time_point last{};

    void passingAt(Clock::time_point now) {
        if (passing && now - last > DelayProxy::kPause) {
            ++count;
            nanoseconds += std::chrono::nanoseconds(now - last).count();
        }
        last = now;
        passing = true;
    }
};

struct Bucket {
    double rate = 0; // bytes a second; 0 is no limit
    double burst = 0;
    double tokens = 0;
    Clock::time_point filled;
    bool waited = false; // bytes were due and had to wait, this round
    std::uint64_t passed = 0;
    Pauses* pauses = nullptr; // counted on this direction only

    bool limited() const { return rate > 0; }
    void refill(Clock::time_point now) {
        if (!limited())
            return;
        tokens = std::min(burst, tokens + std::chrono::duration<double>(now - filled).count() * rate);
        filled = now;
    }
    // When it is worth waking for more: enough tokens for a good send, or a full bucket.
    Clock::time_point readyAt() const {
        const double wanted = std::min(burst, 16.0 * 1024);
        if (tokens >= wanted)
            return filled;
        return filled + std::chrono::duration_cast<Clock::duration>(
                            std::chrono::duration<double>((wanted - tokens) / rate));
    }
};

struct Relay {
    int client = -1;
    int server = -1;
    Flow up;   // client to server
    Flow down; // server to client
    bool firstUp = true;
    bool broken = false;
};

void setNonBlocking(int fd) {
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    const int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

int connectTo(quint16 port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    // Loopback connects at once, so the thread may wait for it.
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// Takes what `flow.from` has, each read due `delay` from now. False when the side failed.
bool take(Flow& flow, Clock::duration delay) {
    char buffer[64 * 1024];
    while (!flow.ended && flow.heldBytes < maximumHeldBytes) {
        const ssize_t got = ::recv(flow.from, buffer, sizeof buffer, 0);
        if (got > 0) {
            flow.held.push_back({Clock::now() + delay, std::string(buffer, std::size_t(got))});
            flow.heldBytes += std::size_t(got);
        } else if (got == 0) {
            flow.ended = true;
        } else {
            return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
        }
    }
    return true;
}

// Hands on what is due, as far as the link's tokens go; passes an end on once nothing is held
// before it. False when `to` failed.
bool give(Flow& flow, Bucket& link, Clock::time_point now) {
    flow.blocked = false;
    while (!flow.held.empty() && flow.held.front().due <= now) {
        Held& front = flow.held.front();
        std::size_t size = front.bytes.size() - flow.sentOfFront;
        if (link.limited()) {
            size = std::min(size, std::size_t(link.tokens));
            if (size == 0) {
                link.waited = true;
                return true;
            }
        }
        if (link.pauses)
            link.pauses->passingAt(now);
        const ssize_t sent = ::send(flow.to, front.bytes.data() + flow.sentOfFront, size, MSG_NOSIGNAL);
        if (sent < 0) {
            flow.blocked = errno == EAGAIN || errno == EWOULDBLOCK;
            return flow.blocked || errno == EINTR;
        }
        if (link.limited())
            link.tokens -= double(sent);
        link.passed += std::uint64_t(sent);
        flow.sentOfFront += std::size_t(sent);
        if (flow.sentOfFront == front.bytes.size()) {
            flow.heldBytes -= front.bytes.size();
            flow.sentOfFront = 0;
            flow.held.pop_front();
        }
    }
    if (flow.ended && flow.held.empty() && !flow.shutDown) {
        ::shutdown(flow.to, SHUT_WR);
        flow.shutDown = true;
    }
    return true;
}

short eventsFor(const Flow& reading, const Flow& writing) {
    short events = 0;
    if (!reading.ended && reading.heldBytes < maximumHeldBytes)
        events |= POLLIN;
    if (writing.blocked)
        events |= POLLOUT;
    return events;
}

} // namespace

// A pause of 10 ms may be made up at once: less makes the relay wake more often than a poll's
// milliseconds allow, more lets short transfers pass faster than the link.
DelayProxy::DelayProxy(quint16 targetPort, std::chrono::milliseconds oneWay, std::uint64_t bytesPerSecond)
    : targetPort_(targetPort), oneWay_(oneWay), rate_(bytesPerSecond),
      burst_(bytesPerSecond == 0 ? 0 : std::max<std::uint64_t>(64 * 1024, bytesPerSecond / 100)) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(listener_, 128) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
        ::pipe2(wake_, O_CLOEXEC) != 0) {
        if (listener_ >= 0)
            ::close(listener_);
        throw std::runtime_error("the delay proxy cannot listen on 127.0.0.1");
    }
    setNonBlocking(listener_);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { run(); });
}

DelayProxy::~DelayProxy() {
    const char stop = 's';
    (void)!::write(wake_[1], &stop, 1);
    thread_.join();
    ::close(wake_[0]);
    ::close(wake_[1]);
    ::close(listener_);
}

void DelayProxy::run() {
    const Clock::duration delay = oneWay_;
    std::list<Relay> relays;
    Bucket up{double(rate_), double(burst_), double(burst_), Clock::now()};
    Bucket down = up;
    Pauses pauses{pauses_, pausedNanoseconds_};
    down.pauses = &pauses;
    for (;;) {
        // Sleep until a side has something, can take more, or the next held bytes are due.
        std::vector<pollfd> fds{{wake_[0], POLLIN, 0}, {listener_, POLLIN, 0}};
        Clock::time_point next = Clock::time_point::max();
        for (Relay& relay : relays) {
            fds.push_back({relay.client, eventsFor(relay.up, relay.down), 0});
            fds.push_back({relay.server, eventsFor(relay.down, relay.up), 0});
            for (const Flow* flow : {&relay.up, &relay.down}) {
                if (!flow->held.empty() && !flow->blocked) {
                    const Bucket& link = flow == &relay.up ? up : down;
                    next = std::min(next, link.limited() ? std::max(flow->held.front().due, link.readyAt())
                                                         : flow->held.front().due);
                }
            }
        }
        int timeout = -1;
        if (next != Clock::time_point::max()) {
            const auto wait = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
            timeout = int(std::max<std::chrono::milliseconds::rep>(0, wait.count()));
        }
        if (::poll(fds.data(), fds.size(), timeout) < 0 && errno != EINTR)
            break;
        if (fds[0].revents)
            break;

        if (fds[1].revents & POLLIN) {
            for (int client; (client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
                const int server = connectTo(targetPort_);
                if (server < 0) {
                    ::close(client);
                    continue;
                }
                setNonBlocking(client);
                setNonBlocking(server);
                Relay& relay = relays.emplace_back();
                relay.client = client;
                relay.server = server;
                relay.up.from = relay.down.to = client;
                relay.up.to = relay.down.from = server;
                ++connections_;
            }
        }

        const Clock::time_point now = Clock::now();
        up.refill(now);
        down.refill(now);
        up.waited = down.waited = false;
        for (Relay& relay : relays) {
            const std::size_t heldBefore = relay.up.held.size();
            relay.broken = !take(relay.up, relay.firstUp ? 3 * delay : delay) || !take(relay.down, delay) ||
                           !give(relay.up, up, now) || !give(relay.down, down, now);
            // The connection's handshake: a round trip before the first byte can leave the client.
            if (relay.up.held.size() > heldBefore)
                relay.firstUp = false;
        }
        relays.remove_if([](const Relay& relay) {
            const bool over = relay.broken || (relay.up.shutDown && relay.down.shutDown);
            if (over) {
                ::close(relay.client);
                ::close(relay.server);
            }
            return over;
        });
        throttled_ += std::uint64_t(up.waited) + std::uint64_t(down.waited);
        // A time without any connection is the client's own, not a pause of the line.
        if (relays.empty())
            pauses.passing = false;
        // The first connection takes the tokens first: take turns, so they share the link.
        if (relays.size() > 1)
            relays.splice(relays.end(), relays, relays.begin());
    }
    for (const Relay& relay : relays) {
        ::close(relay.client);
        ::close(relay.server);
    }
}
