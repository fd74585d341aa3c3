// The window used with the keyboard alone: where the focus starts, the order Tab walks, the keys
// that press buttons and work the picker, and a focus ring that only the keyboard brings up.

#include "LauncherModelProbe.h"
#include "TestFiles.h"
#include "WindowFixture.h"

#include <QFontMetricsF>
#include <QKeySequence>
#include <QQmlComponent>
#include <QQuickItem>
#include <QQuickWindow>
#include <QTemporaryDir>
#include <QTest>
#include <QtQuickTest/quicktest.h>

namespace {

// The focus ring's lime, which the idle window shows only in its title.
constexpr int kLimeR = 184, kLimeG = 255, kLimeB = 51;

QString focusedName(const WindowFixture& f) {
    // The focused control, or the control around the focused item.
    for (QQuickItem* item = f.window->window()->activeFocusItem(); item; item = item->parentItem()) {
        if (!item->objectName().isEmpty())
            return item->objectName();
    }
    return {};
}

int limeOutsideTitle(const WindowFixture& f, const QImage& image) {
    const QRect title = f.rectOf("titleText");
    return WindowPixels::count(image, image.rect(), kLimeR, kLimeG, kLimeB, 8) -
           WindowPixels::count(image, title, kLimeR, kLimeG, kLimeB, 8);
}

QQuickItem* pickerEntry(const WindowFixture& f, int index) {
    auto* popup = f.item("versionPicker")->property("popup").value<QObject*>();
    auto* list = popup->property("contentItem").value<QQuickItem*>();
    QQuickItem* entry = nullptr;
    QMetaObject::invokeMethod(list, "itemAtIndex", Q_RETURN_ARG(QQuickItem*, entry), Q_ARG(int, index));
    return entry;
}

} // namespace

class TestWindowKeyboard : public QObject {
    Q_OBJECT

    QTemporaryDir nowhere_;

    void press(const WindowFixture& f, Qt::Key key, Qt::KeyboardModifiers modifiers = {}) {
        QTest::keyClick(f.window->window(), key, modifiers);
    }

private slots:
    // The main button's flow runs offline here: its manifests are files that do not exist.
    void initTestCase() { WindowFixture::useMissingManifestsIn(nowhere_.path()); }

    void mainButtonHasTheFocusAndNoRingWhenTheWindowOpens() {
        WindowFixture f({QStringLiteral("0.2.0")});
        QTRY_COMPARE(focusedName(f), QStringLiteral("updateAndPlayButton"));
        QCOMPARE(limeOutsideTitle(f, f.grab()), 0);
        // The same count finds the ring once the keyboard has moved the focus.
        press(f, Qt::Key_Tab);
        press(f, Qt::Key_Backtab);
        QCOMPARE(focusedName(f), QStringLiteral("updateAndPlayButton"));
        const QImage image = f.grab();
        WindowPixels::save(image, QStringLiteral("keyboard-main-button.png"));
        QVERIFY(limeOutsideTitle(f, image) > 200);
    }

    void tabWalksTheControlsTopToBottomAndBack() {
        WindowFixture f({QStringLiteral("0.2.0")});
        QTRY_COMPARE(focusedName(f), QStringLiteral("updateAndPlayButton"));
        const QStringList order{QStringLiteral("versionPicker"), QStringLiteral("playInstalledButton"),
                                QStringLiteral("copyDataFolderButton"), QStringLiteral("statusText"),
                                QStringLiteral("updateAndPlayButton")};
        QStringList forward;
        for (int i = 0; i < order.size(); ++i) {
            press(f, Qt::Key_Tab);
            forward << focusedName(f);
        }
        QCOMPARE(forward, order);
        QStringList back;
        for (int i = 0; i < order.size(); ++i) {
            press(f, Qt::Key_Backtab);
            back << focusedName(f);
        }
        QCOMPARE(back, (QStringList{QStringLiteral("statusText"), QStringLiteral("copyDataFolderButton"),
                                    QStringLiteral("playInstalledButton"), QStringLiteral("versionPicker"),
                                    QStringLiteral("updateAndPlayButton")}));
    }

    void everyControlShowsTheRingWhenTabbedTo() {
        WindowFixture f({QStringLiteral("0.2.0")});
        QTRY_COMPARE(focusedName(f), QStringLiteral("updateAndPlayButton"));
        for (const char* name : {"versionPicker", "playInstalledButton", "copyDataFolderButton", "statusText"}) {
            press(f, Qt::Key_Tab);
            QCOMPARE(focusedName(f), QString::fromLatin1(name));
            const QImage image = f.grab();
            WindowPixels::save(image, QStringLiteral("keyboard-%1.png").arg(QLatin1String(name)));
            const QRect around = f.rectOf(name).adjusted(-6, -6, 6, 6);
            QVERIFY2(WindowPixels::count(image, around, kLimeR, kLimeG, kLimeB, 8) > 100, name);
            // Only the focused control has one.
            QVERIFY2(WindowPixels::count(image, f.rectOf("updateAndPlayButton").adjusted(-6, -6, 6, 6),
                                         kLimeR, kLimeG, kLimeB, 8) == 0, name);
        }
    }

