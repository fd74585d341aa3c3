#include "XvfbSession.h"

#include <QDeadlineTimer>
#include <QRegularExpression>
#include <QTest>

#include <dlfcn.h>

const QString XvfbSession::kRootWindow = QStringLiteral("root");

XvfbSession::XvfbSession() : XvfbSession(QSize(1024, 768)) {}

XvfbSession::XvfbSession(QSize size) {
    // -displayfd: the server takes a free display and writes its number to our pipe.
    server_.start(QStringLiteral("/usr/bin/Xvfb"),
                  {QStringLiteral("-displayfd"), QStringLiteral("1"), QStringLiteral("-screen"),
                   QStringLiteral("0"), QStringLiteral("%1x%2x24").arg(size.width()).arg(size.height()),
                   QStringLiteral("-nolisten"), QStringLiteral("tcp")});
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
    QStringList arguments{QStringLiteral("-display"), display_};
    arguments << (window == kRootWindow ? QStringList{QStringLiteral("-root")}
                                        : QStringList{QStringLiteral("-id"), window});
    arguments << QStringLiteral("-notype") << QStringLiteral("-len") << QStringLiteral("16777216");
    if (!format.isEmpty())
        arguments << QStringLiteral("-f") << property << format;
    arguments << property;
    QProcess xprop;
    xprop.start(QStringLiteral("/usr/bin/xprop"), arguments);
    if (!xprop.waitForFinished(10000))
        return {};
    return QString::fromUtf8(xprop.readAllStandardOutput()).trimmed();
}

bool XvfbSession::click(QPoint point) const {
    // Xlib and XTEST are loaded by name: the machine has their libraries but no headers.
    using OpenDisplay = void* (*)(const char*);
    using CloseDisplay = int (*)(void*);
    using Flush = int (*)(void*);
    using FakeMotion = int (*)(void*, int, int, int, unsigned long);
    using FakeButton = int (*)(void*, unsigned int, int, unsigned long);
    void* x11 = ::dlopen("libX11.so.6", RTLD_NOW | RTLD_LOCAL);
    void* xtst = ::dlopen("libXtst.so.6", RTLD_NOW | RTLD_LOCAL);
    bool clicked = false;
    if (x11 && xtst) {
        const auto open = reinterpret_cast<OpenDisplay>(::dlsym(x11, "XOpenDisplay"));
        const auto close = reinterpret_cast<CloseDisplay>(::dlsym(x11, "XCloseDisplay"));
        const auto flush = reinterpret_cast<Flush>(::dlsym(x11, "XFlush"));
        const auto motion = reinterpret_cast<FakeMotion>(::dlsym(xtst, "XTestFakeMotionEvent"));
        const auto button = reinterpret_cast<FakeButton>(::dlsym(xtst, "XTestFakeButtonEvent"));
        if (open && close && flush && motion && button) {
            if (void* display = open(display_.toLocal8Bit().constData())) {
                motion(display, -1, point.x(), point.y(), 0);
                flush(display);
                QTest::qWait(100);
                button(display, 1, 1, 0);
                flush(display);
                QTest::qWait(50);
                button(display, 1, 0, 0);
                flush(display);
                close(display);
                clicked = true;
            }
        }
    }
    if (xtst)
        ::dlclose(xtst);
    if (x11)
        ::dlclose(x11);
    return clicked;
}
