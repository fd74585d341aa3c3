// The picker's open list: as many whole entries as the window has room for, and a scroll bar
// whenever more builds are saved than that.

#include "WindowFixture.h"

#include <QGuiApplication>
#include <QQuickItem>
#include <QQuickWindow>
#include <QTest>
#include <QWheelEvent>

#include <cmath>

namespace {

// "0.3.1" to "0.3.<count>", saved in the versions folder.
QStringList savedVersions(int count) {
    QStringList versions;
    for (int i = 1; i <= count; ++i)
        versions << QStringLiteral("0.3.%1").arg(i);
    return versions;
}

QObject* popup(const WindowFixture& f) {
    return f.item("versionPicker")->property("popup").value<QObject*>();
}

QQuickItem* list(const WindowFixture& f) {
    return popup(f)->property("contentItem").value<QQuickItem*>();
}

QQuickItem* entryAt(const WindowFixture& f, int index) {
    QQuickItem* entry = nullptr;
    QMetaObject::invokeMethod(list(f), "itemAtIndex", Q_RETURN_ARG(QQuickItem*, entry), Q_ARG(int, index));
    return entry;
}

// The list's scroll bar; none where the list has no bar.
QQuickItem* scrollBar(const WindowFixture& f) {
    return list(f)->findChild<QQuickItem*>(QStringLiteral("pickerScrollBar"));
}

void openPicker(const WindowFixture& f) {
    QTest::mouseClick(f.window->window(), Qt::LeftButton, {}, f.rectOf("versionPicker").center());
    QTRY_VERIFY(popup(f)->property("opened").toBool());
}

// Pixels of the strip along the list's right edge, where its scroll bar runs, that are not the
// colour of the entry beside them: the bar's handle.
int scrollBarPixels(const WindowFixture& f, const QImage& image) {
    QQuickItem* view = list(f);
    const QRect shown = view->mapRectToScene(QRectF(0, 0, view->width(), view->height())).toRect();
    // Inside the list's one-pixel border, as wide as the bar's handle with its padding.
    const QRect strip(shown.right() - 9, shown.top() + 2, 8, shown.height() - 4);
    int found = 0;
    for (int y = strip.top(); y <= strip.bottom(); ++y)
        for (int x = strip.left(); x <= strip.right(); ++x)
            found += image.pixel(x, y) != image.pixel(strip.left() - 4, y) ? 1 : 0;
    return found;
}

// Whether every entry the list draws lies whole inside it.
bool noEntryIsCut(const WindowFixture& f, int count) {
    QQuickItem* view = list(f);
    const qreal top = view->property("contentY").toDouble();
    for (int i = 0; i < count; ++i) {
        QQuickItem* entry = entryAt(f, i);
        if (!entry || !entry->isVisible())
            continue;
        const qreal from = entry->y() - top;
        const qreal to = from + entry->height();
        const bool outside = to <= 0 || from >= view->height();
        const bool whole = from >= 0 && to <= view->height();
        if (!outside && !whole) {
            qWarning("entry %d lies from %.1f to %.1f in a list %.1f high", i, from, to, view->height());
            return false;
        }
    }
    return true;
}

} // namespace

class TestVersionPicker : public QObject {
    Q_OBJECT

private slots:
    void longListShowsWholeEntries_data() {
        QTest::addColumn<int>("windowHeight");
        QTest::newRow("designed window") << 510;
        // The height the window takes on a 1024-pixel screen at twice the scale.
        QTest::newRow("shortened window") << 499;
    }
    void longListShowsWholeEntries() {
        QFETCH(int, windowHeight);
        const int count = 20;
        WindowFixture f(savedVersions(count));
        f.setHeight(windowHeight);
        openPicker(f);
        QQuickItem* view = list(f);
        const qreal entry = entryAt(f, 0)->height();
        QVERIFY(entry > 0);
        WindowPixels::save(f.grab(), QStringLiteral("picker-long-%1.png").arg(windowHeight));
        // A whole number of entries, as many as the window has room for.
        const qreal entries = view->height() / entry;
        QCOMPARE(entries, std::floor(entries));
        const qreal room = windowHeight - popup(f)->property("topMargin").toDouble() -
                           popup(f)->property("bottomMargin").toDouble();
        QVERIFY(view->height() <= room);
        QVERIFY2(view->height() + entry > room, qPrintable(QString::number(view->height())));
        QVERIFY(noEntryIsCut(f, count));

        // Walked to its last entry, the list still shows whole ones, the last at the bottom.
        for (int i = 1; i < count; ++i)
            QTest::keyClick(f.window->window(), Qt::Key_Down);
        QTRY_COMPARE(view->property("contentY").toDouble() + view->height(),
                     view->property("contentHeight").toDouble());
        QVERIFY(noEntryIsCut(f, count));
        WindowPixels::save(f.grab(), QStringLiteral("picker-long-end-%1.png").arg(windowHeight));
    }

    void longListComesToRestOnWholeEntries() {
        const int count = 20;
        WindowFixture f(savedVersions(count));
        openPicker(f);
        QQuickItem* view = list(f);
        const QPointF centre = view->mapToScene(QPointF(view->width() / 2, view->height() / 2));
        QWheelEvent wheel(centre, view->window()->mapToGlobal(centre), QPoint(), QPoint(0, -120),
                          Qt::NoButton, Qt::NoModifier, Qt::NoScrollPhase, false);
        QGuiApplication::sendEvent(view->window(), &wheel);
        QTRY_VERIFY(view->property("contentY").toDouble() > 0);
        QTRY_VERIFY(!view->property("moving").toBool());
        QVERIFY(noEntryIsCut(f, count));
    }

    void longListShowsAScrollBar() {
        WindowFixture f(savedVersions(20));
        openPicker(f);
        QVERIFY(scrollBar(f) && scrollBar(f)->isVisible());
        const QImage image = f.grab();
        WindowPixels::save(image, QStringLiteral("picker-scroll-bar.png"));
        QVERIFY(scrollBarPixels(f, image) > 50);
    }

    // The twin: a list that fits shows every entry and no scroll bar.
    void shortListShowsNoScrollBar() {
        const int count = 3;
        WindowFixture f(savedVersions(count));
        openPicker(f);
        QQuickItem* view = list(f);
        QCOMPARE(view->height(), count * entryAt(f, 0)->height());
        QVERIFY(noEntryIsCut(f, count));
        QVERIFY(!scrollBar(f) || !scrollBar(f)->isVisible());
        const QImage image = f.grab();
        WindowPixels::save(image, QStringLiteral("picker-short.png"));
        QCOMPARE(scrollBarPixels(f, image), 0);
    }
};

QTEST_MAIN(TestVersionPicker)
#include "TestVersionPicker.moc"
