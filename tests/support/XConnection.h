#pragma once

#include <QString>

#include <dlfcn.h>

// A connection to the X server through Xlib and XTEST, loaded by name: the machine has their
// libraries but no headers. When it goes, it waits until the server has handled every request
// sent on it (XSync), then closes.
class XConnection {
public:
    explicit XConnection(const QString& display)
        : x11_(::dlopen("libX11.so.6", RTLD_NOW | RTLD_LOCAL)), xtst_(::dlopen("libXtst.so.6", RTLD_NOW | RTLD_LOCAL)) {
        const auto open = x11<void* (*)(const char*)>("XOpenDisplay");
        if (open && x11<int (*)(void*)>("XCloseDisplay") && x11<int (*)(void*, int)>("XSync"))
            display_ = open(display.toLocal8Bit().constData());
    }
    ~XConnection() {
        if (display_) {
            x11<int (*)(void*, int)>("XSync")(display_, 0);
            x11<int (*)(void*)>("XCloseDisplay")(display_);
        }
        if (xtst_)
            ::dlclose(xtst_);
        if (x11_)
            ::dlclose(x11_);
    }
    XConnection(const XConnection&) = delete;
    XConnection& operator=(const XConnection&) = delete;

    // The display, or null when there is none to talk to.
    void* display() const { return display_; }
    template <typename Function> Function x11(const char* name) const {
        return x11_ ? reinterpret_cast<Function>(::dlsym(x11_, name)) : nullptr;
    }
    template <typename Function> Function xtst(const char* name) const {
        return xtst_ ? reinterpret_cast<Function>(::dlsym(xtst_, name)) : nullptr;
    }

private:
    void* x11_;
    void* xtst_;
    void* display_ = nullptr;
};
