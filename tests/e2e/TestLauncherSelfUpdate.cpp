// The launcher's update of itself, end to end with real processes: a copy of the built 0.1.190
// bundle is started for an invite link against a launcher release 0.2.0 that zentho-release
// sealed and packed and nginx serves over HTTPS. The old launcher quits, the finish script swaps
// the bundles once it has gone, and the new launcher starts from the old path with the invite.
// Releases that are broken (a bundle changed after its seal, the running version under another
// name) are refused and the game starts instead.

#include "InstalledLauncher.h"
#include "LauncherBundles.h"
#include "LauncherStorage.h"
#include "LauncherTestScope.h"
#include "RealLauncher.h"
#include "ReleaseTool.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TestServer.h"
#include "WindowFixture.h"
#include "WindowIdentity.h"
#include "XvfbSession.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTest>

#include <functional>
#include <optional>

using ReleaseTool::Run;

class TestLauncherSelfUpdate : public QObject {
    Q_OBJECT

    // The test function's folder and what its launchers leave behind.
    std::optional<LauncherTestScope> scope_;

    QString path(const QString& relative) const { return scope_->path(relative); }
    QString installedBundle() const { return path(QStringLiteral("Applications/ZenthoLauncher.app")); }
    QString dataHome() const { return path(QStringLiteral("data")); }
    QString launcherRoot() const { return LauncherStorage(dataHome()).root(); }

    // The user's copy of the launcher, 0.1.190.
    void installOldLauncher() {
        TestFiles::makeFolder(path(QStringLiteral("Applications")));
        QVERIFY(InstalledLauncher::install(installedBundle()));
    }

    // Seals a copy of `bundle` (the 0.2.0 one unless given) and packs it as `version` into the
    // server's /release folder; `tamper`, when given, then changes the bundle and the release is
    // put together again by hand, past pack's checks. Returns the launcher manifest's URL.
    QString publishLauncher(TestServer& server, const std::function<void(const QString&)>& tamper = {},
                            const QString& from = ReleaseTool::launcherBundle020(),
                            const QString& version = QStringLiteral("0.2.0")) {
        TestFiles::makeFolder(path(QStringLiteral("src")));
        const QString bundle = path(QStringLiteral("src/ZenthoLauncher.app"));
        InstalledLauncher::sealedCopy(from, bundle);
        const QString release = server.documentRoot() + QStringLiteral("/release");
        const Run packed = ReleaseTool::packLauncher(bundle, version,
                                                     server.url(QStringLiteral("/release")).toString(), release);
        if (!packed.ok())
            qWarning("pack: %s", packed.errors.constData());
        if (tamper) {
            tamper(bundle);
            ReleaseTool::repackByHand(packed.line(QStringLiteral("manifest")), packed.line(QStringLiteral("archive")), bundle);
        }
        return server.url(QStringLiteral("/release/macos-launcher-arm64-manifest.json")).toString();
    }

