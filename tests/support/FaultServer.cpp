#include "FaultServer.h"

#include <QByteArray>
#include <QCryptographicHash>
#include <QFile>
#include <QList>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

// Waits until `fd` can be written, the stop pipe fires, or `deadline` passes.
bool waitWritable(int fd, int stopFd, Clock::time_point deadline) {
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0)
            return false;
        pollfd fds[2] = {{fd, POLLOUT, 0}, {stopFd, POLLIN, 0}};
        const int ready = ::poll(fds, 2, int(std::min<long long>(left.count(), 1000)));
        if (ready < 0 && errno != EINTR)
            return false;
        if (fds[1].revents != 0 || (fds[0].revents & (POLLERR | POLLHUP | POLLNVAL)))
            return false;
        if (fds[0].revents & POLLOUT)
            return true;
    }
}

// Reads the request head (up to its blank line, at most 16 KiB).
QByteArray readRequestHead(int fd, int stopFd, Clock::time_point deadline) {
    QByteArray head;
    while (!head.contains("\r\n\r\n") && head.size() < 16 * 1024) {
        pollfd fds[2] = {{fd, POLLIN, 0}, {stopFd, POLLIN, 0}};
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0 || ::poll(fds, 2, int(std::min<long long>(left.count(), 1000))) < 0 ||
            fds[1].revents != 0)
            return {};
        if (fds[0].revents == 0)
            continue;
        char buffer[4096];
        const ssize_t got = ::recv(fd, buffer, sizeof buffer, 0);
        if (got <= 0)
            return {};
        head.append(buffer, got);
    }
    return head;
}

// The request's target: its path and query.
QByteArray targetOf(const QByteArray& head) {
    const QList<QByteArray> words = head.left(head.indexOf("\r\n")).split(' ');
    return words.size() >= 2 ? words[1] : QByteArray();
}

QByteArray pathOf(const QByteArray& head) {
    const QByteArray target = targetOf(head);
    const qsizetype query = target.indexOf('?');
    return query < 0 ? target : target.left(query);
}

// The value of header `name` in a request head, or empty.
QByteArray headerOf(const QByteArray& head, const QByteArray& name) {
    for (const QByteArray& line : head.split('\n')) {
        const int colon = line.indexOf(':');
        if (colon > 0 && line.left(colon).trimmed().toLower() == name.toLower())
            return line.mid(colon + 1).trimmed();
    }
    return {};
}

bool sendAll(int fd, int stopFd, Clock::time_point deadline, const QByteArray& bytes,
             const std::atomic<bool>& stopping) {
    qint64 done = 0;
    while (done < bytes.size() && !stopping) {
        if (!waitWritable(fd, stopFd, deadline))
            return false;
        const ssize_t written =
            ::send(fd, bytes.constData() + done, size_t(bytes.size() - done), MSG_NOSIGNAL);
        if (written <= 0)
            return false;
        done += written;
    }
    return done == bytes.size();
}

} // namespace

FaultServer::FaultServer() {
    if (::pipe(stopPipe_) != 0)
        throw std::runtime_error("fault server: no pipe");
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int yes = 1;
    ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(listener_, 16) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        throw std::runtime_error("fault server: cannot listen on 127.0.0.1");
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread([this] { acceptLoop(); });
}

FaultServer::~FaultServer() {
    stopping_ = true;
    const char stop = 's';
    [[maybe_unused]] const ssize_t ignored = ::write(stopPipe_[1], &stop, 1);
    acceptor_.join();
    for (std::thread& connection : connections_)
        connection.join();
    ::close(listener_);
    ::close(stopPipe_[0]);
    ::close(stopPipe_[1]);
}

void FaultServer::acceptLoop() {
    while (!stopping_) {
        pollfd fds[2] = {{listener_, POLLIN, 0}, {stopPipe_[0], POLLIN, 0}};
        if (::poll(fds, 2, 1000) < 0 && errno != EINTR)
            return;
        if (fds[1].revents != 0)
            return;
        if (!(fds[0].revents & POLLIN))
            continue;
        const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0)
            continue;
        const std::lock_guard<std::mutex> lock(mutex_);
        connections_.emplace_back([this, client] {
            serve(client);
            ::close(client);
        });
    }
}