    void clickingGivesFocusWithoutARing() {
        WindowFixture f({QStringLiteral("0.2.0")});
        QTRY_COMPARE(focusedName(f), QStringLiteral("updateAndPlayButton"));
        // The status line is the keyboard's: a click on it leaves the focus where it was.
        QTest::mouseClick(f.window->window(), Qt::LeftButton, {}, f.rectOf("statusText").center());
        QCOMPARE(focusedName(f), QStringLiteral("updateAndPlayButton"));
        QTest::mouseClick(f.window->window(), Qt::LeftButton, {}, f.rectOf("copyDataFolderButton").center());
        QTRY_COMPARE(focusedName(f), QStringLiteral("copyDataFolderButton"));
        QCOMPARE(f.platform.clipboardWrites.size(), 1);
        QCOMPARE(limeOutsideTitle(f, f.grab()), 0);
    }

    void returnEnterAndSpacePressTheLink() {
        WindowFixture f;
        QTRY_COMPARE(focusedName(f), QStringLiteral("updateAndPlayButton"));
        for (int i = 0; i < 2; ++i)
            press(f, Qt::Key_Backtab);
        QCOMPARE(focusedName(f), QStringLiteral("copyDataFolderButton"));
        press(f, Qt::Key_A); // not a key that presses anything
        QCOMPARE(f.platform.clipboardWrites.size(), 0);
        press(f, Qt::Key_Return);
        QCOMPARE(f.platform.clipboardWrites.size(), 1);
        press(f, Qt::Key_Enter);
        QCOMPARE(f.platform.clipboardWrites.size(), 2);
        press(f, Qt::Key_Space);
        QCOMPARE(f.platform.clipboardWrites.size(), 3);
    }

    void returnEnterAndSpacePressTheMainButton() {
        WindowFixture f;
        QTRY_COMPARE(focusedName(f), QStringLiteral("updateAndPlayButton"));
        QStringList seen;
        connect(f.model.get(), &LauncherModel::statusChanged, this, [&] { seen.append(f.model->status()); });
        press(f, Qt::Key_Return);
        QCOMPARE(seen.value(0), QStringLiteral("Checking launcher version..."));
        // No manifest and no seed build at this made-up bundle: the flow ends in a failure, and
        // the button is ready for the next key.
        QTRY_VERIFY_WITH_TIMEOUT(!f.model->busy(), 60000);
        QVERIFY(f.model->status().startsWith(QStringLiteral("Update failed: ")));
        QTRY_COMPARE(focusedName(f), QStringLiteral("updateAndPlayButton"));
        seen.clear();
        press(f, Qt::Key_Enter);
        QCOMPARE(seen.value(0), QStringLiteral("Checking launcher version..."));
        QTRY_VERIFY_WITH_TIMEOUT(!f.model->busy(), 60000);
        QTRY_COMPARE(focusedName(f), QStringLiteral("updateAndPlayButton"));
        seen.clear();
        press(f, Qt::Key_Space);
        QCOMPARE(seen.value(0), QStringLiteral("Checking launcher version..."));
        QTRY_VERIFY_WITH_TIMEOUT(!f.model->busy(), 60000);
    }

    void returnEnterAndSpacePressPlayThisVersion() {
        WindowFixture f({QStringLiteral("0.2.0")});
        QTRY_COMPARE(focusedName(f), QStringLiteral("updateAndPlayButton"));
        press(f, Qt::Key_Tab);
        press(f, Qt::Key_Tab);
        QCOMPARE(focusedName(f), QStringLiteral("playInstalledButton"));
        QStringList seen;
        connect(f.model.get(), &LauncherModel::statusChanged, this, [&] { seen.append(f.model->status()); });
        for (const Qt::Key key : {Qt::Key_Return, Qt::Key_Enter, Qt::Key_Space}) {
            seen.clear();
            press(f, key);
            QCOMPARE(seen.value(0), QStringLiteral("Starting ZENTHO 0.2.0..."));
            QTRY_VERIFY_WITH_TIMEOUT(!f.model->busy(), 60000);
            QTRY_COMPARE(focusedName(f), QStringLiteral("playInstalledButton"));
        }
    }

    void focusReturnsToTheMainButtonWhenItIsEnabledAgain() {
        WindowFixture f;
        QTRY_COMPARE(focusedName(f), QStringLiteral("updateAndPlayButton"));
        LauncherModelProbe::setBusy(*f.model, true);
        QVERIFY(!f.item("updateAndPlayButton")->hasActiveFocus());
        LauncherModelProbe::setBusy(*f.model, false);
        QCOMPARE(focusedName(f), QStringLiteral("updateAndPlayButton"));
        // A control the player moved to keeps the focus.
        press(f, Qt::Key_Backtab);
        LauncherModelProbe::setBusy(*f.model, true);
        LauncherModelProbe::setBusy(*f.model, false);
        QCOMPARE(focusedName(f), QStringLiteral("statusText"));
    }