    // Waits for the bundle at the old path to answer `version`.
    bool waitForVersion(const QString& version, int timeoutMs = 20000) {
        return InstalledLauncher::waitForVersion(installedBundle(), version, timeoutMs);
    }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(root);
        ZENTHO_REQUIRE(nginx);
        QVERIFY(RealLauncher::becomeSubreaper());
        QVERIFY2(QFileInfo::exists(RealLauncher::executableOf(ReleaseTool::launcherBundle020())),
                 "the 0.2.0 launcher bundle is not built");
        QCOMPARE(RealLauncher::versionOf(ReleaseTool::launcherBundle020()), QStringLiteral("0.2.0"));
    }
    void init() { scope_.emplace(); }
    void cleanup() { scope_.reset(); }

    void theOldLauncherIsReplacedByTheNewOneAndTheNewOneStarts() {
        TestServer server;
        installOldLauncher();
        const QString manifest = publishLauncher(server);
        const Run checked = ReleaseTool::run({QStringLiteral("verify"), QStringLiteral("--key"),
                                              LauncherBundles::testKey() + QStringLiteral(".pub"),
                                              server.documentRoot() + QStringLiteral("/release/macos-launcher-arm64-manifest.json"),
                                              server.documentRoot() + QStringLiteral("/release/zentho-0.2.0-macos-launcher-arm64.tar.gz")});
        QVERIFY2(checked.ok(), checked.errors.constData());

        RealLauncher old(installedBundle(), dataHome());
        old.useManifests(server.url(QStringLiteral("/release/macos-arm64-manifest.json")).toString(), manifest);
        old.recordGameStartIn(path(QStringLiteral("record")));
        old.start(server, QStringLiteral("zentho://invite/after-update"));
        QCOMPARE(old.waitForExit(), std::optional<int>(0));

        QVERIFY2(waitForVersion(QStringLiteral("0.2.0")), old.errors().constData());
        const QStringList backups = QDir(launcherRoot()).entryList({QStringLiteral("launcher-backup-*")}, QDir::Dirs);
        QCOMPARE(backups.size(), 1);
        static const QRegularExpression backupName(QStringLiteral(
            "^launcher-backup-0\\.1\\.190-[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}\\.app$"));
        QVERIFY2(backupName.match(backups.first()).hasMatch(), qPrintable(backups.first()));
        QCOMPARE(RealLauncher::versionOf(launcherRoot() + QLatin1Char('/') + backups.first()),
                 QStringLiteral("0.1.190"));

        // The new launcher runs from the old path and follows the invite that led to the update:
        // it finds no newer launcher, falls back to its own seed game and hands it the link.
        const QByteArray recorded = RealLauncher::waitForGameRecord(path(QStringLiteral("record")));
        QVERIFY2(recorded.startsWith("version=0.2.0\n"), (recorded + old.errors()).constData());
        QVERIFY(recorded.contains("cwd=" + QFile::encodeName(installedBundle()) +
                                  "/Contents/Resources/SeedRuntime\n"));
        QVERIFY(recorded.contains("\narg=zentho://invite/after-update\npid="));
        // Having started the game, the new launcher quits.
        QVERIFY(QTest::qWaitFor(
            [&] { return RealLauncher::processesRunning(RealLauncher::executableOf(installedBundle())).isEmpty(); },
            20000));
    }

    // The desktop ties a window to the desktop entry by its class, and shows the icon the
    // window carries: the launcher the finish script starts from inside the bundle has both.
    void theUpdatedLaunchersWindowHasTheEntrysClassAndIcon() {
        ZENTHO_REQUIRE(xvfb);
        QRect button;
        {
            // The same window, offscreen in this process, tells where the button is drawn.
            WindowFixture window;
            button = window.rectOf("updateAndPlayButton");
        }
        TestServer server;
        installOldLauncher();
        const QString manifest = publishLauncher(server);
        XvfbSession screen;
        QVERIFY(!screen.display().isEmpty());
        RealLauncher old(installedBundle(), dataHome());
        old.useManifests(server.url(QStringLiteral("/release/macos-arm64-manifest.json")).toString(), manifest);
        old.environment().insert(QStringLiteral("DISPLAY"), screen.display());
        old.environment().insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
        old.start(server, QString()); // no link: the player presses the button
        const std::optional<QRect> window = screen.waitForWindow(QStringLiteral("ZENTHO Launcher"));
        if (!window) {
            // Whether the launcher was still up without a window or had ended, and what it said.
            const bool running = old.stillRunningAfter(0);
            const std::optional<int> exit = old.waitForExit(0);
            QFAIL(qPrintable(QStringLiteral("no window; the launcher %1: %2")
                                 .arg(running ? QStringLiteral("still ran")
                                              : QStringLiteral("ended with %1").arg(exit.value_or(-1)),
                                      QString::fromLocal8Bit(old.errors()))));
        }
        // A click that lands before the window takes input is lost, so it is clicked until the
        // old launcher ends; the first click that counts ends it.
        QDeadlineTimer deadline(90000);
        do
            QVERIFY(screen.click(window->topLeft() + button.center()));
        while (old.stillRunningAfter(3000) && !deadline.hasExpired());
        QCOMPARE(old.waitForExit(), std::optional<int>(0));
        QVERIFY2(waitForVersion(QStringLiteral("0.2.0")), old.errors().constData());

        // Only the new launcher's window is left; it stays open, as no link came with it.
        const std::optional<QString> shown = screen.waitForWindowId(QStringLiteral("ZENTHO Launcher"));
        const QList<qint64> running = RealLauncher::processesRunning(RealLauncher::executableOf(installedBundle()));
        QVERIFY(shown);
        QCOMPARE(running.size(), 1);
        QCOMPARE(screen.windowProperty(*shown, QStringLiteral("_NET_WM_PID")),
                 QStringLiteral("_NET_WM_PID = %1").arg(running.first()));
        QCOMPARE(WindowIdentity::windowClass(screen, *shown), WindowIdentity::entryWindowClass());
        QString why;
        QVERIFY2(WindowIdentity::carriesTheLauncherIcon(screen, *shown, &why), qPrintable(why));
    }

    void aNewLauncherChangedAfterItsSealIsRefusedAndTheOldOneStartsTheGame() {
        TestServer server;
        installOldLauncher();
        const QString manifest = publishLauncher(server, [](const QString& bundle) {
            TestFiles::writeFile(bundle + QStringLiteral("/Contents/Resources/extra.txt"), "added after sealing\n");
        });
        // Published as it is; the check a publisher would run names what is wrong.
        const Run checked = ReleaseTool::run({QStringLiteral("verify"), QStringLiteral("--key"),
                                              LauncherBundles::testKey() + QStringLiteral(".pub"),
                                              server.documentRoot() + QStringLiteral("/release/macos-launcher-arm64-manifest.json"),
                                              server.documentRoot() + QStringLiteral("/release/zentho-0.2.0-macos-launcher-arm64.tar.gz")});
        QCOMPARE(checked.exitCode, 1);
        QVERIFY2(checked.errors.contains("seal: Contents/Resources/extra.txt: not signed"), checked.errors.constData());

        // Every start fetches the release again and refuses it; none leaves its unpacked copy
        // behind, so the storage does not grow by a launcher bundle a start.
        for (int start = 1; start <= 3; ++start) {
            RealLauncher old(installedBundle(), dataHome());
            // No game release is published: the launcher falls back to its seed runtime.
            old.useManifests(server.url(QStringLiteral("/release/macos-arm64-manifest.json")).toString(), manifest);
            const QString record = path(QStringLiteral("record-%1").arg(start));
            old.recordGameStartIn(record);
            old.start(server, QStringLiteral("zentho://invite/no-update"));
            QCOMPARE(old.waitForExit(), std::optional<int>(0));

            const QByteArray recorded = RealLauncher::waitForGameRecord(record);
            QVERIFY2(recorded.startsWith("version=0.1.190\n"), (recorded + old.errors()).constData());
            QVERIFY(recorded.contains("arg=zentho://invite/no-update\n"));
            QCOMPARE(RealLauncher::versionOf(installedBundle()), QStringLiteral("0.1.190"));
            QCOMPARE(QDir(launcherRoot()).entryList({QStringLiteral("launcher-backup-*")}, QDir::Dirs), QStringList());
            QCOMPARE(QDir(launcherRoot()).entryList({QStringLiteral("launcher-staging-*")}, QDir::AllEntries | QDir::Hidden),
                     QStringList());
            QCOMPARE(QDir(launcherRoot()).entryList({QStringLiteral("finish-launcher-update-*")}, QDir::Files),
                     QStringList());
            QVERIFY(RealLauncher::processesRunning(RealLauncher::executableOf(installedBundle())).isEmpty());
        }
        QCOMPARE(server.accessLog().count(QStringLiteral("GET /release/zentho-0.2.0-macos-launcher-arm64.tar.gz ")), 3);
    }

    // The release that made players' launchers update themselves on every start: the 0.1.190
    // bundle under a manifest that names 0.2.0, published by hand past pack's version check. The
    // real launcher downloads it and refuses it after the seal check, once per press, starts the
    // game each time, and never moves its bundle aside.
    void aReleaseOfTheRunningVersionUnderAnotherNameIsRefusedOnEveryPress() {
        TestServer server;
        installOldLauncher();
        const QString manifest = publishLauncher(server, {}, LauncherBundles::builtBundle(), QStringLiteral("0.1.190"));
        const QString release = server.documentRoot() + QStringLiteral("/release");
        ReleaseTool::repackByHand(release + QStringLiteral("/macos-launcher-arm64-manifest.json"),
                                  release + QStringLiteral("/zentho-0.1.190-macos-launcher-arm64.tar.gz"),
                                  path(QStringLiteral("src/ZenthoLauncher.app")), QStringLiteral("0.2.0"));

        for (const QString& room : {QStringLiteral("first"), QStringLiteral("second")}) {
            RealLauncher old(installedBundle(), dataHome());
            // No game release is published: the launcher falls back to its seed runtime.
            old.useManifests(server.url(QStringLiteral("/release/macos-arm64-manifest.json")).toString(), manifest);
            const QString record = path(QStringLiteral("record-") + room);
            old.recordGameStartIn(record);
            old.start(server, QStringLiteral("zentho://invite/") + room);
            QCOMPARE(old.waitForExit(), std::optional<int>(0));

            const QByteArray recorded = RealLauncher::waitForGameRecord(record);
            QVERIFY2(recorded.startsWith("version=0.1.190\n"), (recorded + old.errors()).constData());
            QVERIFY(recorded.contains("arg=zentho://invite/" + room.toUtf8() + "\n"));
            QCOMPARE(RealLauncher::versionOf(installedBundle()), QStringLiteral("0.1.190"));
            QVERIFY(QDir(launcherRoot()).entryList({QStringLiteral("launcher-backup-*")}, QDir::Dirs).isEmpty());
            QVERIFY(QDir(launcherRoot()).entryList({QStringLiteral("finish-launcher-update-*")}, QDir::Files).isEmpty());
            QCOMPARE(QDir(launcherRoot()).entryList({QStringLiteral("launcher-staging-*")}, QDir::AllEntries), QStringList());
            QVERIFY(RealLauncher::processesRunning(RealLauncher::executableOf(installedBundle())).isEmpty());
        }
        // Each press fetched the bundle and refused it, once.
        QCOMPARE(server.accessLog().count(QStringLiteral("GET /release/zentho-0.1.190-macos-launcher-arm64.tar.gz ")), 2);
    }
};

QTEST_MAIN(TestLauncherSelfUpdate)
#include "TestLauncherSelfUpdate.moc"
