#include "XvfbSession.h"

#include "XConnection.h"

#include <QDeadlineTimer>
#include <QRegularExpression>
#include <QTest>

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

namespace {

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

// Xlib's XImage, as its header lays it out, as far as it is read here.
struct Image {
    int width, height, xoffset, format;
    char* data;
    int byteOrder, bitmapUnit, bitmapBitOrder, bitmapPad, depth, bytesPerLine, bitsPerPixel;
    unsigned long redMask, greenMask, blueMask;
    char* objectData;
    struct {
        void* create;
        int (*destroy)(Image*);
    } functions;
};
constexpr int kZPixmap = 2;
constexpr int kLsbFirst = 0;

// Xlib ends the process on an X error unless a handler is set; a window that went away while it
// was read is a null image here, not the end of the test.
int ignoreError(void*, void*) { return 0; }
using ErrorHandler = int (*)(void*, void*);

// The image as Qt holds it; null for a layout other than the 32-bit pixels of 24-bit true colour.
QImage copied(const Image& image) {
    if (image.bitsPerPixel != 32 || image.byteOrder != kLsbFirst || image.redMask != 0xff0000 ||
        image.greenMask != 0xff00 || image.blueMask != 0xff)
        return {};
    QImage copy(image.width, image.height, QImage::Format_RGB32);
    for (int y = 0; y < image.height; ++y) {
        const auto* from = reinterpret_cast<const quint32*>(image.data + qsizetype(y) * image.bytesPerLine);
        auto* to = reinterpret_cast<quint32*>(copy.scanLine(y));
        for (int x = 0; x < image.width; ++x)
            to[x] = from[x] | 0xff000000u; // the top byte is padding, not alpha
    }
    return copy;
}

} // namespace

QImage XvfbSession::windowImage(const QString& window) const {
    const XConnection x(display_);
    const auto setHandler = x.x11<ErrorHandler (*)(ErrorHandler)>("XSetErrorHandler");
    const auto root = x.x11<unsigned long (*)(void*)>("XDefaultRootWindow");
    const auto geometry = x.x11<int (*)(void*, unsigned long, unsigned long*, int*, int*, unsigned*, unsigned*,
                                        unsigned*, unsigned*)>("XGetGeometry");
    const auto getImage =
        x.x11<Image* (*)(void*, unsigned long, int, int, unsigned, unsigned, unsigned long, int)>("XGetImage");
    if (!x.display() || !setHandler || !root || !geometry || !getImage)
        return {};
    const unsigned long id = window == kRootWindow ? root(x.display()) : window.toULong(nullptr, 0);
    // An error comes back with the reply to the request that caused it, so the handler is only
    // needed while these two requests wait for theirs.
    const ErrorHandler previous = setHandler(ignoreError);
    unsigned long parent = 0;
    int left = 0, top = 0;
    unsigned width = 0, height = 0, border = 0, depth = 0;
    Image* image = nullptr;
    if (id != 0 && geometry(x.display(), id, &parent, &left, &top, &width, &height, &border, &depth) != 0)
        image = getImage(x.display(), id, 0, 0, width, height, ~0UL, kZPixmap);
    setHandler(previous);
    if (!image)
        return {};
    const QImage shown = copied(*image);
    image->functions.destroy(image);
    return shown;
}

bool XvfbSession::click(QPoint point) const {
    const XConnection x(display_);
    const auto motion = x.xtst<int (*)(void*, int, int, int, unsigned long)>("XTestFakeMotionEvent");
    const auto button = x.xtst<int (*)(void*, unsigned int, int, unsigned long)>("XTestFakeButtonEvent");
    if (!x.display() || !motion || !button)
        return false;
    // The server handles one client's requests in order: the press lands where the pointer was
    // moved, and the release after the press, with no pause between them.
    motion(x.display(), -1, point.x(), point.y(), 0);
    button(x.display(), 1, 1, 0);
    button(x.display(), 1, 0, 0);
    return true;
}

bool XvfbSession::askToClose(const QString& window) const {
    const XConnection x(display_);
    const auto intern = x.x11<unsigned long (*)(void*, const char*, int)>("XInternAtom");
    const auto send = x.x11<int (*)(void*, unsigned long, int, long, Event*)>("XSendEvent");
    bool number = false;
    const unsigned long id = window.toULong(&number, 0);
    if (!x.display() || !intern || !send || !number)
        return false;
    // What a window manager sends when the player clicks the window's close button.
    Event event{};
    event.message.type = kClientMessage;
    event.message.window = id;
    event.message.messageType = intern(x.display(), "WM_PROTOCOLS", 0);
    event.message.format = 32;
    event.message.data[0] = long(intern(x.display(), "WM_DELETE_WINDOW", 0));
    event.message.data[1] = 0; // CurrentTime
    return send(x.display(), id, 0, 0, &event) != 0;
}
