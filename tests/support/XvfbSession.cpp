#include "XvfbSession.h"

#include <QDeadlineTimer>
#include <QRegularExpression>
#include <QTest>

#include <dlfcn.h>

XvfbSession::XvfbSession() {
    // -displayfd: the server takes a free display and writes its number to our pipe.
    server_.start(QStringLiteral("/usr/bin/Xvfb"),
                  {QStringLiteral("-displayfd"), QStringLiteral("1"), QStringLiteral("-screen"),
                   QStringLiteral("0"), QStringLiteral("1024x768x24"), QStringLiteral("-nolisten"),
                   QStringLiteral("tcp")});
    QDeadlineTimer deadline(10000);
    QByteArray number;
    while (!deadline.hasExpired() && !number.contains('\n') &&
           server_.state() != QProcess::NotRunning) {
        server_.waitForReadyRead(200);
        number += server_.readAllStandardOutput();
    }
    if (number.contains('\n'))
        display_ = QLatin1Char(':') + QString::fromLatin1(number.trimmed());
}

XvfbSession::~XvfbSession() {
    if (server_.state() != QProcess::NotRunning) {
        server_.terminate();
        if (!server_.waitForFinished(5000)) {
            server_.kill();
            server_.waitForFinished();
        }
    }
}

std::optional<XvfbSession::Found> XvfbSession::waitForMatch(const QString& title, int timeoutMs) const {
    // xwininfo -tree lines look like:  0x20000c "T": ("class" "T")  620x510+0+0  +0+0
    // The last pair is the position on the screen; a window without WM_CLASS shows "()".
    const QRegularExpression line(QStringLiteral("(0x[0-9a-f]+) \"%1\": \\(\"[^)]+\\)\\s+(\\d+)x(\\d+)\\S*\\s+\\+(-?\\d+)\\+(-?\\d+)")
                                      .arg(QRegularExpression::escape(title)));
    QDeadlineTimer deadline(timeoutMs);
    while (!deadline.hasExpired()) {
        QProcess info;
        info.start(QStringLiteral("/usr/bin/xwininfo"),
                   {QStringLiteral("-display"), display_, QStringLiteral("-root"), QStringLiteral("-tree")});
        if (info.waitForFinished(5000)) {
            const QRegularExpressionMatch found = line.match(QString::fromUtf8(info.readAllStandardOutput()));
            if (found.hasMatch())
                return Found{found.captured(1),
                             QRect(found.captured(4).toInt(), found.captured(5).toInt(),
                                   found.captured(2).toInt(), found.captured(3).toInt())};
        }
        QTest::qWait(100);
    }
    return std::nullopt;
}

std::optional<QRect> XvfbSession::waitForWindow(const QString& title, int timeoutMs) const {
    if (const auto found = waitForMatch(title, timeoutMs))
        return found->rect;
    return std::nullopt;
}

std::optional<QString> XvfbSession::waitForWindowId(const QString& title, int timeoutMs) const {
    if (const auto found = waitForMatch(title, timeoutMs))
        return found->id;
    return std::nullopt;
}

QString XvfbSession::windowProperty(const QString& window, const QString& property,
                                    const QString& format) const {
    // xprop shows at most 250,000 bytes of a property unless told otherwise; an icon is more.
    QStringList arguments{QStringLiteral("-display"), display_, QStringLiteral("-id"), window,
                          QStringLiteral("-notype"), QStringLiteral("-len"), QStringLiteral("16777216")};
    if (!format.isEmpty())
        arguments << QStringLiteral("-f") << property << format;
    arguments << property;
    QProcess xprop;
    xprop.start(QStringLiteral("/usr/bin/xprop"), arguments);
    if (!xprop.waitForFinished(10000))
        return {};
    return QString::fromUtf8(xprop.readAllStandardOutput()).trimmed();
}

