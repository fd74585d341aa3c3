#pragma once

#include <QtGlobal>

#include <vector>

// A loopback listener whose accept queue is full: the kernel drops every further SYN, so a
// client's connect hangs exactly as against a black-holed server. Nothing leaves 127.0.0.1.
class BlackHole {
public:
    BlackHole();
    ~BlackHole();
    BlackHole(const BlackHole&) = delete;
    BlackHole& operator=(const BlackHole&) = delete;

    quint16 port() const { return port_; }

private:
    int listener_ = -1;
    quint16 port_ = 0;
    std::vector<int> fillers_;
};
