// The status line: the model's text stays exact, the window draws it on one line, and the whole
// text is reachable and copyable without a mouse.

#include "LauncherModelProbe.h"
#include "WindowFixture.h"

#include <QFontMetricsF>
#include <QQuickItem>
#include <QQuickWindow>
#include <QTest>
#include <QtMath>

namespace {

// What a failed install shows when tar's error output begins with a line feed.
const QString kTarFailure = QStringLiteral(
    "Update failed: \ntar: zentho-0.4.2-macos-arm64.tar.gz: Cannot open: No such file or directory\n"
    "tar: Error is not recoverable: exiting now\n");

// A failure far wider than the window, in words that wrap.
const QString kLongFailure =
    QStringLiteral("Could not launch 0.4.2: ") +
    QStringList(7, QStringLiteral("the build folder could not be read back")).join(QStringLiteral(", ")) +
    QLatin1Char('.');

QQuickItem* label(const WindowFixture& f) {
    return f.item("statusLabel");
}

QObject* toolTip(const WindowFixture& f) {
    auto* tip = f.item("statusText")->findChild<QObject*>(QStringLiteral("statusToolTip"));
    if (!tip)
        qFatal("the status line has no tooltip");
    return tip;
}

QObject* contextMenu(const WindowFixture& f) {
    auto* menu = f.item("statusText")->findChild<QObject*>(QStringLiteral("statusMenu"));
    if (!menu)
        qFatal("the status line has no context menu");
    return menu;
}

QQuickItem* copyItem(const WindowFixture& f) {
    return f.item("statusCopyItem");
}

// Whether the entry's face is drawn in another colour than the menu's own: a highlighted entry is
// shaded, an unchosen one is not.
bool entryLooksHighlighted(const QImage& image, const QObject* menu, const QQuickItem* entry) {
    const auto* palette = menu->property("palette").value<QObject*>();
    const QColor menuColour = palette->property("window").value<QColor>();
    const QPointF inside = entry->mapToScene(QPointF(entry->width() - 8, entry->height() / 2));
    return !WindowPixels::near(image.pixel(inside.toPoint()), menuColour.red(), menuColour.green(),
                               menuColour.blue());
}

// Where the tooltip is drawn, in window pixels.
QRect toolTipRect(const WindowFixture& f) {
    auto* face = toolTip(f)->property("background").value<QQuickItem*>();
    return face->mapRectToScene(QRectF(0, 0, face->width(), face->height())).toAlignedRect();
}

// Pixels much darker than the tooltip's pale face: where its words are drawn.
int darkPixels(const QImage& image, const QRect& area) {
    const QRect inside = area.intersected(image.rect());
    return inside.width() * inside.height() - WindowPixels::countBright(image, inside);
}

} // namespace

class TestStatusLine : public QObject {
    Q_OBJECT

private slots:
    void showsTheModelsStatus() {
        WindowFixture f;
        QCOMPARE(label(f)->property("text").toString(), QStringLiteral("Ready"));
        LauncherModelProbe::setStatus(*f.model, QStringLiteral("Checking for updates..."));
        QCOMPARE(label(f)->property("text").toString(), QStringLiteral("Checking for updates..."));
        QVERIFY(WindowPixels::countBright(f.grab(), f.rectOf("statusText")) > 20);
        LauncherModelProbe::setStatus(*f.model, QString());
        QCOMPARE(WindowPixels::countBright(f.grab(), f.rectOf("statusText")), 0);
    }

    void whiteSpaceRunsShowAsOneBlank_data() {
        QTest::addColumn<QString>("status");
        QTest::addColumn<QString>("shown");
        QTest::newRow("plain") << "Checking for updates..." << "Checking for updates...";
        QTest::newRow("line feeds") << "a\nb\n\nc" << "a b c";
        QTest::newRow("ends trimmed") << " \t\nReady\r\n " << "Ready";
        QTest::newRow("tabs and returns") << "x\t\t y\r\nz" << "x y z";
        QTest::newRow("only space") << "\n\n" << "";
        QTest::newRow("tar failure") << kTarFailure
                                     << "Update failed: tar: zentho-0.4.2-macos-arm64.tar.gz: Cannot "
                                        "open: No such file or directory tar: Error is not "
                                        "recoverable: exiting now";
    }
    void whiteSpaceRunsShowAsOneBlank() {
        QFETCH(QString, status);
        QFETCH(QString, shown);
        WindowFixture f;
        LauncherModelProbe::setStatus(*f.model, status);
        QCOMPARE(f.model->status(), status); // the model's text is untouched
        QCOMPARE(f.property("statusText", "fullText").toString(), status);
        QCOMPARE(label(f)->property("text").toString(), shown);
        QCOMPARE(label(f)->property("lineCount").toInt(), 1);
        QCOMPARE(f.item("statusText")->height(), 24.0);
    }