namespace {

// Xlib and XTEST, loaded by name: the machine has their libraries but no headers.
class XLibrary {
public:
    XLibrary()
        : x11_(::dlopen("libX11.so.6", RTLD_NOW | RTLD_LOCAL)), xtst_(::dlopen("libXtst.so.6", RTLD_NOW | RTLD_LOCAL)) {}
    ~XLibrary() {
        if (xtst_)
            ::dlclose(xtst_);
        if (x11_)
            ::dlclose(x11_);
    }
    XLibrary(const XLibrary&) = delete;
    XLibrary& operator=(const XLibrary&) = delete;

    template <typename Function> Function x11(const char* name) const {
        return x11_ ? reinterpret_cast<Function>(::dlsym(x11_, name)) : nullptr;
    }
    template <typename Function> Function xtst(const char* name) const {
        return xtst_ ? reinterpret_cast<Function>(::dlsym(xtst_, name)) : nullptr;
    }

private:
    void* x11_;
    void* xtst_;
};

using OpenDisplay = void* (*)(const char*);
using CloseDisplay = int (*)(void*);
// XSync: returns once the server has handled every request sent before it.
using Sync = int (*)(void*, int);

// Xlib's XClientMessageEvent, as its header lays it out.
struct ClientMessage {
    int type;
    unsigned long serial;
    int sendEvent;
    void* display;
    unsigned long window;
    unsigned long messageType;
    int format;
    long data[5];
};
// Xlib's XEvent is a union padded to 24 longs.
union Event {
    ClientMessage message;
    long pad[24];
};
constexpr int kClientMessage = 33;

} // namespace

bool XvfbSession::click(QPoint point) const {
    using FakeMotion = int (*)(void*, int, int, int, unsigned long);
    using FakeButton = int (*)(void*, unsigned int, int, unsigned long);
    const XLibrary library;
    const auto open = library.x11<OpenDisplay>("XOpenDisplay");
    const auto close = library.x11<CloseDisplay>("XCloseDisplay");
    const auto sync = library.x11<Sync>("XSync");
    const auto motion = library.xtst<FakeMotion>("XTestFakeMotionEvent");
    const auto button = library.xtst<FakeButton>("XTestFakeButtonEvent");
    if (!open || !close || !sync || !motion || !button)
        return false;
    void* display = open(display_.toLocal8Bit().constData());
    if (!display)
        return false;
    // The server handles one client's requests in order: the press lands where the pointer was
    // moved, and the release after the press, with no pause between them.
    motion(display, -1, point.x(), point.y(), 0);
    button(display, 1, 1, 0);
    button(display, 1, 0, 0);
    sync(display, 0);
    close(display);
    return true;
}

bool XvfbSession::askToClose(const QString& window) const {
    using InternAtom = unsigned long (*)(void*, const char*, int);
    using SendEvent = int (*)(void*, unsigned long, int, long, Event*);
    const XLibrary library;
    const auto open = library.x11<OpenDisplay>("XOpenDisplay");
    const auto close = library.x11<CloseDisplay>("XCloseDisplay");
    const auto sync = library.x11<Sync>("XSync");
    const auto intern = library.x11<InternAtom>("XInternAtom");
    const auto send = library.x11<SendEvent>("XSendEvent");
    bool number = false;
    const unsigned long id = window.toULong(&number, 0);
    if (!open || !close || !sync || !intern || !send || !number)
        return false;
    void* display = open(display_.toLocal8Bit().constData());
    if (!display)
        return false;
    // What a window manager sends when the player clicks the window's close button.
    Event event{};
    event.message.type = kClientMessage;
    event.message.window = id;
    event.message.messageType = intern(display, "WM_PROTOCOLS", 0);
    event.message.format = 32;
    event.message.data[0] = long(intern(display, "WM_DELETE_WINDOW", 0));
    event.message.data[1] = 0; // CurrentTime
    const bool sent = send(display, id, 0, 0, &event) != 0;
    sync(display, 0);
    close(display);
    return sent;
}
