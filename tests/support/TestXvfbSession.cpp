// The private X server the window tests look through: what it reads of a window is what the
// server holds, pixel for pixel and colour for colour, and a window that is not there reads as
// nothing rather than ending the test.

#include "TestRequirements.h"
#include "XConnection.h"
#include "XvfbSession.h"

#include <QTest>

namespace {

// A plain window of one colour, made and mapped by its own X connection, which holds it open
// until it goes.
class PlainWindow {
public:
    PlainWindow(const QString& display, QRect rect, QRgb colour) : x_(display) {
        const auto root = x_.x11<unsigned long (*)(void*)>("XDefaultRootWindow");
        const auto create = x_.x11<unsigned long (*)(void*, unsigned long, int, int, unsigned, unsigned, unsigned,
                                                     unsigned long, unsigned long)>("XCreateSimpleWindow");
        const auto map = x_.x11<int (*)(void*, unsigned long)>("XMapWindow");
        if (!x_.display() || !root || !create || !map)
            return;
        id_ = create(x_.display(), root(x_.display()), rect.x(), rect.y(), unsigned(rect.width()),
                     unsigned(rect.height()), 0, 0, colour & 0xffffff);
        map(x_.display(), id_);
        sync();
    }

    QString id() const { return QStringLiteral("0x%1").arg(id_, 0, 16); }
    void destroy() {
        x_.x11<int (*)(void*, unsigned long)>("XDestroyWindow")(x_.display(), id_);
        sync();
    }

private:
    // Returns once the server has handled every request sent, the window drawn with them.
    void sync() const { x_.x11<int (*)(void*, int)>("XSync")(x_.display(), 0); }

    XConnection x_;
    unsigned long id_ = 0;
};

} // namespace

class TestXvfbSession : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { ZENTHO_REQUIRE(xvfb); }

    void aWindowIsReadAsTheServerDrawsIt() {
        XvfbSession screen(QSize(320, 240));
        QVERIFY(!screen.display().isEmpty());
        const QRgb colour = qRgb(0x33, 0x66, 0x99);
        const PlainWindow window(screen.display(), QRect(10, 20, 64, 32), colour);
        const QImage shown = screen.windowImage(window.id());
        QCOMPARE(shown.size(), QSize(64, 32));
        for (int y = 0; y < shown.height(); ++y)
            for (int x = 0; x < shown.width(); ++x)
                QCOMPARE(shown.pixel(x, y), colour);
        QCOMPARE(screen.windowImage(XvfbSession::kRootWindow).size(), QSize(320, 240));
    }

    // The twin: a window that went away, and an id that names none, read as nothing, and the
    // test goes on.
    void aWindowThatIsNotThereReadsAsNothing() {
        XvfbSession screen(QSize(320, 240));
        QVERIFY(!screen.display().isEmpty());
        PlainWindow window(screen.display(), QRect(10, 20, 64, 32), qRgb(0x33, 0x66, 0x99));
        window.destroy();
        QVERIFY(screen.windowImage(window.id()).isNull());
        QVERIFY(screen.windowImage(QStringLiteral("not a window")).isNull());
        QVERIFY(!screen.windowImage(XvfbSession::kRootWindow).isNull());
    }
};

QTEST_GUILESS_MAIN(TestXvfbSession)
#include "TestXvfbSession.moc"