    void multiLineFailureShowsItsReason() {
        WindowFixture f;
        const QRect line = f.rectOf("statusText");
        const QRect rightQuarter(line.right() - line.width() / 4, line.top(), line.width() / 4,
                                 line.height());
        // "Update failed:" alone is short and centred: nothing is drawn in the right quarter.
        LauncherModelProbe::setStatus(*f.model, QStringLiteral("Update failed: "));
        QCOMPARE(WindowPixels::countBright(f.grab(), rightQuarter), 0);
        // With tar's reason after a line feed, the reason is drawn on the same line.
        LauncherModelProbe::setStatus(*f.model, kTarFailure);
        const QImage image = f.grab();
        WindowPixels::save(image, QStringLiteral("status-tar-failure.png"));
        QVERIFY(WindowPixels::countBright(image, rightQuarter) > 20);
        QVERIFY(label(f)->property("truncated").toBool());
    }

    void longTextIsElidedOnOneLine() {
        WindowFixture f;
        LauncherModelProbe::setStatus(*f.model, QStringLiteral("Update failed: short"));
        QVERIFY(!f.property("statusText", "truncated").toBool());
        const QString longText = QStringLiteral("Could not launch 0.4.2: ") + QString(276, QLatin1Char('x'));
        QCOMPARE(longText.size(), 300);
        LauncherModelProbe::setStatus(*f.model, longText);
        QVERIFY(f.property("statusText", "truncated").toBool());
        QCOMPARE(label(f)->property("lineCount").toInt(), 1);
        QCOMPARE(f.item("statusText")->height(), 24.0);
        QVERIFY(label(f)->property("paintedWidth").toDouble() <= f.item("statusText")->width());
        QCOMPARE(f.property("statusText", "fullText").toString(), longText);
    }

    void accessibleNameIsTheWholeText() {
        WindowFixture f;
        LauncherModelProbe::setStatus(*f.model, kTarFailure);
        QCOMPARE(accessibleName(f.item("statusText")), kTarFailure);
        LauncherModelProbe::setStatus(*f.model, QStringLiteral("Ready"));
        QCOMPARE(accessibleName(f.item("statusText")), QStringLiteral("Ready"));
    }

    void focusShowsTheWholeText() {
        WindowFixture f;
        LauncherModelProbe::setStatus(*f.model, kTarFailure);
        QObject* tip = toolTip(f);
        QVERIFY(!tip->property("visible").toBool()); // the main button has the focus
        f.item("statusText")->forceActiveFocus(Qt::BacktabFocusReason);
        QTRY_VERIFY(tip->property("opened").toBool());
        QCOMPARE(tip->property("text").toString(), kTarFailure);
        auto* tipText = f.item("statusText")->window()->findChild<QQuickItem*>(QStringLiteral("statusToolTipText"));
        QVERIFY(tipText);
        QCOMPARE(tipText->property("text").toString(), kTarFailure.chopped(1)); // no empty last line
        WindowPixels::save(f.grab(), QStringLiteral("status-focused.png"));
        // Whole inside the window, however long the text.
        const QRectF box = tipText->mapRectToScene(QRectF(0, 0, tipText->width(), tipText->height()));
        QVERIFY(box.left() >= 0 && box.right() <= 620);
        f.item("updateAndPlayButton")->forceActiveFocus(Qt::TabFocusReason);
        QTRY_VERIFY(!tip->property("visible").toBool());
    }

    void controlCCopiesTheExactText() {
        WindowFixture f;
        LauncherModelProbe::setStatus(*f.model, kTarFailure);
        // Elsewhere in the window Ctrl+C copies nothing.
        QTest::keyClick(f.window->window(), Qt::Key_C, Qt::ControlModifier);
        QVERIFY(f.platform.clipboardWrites.isEmpty());
        f.item("statusText")->forceActiveFocus(Qt::TabFocusReason);
        QTest::keyClick(f.window->window(), Qt::Key_C, Qt::ControlModifier);
        QCOMPARE(f.platform.clipboardWrites, QStringList{kTarFailure});
        QCOMPARE(f.model->status(), kTarFailure); // copying does not touch the status
    }

