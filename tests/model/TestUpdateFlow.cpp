// The main command end to end inside the model: real nginx over HTTPS, real archives, real tar,
// real game processes. Each press runs in its own process (see FlowScenario).

#include "FlowScenario.h"
#include "FlowStatuses.h"
#include "ManifestJson.h"
#include "ScopedDataHome.h"
#include "StandinGames.h"
#include "TestArchives.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TestServer.h"

#include "storage/InstalledState.h"

#include <QDir>
#include <QGuiApplication>
#include <QTemporaryDir>
#include <QTest>

using namespace FlowStatuses;

namespace {

QByteArray manifest(const QString& version, const QString& platform, const QString& url,
                    const QString& sha256, const QString& executable) {
    return ManifestJson(version, url, sha256).platform(platform).executable(executable);
}

} // namespace

class TestUpdateFlow : public QObject {
    Q_OBJECT

    TestServer* server_ = nullptr;
    ScopedDataHome* home_ = nullptr;
    QTemporaryDir* scratch_ = nullptr;
    QProcessEnvironment env_;

    QString seed() const { return scratch_->path() + "/ZL.app/Contents/Resources/SeedRuntime"; }
    QString record(const QString& name) const { return scratch_->path() + "/" + name + ".record"; }
    QString build(const QString& version) const { return home_->versionsRoot() + "/" + version; }