void FaultServer::serve(int client) {
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(maximumSeconds());
    const QByteArray request = readRequestHead(client, stopPipe_[0], deadline);
    const QList<QByteArray> parts = pathOf(request).split('/'); // "", "fault", kind, ...
    if (parts.size() == 5 && (parts[2] == "cut" || parts[2] == "stuck" || parts[2] == "misplaced")) {
        const qint64 size = std::clamp<qint64>(parts[3].toLongLong(), 0, 64 * 1024 * 1024);
        const RangeFault fault = parts[2] == "stuck"       ? RangeFault::noBody
                                 : parts[2] == "misplaced" ? RangeFault::misplaced
                                                           : RangeFault::none;
        serveCut(client, deadline, request, cutBody(size), "\"cut-" + QByteArray::number(size) + '"',
                 parts[4].toLongLong(), fault);
        return;
    }
    if (parts.size() == 5 && parts[2] == "cutfile" && !parts[4].startsWith('.')) {
        QFile file(fileRoot() + QLatin1Char('/') + QString::fromUtf8(parts[4]));
        if (file.open(QIODevice::ReadOnly) && file.size() <= 64 * 1024 * 1024) {
            const QByteArray body = file.readAll();
            const QByteArray etag = '"' + QCryptographicHash::hash(body, QCryptographicHash::Sha1).toHex() + '"';
            serveCut(client, deadline, request, body, etag, parts[3].toLongLong());
            return;
        }
    }

    if (parts.size() == 4 && parts[2] == "redirect") {
        const QByteArray moved = "HTTP/1.1 302 Found\r\nLocation: https://127.0.0.1:" +
                                 QByteArray::number(parts[3].toUShort()) +
                                 "/m.json\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
        [[maybe_unused]] const ssize_t ignored = ::send(client, moved.constData(), size_t(moved.size()), MSG_NOSIGNAL);
        return;
    }

    qint64 announced = -1; // Content-Length, or chunked when -1
    qint64 bodyBytes = maximumBytes();
    if (parts.size() == 4 && parts[2] == "chunked") {
        bodyBytes = std::min(parts[3].toLongLong(), maximumBytes());
    } else if (parts.size() == 5 && parts[2] == "longer") {
        announced = parts[3].toLongLong();
        bodyBytes = std::min(parts[4].toLongLong(), maximumBytes());
    } else if (!(parts.size() == 3 && parts[2] == "endless")) {
        const QByteArray missing = "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
        [[maybe_unused]] const ssize_t ignored = ::send(client, missing.constData(), size_t(missing.size()), MSG_NOSIGNAL);
        return;
    }

    QByteArray head = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nConnection: close\r\n";
    head += announced >= 0 ? "Content-Length: " + QByteArray::number(announced) + "\r\n"
                           : QByteArray("Transfer-Encoding: chunked\r\n");
    head += "\r\n";

    // Blanks are valid JSON padding, so only the size of the body is hostile.
    const QByteArray piece(64 * 1024, ' ');
    const QByteArray chunkHead = QByteArray::number(piece.size(), 16) + "\r\n";
    QByteArray pending = head;
    qint64 sent = 0;
    bool ended = false;
    while (!stopping_) {
        if (pending.isEmpty()) {
            if (ended)
                return;
            const qint64 take = std::min<qint64>(piece.size(), bodyBytes - sent);
            if (take <= 0) {
                if (announced >= 0)
                    return;
                pending = "0\r\n\r\n";
                ended = true;
                continue;
            }
            pending = announced >= 0 ? piece.left(take)
                                     : (take == piece.size() ? chunkHead : QByteArray::number(take, 16) + "\r\n") +
                                           piece.left(take) + "\r\n";
            sent += take;
            bytesSent_ += take;
        }
        if (!waitWritable(client, stopPipe_[0], deadline))
            return;
        const ssize_t written = ::send(client, pending.constData(), size_t(pending.size()), MSG_NOSIGNAL);
        if (written <= 0)
            return;
        pending.remove(0, written);
    }
}

QByteArray FaultServer::cutBody(qint64 size) {
    QByteArray body(int(size), Qt::Uninitialized);
    for (qint64 i = 0; i < size; ++i)
        body[int(i)] = char((i * 131 + i / 251) & 0xff);
    return body;
}

void FaultServer::serveCut(int client, Clock::time_point deadline, const QByteArray& request,
                           const QByteArray& body, const QByteArray& etag, qint64 cut, RangeFault fault) {
    const qint64 size = body.size();
    const QByteArray range = headerOf(request, "Range");
    const QByteArray ifRange = headerOf(request, "If-Range");
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        ranges_.append({targetOf(request), range});
    }
    qint64 from = 0;
    if (range.startsWith("bytes=") && range.endsWith('-') && (ifRange.isEmpty() || ifRange == etag))
        from = range.mid(6, range.size() - 7).toLongLong();
    if (from >= size && size > 0) {
        const QByteArray refused = "HTTP/1.1 416 Range Not Satisfiable\r\nContent-Range: bytes */" +
                                   QByteArray::number(size) + "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
        sendAll(client, stopPipe_[0], deadline, refused, stopping_);
        return;
    }
    if (from > 0 && fault == RangeFault::misplaced)
        from = std::max<qint64>(1, from - 1000);
    QByteArray head = from > 0 ? QByteArray("HTTP/1.1 206 Partial Content\r\n")
                               : QByteArray("HTTP/1.1 200 OK\r\n");
    head += "Content-Type: application/octet-stream\r\nConnection: close\r\nAccept-Ranges: bytes\r\n";
    head += "ETag: " + etag + "\r\n";
    head += "Content-Length: " + QByteArray::number(size - from) + "\r\n";
    if (from > 0)
        head += "Content-Range: bytes " + QByteArray::number(from) + '-' + QByteArray::number(size - 1) +
                '/' + QByteArray::number(size) + "\r\n";
    head += "\r\n";
    if (!sendAll(client, stopPipe_[0], deadline, head, stopping_))
        return;
    const qint64 end = from > 0 && fault == RangeFault::noBody ? from : cut > 0 ? std::min(size, from + cut) : size;
    for (qint64 at = from; at < end && !stopping_;) {
        const qint64 take = std::min<qint64>(64 * 1024, end - at);
        if (!sendAll(client, stopPipe_[0], deadline, body.mid(int(at), int(take)), stopping_))
            return;
        at += take;
        bytesSent_ += take;
    }
    // Closing before the announced end is the cut: the client sees its connection drop.
}

void FaultServer::setFileRoot(const QString& folder) {
    const std::lock_guard<std::mutex> lock(mutex_);
    fileRoot_ = folder;
}

QString FaultServer::fileRoot() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return fileRoot_;
}

QList<QByteArray> FaultServer::rangesAsked() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    QList<QByteArray> ranges;
    for (const auto& [target, range] : ranges_)
        ranges.append(range);
    return ranges;
}

QList<QByteArray> FaultServer::rangesAskedFor(const QByteArray& target) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    QList<QByteArray> ranges;
    for (const auto& [asked, range] : ranges_)
        if (asked == target)
            ranges.append(range);
    return ranges;
}
