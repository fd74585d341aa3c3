// A staged release through the main command, inside the model against nginx: installations inside
// the share install it, those outside start the build they have with the statuses of an
// up-to-date press, an invite takes it whatever the share, and a halted rollout takes nothing
// away. Each press runs in its own process (see FlowScenario).

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
#include "storage/RolloutPlace.h"

#include <QGuiApplication>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

using namespace FlowStatuses;

class TestStagedRolloutFlow : public QObject {
    Q_OBJECT

    std::unique_ptr<TestServer> server_;
    std::unique_ptr<ScopedDataHome> home_;
    std::unique_ptr<QTemporaryDir> scratch_;
    QProcessEnvironment env_;
    QString sha031_;

    QString record(const QString& name) const { return scratch_->filePath(name + QStringLiteral(".record")); }
    QString build(const QString& version) const { return home_->versionsRoot() + QLatin1Char('/') + version; }

    // 0.3.0 installed and current; this installation's place is `place`; 0.3.1 published with
    // the raw "rollout" member `rollout` (none when empty).
    void stage(double place, const QByteArray& rollout) {
        TestFiles::writeFile(home_->launcherRoot() + QLatin1Char('/') + QLatin1String(RolloutPlace::kFileName),
                             QByteArray::number(place) + '\n');
        ManifestJson manifest(QStringLiteral("0.3.1"), server_->url(QStringLiteral("/builds/0.3.1.tar.gz")).toString(),
                              sha031_);
        if (!rollout.isEmpty())
            manifest.member("\"rollout\":" + rollout);
        server_->writeFile(QStringLiteral("game.json"), manifest);
    }
    FlowOutcome press(const QString& invite = QString()) {
        QProcessEnvironment env = env_;
        if (!invite.isEmpty()) {
            // Opened while the launcher checks itself, so it is pending when the game's manifest is read.
            env.insert(QStringLiteral("ZENTHO_TEST_INVITE"), invite);
            env.insert(QStringLiteral("ZENTHO_TEST_INVITE_AT"), kChecking);
        }
        return FlowScenario::run(env);
    }
    QString startedVersion() const {
        for (const QString& version : {QStringLiteral("0.3.0"), QStringLiteral("0.3.1")})
            if (StandinGames::waitForRecord(record(version), 100))
                return version;
        return {};
    }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(nginx);
        server_ = std::make_unique<TestServer>();
    }
    void init() {
        home_ = std::make_unique<ScopedDataHome>();
        scratch_ = std::make_unique<QTemporaryDir>();
        StandinGames::recorder(scratch_->filePath(QStringLiteral("ZL.app/Contents/Resources/SeedRuntime")),
                               record(QStringLiteral("seed")), StandinGames::untilEnded);
        StandinGames::recorder(build(QStringLiteral("0.3.0")), record(QStringLiteral("0.3.0")), StandinGames::untilEnded);
        TestFiles::writeFile(home_->statePath(), InstalledState{QStringLiteral("0.3.0"), build(QStringLiteral("0.3.0"))}.encode());
        const QString source = scratch_->filePath(QStringLiteral("src-0.3.1"));
        StandinGames::recorder(source, record(QStringLiteral("0.3.1")), StandinGames::untilEnded);
        const QString archive = server_->documentRoot() + QStringLiteral("/builds/0.3.1.tar.gz");
        TestFiles::makeFolder(server_->documentRoot() + QStringLiteral("/builds"));
        TestArchives::create(archive, source, {QStringLiteral("zentho")});
        sha031_ = TestArchives::sha256sum(archive);
        server_->writeFile(QStringLiteral("launcher.json"),
                           ManifestJson::launcher(QStringLiteral("0.1.190"), QStringLiteral("https://127.0.0.1/x"),
                                                  QStringLiteral("0")));
        env_ = QProcessEnvironment::systemEnvironment();
        env_.insert(QStringLiteral("ZENTHO_TEST_BUNDLE_EXE"), scratch_->filePath(QStringLiteral("ZL.app/Contents/MacOS/ZenthoLauncher")));
        env_.insert(QStringLiteral("ZENTHO_UPDATE_MANIFEST"), server_->url(QStringLiteral("/game.json")).toString());
        env_.insert(QStringLiteral("ZENTHO_LAUNCHER_UPDATE_MANIFEST"), server_->url(QStringLiteral("/launcher.json")).toString());
    }
    void cleanup() {
        scratch_.reset();
        home_.reset();
    }

    void placeInsideTheShareInstallsTheRelease() {
        stage(4.2, R"({"percent":10})");
        const FlowOutcome out = press();
        QCOMPARE(out.statuses, (QStringList{kChecking, kCheckingGame, kDownloading, kInstalling, kStarting}));
        QCOMPARE(startedVersion(), QStringLiteral("0.3.1"));
    }

    // The twin: outside the share the release is not there yet. The build on disk starts with the
    // statuses of a press whose manifest names it, and nothing is downloaded or recorded.
    void placeOutsideTheShareStartsTheInstalledBuild() {
        stage(42, R"({"percent":10})");
        const QByteArray state = TestFiles::readFile(home_->statePath());
        server_->awaitLogged();
        const qsizetype logMark = server_->accessLog().size();
        const FlowOutcome out = press();
        QCOMPARE(out.statuses, (QStringList{kChecking, kCheckingGame, kStarting}));
        QCOMPARE(out.quitCount, 1);
        QCOMPARE(startedVersion(), QStringLiteral("0.3.0"));
        QVERIFY(!QFileInfo::exists(build(QStringLiteral("0.3.1"))));
        QCOMPARE(TestFiles::readFile(home_->statePath()), state);
        server_->awaitLogged();
        QVERIFY(server_->accessLog().mid(logMark).contains(QStringLiteral("/game.json")));
        QVERIFY(!server_->accessLog().mid(logMark).contains(QStringLiteral("/builds/0.3.1.tar.gz")));
    }

    // A friend who invites may already play the staged release: joining needs it.
    void inviteTakesTheReleaseWhateverTheShare() {
        stage(42, R"({"percent":10})");
        const FlowOutcome out = press(QStringLiteral("zentho://join/staged"));
        QVERIFY2(out.statuses.contains(kJoining) && out.statuses.contains(kInstalling), qPrintable(out.statuses.join(" | ")));
        QCOMPARE(out.statuses.last(), kStarting);
        QCOMPARE(startedVersion(), QStringLiteral("0.3.1"));
    }

    // Halted after this installation took the release: it keeps it and starts it, as the
    // manifest names it; nothing is uninstalled.
    void haltedRolloutTakesNothingAway() {
        stage(4.2, R"({"percent":10})");
        QCOMPARE(press().statuses.last(), kStarting);
        QCOMPARE(startedVersion(), QStringLiteral("0.3.1"));
        QFile::remove(record(QStringLiteral("0.3.1")));
        stage(4.2, R"({"percent":0})");
        const FlowOutcome out = press();
        QCOMPARE(out.statuses, (QStringList{kChecking, kCheckingGame, kStarting}));
        QCOMPARE(startedVersion(), QStringLiteral("0.3.1"));
        QVERIFY(QFileInfo::exists(build(QStringLiteral("0.3.0"))));
    }

    // A rollout a launcher cannot read is ignored like an unknown key: offered to all.
    void malformedRolloutOffersTheReleaseToAll() {
        stage(99, R"({"percent":"ten"})");
        QCOMPARE(press().statuses, (QStringList{kChecking, kCheckingGame, kDownloading, kInstalling, kStarting}));
        QCOMPARE(startedVersion(), QStringLiteral("0.3.1"));
    }
};

int main(int argc, char** argv) {
    if (const auto code = FlowScenario::runChildIfAsked(argc, argv))
        return *code;
    QGuiApplication app(argc, argv);
    TestStagedRolloutFlow test;
    return QTest::qExec(&test, argc, argv);
}

#include "TestStagedRolloutFlow.moc"
