#include "LauncherModelProbe.h"
#include "TestFiles.h"
#include "WindowFixture.h"

#include <QFontMetricsF>
#include <QKeySequence>
#include <QQmlComponent>
#include <QQuickItem>
#include <QQuickWindow>
#include <QTest>

#include <memory>

namespace {

const QString kMainLabel = QStringLiteral("CHECK FOR UPDATES & PLAY");

// The background colour (0.02, 0.075, 0.04) in 8-bit sRGB.
constexpr int kBgR = 5, kBgG = 19, kBgB = 10;

} // namespace

class TestMainWindow : public QObject {
    Q_OBJECT

private slots:
    void windowIsFixedAtItsSizeAndTitled() {
        WindowFixture f;
        QQuickWindow* w = f.window->window();
        QCOMPARE(w->title(), QStringLiteral("ZENTHO Launcher"));
        QCOMPARE(w->size(), QSize(620, 510));
        QCOMPARE(w->minimumSize(), QSize(620, 510));
        QCOMPARE(w->maximumSize(), QSize(620, 510));
        QVERIFY(!(w->flags() & Qt::WindowMaximizeButtonHint));
        QVERIFY(w->flags() & Qt::WindowCloseButtonHint);
    }

    void grabShowsTheBackgroundInTheCorners() {
        WindowFixture f;
        const QImage image = f.grab();
        WindowPixels::save(image, QStringLiteral("window-idle.png"));
        QCOMPARE(image.size(), QSize(620, 510));
        for (const QPoint corner : {QPoint(0, 0), QPoint(619, 0), QPoint(0, 509), QPoint(619, 509)})
            QVERIFY2(WindowPixels::near(image.pixel(corner), kBgR, kBgG, kBgB),
                     qPrintable(QColor(image.pixel(corner)).name()));
        // The same check finds a colour that is not there: the title's lime is in no corner.
        QVERIFY(!WindowPixels::near(image.pixel(0, 0), 184, 255, 51));
    }

    void titleIsDrawnInLime() {
        WindowFixture f;
        const QImage image = f.grab();
        QCOMPARE(f.property("titleText", "text").toString(), QStringLiteral("ZENTHO"));
        QCOMPARE(f.item("titleText")->property("font").value<QFont>().pixelSize(), 46);
        QVERIFY(f.item("titleText")->property("font").value<QFont>().bold());
        QVERIFY(WindowPixels::count(image, f.rectOf("titleText"), 184, 255, 51) > 50);
        // The subtitle's teal is not the title's colour.
        QCOMPARE(WindowPixels::count(image, f.rectOf("subtitleText"), 184, 255, 51), 0);
        QVERIFY(WindowPixels::count(image, f.rectOf("subtitleText"), 82, 230, 219) > 10);
    }

    void everyRowShowsItsText() {
        WindowFixture f;
        QCOMPARE(f.property("subtitleText", "text").toString(), QStringLiteral("Managed Launcher"));
        QCOMPARE(f.property("installedText", "text").toString(), QStringLiteral("Installed: 0.1.190"));
        QCOMPARE(f.property("installedSectionText", "text").toString(),
                 QStringLiteral("PLAY AN INSTALLED VERSION"));
        QCOMPARE(f.property("installedHintText", "text").toString(),
                 QStringLiteral("Only builds already saved in this launcher's versions folder appear here."));
        QCOMPARE(f.property("copyDataFolderButton", "text").toString(),
                 QStringLiteral("Copy ZENTHO Data Folder"));
        QCOMPARE(f.property("playInstalledButton", "text").toString(), QStringLiteral("PLAY THIS VERSION"));
        QCOMPARE(f.property("storageNoteText", "text").toString(),
                 QStringLiteral("Updates stay in ZENTHO storage") + QChar(0x2014) +
                     QStringLiteral("not Downloads. Offline play still works."));
        QCOMPARE(f.item("spacer")->height(), 18.0);
        QCOMPARE(f.item("versionPicker")->width(), 210.0);
        QCOMPARE(f.property("column", "spacing").toDouble(), 12.0);
    }

    void rowsKeepTheirOrderInsideThePadding() {
        WindowFixture f;
        const char* const rows[] = {"titleText", "subtitleText", "spacer", "installedText",
                                    "statusText", "updateAndPlayButton", "divider",
                                    "installedSectionText", "installedRow", "installedHintText",
                                    "copyDataFolderButton", "storageNoteText"};
        int previousBottom = 42;
        for (const char* row : rows) {
            const QRect rect = f.rectOf(row);
            QVERIFY2(rect.top() >= previousBottom, row);
            previousBottom = rect.bottom();
            QVERIFY2(rect.left() >= 42 && rect.right() <= 620 - 42, row);
        }
        QVERIFY(previousBottom <= 510 - 42);
        QCOMPARE(f.rectOf("divider").width(), 620 - 2 * 42);
    }

