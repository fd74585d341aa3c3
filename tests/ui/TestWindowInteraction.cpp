#include "LauncherModelProbe.h"
#include "TestFiles.h"
#include "WindowFixture.h"

#include <QGuiApplication>
#include <QQuickItem>
#include <QQuickWindow>
#include <QTemporaryDir>
#include <QTest>
#include <QtQuickTest/quicktest.h>

namespace {
const QString kMainLabel = QStringLiteral("CHECK FOR UPDATES & PLAY");
} // namespace

// The window used with the mouse: each click reaches the model's command, a disabled button
// reaches nothing, and the window takes focus when it appears or is asked to come forward.
class TestWindowInteraction : public QObject {
    Q_OBJECT

    QTemporaryDir nowhere_;

private slots:
    // The main button's flow runs offline here: its manifests are files that do not exist.
    void initTestCase() { WindowFixture::useMissingManifestsIn(nowhere_.path()); }

    void clickingTheLinkCopiesTheDataFolder() {
        WindowFixture f;
        LauncherModelProbe::setBusy(*f.model, true); // the link works whatever runs
        QTest::mouseClick(f.window->window(), Qt::LeftButton, {}, f.rectOf("copyDataFolderButton").center());
        QCOMPARE(f.platform.clipboardWrites.size(), 1);
        QCOMPARE(f.platform.clipboardWrites.first(), f.home.path() + QStringLiteral("/Zentho"));
        QCOMPARE(f.property("statusText", "fullText").toString(), f.model->status());
        QVERIFY(f.model->status() != QStringLiteral("Ready"));
    }

    void clickingBesideTheLinkCopiesNothing() {
        WindowFixture f;
        const QRect link = f.rectOf("copyDataFolderButton");
        QTest::mouseClick(f.window->window(), Qt::LeftButton, {}, QPoint(link.left() - 20, link.center().y()));
        QVERIFY(f.platform.clipboardWrites.isEmpty());
        QCOMPARE(f.model->status(), QStringLiteral("Ready"));
    }

    void clickingPlayThisVersionStartsTheChosenBuild() {
        WindowFixture f;
        const QString build = f.home.versionsRoot() + QStringLiteral("/0.2.0");
        TestFiles::writeScript(build + QStringLiteral("/zentho"), "exec sleep 3600\n");
        LauncherModelProbe::refreshInstalledBuilds(*f.model);
        QTest::mouseClick(f.window->window(), Qt::LeftButton, {}, f.rectOf("playInstalledButton").center());
        QVERIFY(f.model->busy());
        QCOMPARE(f.property("playInstalledButton", "enabled").toBool(), false);
        QTRY_COMPARE_WITH_TIMEOUT(f.platform.quitCount, 1, 60000);
        QCOMPARE(f.games.watched(), 1);
    }

    void clickingADisabledPlayButtonDoesNothing() {
        WindowFixture f({QStringLiteral("0.2.0")});
        LauncherModelProbe::setBusy(*f.model, true);
        LauncherModelProbe::setStatus(*f.model, QStringLiteral("Checking for updates..."));
        QTest::mouseClick(f.window->window(), Qt::LeftButton, {}, f.rectOf("playInstalledButton").center());
        QTest::mouseClick(f.window->window(), Qt::LeftButton, {}, f.rectOf("updateAndPlayButton").center());
        // A click is handled before mouseClick() returns, and a press that went ahead would have
        // set its first status and started its game at once, as the twins above and below show.
        QCOMPARE(f.model->status(), QStringLiteral("Checking for updates..."));
        QCOMPARE(f.platform.quitCount, 0);
        QCOMPARE(f.games.watched(), 0);
    }

    void clickingTheMainButtonRunsTheFlow() {
        WindowFixture f;
        QStringList seen;
        connect(f.model.get(), &LauncherModel::statusChanged, this, [&] { seen.append(f.model->status()); });
        QTest::mouseClick(f.window->window(), Qt::LeftButton, {}, f.rectOf("updateAndPlayButton").center());
        QCOMPARE(seen.value(0), QStringLiteral("Checking launcher version..."));
        // No manifest and no seed build at this made-up bundle: the flow ends in a failure.
        QTRY_VERIFY_WITH_TIMEOUT(!f.model->busy(), 60000);
        QVERIFY(f.model->status().startsWith(QStringLiteral("Update failed: ")));
        QCOMPARE(f.property("statusText", "fullText").toString(), f.model->status());
        auto* label = f.item("updateAndPlayButton")->findChild<QQuickItem*>(QStringLiteral("prominentButtonLabel"));
        QCOMPARE(label->property("text").toString(), kMainLabel);
    }

    void choosingAVersionWithTheMouseWritesTheSelection() {
        WindowFixture f({QStringLiteral("0.1.190"), QStringLiteral("0.2.0")});
        QQuickItem* picker = f.item("versionPicker");
        auto* popup = picker->property("popup").value<QObject*>();
        QTest::mouseClick(f.window->window(), Qt::LeftButton, {}, f.rectOf("versionPicker").center());
        QTRY_VERIFY(popup->property("opened").toBool());
        QVERIFY(QQuickTest::qWaitForPolish(f.window->window())); // the list laid out where it opened
        auto* list = popup->property("contentItem").value<QQuickItem*>();
        QQuickItem* older = nullptr;
        QMetaObject::invokeMethod(list, "itemAtIndex", Q_RETURN_ARG(QQuickItem*, older), Q_ARG(int, 1));
        QVERIFY(older);
        QCOMPARE(older->property("text").toString(), QStringLiteral("0.1.190"));
        const QPointF centre = older->mapToScene(QPointF(older->width() / 2, older->height() / 2));
        QTest::mouseClick(f.window->window(), Qt::LeftButton, {}, centre.toPoint());
        QTRY_COMPARE(f.model->selectedInstalledPath(), f.home.versionsRoot() + QStringLiteral("/0.1.190"));
        QTRY_VERIFY(!popup->property("visible").toBool());
    }

    void dismissingThePickerKeepsTheSelection() {
        WindowFixture f({QStringLiteral("0.1.190"), QStringLiteral("0.2.0")});
        auto* popup = f.item("versionPicker")->property("popup").value<QObject*>();
        QTest::mouseClick(f.window->window(), Qt::LeftButton, {}, f.rectOf("versionPicker").center());
        QTRY_VERIFY(popup->property("opened").toBool());
        QTest::keyClick(f.window->window(), Qt::Key_Escape);
        QTRY_VERIFY(!popup->property("visible").toBool());
        QCOMPARE(f.model->selectedInstalledPath(), f.home.versionsRoot() + QStringLiteral("/0.2.0"));
    }

    void showingTheWindowActivatesIt() {
        ScopedDataHome home;
        RecordingPlatform platform(WindowFixture::kBundleExe, {WindowFixture::kBundleExe});
        LauncherModel model(platform);
        MainWindow window(model, platform);
        QVERIFY(QGuiApplication::focusWindow() != window.window());
        window.show();
        QTRY_COMPARE(QGuiApplication::focusWindow(), window.window());
    }

    void bringToFrontTakesFocusBack() {
        WindowFixture f;
        QTRY_COMPARE(QGuiApplication::focusWindow(), f.window->window());
        QQuickWindow other;
        other.resize(100, 100);
        other.show();
        other.requestActivate();
        QTRY_COMPARE(QGuiApplication::focusWindow(), &other);
        f.window->bringToFront();
        QTRY_COMPARE(QGuiApplication::focusWindow(), f.window->window());
    }
};

QTEST_MAIN(TestWindowInteraction)
#include "TestWindowInteraction.moc"