    void contextMenuCopiesTheExactText() {
        WindowFixture f;
        LauncherModelProbe::setStatus(*f.model, kTarFailure);
        auto* menu = f.item("statusText")->findChild<QObject*>(QStringLiteral("statusMenu"));
        QVERIFY(menu);
        // A left click opens no menu: a click is handled before mouseClick() returns, and the
        // right click below shows the menu becoming visible right then.
        QTest::mouseClick(f.window->window(), Qt::LeftButton, {}, f.rectOf("statusText").center());
        QVERIFY(!menu->property("visible").toBool());
        QTest::mouseClick(f.window->window(), Qt::RightButton, {}, f.rectOf("statusText").center());
        QVERIFY(menu->property("visible").toBool());
        QTRY_VERIFY(menu->property("opened").toBool());
        WindowPixels::save(f.grab(), QStringLiteral("status-menu.png"));
        QVERIFY(f.platform.clipboardWrites.isEmpty());
        auto* copy = f.window->window()->findChild<QQuickItem*>(QStringLiteral("statusCopyItem"));
        QVERIFY(copy);
        QCOMPARE(copy->property("text").toString(), QStringLiteral("Copy"));
        const QPointF centre = copy->mapToScene(QPointF(copy->width() / 2, copy->height() / 2));
        QTest::mouseClick(f.window->window(), Qt::LeftButton, {}, centre.toPoint());
        QTRY_COMPARE(f.platform.clipboardWrites, QStringList{kTarFailure});
        QTRY_VERIFY(!menu->property("visible").toBool());
    }

    void menuKeyOpensTheMenuAndReturnCopies() {
        WindowFixture f;
        LauncherModelProbe::setStatus(*f.model, kTarFailure);
        auto* menu = f.item("statusText")->findChild<QObject*>(QStringLiteral("statusMenu"));
        f.item("statusText")->forceActiveFocus(Qt::TabFocusReason);
        QTest::keyClick(f.window->window(), Qt::Key_F10, Qt::ShiftModifier);
        QTRY_VERIFY(menu->property("opened").toBool());
        QTest::keyClick(f.window->window(), Qt::Key_Down);
        QTest::keyClick(f.window->window(), Qt::Key_Return);
        QTRY_COMPARE(f.platform.clipboardWrites, QStringList{kTarFailure});
        QTRY_VERIFY(!menu->property("visible").toBool());
    }

    void keyboardOpenedMenuStartsOnCopy_data() {
        QTest::addColumn<int>("openKey");
        QTest::addColumn<int>("openModifiers");
        QTest::addColumn<int>("confirmKey");
        const std::pair<const char*, std::pair<int, int>> openers[] = {
            {"Menu", {Qt::Key_Menu, Qt::NoModifier}}, {"Shift+F10", {Qt::Key_F10, Qt::ShiftModifier}}};
        const std::pair<const char*, int> confirmers[] = {
            {"Return", Qt::Key_Return}, {"Enter", Qt::Key_Enter}, {"Space", Qt::Key_Space}};
        for (const auto& [opener, open] : openers)
            for (const auto& [confirmer, confirm] : confirmers)
                QTest::addRow("%s, %s", opener, confirmer) << open.first << open.second << confirm;
    }
    void keyboardOpenedMenuStartsOnCopy() {
        QFETCH(int, openKey);
        QFETCH(int, openModifiers);
        QFETCH(int, confirmKey);
        WindowFixture f;
        LauncherModelProbe::setStatus(*f.model, kTarFailure);
        QObject* menu = contextMenu(f);
        f.item("statusText")->forceActiveFocus(Qt::TabFocusReason);
        QTest::keyClick(f.window->window(), Qt::Key(openKey), Qt::KeyboardModifiers(openModifiers));
        QTRY_VERIFY(menu->property("opened").toBool());
        QCOMPARE(menu->property("currentIndex").toInt(), 0);
        QQuickItem* copy = copyItem(f);
        QVERIFY(copy->property("highlighted").toBool());
        const QImage image = f.grab();
        WindowPixels::save(image, QStringLiteral("status-menu-keyboard.png"));
        QVERIFY(entryLooksHighlighted(image, menu, copy));
        QTest::keyClick(f.window->window(), Qt::Key(confirmKey));
        QTRY_COMPARE(f.platform.clipboardWrites, QStringList{kTarFailure});
        QTRY_VERIFY(!menu->property("visible").toBool());
    }

    // The twin: the mouse opens the menu as it always did, with no entry chosen, also after the
    // keyboard had opened it on "Copy".
    void mouseOpenedMenuHighlightsNothing() {
        WindowFixture f;
        LauncherModelProbe::setStatus(*f.model, kTarFailure);
        QObject* menu = contextMenu(f);
        f.item("statusText")->forceActiveFocus(Qt::TabFocusReason);
        QTest::keyClick(f.window->window(), Qt::Key_Menu);
        QTRY_VERIFY(menu->property("opened").toBool());
        QTest::keyClick(f.window->window(), Qt::Key_Escape);
        QTRY_VERIFY(!menu->property("visible").toBool());
        QVERIFY(f.platform.clipboardWrites.isEmpty());

        QTest::mouseClick(f.window->window(), Qt::RightButton, {}, f.rectOf("statusText").center());
        QTRY_VERIFY(menu->property("opened").toBool());
        QCOMPARE(menu->property("currentIndex").toInt(), -1);
        QQuickItem* copy = copyItem(f);
        QVERIFY(!copy->property("highlighted").toBool());
        const QImage image = f.grab();
        WindowPixels::save(image, QStringLiteral("status-menu-mouse.png"));
        QVERIFY(!entryLooksHighlighted(image, menu, copy));
        // With nothing chosen, Return chooses nothing.
        QTest::keyClick(f.window->window(), Qt::Key_Return);
        QVERIFY(f.platform.clipboardWrites.isEmpty());
    }