    void keysDoNothingOnADisabledButton() {
        WindowFixture f;
        QTRY_COMPARE(focusedName(f), QStringLiteral("updateAndPlayButton"));
        LauncherModelProbe::setBusy(*f.model, true);
        LauncherModelProbe::setStatus(*f.model, QStringLiteral("Checking for updates..."));
        press(f, Qt::Key_Return);
        press(f, Qt::Key_Space);
        QCOMPARE(f.model->status(), QStringLiteral("Checking for updates..."));
    }

    void pickerOpensWithSpaceAndPicksWithReturn() {
        WindowFixture f({QStringLiteral("0.1.190"), QStringLiteral("0.2.0")});
        auto* popup = f.item("versionPicker")->property("popup").value<QObject*>();
        press(f, Qt::Key_Tab);
        QCOMPARE(focusedName(f), QStringLiteral("versionPicker"));
        press(f, Qt::Key_Space);
        QTRY_VERIFY(popup->property("opened").toBool());
        press(f, Qt::Key_Down);
        // Moving in the open list chooses nothing yet.
        QCOMPARE(f.model->selectedInstalledPath(), f.home.versionsRoot() + QStringLiteral("/0.2.0"));
        press(f, Qt::Key_Return);
        QTRY_VERIFY(!popup->property("visible").toBool());
        QCOMPARE(f.model->selectedInstalledPath(), f.home.versionsRoot() + QStringLiteral("/0.1.190"));
    }

    void altDownOpensThePickerWithoutChoosing() {
        WindowFixture f({QStringLiteral("0.1.190"), QStringLiteral("0.2.0")});
        auto* popup = f.item("versionPicker")->property("popup").value<QObject*>();
        press(f, Qt::Key_Tab);
        press(f, Qt::Key_Down, Qt::AltModifier);
        QTRY_VERIFY(popup->property("opened").toBool());
        QCOMPARE(f.model->selectedInstalledPath(), f.home.versionsRoot() + QStringLiteral("/0.2.0"));
        WindowPixels::save(f.grab(), QStringLiteral("keyboard-picker-open.png"));
        press(f, Qt::Key_Escape);
        QTRY_VERIFY(!popup->property("visible").toBool());
        // Down alone moves the selection and opens nothing.
        press(f, Qt::Key_Down);
        QCOMPARE(f.model->selectedInstalledPath(), f.home.versionsRoot() + QStringLiteral("/0.1.190"));
        QVERIFY(!popup->property("visible").toBool());
    }

    void pickerEntriesShowTheAmpersand() {
        const QString version = QStringLiteral("R&D-1");
        WindowFixture f({version, QStringLiteral("0.2.0")});
        QQuickItem* picker = f.item("versionPicker");
        auto* popup = picker->property("popup").value<QObject*>();
        QCOMPARE(picker->property("displayText").toString(), version); // newest first
        QTest::mouseClick(f.window->window(), Qt::LeftButton, {}, f.rectOf("versionPicker").center());
        QTRY_VERIFY(popup->property("opened").toBool());
        QVERIFY(QQuickTest::qWaitForPolish(f.window->window())); // the list laid out where it opened
        WindowPixels::save(f.grab(), QStringLiteral("picker-ampersand.png"));
        QQuickItem* entry = pickerEntry(f, 0);
        QVERIFY(entry);
        auto* label = entry->findChild<QQuickItem*>(QStringLiteral("pickerEntryLabel"));
        QVERIFY(label);
        QCOMPARE(label->property("text").toString(), version);
        QCOMPARE(accessibleName(entry), version);
        QVERIFY(QKeySequence::mnemonic(entry->property("text").toString()).isEmpty());
        const QFontMetricsF metrics(label->property("font").value<QFont>());
        QVERIFY(std::abs(label->property("contentWidth").toDouble() - metrics.horizontalAdvance(version)) <= 1.5);
        // The other entry, picked with the mouse, writes its path.
        QQuickItem* other = pickerEntry(f, 1);
        QVERIFY(other);
        const QPointF centre = other->mapToScene(QPointF(other->width() / 2, other->height() / 2));
        QTest::mouseClick(f.window->window(), Qt::LeftButton, {}, centre.toPoint());
        QTRY_COMPARE(f.model->selectedInstalledPath(), f.home.versionsRoot() + QStringLiteral("/0.2.0"));
    }

    void stockEntryWouldHideTheAmpersand() {
        // Why the entries draw their own text: an ItemDelegate reads "&" as a mnemonic marker.
        WindowFixture f;
        QQmlComponent component(&f.window->engine());
        component.setData("import QtQuick.Controls.Basic\nItemDelegate { text: \"R&D-1\" }", QUrl());
        std::unique_ptr<QObject> stock(component.create());
        QVERIFY2(stock, qPrintable(component.errorString()));
        QVERIFY(!QKeySequence::mnemonic(stock->property("text").toString()).isEmpty());
    }
};

QTEST_MAIN(TestWindowKeyboard)
#include "TestWindowKeyboard.moc"
