// A player's X session on fresh Debian 12 and 13 systems that hold only what every desktop has,
// on the test's Xvfb. Started with no argument, as the README says, the unpacked launcher draws
// the idle window as the launcher's own tests draw it (tests/data/window-idle.png); a bundle that
// lost the QML module the window is made of shows none and says which module is missing. After
// the first start, the system's own xdg-open hands zentho: links to the launcher, which passes
// them to the game; before it, nothing handles them.

#include "FreshPlayer.h"
#include "FreshSystem.h"
#include "PublishedRelease.h"
#include "TestRequirements.h"
#include "TestServer.h"
#include "WindowFixture.h"
#include "XvfbSession.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFileInfo>
#include <QImage>
#include <QProcess>
#include <QTest>

#include <memory>
#include <optional>

namespace {

using FreshPlayer::addSuiteRows;
using FreshPlayer::describe;
using FreshPlayer::gameBuild;
using FreshPlayer::gameStarted;
using User = FreshSystem::User;

const QString kTitle = QStringLiteral("ZENTHO Launcher");
const QString kInvite = QStringLiteral("zentho://join/fresh-session");
const QString kLink = QStringLiteral("zentho://join/abc?from=friend&seat=2");

QImage reference() {
    return QImage(qEnvironmentVariable("ZENTHO_SOURCE_DIR") + QStringLiteral("/tests/data/window-idle.png"))
        .convertToFormat(QImage::Format_RGB32);
}

} // namespace

class TestFreshDebianSession : public QObject {
    Q_OBJECT