    void installedVersionFollowsTheModel() {
        WindowFixture f;
        QCOMPARE(f.property("installedText", "text").toString(), QStringLiteral("Installed: 0.1.190"));
        TestFiles::writeFile(f.home.statePath(), "{\"version\":\"0.2.0\",\"path\":\"/x\"}");
        LauncherModel other(f.platform);
        MainWindow second(other, f.platform);
        auto* text = second.window()->findChild<QQuickItem*>(QStringLiteral("installedText"));
        QCOMPARE(text->property("text").toString(), QStringLiteral("Installed: 0.2.0"));
    }

    void mainButtonShowsTheAmpersand() {
        WindowFixture f;
        QQuickItem* button = f.item("updateAndPlayButton");
        auto* label = button->findChild<QQuickItem*>(QStringLiteral("prominentButtonLabel"));
        QVERIFY(label);
        QCOMPARE(label->property("text").toString(), kMainLabel);
        QCOMPARE(accessibleName(button), kMainLabel);
        // No keyboard mnemonic is bound: the ampersand is text, not a shortcut marker.
        QVERIFY(QKeySequence::mnemonic(button->property("text").toString()).isEmpty());
        // The drawn width is that of the whole caption, ampersand included.
        const QFontMetricsF metrics(label->property("font").value<QFont>());
        const double drawn = label->property("contentWidth").toDouble();
        QVERIFY(std::abs(drawn - metrics.horizontalAdvance(kMainLabel)) <= 1.5);
        QVERIFY(std::abs(drawn - metrics.horizontalAdvance(QStringLiteral("CHECK FOR UPDATES  PLAY"))) > 5);
        QVERIFY(WindowPixels::countBright(f.grab(), f.rectOf("updateAndPlayButton")) > 100);
    }

    void plainButtonTextWouldHideTheAmpersand() {
        // Why the caption is drawn by its own Text: a Button's text treats "&" as a mnemonic.
        WindowFixture f;
        QQmlComponent component(&f.window->engine());
        component.setData("import QtQuick.Controls.Basic\nButton { text: \"CHECK FOR UPDATES & PLAY\" }",
                          QUrl());
        std::unique_ptr<QObject> plain(component.create());
        QVERIFY2(plain, qPrintable(component.errorString()));
        QVERIFY(!QKeySequence::mnemonic(plain->property("text").toString()).isEmpty());
    }

    void busyDisablesBothPlayButtonsOnly() {
        WindowFixture f({QStringLiteral("0.2.0")});
        QVERIFY(f.property("updateAndPlayButton", "enabled").toBool());
        QVERIFY(f.property("playInstalledButton", "enabled").toBool());
        LauncherModelProbe::setBusy(*f.model, true);
        auto* label = f.item("updateAndPlayButton")->findChild<QQuickItem*>(QStringLiteral("prominentButtonLabel"));
        QCOMPARE(label->property("text").toString(), QStringLiteral("WORKING..."));
        QCOMPARE(accessibleName(f.item("updateAndPlayButton")), QStringLiteral("WORKING..."));
        QVERIFY(!f.property("updateAndPlayButton", "enabled").toBool());
        QVERIFY(!f.property("playInstalledButton", "enabled").toBool());
        QVERIFY(f.property("versionPicker", "enabled").toBool());
        QVERIFY(f.property("copyDataFolderButton", "enabled").toBool());
        WindowPixels::save(f.grab(), QStringLiteral("window-busy.png"));
        LauncherModelProbe::setBusy(*f.model, false);
        QCOMPARE(label->property("text").toString(), kMainLabel);
        QVERIFY(f.property("updateAndPlayButton", "enabled").toBool());
        QVERIFY(f.property("playInstalledButton", "enabled").toBool());
    }

    void pickerWhileBusyStillChangesTheSelection() {
        WindowFixture f({QStringLiteral("0.1.190"), QStringLiteral("0.2.0")});
        LauncherModelProbe::setBusy(*f.model, true);
        f.item("versionPicker")->forceActiveFocus();
        QTest::keyClick(f.window->window(), Qt::Key_Down);
        QCOMPARE(f.model->selectedInstalledPath(), f.home.versionsRoot() + QStringLiteral("/0.1.190"));
    }

    void noSavedBuildsShowsThePlaceholder() {
        WindowFixture f;
        QQuickItem* picker = f.item("versionPicker");
        QCOMPARE(picker->property("count").toInt(), 1);
        QCOMPARE(picker->property("displayText").toString(), QStringLiteral("No saved versions"));
        QCOMPARE(picker->property("currentValue").toString(), QString());
        QCOMPARE(accessibleName(picker), QStringLiteral("Version"));
        QVERIFY(!f.property("playInstalledButton", "enabled").toBool());
        QVERIFY(picker->property("enabled").toBool());
    }

    void savedBuildsListNewestFirstAndSelectIt() {
        WindowFixture f({QStringLiteral("0.1.190"), QStringLiteral("0.10.0"), QStringLiteral("0.2.0")});
        QQuickItem* picker = f.item("versionPicker");
        QCOMPARE(picker->property("count").toInt(), 3);
        QCOMPARE(picker->property("displayText").toString(), QStringLiteral("0.10.0"));
        QCOMPARE(picker->property("currentValue").toString(), f.home.versionsRoot() + "/0.10.0");
        QCOMPARE(f.model->selectedInstalledPath(), f.home.versionsRoot() + "/0.10.0");
        QVERIFY(f.property("playInstalledButton", "enabled").toBool());
        WindowPixels::save(f.grab(), QStringLiteral("window-builds.png"));
    }

