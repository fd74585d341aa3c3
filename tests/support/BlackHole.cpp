#include "BlackHole.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

BlackHole::BlackHole() {
    listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(listener_, 0) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        qFatal("black hole listener failed");
    port_ = ntohs(address.sin_port);
    // Connections that are never accepted fill the queue; from then on SYNs go unanswered. A
    // listener polls readable once a connection waits in its queue, which with a backlog of 0
    // is the queue full.
    for (int i = 0; i < 4; ++i) {
        const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        ::connect(client, reinterpret_cast<sockaddr*>(&address), length);
        fillers_.push_back(client);
    }
    pollfd queued{listener_, POLLIN, 0};
    if (::poll(&queued, 1, 60000) != 1)
        qFatal("black hole queue did not fill");
}

BlackHole::~BlackHole() {
    for (int fd : fillers_)
        ::close(fd);
    ::close(listener_);
}