    std::unique_ptr<TestServer> server_;
    std::optional<PublishedRelease> release_;

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(root);
        ZENTHO_REQUIRE(debootstrap);
        ZENTHO_REQUIRE(nginx);
        ZENTHO_REQUIRE(xvfb);
        FreshPlayer::ensureBases();
        server_ = std::make_unique<TestServer>();
        release_.emplace(*server_);
        QVERIFY(QFileInfo::exists(release_->launcherArchive()));
        QVERIFY(!reference().isNull());
    }

    void theIdleWindowIsDrawnAsItsReference_data() {
        QTest::addColumn<QString>("suite");
        QTest::addColumn<QString>("renderer");
        for (const QString& suite : FreshPlayer::suites()) {
            QTest::newRow(qPrintable(suite)) << suite << QString();
            QTest::newRow(qPrintable(suite + QStringLiteral(" software"))) << suite << QStringLiteral("software");
        }
    }
    void theIdleWindowIsDrawnAsItsReference() {
        QFETCH(QString, suite);
        QFETCH(QString, renderer);
        XvfbSession screen;
        QVERIFY(!screen.display().isEmpty());
        const auto fresh = FreshPlayer::withUnpackedLauncher(suite, *release_, screen.display());
        // Nothing but the player's session: the launcher picks the X11 platform itself, and with
        // no renderer named, Qt Quick draws through the system's OpenGL.
        QStringList settings = FreshPlayer::releaseSettings(*release_);
        if (!renderer.isEmpty())
            settings << QStringLiteral("QT_QUICK_BACKEND=") + renderer;
        QProcess& launcher = fresh->start({FreshPlayer::executable()}, User::player, settings);
        const std::optional<QString> window = screen.waitForWindowId(kTitle);
        QVERIFY2(window, launcher.readAll().constData());
        const std::optional<QRect> placed = screen.waitForWindow(kTitle);
        QVERIFY(placed);
        QCOMPARE(placed->size(), QSize(620, 510));

        // Drawn once it is mapped; the first frame may come a moment later on a loaded machine.
        // The reference is drawn by the software renderer and that renderer is held to it pixel
        // for pixel; OpenGL smooths the glyphs' edges its own way (about 5 % of the pixels here),
        // so it is held to the rest: a window not drawn, or drawn otherwise, differs nearly whole.
        const QRect whole(QPoint(0, 0), reference().size());
        const int allowed = renderer.isEmpty() ? whole.width() * whole.height() / 10 : 0;
        QImage shown;
        int differing = -1;
        const QDeadlineTimer deadline(30000);
        do {
            shown = screen.windowImage(*window);
            differing = shown.size() == whole.size() ? WindowPixels::differing(shown, reference(), whole) : -1;
        } while ((differing < 0 || differing > allowed) && !deadline.hasExpired() && (QTest::qWait(200), true));
        QVERIFY2(!shown.isNull(), "no screenshot of the window");
        WindowPixels::save(shown, QStringLiteral("fresh-%1-%2-window.png").arg(suite, renderer));
        QVERIFY2(differing >= 0 && differing <= allowed, qPrintable(QString::number(differing)));

        QVERIFY(screen.askToClose(*window));
        QVERIFY(launcher.waitForFinished(30000));
        QCOMPARE(launcher.exitStatus(), QProcess::NormalExit);
        QCOMPARE(launcher.exitCode(), 0);
    }

    // The twin: without the module the window is made of there is nothing to draw, and the
    // launcher says so rather than showing an empty window.
    void aBundleWithoutItsQmlModuleShowsNoWindow_data() { addSuiteRows(); }
    void aBundleWithoutItsQmlModuleShowsNoWindow() {
        QFETCH(QString, suite);
        XvfbSession screen;
        const auto fresh = FreshPlayer::withUnpackedLauncher(suite, *release_, screen.display());
        QVERIFY(QDir(fresh->hostPath(FreshPlayer::bundle() + QStringLiteral("/Contents/Resources/qml/QtQuick/Layouts")))
                    .removeRecursively());
        const FreshSystem::Result started =
            fresh->run({FreshPlayer::executable()}, User::player, FreshPlayer::releaseSettings(*release_));
        QCOMPARE(started.exitCode, 1);
        QVERIFY2(started.output.contains("ZENTHO Launcher: cannot show its window: ") &&
                     started.output.contains("module \"QtQuick.Layouts\" is not installed"),
                 started.output.constData());
        QVERIFY(!screen.waitForWindowId(kTitle, 1000));
    }

    void aZenthoLinkOpensInTheLauncher_data() { addSuiteRows(); }
    void aZenthoLinkOpensInTheLauncher() {
        QFETCH(QString, suite);
        XvfbSession screen;
        const auto fresh = FreshPlayer::withUnpackedLauncher(suite, *release_, screen.display());
        fresh->trustCa(TestServer::caPath());
        const QStringList settings = FreshPlayer::releaseSettings(*release_);
        const FreshSystem::Result first = fresh->run({FreshPlayer::executable(), kInvite}, User::player, settings);
        QVERIFY2(first.succeeded() && gameStarted(*fresh), describe(first).constData());
        QVERIFY(QFile::remove(fresh->hostPath(PublishedRelease::gameRecord())));

        // The system's own xdg-open, in its generic mode (no desktop environment runs), which
        // looks for a link's handler only where there is a display.
        const FreshSystem::Result opened = fresh->run({"/usr/bin/xdg-open", kLink}, User::player, settings);
        QVERIFY2(opened.succeeded(), describe(opened).constData());
        const std::optional<StandinGames::Record> game = gameStarted(*fresh);
        QVERIFY2(game, describe(opened).constData());
        QCOMPARE(game->cwd, gameBuild());
        QCOMPARE(game->arguments, QStringList{kLink});
    }

    // The twin: before the launcher's first start nothing on that system handles the links.
    void beforeTheFirstStartNoLinkReachesTheLauncher_data() { addSuiteRows(); }
    void beforeTheFirstStartNoLinkReachesTheLauncher() {
        QFETCH(QString, suite);
        XvfbSession screen;
        const auto fresh = FreshPlayer::withUnpackedLauncher(suite, *release_, screen.display());
        fresh->trustCa(TestServer::caPath());
        const FreshSystem::Result opened = fresh->run({"/usr/bin/xdg-open", kLink}, User::player,
                                                      FreshPlayer::releaseSettings(*release_));
        QVERIFY2(!opened.succeeded(), describe(opened).constData());
        QVERIFY(!gameStarted(*fresh, 3000));
    }
};

QTEST_GUILESS_MAIN(TestFreshDebianSession)
#include "TestFreshDebianSession.moc"