    void aBuildSavedLaterAppearsSelected() {
        WindowFixture f;
        QVERIFY(!f.property("playInstalledButton", "enabled").toBool());
        TestFiles::makeBuild(f.home.versionsRoot() + QStringLiteral("/0.3.0"));
        LauncherModelProbe::refreshInstalledBuilds(*f.model);
        QQuickItem* picker = f.item("versionPicker");
        QCOMPARE(picker->property("count").toInt(), 1);
        QCOMPARE(picker->property("displayText").toString(), QStringLiteral("0.3.0"));
        QVERIFY(f.property("playInstalledButton", "enabled").toBool());
    }

    void aRescanKeepsTheChosenEntryShown() {
        WindowFixture f({QStringLiteral("0.1.190"), QStringLiteral("0.2.0")});
        f.model->setSelectedInstalledPath(f.home.versionsRoot() + QStringLiteral("/0.1.190"));
        TestFiles::makeBuild(f.home.versionsRoot() + QStringLiteral("/0.3.0"));
        LauncherModelProbe::refreshInstalledBuilds(*f.model);
        QQuickItem* picker = f.item("versionPicker");
        QCOMPARE(picker->property("count").toInt(), 3);
        QCOMPARE(f.model->selectedInstalledPath(), f.home.versionsRoot() + QStringLiteral("/0.1.190"));
        QCOMPARE(picker->property("currentIndex").toInt(), 2);
        QCOMPARE(picker->property("displayText").toString(), QStringLiteral("0.1.190"));
    }

    void choosingAnEntryWritesTheSelection() {
        WindowFixture f({QStringLiteral("0.1.190"), QStringLiteral("0.2.0")});
        f.item("versionPicker")->forceActiveFocus();
        QTest::keyClick(f.window->window(), Qt::Key_Down);
        QCOMPARE(f.model->selectedInstalledPath(), f.home.versionsRoot() + QStringLiteral("/0.1.190"));
        QCOMPARE(f.property("versionPicker", "displayText").toString(), QStringLiteral("0.1.190"));
        // Past the last entry there is nothing to choose: the selection stays.
        QTest::keyClick(f.window->window(), Qt::Key_Down);
        QCOMPARE(f.model->selectedInstalledPath(), f.home.versionsRoot() + QStringLiteral("/0.1.190"));
        QTest::keyClick(f.window->window(), Qt::Key_Up);
        QCOMPARE(f.model->selectedInstalledPath(), f.home.versionsRoot() + QStringLiteral("/0.2.0"));
    }

    void selectionSetByTheModelMovesThePicker() {
        WindowFixture f({QStringLiteral("0.1.190"), QStringLiteral("0.2.0")});
        f.model->setSelectedInstalledPath(f.home.versionsRoot() + QStringLiteral("/0.1.190"));
        QCOMPARE(f.property("versionPicker", "displayText").toString(), QStringLiteral("0.1.190"));
        f.model->setSelectedInstalledPath(QString());
        QCOMPARE(f.property("versionPicker", "currentIndex").toInt(), -1);
        QVERIFY(!f.property("playInstalledButton", "enabled").toBool());
    }

    void controlsHaveAccessibleNames() {
        WindowFixture f;
        QCOMPARE(accessibleName(f.item("updateAndPlayButton")), kMainLabel);
        QCOMPARE(accessibleName(f.item("versionPicker")), QStringLiteral("Version"));
        QCOMPARE(accessibleName(f.item("playInstalledButton")), QStringLiteral("PLAY THIS VERSION"));
        QCOMPARE(accessibleName(f.item("copyDataFolderButton")), QStringLiteral("Copy ZENTHO Data Folder"));
    }

    void dividerFillsWithDownloadProgress() {
        WindowFixture f;
        const QRect divider = f.rectOf("divider");
        const QRect left(divider.left(), divider.top(), divider.width() / 4, divider.height());
        const QRect right(divider.right() - divider.width() / 4, divider.top(), divider.width() / 4,
                          divider.height());
        QCOMPARE(WindowPixels::count(f.grab(), divider, 64, 194, 38, 2), 0);
        LauncherModelProbe::setDownloadProgress(*f.model, 0.5);
        QVERIFY(f.property("dividerProgress", "visible").toBool());
        QImage image = f.grab();
        WindowPixels::save(image, QStringLiteral("window-downloading.png"));
        QVERIFY(WindowPixels::count(image, left, 64, 194, 38, 2) > 50);
        QCOMPARE(WindowPixels::count(image, right, 64, 194, 38, 2), 0);
        QCOMPARE(f.rectOf("divider"), divider); // the layout does not move
        LauncherModelProbe::setDownloadProgress(*f.model, -1);
        QCOMPARE(WindowPixels::count(f.grab(), divider, 64, 194, 38, 2), 0);
    }
};

QTEST_MAIN(TestMainWindow)
#include "TestMainWindow.moc"