    // A game archive for `version` whose "zentho" records into record(version), served at
    // /builds/<version>.tar.gz; returns its digest.
    QString serveBuild(const QString& version) {
        const QString folder = scratch_->path() + "/src-" + version;
        StandinGames::recorder(folder, record(version), StandinGames::untilEnded);
        const QString archive = server_->documentRoot() + "/builds/" + version + ".tar.gz";
        TestFiles::makeFolder(server_->documentRoot() + "/builds");
        TestArchives::create(archive, folder, {"zentho"});
        return TestArchives::sha256sum(archive);
    }
    void serveGameManifest(const QByteArray& json) { server_->writeFile("game.json", json); }
    void serveGameRelease(const QString& version, const QString& platform = "macos-arm64") {
        const QString sha = serveBuild(version);
        serveGameManifest(manifest(version, platform,
                                   server_->url("/builds/" + version + ".tar.gz").toString(), sha,
                                   "zentho"));
    }
    void recordCurrent(const QString& version, const QString& path) {
        TestFiles::makeFolder(home_->launcherRoot());
        TestFiles::writeFile(home_->statePath(), InstalledState{version, path}.encode());
    }
    // Nothing listens on either manifest address.
    void serverDown() {
        const QString dead = QStringLiteral("https://127.0.0.1:%1/m.json").arg(TestServer::unusedLocalPort());
        env_.insert("ZENTHO_UPDATE_MANIFEST", dead);
        env_.insert("ZENTHO_LAUNCHER_UPDATE_MANIFEST", dead);
    }
    QByteArray stateBytes() const { return TestFiles::readFile(home_->statePath()); }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(nginx);
        server_ = new TestServer;
    }
    void cleanupTestCase() { delete server_; }

    void init() {
        home_ = new ScopedDataHome;
        scratch_ = new QTemporaryDir;
        StandinGames::recorder(seed(), record("seed"), StandinGames::untilEnded);
        // The launcher itself is up to date unless a test says otherwise.
        server_->writeFile("launcher.json",
                           manifest("0.1.190", "macos-launcher-arm64", "https://127.0.0.1/x", "0",
                                    "ZenthoLauncher.app"));
        QFile::remove(server_->documentRoot() + "/game.json");
        env_ = QProcessEnvironment::systemEnvironment();
        env_.insert("ZENTHO_TEST_BUNDLE_EXE", scratch_->path() + "/ZL.app/Contents/MacOS/ZenthoLauncher");
        env_.insert("ZENTHO_UPDATE_MANIFEST", server_->url("/game.json").toString());
        env_.insert("ZENTHO_LAUNCHER_UPDATE_MANIFEST", server_->url("/launcher.json").toString());
    }
    void cleanup() {
        delete scratch_;
        delete home_;
    }

    void newReleaseIsInstalledStartedAndTheLauncherQuits() {
        serveGameRelease("0.2.0");
        const FlowOutcome out = FlowScenario::run(env_);
        QCOMPARE(out.statuses, (QStringList{kChecking, kCheckingGame, kDownloading, kInstalling, kStarting}));
        QCOMPARE(out.quitCount, 1);
        QCOMPARE(out.busy, true);
        const auto started = StandinGames::waitForRecord(record("0.2.0"));
        QVERIFY(started);
        QCOMPARE(started->cwd, build("0.2.0"));
        QCOMPARE(InstalledState::decode(stateBytes()), (InstalledState{"0.2.0", build("0.2.0")}));
        QVERIFY(!QFile::exists(record("seed")));
    }
    void releaseThatFailsVerificationFallsBackToTheSeed() {
        serveBuild("0.2.0");
        serveGameManifest(manifest("0.2.0", "macos-arm64", server_->url("/builds/0.2.0.tar.gz").toString(),
                                   QString(64, QLatin1Char('0')), "zentho"));
        const FlowOutcome out = FlowScenario::run(env_);
        QCOMPARE(out.statuses, (QStringList{kChecking, kCheckingGame, kDownloading, kFallback}));
        QCOMPARE(out.quitCount, 1);
        QVERIFY(StandinGames::waitForRecord(record("seed")));
        QVERIFY(!QFile::exists(build("0.2.0")));
        QVERIFY(!QFile::exists(home_->statePath()));
    }

    void sameVersionStartsTheManifestsExecutableWithoutDownloading() {
        StandinGames::recorder(build("0.2.0"), record("zentho-0.2.0"), StandinGames::untilEnded);
        TestFiles::writeScript(build("0.2.0") + "/game-bin", "echo started > '" +
                                                                 record("game-bin").toUtf8() +
                                                                 "'\nexec sleep 3600\n");
        recordCurrent("0.2.0", build("0.2.0"));
        serveGameManifest(manifest("0.2.0", "macos-arm64", "https://127.0.0.1:1/nowhere.tar.gz",
                                   "nonsense", "game-bin"));
        const QByteArray before = stateBytes();
        const FlowOutcome out = FlowScenario::run(env_);
        QCOMPARE(out.statuses, (QStringList{kChecking, kCheckingGame, kStarting}));
        QCOMPARE(out.quitCount, 1);
        QVERIFY(QFile::exists(record("game-bin")));
        QVERIFY(!QFile::exists(record("zentho-0.2.0")));
        QCOMPARE(stateBytes(), before);
    }
    void differentSpellingOfTheSameVersionIsInstalled() {
        StandinGames::recorder(build("0.2.0"), record("old-0.2.0"), StandinGames::untilEnded);
        recordCurrent("0.2.0", build("0.2.0"));
        serveGameRelease("0.2.00");
        const FlowOutcome out = FlowScenario::run(env_);
        QVERIFY(out.statuses.contains(kDownloading));
        QVERIFY(StandinGames::waitForRecord(record("0.2.00")));
        QCOMPARE(InstalledState::decode(stateBytes())->version, QStringLiteral("0.2.00"));
    }
    void lowerVersionThanInstalledIsInstalled() {
        StandinGames::recorder(build("0.3.0"), record("0.3.0"), StandinGames::untilEnded);
        recordCurrent("0.3.0", build("0.3.0"));
        serveGameRelease("0.2.0");
        const FlowOutcome out = FlowScenario::run(env_);
        QCOMPARE(out.statuses, (QStringList{kChecking, kCheckingGame, kDownloading, kInstalling, kStarting}));
        QVERIFY(StandinGames::waitForRecord(record("0.2.0")));
        QCOMPARE(InstalledState::decode(stateBytes())->version, QStringLiteral("0.2.0"));
        QVERIFY(QFile::exists(build("0.3.0") + "/zentho"));
    }

    void status204CountsAsUnavailableEvenWithAValidBody() {
        serveGameRelease("0.2.0");
        env_.insert("ZENTHO_UPDATE_MANIFEST", server_->url("/status/204/game.json").toString());
        const FlowOutcome out = FlowScenario::run(env_);
        QCOMPARE(out.statuses, (QStringList{kChecking, kCheckingGame, kFallback}));
        QVERIFY(StandinGames::waitForRecord(record("seed")));
        QVERIFY(!QFile::exists(build("0.2.0")));
    }
    // The origin's 407 is an answer that is not 200, never a proxy's transport failure.
    void status407IsAnUnavailableManifestOrDownload() {
        QVERIFY(QFile::remove(seed() + "/zentho"));
        serveGameRelease("0.2.0");
        env_.insert("ZENTHO_UPDATE_MANIFEST", server_->url("/status/407/game.json").toString());
        QCOMPARE(FlowScenario::run(env_).statuses.last(),
                 QStringLiteral("Update failed: The update manifest is unavailable."));
        serveGameManifest(manifest("0.2.0", "macos-arm64", server_->url("/status/407/builds/0.2.0.tar.gz").toString(),
                                   serveBuild("0.2.0"), "zentho"));
        env_.insert("ZENTHO_UPDATE_MANIFEST", server_->url("/game.json").toString());
        QCOMPARE(FlowScenario::run(env_).statuses.last(), QStringLiteral("Update failed: The update download failed."));
    }
    void status200FromTheSameServerIsUsed() {
        serveGameRelease("0.2.0");
        env_.insert("ZENTHO_UPDATE_MANIFEST", server_->url("/status/200/game.json").toString());
        const FlowOutcome out = FlowScenario::run(env_);
        QVERIFY(out.statuses.contains(kInstalling));
        QVERIFY(StandinGames::waitForRecord(record("0.2.0")));
    }
    void fileManifestIsReadWithoutAStatusCheck() {
        const QString sha = serveBuild("0.2.0");
        TestFiles::writeFile(scratch_->path() + "/m.json",
                             manifest("0.2.0", "macos-arm64",
                                      server_->url("/builds/0.2.0.tar.gz").toString(), sha, "zentho"));
        env_.insert("ZENTHO_UPDATE_MANIFEST", QUrl::fromLocalFile(scratch_->path() + "/m.json").toString());
        const FlowOutcome out = FlowScenario::run(env_);
        QCOMPARE(out.statuses, (QStringList{kChecking, kCheckingGame, kDownloading, kInstalling, kStarting}));
        QVERIFY(StandinGames::waitForRecord(record("0.2.0")));
    }

    void wrongPlatform_data() {
        QTest::addColumn<QString>("platform");
        QTest::newRow("letter case") << "macOS-arm64";
        QTest::newRow("trailing blank") << "macos-arm64 ";
        QTest::newRow("launcher's platform") << "macos-launcher-arm64";
    }
    void wrongPlatform() {
        QFETCH(QString, platform);
        serveGameRelease("0.2.0", platform);
        const FlowOutcome out = FlowScenario::run(env_);
        QCOMPARE(out.statuses, (QStringList{kChecking, kCheckingGame, kFallback}));
        QVERIFY(StandinGames::waitForRecord(record("seed")));
        QVERIFY(!QFile::exists(build("0.2.0")));
    }
    // A 500 whose body is a valid, installable manifest: the status alone makes it badManifest.
    // (A 204 cannot carry a body on the wire; its test above covers the empty answer.)
    void status500WithAValidManifestIsUnavailable() {
        serveGameRelease("0.2.0");
        env_.insert("ZENTHO_UPDATE_MANIFEST", server_->url("/status/500/game.json").toString());
        QVERIFY(QFile::remove(seed() + "/zentho"));
        const FlowOutcome out = FlowScenario::run(env_);
        QCOMPARE(out.statuses, (QStringList{kChecking, kCheckingGame,
                                            "Update failed: The update manifest is unavailable."}));
        QVERIFY(!QFile::exists(build("0.2.0")));
    }
    void status500WithAValidManifestFallsBackToTheSeed() {
        serveGameRelease("0.2.0");
        env_.insert("ZENTHO_UPDATE_MANIFEST", server_->url("/status/500/game.json").toString());
        const FlowOutcome out = FlowScenario::run(env_);
        QCOMPARE(out.statuses, (QStringList{kChecking, kCheckingGame, kFallback}));
        QVERIFY(StandinGames::waitForRecord(record("seed")));
        QVERIFY(!QFile::exists(build("0.2.0")));
    }
    // With nothing to fall back to, the error itself reaches the status line.
    void wrongPlatformIsReportedAsWrongPlatform() {
        serveGameRelease("0.2.0", "macos-x86_64");
        QVERIFY(QFile::remove(seed() + "/zentho"));
        const FlowOutcome out = FlowScenario::run(env_);
        QCOMPARE(out.statuses, (QStringList{kChecking, kCheckingGame,
                                            "Update failed: This update is not for Apple Silicon Macs."}));
        QVERIFY(!QFile::exists(build("0.2.0")));
    }
    void relativeArchiveURLDecodesAndThenFailsToDownload() {
        serveBuild("0.2.0");
        serveGameManifest(manifest("0.2.0", "macos-arm64", "builds/0.2.0.tar.gz",
                                   TestArchives::sha256sum(server_->documentRoot() + "/builds/0.2.0.tar.gz"),
                                   "zentho"));
        QVERIFY(QFile::remove(seed() + "/zentho"));
        const FlowOutcome out = FlowScenario::run(env_);
        // No request is made at all: the address has no scheme, which the network layer reports.
        QCOMPARE(out.statuses, (QStringList{kChecking, kCheckingGame, kDownloading,
                                            "Update failed: Protocol \"\" is unknown"}));
        QVERIFY(!QFile::exists(build("0.2.0")));
        QVERIFY(!QFile::exists(record("0.2.0")));
    }
    void relativeArchiveURLFallsBackToTheSeed() {
        serveBuild("0.2.0");
        serveGameManifest(manifest("0.2.0", "macos-arm64", "builds/0.2.0.tar.gz",
                                   TestArchives::sha256sum(server_->documentRoot() + "/builds/0.2.0.tar.gz"),
                                   "zentho"));
        const FlowOutcome out = FlowScenario::run(env_);
        QCOMPARE(out.statuses, (QStringList{kChecking, kCheckingGame, kDownloading, kFallback}));
        QVERIFY(StandinGames::waitForRecord(record("seed")));
    }
    // A relative path in the record names a folder below the storage, whatever folder the
    // launcher runs in: the fallback tests and starts that same build.
    void relativeRecordedPathStartsThatBuildInItsFolder() {
        serverDown();
        StandinGames::recorder(build("0.2.0"), record("0.2.0"), StandinGames::untilEnded);
        recordCurrent("0.2.0", "versions/0.2.0");
        const FlowOutcome out = FlowScenario::run(env_);
        QCOMPARE(out.statuses.last(), kFallback);
        const auto started = StandinGames::waitForRecord(record("0.2.0"));
        QVERIFY2(started, qPrintable(out.statuses.join('|')));
        QCOMPARE(started->cwd, build("0.2.0"));
        QVERIFY(!QFile::exists(record("seed")));
    }

    void brokenJsonFallsBack() {
        serveGameManifest("{\"version\": \"0.2.0\", ");
        const FlowOutcome out = FlowScenario::run(env_);
        QCOMPARE(out.statuses, (QStringList{kChecking, kCheckingGame, kFallback}));
        QVERIFY(StandinGames::waitForRecord(record("seed")));
    }
    void unsafeArchiveFallsBackAndLeavesNoTrace() {
        TestArchives::createWithName(server_->documentRoot() + "/builds/evil.tar.gz", "../../zentho",
                                     scratch_->path() + "/evil");
        serveGameManifest(manifest("0.2.0", "macos-arm64", server_->url("/builds/evil.tar.gz").toString(),
                                   TestArchives::sha256sum(server_->documentRoot() + "/builds/evil.tar.gz"),
                                   "zentho"));
        const FlowOutcome out = FlowScenario::run(env_);
        QCOMPARE(out.statuses, (QStringList{kChecking, kCheckingGame, kDownloading, kInstalling, kFallback}));
        QVERIFY(StandinGames::waitForRecord(record("seed")));
        QCOMPARE(QDir(home_->launcherRoot()).entryList({"staging-*"}, QDir::AllEntries), QStringList());
        QVERIFY(!QFile::exists(build("0.2.0")));
    }

    void manifestBuildExitingDuringStartupFallsBackToItsZentho() {
        StandinGames::recorder(build("0.2.0"), record("zentho-0.2.0"), StandinGames::untilEnded);
        TestFiles::writeScript(build("0.2.0") + "/game-bin", "exit 3\n");
        recordCurrent("0.2.0", build("0.2.0"));
        serveGameManifest(manifest("0.2.0", "macos-arm64", "https://127.0.0.1:1/x.tar.gz", "x", "game-bin"));
        const FlowOutcome out = FlowScenario::run(env_);
        QCOMPARE(out.statuses, (QStringList{kChecking, kCheckingGame, kStarting, kFallback}));
        QCOMPARE(out.quitCount, 1);
        QVERIFY(StandinGames::waitForRecord(record("zentho-0.2.0")));
    }

    void launcherCheckFailingStillPlaysTheGame() {
        serveGameRelease("0.2.0");
        env_.insert("ZENTHO_LAUNCHER_UPDATE_MANIFEST", server_->url("/status/500/launcher.json").toString());
        const FlowOutcome out = FlowScenario::run(env_);
        QCOMPARE(out.statuses, (QStringList{kChecking, kLauncherUnavailable, kCheckingGame, kDownloading,
                                            kInstalling, kStarting}));
        QVERIFY(StandinGames::waitForRecord(record("0.2.0")));
    }
    void offlineWithNoStateStartsTheSeed() {
        serverDown();
        const FlowOutcome out = FlowScenario::run(env_);
        QCOMPARE(out.statuses, (QStringList{kChecking, kLauncherUnavailable, kCheckingGame, kFallback}));
        QCOMPARE(out.quitCount, 1);
        const auto started = StandinGames::waitForRecord(record("seed"));
        QVERIFY(started);
        QCOMPARE(started->cwd, seed());
    }
    void offlineStartsTheRecordedBuildNotTheSeed() {
        serverDown();
        StandinGames::recorder(build("0.2.0"), record("0.2.0"), StandinGames::untilEnded);
        recordCurrent("0.2.0", build("0.2.0"));
        const FlowOutcome out = FlowScenario::run(env_);
        QCOMPARE(out.statuses.last(), kFallback);
        QVERIFY(StandinGames::waitForRecord(record("0.2.0")));
        QVERIFY(!QFile::exists(record("seed")));
    }

    void nothingToStartAndServerDownShowsTheTransportErrorAndFreesTheButton() {
        serverDown();
        QVERIFY(QFile::remove(seed() + "/zentho"));
        env_.insert("ZENTHO_TEST_PRESSES", "2");
        const FlowOutcome out = FlowScenario::run(env_);
        QCOMPARE(out.quitCount, 0);
        QCOMPARE(out.busy, false);
        QCOMPARE(out.statuses.size(), 8); // the second press ran the whole way again
        const QString failure = out.statuses.last();
        QVERIFY2(failure.startsWith(QLatin1String("Update failed: ")), qPrintable(failure));
        QVERIFY2(failure.contains(QLatin1String("refused"), Qt::CaseInsensitive), qPrintable(failure));
        QCOMPARE(out.statuses.mid(4), out.statuses.mid(0, 4));
    }
    void fallbackStartFailingShowsCouldNotLaunch() {
        serverDown();
        StandinGames::exitsAfter(seed(), 0.1, 3);
        const FlowOutcome out = FlowScenario::run(env_);
        QCOMPARE(out.quitCount, 0);
        QCOMPARE(out.busy, false);
        QCOMPARE(out.statuses.last(),
                 QStringLiteral("Could not launch: The game exited during startup (status 3)."));
    }

    void secondPressWhileRunningChangesNothing() {
        serveGameRelease("0.2.0");
        env_.insert("ZENTHO_TEST_DOUBLE_PRESS", "1");
        const FlowOutcome out = FlowScenario::run(env_);
        QCOMPARE(out.statuses, (QStringList{kChecking, kCheckingGame, kDownloading, kInstalling, kStarting}));
        QCOMPARE(out.quitCount, 1);
    }
    void inviteOpenedDuringTheFlowReachesTheGame() {
        serveGameRelease("0.2.0");
        env_.insert("ZENTHO_TEST_INVITE", "zentho://join/ab cd?x=\"1\"&y=é");
        env_.insert("ZENTHO_TEST_INVITE_AT", kDownloading);
        const FlowOutcome out = FlowScenario::run(env_);
        QCOMPARE(out.statuses, (QStringList{kChecking, kCheckingGame, kDownloading,
                                            "Joining a friend's game...", kInstalling, kStarting}));
        const auto started = StandinGames::waitForRecord(record("0.2.0"));
        QVERIFY(started);
        QCOMPARE(started->arguments, QStringList{"zentho://join/ab cd?x=\"1\"&y=é"});
    }
    void withoutAnInviteTheGameGetsNoArguments() {
        serveGameRelease("0.2.0");
        FlowScenario::run(env_);
        const auto started = StandinGames::waitForRecord(record("0.2.0"));
        QVERIFY(started);
        QCOMPARE(started->arguments, QStringList());
    }
};

int main(int argc, char** argv) {
    if (const auto code = FlowScenario::runChildIfAsked(argc, argv))
        return *code;
    QGuiApplication app(argc, argv);
    TestUpdateFlow test;
    return QTest::qExec(&test, argc, argv);
}

#include "TestUpdateFlow.moc"