    void toolTipLeavesTheInstalledLineReadable_data() {
        QTest::addColumn<QString>("status");
        QTest::newRow("one line") << QStringLiteral("Could not launch 0.2.0: The game exited during startup (status 0).");
        QTest::newRow("tar failure") << kTarFailure;
        QTest::newRow("wider than the window") << kLongFailure;
        // Taller than the room above the installed line: it goes below the status line instead.
        QTest::newRow("40 lines") << QStringLiteral("Update failed: \n") +
                                         QStringLiteral("tar: zentho/data/asset.pak: Cannot write\n").repeated(40);
    }
    void toolTipLeavesTheInstalledLineReadable() {
        QFETCH(QString, status);
        WindowFixture f;
        LauncherModelProbe::setStatus(*f.model, status);
        const QImage before = f.grab();
        f.item("statusText")->forceActiveFocus(Qt::TabFocusReason);
        QTRY_VERIFY(toolTip(f)->property("opened").toBool());
        const QImage shown = f.grab();
        WindowPixels::save(shown, QStringLiteral("status-tooltip-%1.png").arg(QString::fromLatin1(QTest::currentDataTag()).replace(QLatin1Char(' '), QLatin1Char('-'))));
        const QRect tip = toolTipRect(f);
        const QRect installed = f.rectOf("installedText");
        QVERIFY2(!tip.intersects(installed), qPrintable(QStringLiteral("tooltip %1,%2 %3x%4 over the line at y %5")
                                                           .arg(tip.x()).arg(tip.y()).arg(tip.width())
                                                           .arg(tip.height()).arg(installed.y())));
        QVERIFY(!tip.intersects(f.rectOf("statusText")));
        QVERIFY(QRect(QPoint(0, 0), f.window->window()->size()).contains(tip));
        // The installed line is drawn as it was, and the same comparison sees the tooltip.
        QCOMPARE(WindowPixels::differing(before, shown, installed), 0);
        QVERIFY(WindowPixels::differing(before, shown, tip) > 0);
    }

    void toolTipEndsWithItsLastLine_data() {
        QTest::addColumn<QString>("status");
        QTest::addColumn<QString>("shown");
        const QString tarReason = kTarFailure.chopped(1);
        QTest::newRow("trailing line feed") << kTarFailure << tarReason;
        QTest::newRow("no line feed") << tarReason << tarReason;
        QTest::newRow("blank lines around") << QStringLiteral("\n\nUpdate failed: \n  tar: x\n\n \n")
                                            << QStringLiteral("Update failed: \n  tar: x");
        QTest::newRow("wrapped") << kLongFailure << kLongFailure;
    }
    void toolTipEndsWithItsLastLine() {
        QFETCH(QString, status);
        QFETCH(QString, shown);
        WindowFixture f;
        LauncherModelProbe::setStatus(*f.model, status);
        f.item("statusText")->forceActiveFocus(Qt::TabFocusReason);
        QTRY_VERIFY(toolTip(f)->property("opened").toBool());
        QCOMPARE(toolTip(f)->property("text").toString(), status); // the tooltip's own text is exact
        QQuickItem* text = f.item("statusToolTipText");
        const QImage image = f.grab();
        const QRect box = text->mapRectToScene(QRectF(0, 0, text->width(), text->height())).toRect();
        const int line = qCeil(QFontMetricsF(text->property("font").value<QFont>()).height());
        // Words in the first and in the last line's height, and nothing but padding under it.
        QVERIFY(darkPixels(image, QRect(box.left(), box.top(), box.width(), line)) > 0);
        QVERIFY2(darkPixels(image, QRect(box.left(), box.bottom() - line + 1, box.width(), line)) > 0,
                 "the tooltip ends in an empty line");
        QCOMPARE(toolTipRect(f).bottom() - box.bottom(), qRound(toolTip(f)->property("bottomPadding").toDouble()));
        // What it leaves out is only the blank lines around the words.
        QCOMPARE(text->property("text").toString(), shown);
    }
};

QTEST_MAIN(TestStatusLine)
#include "TestStatusLine.moc"
