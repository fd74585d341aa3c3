// The real launcher's window on a screen too short for it: 1280x1024 pixels at twice the scale,
// under a window manager that frames it, where the designed 510 logical pixels and the title bar
// are taller than the screen. The window, frame included, fits; at the normal scale it keeps its
// designed size.

#include "FramingWindowManager.h"
#include "LauncherBundles.h"
#include "RealLauncher.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "XvfbSession.h"

#include <QMargins>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <optional>

namespace {

const QString kTitle = QStringLiteral("ZENTHO Launcher");
const QRect kScreen(0, 0, 1280, 1024);

// The frame the window manager drew around the window with X id `window`; none until it has.
std::optional<QMargins> frameOf(const XvfbSession& screen, const QString& window) {
    // "_NET_FRAME_EXTENTS = 1, 1, 20, 1": left, right, top, bottom.
    const QRegularExpressionMatch extents =
        QRegularExpression(QStringLiteral("= (\\d+), (\\d+), (\\d+), (\\d+)$"))
            .match(screen.windowProperty(window, QStringLiteral("_NET_FRAME_EXTENTS")));
    if (!extents.hasMatch())
        return std::nullopt;
    return QMargins(extents.captured(1).toInt(), extents.captured(3).toInt(), extents.captured(2).toInt(),
                    extents.captured(4).toInt());
}

// Where the window lies on the screen with its frame, once it is framed.
std::optional<QRect> framedRect(const XvfbSession& screen, const QString& window) {
    const std::optional<QMargins> frame = frameOf(screen, window);
    const std::optional<QRect> inside = screen.waitForWindow(kTitle, 2000);
    if (!frame || !inside)
        return std::nullopt;
    return inside->marginsAdded(*frame);
}

} // namespace

class TestWindowFitsTheScreen : public QObject {
    Q_OBJECT

    QTemporaryDir tmp_;

    // Starts the launcher with no link on `screen` at `scale`, on an empty data folder and with
    // manifests that do not exist, so nothing but the window happens.
    void start(QProcess& launcher, const XvfbSession& screen, const QString& scale) {
        const QString home = tmp_.filePath(QStringLiteral("home-%1").arg(scale));
        const QString runtime = tmp_.filePath(QStringLiteral("runtime-%1").arg(scale));
        TestFiles::makeFolder(home);
        TestFiles::makeFolder(runtime);
        QProcessEnvironment env;
        env.insert(QStringLiteral("PATH"), qEnvironmentVariable("PATH"));
        env.insert(QStringLiteral("HOME"), home);
        env.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime);
        for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
            if (qEnvironmentVariableIsSet(name))
                env.insert(QString::fromLatin1(name), qEnvironmentVariable(name));
        }
        env.insert(QStringLiteral("DISPLAY"), screen.display());
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
        env.insert(QStringLiteral("QT_QUICK_BACKEND"), QStringLiteral("software"));
        env.insert(QStringLiteral("QT_SCALE_FACTOR"), scale);
        env.insert(QStringLiteral("ZENTHO_UPDATE_MANIFEST"), QStringLiteral("file:///nonexistent/game.json"));
        env.insert(QStringLiteral("ZENTHO_LAUNCHER_UPDATE_MANIFEST"),
                   QStringLiteral("file:///nonexistent/launcher.json"));
        launcher.setProcessEnvironment(env);
        launcher.setStandardOutputFile(QProcess::nullDevice());
        launcher.start(RealLauncher::executableOf(LauncherBundles::builtBundle()), QStringList());
    }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(xvfb);
        ZENTHO_REQUIRE(windowManager);
    }

    void fitsAShortScreenAtTwiceTheScale() {
        XvfbSession screen(kScreen.size());
        QVERIFY(!screen.display().isEmpty());
        FramingWindowManager windowManager(screen);
        QVERIFY(windowManager.managing());
        QProcess launcher;
        start(launcher, screen, QStringLiteral("2"));
        const std::optional<QString> window = screen.waitForWindowId(kTitle);
        QVERIFY2(window, launcher.readAllStandardError().constData());
        // 1020 device pixels of window and the title bar are more than the screen holds.
        QTRY_VERIFY_WITH_TIMEOUT(framedRect(screen, *window) && kScreen.contains(*framedRect(screen, *window)),
                                 20000);
        const QRect framed = *framedRect(screen, *window);
        const QRect inside = *screen.waitForWindow(kTitle);
        qInfo("window %dx%d, framed %dx%d at %d,%d", inside.width(), inside.height(), framed.width(),
              framed.height(), framed.x(), framed.y());
        // Only the height gave way.
        QCOMPARE(inside.width(), 1240);
        QVERIFY(inside.height() < 1020);
        RealLauncher::stop(launcher);
    }

    // The twin: at the normal scale the same screen has room, and the window keeps its size.
    void keepsItsSizeAtTheNormalScale() {
        XvfbSession screen(kScreen.size());
        QVERIFY(!screen.display().isEmpty());
        FramingWindowManager windowManager(screen);
        QVERIFY(windowManager.managing());
        QProcess launcher;
        start(launcher, screen, QStringLiteral("1"));
        const std::optional<QString> window = screen.waitForWindowId(kTitle);
        QVERIFY2(window, launcher.readAllStandardError().constData());
        QTRY_VERIFY_WITH_TIMEOUT(framedRect(screen, *window), 20000);
        QVERIFY(kScreen.contains(*framedRect(screen, *window)));
        QCOMPARE(screen.waitForWindow(kTitle)->size(), QSize(620, 510));
        RealLauncher::stop(launcher);
    }
};

QTEST_GUILESS_MAIN(TestWindowFitsTheScreen)
#include "TestWindowFitsTheScreen.moc"
