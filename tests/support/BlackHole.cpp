#include "BlackHole.h"

#include <QThread>

#include <arpa/inet.h>
#include <netinet/in.h>
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
    // Connections that are never accepted fill the queue; from then on SYNs go unanswered.
    for (int i = 0; i < 4; ++i) {
        const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        ::connect(client, reinterpret_cast<sockaddr*>(&address), length);
        fillers_.push_back(client);
    }
    QThread::msleep(200);
}

BlackHole::~BlackHole() {
    for (int fd : fillers_)
        ::close(fd);
    ::close(listener_);
}
