// The relay the latency benchmarks put between the launcher and nginx: it must pass every byte
// unchanged both ways, ends included, and hold each back at least as long as it is told to.

#include "DelayProxy.h"

#include <QElapsedTimer>
#include <QRandomGenerator>
#include <QTest>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <limits>
#include <memory>
#include <utility>
#include <vector>
#include <stdexcept>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

// A loopback socket that closes with its owner.
struct Socket {
    int fd = -1;
    explicit Socket(int fd = -1) : fd(fd) {}
    Socket(Socket&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    Socket& operator=(Socket&& other) noexcept {
        std::swap(fd, other.fd);
        return *this;
    }
    ~Socket() {
        if (fd >= 0)
            ::close(fd);
    }
};

sockaddr_in loopback(quint16 port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

Socket listening(quint16& port) {
    Socket socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    if (::bind(socket.fd, reinterpret_cast<sockaddr*>(&address), length) != 0 || ::listen(socket.fd, 8) != 0 ||
        ::getsockname(socket.fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        throw std::runtime_error("cannot listen");
    port = ntohs(address.sin_port);
    return socket;
}

Socket connected(quint16 port) {
    Socket socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopback(port);
    const int one = 1;
    ::setsockopt(socket.fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    if (::connect(socket.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        throw std::runtime_error("cannot connect");
    return socket;
}

// Reads exactly `size` bytes, or fewer when the other side ends first or nothing comes for a
// minute.
QByteArray readBytes(int fd, qsizetype size) {
    QByteArray bytes;
    char buffer[64 * 1024];
    while (bytes.size() < size) {
        pollfd ready{fd, POLLIN, 0};
        if (::poll(&ready, 1, 60000) <= 0)
            break;
        const ssize_t got = ::recv(fd, buffer, std::min<qsizetype>(sizeof buffer, size - bytes.size()), 0);
        if (got <= 0)
            break;
        bytes.append(buffer, got);
    }
    return bytes;
}

// Reads until the other side ends its sending (or a minute passes without a byte).
QByteArray readToEnd(int fd) {
    return readBytes(fd, std::numeric_limits<int>::max());
}

bool sendAll(int fd, const QByteArray& bytes) {
    for (qsizetype sent = 0; sent < bytes.size();) {
        const ssize_t wrote = ::send(fd, bytes.constData() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (wrote <= 0)
            return false;
        sent += wrote;
    }
    return true;
}

// The next client of `listener`; an invalid socket once the listener is shut down, which is how a
// test server that is going away stops waiting for a client that never came (a relay stopped
// before it took its client's connection never opens one to the server).
Socket acceptOne(const Socket& listener) {
    return Socket(::accept4(listener.fd, nullptr, nullptr, SOCK_CLOEXEC));
}

QByteArray randomBytes(qsizetype size) {
    QByteArray bytes(size, '\0');
    QRandomGenerator(7).fillRange(reinterpret_cast<quint32*>(bytes.data()), size / 4);
    return bytes;
}

// A server for one connection: everything it reads until the client ends its side, then `answer`
// and the end of its own side. Runs on its own thread, joined by the destructor.
class OneExchange {
public:
    explicit OneExchange(QByteArray answer) : listener_(listening(port_)), answer_(std::move(answer)) {
        thread_ = std::thread([this] {
            const Socket client = acceptOne(listener_);
            if (client.fd < 0)
                return;
            received_ = readToEnd(client.fd);
            sendAll(client.fd, answer_);
            ::shutdown(client.fd, SHUT_WR);
            readToEnd(client.fd); // until the client closes
        });
    }
    ~OneExchange() {
        if (thread_.joinable()) {
            ::shutdown(listener_.fd, SHUT_RDWR);
            thread_.join();
        }
    }
    quint16 port() const { return port_; }
    // Waits for the client to close; what the server read.
    QByteArray received() {
        thread_.join();
        return received_;
    }

private:
    quint16 port_ = 0;
    Socket listener_;
    QByteArray answer_;
    QByteArray received_;
    std::thread thread_;
};

// A server that answers each line it reads with the same line, for round trips.
class LineEcho {
public:
    LineEcho() : listener_(listening(port_)) {
        thread_ = std::thread([this] {
            const Socket client = acceptOne(listener_);
            for (QByteArray line; client.fd >= 0 && !(line = readBytes(client.fd, 2)).isEmpty();)
                sendAll(client.fd, line);
        });
    }
    ~LineEcho() {
        ::shutdown(listener_.fd, SHUT_RDWR);
        thread_.join();
    }
    quint16 port() const { return port_; }

private:
    quint16 port_ = 0;
    Socket listener_;
    std::thread thread_;
};

// A server that sends `answer` to each of `count` connections at once, then ends its side.
class Fountain {
public:
    Fountain(int count, QByteArray answer) : listener_(listening(port_)), answer_(std::move(answer)) {
        for (int i = 0; i < count; ++i) {
            threads_.emplace_back([this] {
                const Socket client = acceptOne(listener_);
                if (client.fd < 0)
                    return;
                sendAll(client.fd, answer_);
                ::shutdown(client.fd, SHUT_WR);
                readToEnd(client.fd); // until the client closes
            });
        }
    }
    ~Fountain() {
        ::shutdown(listener_.fd, SHUT_RDWR);
        for (std::thread& thread : threads_)
            thread.join();
    }
    quint16 port() const { return port_; }

private:
    quint16 port_ = 0;
    Socket listener_;
    QByteArray answer_;
    std::vector<std::thread> threads_;
};

// What `count` parallel downloads through `proxy` brought, and whether every byte came no sooner
// than a link of `bytesPerSecond` (after a full bucket of `burst`) could have brought it, by the
// clock of this side, which starts before the first connection.
struct Downloads {
    std::vector<QByteArray> bodies;
    bool withinRate = true;
    double elapsedMs = 0; // to the nanosecond: the link's bound is not a whole millisecond
};

Downloads downloadAtOnce(quint16 port, int count, double bytesPerSecond, double burst) {
    QElapsedTimer clock;
    clock.start();
    std::vector<Socket> sockets;
    for (int i = 0; i < count; ++i) {
        sockets.push_back(connected(port));
        ::shutdown(sockets.back().fd, SHUT_WR);
    }
    Downloads result;
    result.bodies.resize(std::size_t(count));
    std::vector<bool> ended(std::size_t(count), false);
    double total = 0;
    char buffer[64 * 1024];
    for (int open = count; open > 0;) {
        std::vector<pollfd> fds;
        for (int i = 0; i < count; ++i)
            fds.push_back({ended[std::size_t(i)] ? -1 : sockets[std::size_t(i)].fd, POLLIN, 0});
        if (::poll(fds.data(), fds.size(), 60000) <= 0)
            break; // a minute without a byte: what came is what the test sees
        for (int i = 0; i < count; ++i) {
            if (!(fds[std::size_t(i)].revents & (POLLIN | POLLHUP)))
                continue;
            const ssize_t got = ::recv(fds[std::size_t(i)].fd, buffer, sizeof buffer, 0);
            if (got <= 0) {
                ended[std::size_t(i)] = true;
                --open;
                continue;
            }
            result.bodies[std::size_t(i)].append(buffer, got);
            total += double(got);
            const double seconds = double(clock.nsecsElapsed()) / 1e9;
            if (bytesPerSecond > 0 && total > burst + bytesPerSecond * seconds)
                result.withinRate = false;
        }
    }
    result.elapsedMs = double(clock.nsecsElapsed()) / 1e6;
    return result;
}

// How long one two-byte request and its echo took on `socket`, in milliseconds.
qint64 exchangeMs(int socket) {
    QElapsedTimer clock;
    clock.start();
    if (!sendAll(socket, "x\n") || readBytes(socket, 2) != "x\n")
        return -1;
    return clock.elapsed();
}

} // namespace

class TestDelayProxy : public QObject {
    Q_OBJECT

private slots:
    void passesBytesUnchangedBothWaysAndTheEnds_data() {
        QTest::addColumn<int>("oneWayMs");
        QTest::newRow("no delay") << 0;
        QTest::newRow("20 ms each way") << 20;
    }
    void passesBytesUnchangedBothWaysAndTheEnds() {
        QFETCH(int, oneWayMs);
        const QByteArray request = randomBytes(3 * 1024 * 1024 + 5);
        const QByteArray answer = randomBytes(5 * 1024 * 1024 + 3).toBase64();
        OneExchange server(answer);
        DelayProxy proxy(server.port(), std::chrono::milliseconds(oneWayMs));
        Socket client = connected(proxy.port());
        QVERIFY(sendAll(client.fd, request));
        ::shutdown(client.fd, SHUT_WR); // the server answers only once this end reaches it
        const QByteArray got = readToEnd(client.fd);
        QCOMPARE(got.size(), answer.size());
        QVERIFY(got == answer);
        ::close(std::exchange(client.fd, -1));
        const QByteArray received = server.received();
        QCOMPARE(received.size(), request.size());
        QVERIFY(received == request);
        QCOMPARE(proxy.connections(), 1);
    }

    // Lower bounds only: a busy machine makes every exchange slower, never faster.
    void holdsEachWayBackAndTheFirstByteARoundTripMore() {
        const auto oneWay = 60ms;
        LineEcho server;
        DelayProxy proxy(server.port(), oneWay);
        Socket client = connected(proxy.port());
        const qint64 first = exchangeMs(client.fd);
        const qint64 second = exchangeMs(client.fd);
        QVERIFY2(first >= 4 * oneWay.count(), qPrintable(QString::number(first)));
        QVERIFY2(second >= 2 * oneWay.count(), qPrintable(QString::number(second)));
    }

    // Its twin, with no clock read: an exchange through a relay without delay is over while one
    // sent first through a relay that holds bytes back has not even reached its server.
    void holdsNothingBackWithoutADelay() {
        LineEcho slowServer;
        LineEcho fastServer;
        DelayProxy slow(slowServer.port(), 30s);
        DelayProxy fast(fastServer.port(), 0ms);
        Socket held = connected(slow.port());
        Socket direct = connected(fast.port());
        QVERIFY(sendAll(held.fd, "h\n"));
        QCOMPARE(exchangeMs(direct.fd) >= 0, true);
        char byte;
        QCOMPARE(::recv(held.fd, &byte, 1, MSG_DONTWAIT), ssize_t(-1));
        QVERIFY(errno == EAGAIN || errno == EWOULDBLOCK);
    }

    // Lower bounds only, as above: with a rate, all connections together get that rate and no
    // more, at every moment of the transfer.
    void sharesItsRateAmongAllConnections() {
        const int count = 4;
        const std::uint64_t rate = 4 * 1024 * 1024;
        const QByteArray answer = randomBytes(1024 * 1024);
        Fountain server(count, answer);
        DelayProxy proxy(server.port(), 0ms, rate);
        QVERIFY(proxy.burstBytes() > 0);
        const Downloads got = downloadAtOnce(proxy.port(), count, double(rate), double(proxy.burstBytes()));
        for (const QByteArray& body : got.bodies)
            QVERIFY(body == answer);
        QVERIFY2(got.withinRate, "more bytes arrived than the link's rate allows");
        const double leastMs = double(count * answer.size() - qsizetype(proxy.burstBytes())) / double(rate) * 1000;
        QVERIFY2(got.elapsedMs >= leastMs,
                 qPrintable(QStringLiteral("%1 ms, at least %2").arg(got.elapsedMs).arg(leastMs)));
        QVERIFY(proxy.throttled() > 0);
        QCOMPARE(proxy.connections(), count);
    }

    // Its twin: without a rate the same transfer never waits for the link. (That it then comes
    // sooner than the rate would allow depends on the machine's load, so it is not asserted.)
    void passesAtOnceWithoutARate() {
        const int count = 4;
        const QByteArray answer = randomBytes(1024 * 1024);
        Fountain server(count, answer);
        DelayProxy proxy(server.port(), 0ms);
        QCOMPARE(proxy.burstBytes(), std::uint64_t(0));
        const Downloads got = downloadAtOnce(proxy.port(), count, 0, 0);
        for (const QByteArray& body : got.bodies)
            QVERIFY(body == answer);
        QCOMPARE(proxy.throttled(), std::uint64_t(0));
    }

    // And with a rate, what fits in the bucket passes without waiting.
    void passesABurstWithoutWaiting() {
        const std::uint64_t rate = 4 * 1024 * 1024;
        const QByteArray answer = randomBytes(32 * 1024);
        Fountain server(1, answer);
        DelayProxy proxy(server.port(), 0ms, rate);
        QVERIFY(std::uint64_t(answer.size()) < proxy.burstBytes());
        const Downloads got = downloadAtOnce(proxy.port(), 1, double(rate), double(proxy.burstBytes()));
        QVERIFY(got.bodies.front() == answer);
        QCOMPARE(proxy.throttled(), std::uint64_t(0));
    }

    // A client that waits while connected leaves the link idle, and the relay says for how long.
    void countsTheTimeNothingPassesWhileConnected() {
        LineEcho server;
        DelayProxy proxy(server.port(), 0ms, 4 * 1024 * 1024);
        Socket client = connected(proxy.port());
        QVERIFY(exchangeMs(client.fd) >= 0);
        std::this_thread::sleep_for(200ms);
        QVERIFY(exchangeMs(client.fd) >= 0);
        QCOMPARE(proxy.pauses(), 1);
        QVERIFY2(proxy.paused() >= 190ms, qPrintable(QString::number(proxy.paused().count())));
    }

    // Its twin: the time between one connection's end and the next one's start is no pause.
    void countsNoPauseBetweenConnections() {
        const QByteArray answer = randomBytes(64 * 1024);
        Fountain server(2, answer);
        DelayProxy proxy(server.port(), 0ms, 4 * 1024 * 1024);
        for (int i = 0; i < 2; ++i) {
            Socket client = connected(proxy.port());
            ::shutdown(client.fd, SHUT_WR);
            QVERIFY(readToEnd(client.fd) == answer);
            client = Socket();
            std::this_thread::sleep_for(200ms);
        }
        QVERIFY2(proxy.paused() < 100ms, qPrintable(QString::number(proxy.paused().count())));
    }

    void closesTheClientWhenTheTargetIsNotListening() {
        quint16 port = 0;
        { Socket gone = listening(port); }
        DelayProxy proxy(port, 10ms);
        Socket client = connected(proxy.port());
        QVERIFY(readToEnd(client.fd).isEmpty());
        char byte;
        QCOMPARE(::recv(client.fd, &byte, 1, MSG_DONTWAIT), ssize_t(0)); // ended, not timed out
    }

    void endsItsConnectionsWhenDestroyed() {
        LineEcho server;
        Socket client;
        {
            DelayProxy proxy(server.port(), 5ms);
            client = connected(proxy.port());
            QCOMPARE(exchangeMs(client.fd) >= 0, true);
        }
        QVERIFY(readToEnd(client.fd).isEmpty());
        char byte;
        QCOMPARE(::recv(client.fd, &byte, 1, MSG_DONTWAIT), ssize_t(0));
    }

    // A relay stopped before it took a waiting client's connection never opens one to the test's
    // server; the servers above then end with their test instead of waiting for that client.
    void aServerNoClientReachedEndsWithItsTest() {
        const auto ended = std::make_shared<std::atomic<bool>>(false);
        std::thread([ended] {
            { const LineEcho server; }
            { const OneExchange server(QByteArrayLiteral("never sent")); }
            { const Fountain server(2, QByteArrayLiteral("never sent")); }
            *ended = true;
        }).detach(); // left behind, not joined, if it never ends: the test fails, not hangs
        QTRY_VERIFY_WITH_TIMEOUT(ended->load(), 10000);
    }
};

QTEST_GUILESS_MAIN(TestDelayProxy)
#include "TestDelayProxy.moc"
