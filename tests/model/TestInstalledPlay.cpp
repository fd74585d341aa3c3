#include "GameWatch.h"
#include "LauncherModelProbe.h"
#include "RecordingPlatform.h"
#include "ScopedDataHome.h"
#include "StandinGames.h"
#include "TaskOutcome.h"
#include "TestFiles.h"

#include <QClipboard>
#include <QDir>
#include <QFileInfo>
#include <QGuiApplication>
#include <QSignalSpy>
#include <QTest>

#include <memory>

namespace {

const QString kBundleExe = QStringLiteral("/opt/games/ZenthoLauncher.app/Contents/MacOS/ZenthoLauncher");

// A platform whose clipboard refuses every text.
class RefusingClipboardPlatform : public RecordingPlatform {
public:
    using RecordingPlatform::RecordingPlatform;
    void setClipboardText(const QString&) override {
        throw std::runtime_error("the clipboard is not available");
    }
};

} // namespace

class TestInstalledPlay : public QObject {
    Q_OBJECT

    ScopedDataHome* home_ = nullptr;
    QString record_;
    // Watches every game the models start: a game has ended by the end of its watch when the
    // test made it end, whatever the machine's speed.
    std::unique_ptr<GameWatch> games_;

    QString build(const QString& version) const { return home_->versionsRoot() + "/" + version; }
    void watchGamesOf(LauncherModel& model) {
        LauncherModelProbe::setStartupWatch(model, games_->watch());
    }

    // Waits until the model's play task has ended one way or the other.
    static bool settles(LauncherModel& model, RecordingPlatform& platform) {
        return QTest::qWaitFor([&] { return platform.quitCount > 0 || !model.busy(); }, 60000);
    }

private slots:
    void init() {
        home_ = new ScopedDataHome;
        record_ = home_->path() + QStringLiteral("/record");
        games_ = std::make_unique<GameWatch>();
    }
    void cleanup() {
        QVERIFY(games_->endGames());
        games_.reset();
        delete home_;
    }

    void playStartsTheSelectedBuildAndQuits() {
        StandinGames::runsFor(build("0.1.190"), StandinGames::untilEnded);
        StandinGames::recorder(build("0.2.0"), record_, StandinGames::untilEnded);
        RecordingPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        watchGamesOf(model);
        QCOMPARE(model.selectedInstalledPath(), build("0.2.0"));
        QSignalSpy busy(&model, &LauncherModel::busyChanged);
        model.playSelectedInstalledBuild();
        // Accepted at once; the start-up watch runs in the task.
        QCOMPARE(model.busy(), true);
        QCOMPARE(model.status(), QStringLiteral("Starting ZENTHO 0.2.0..."));
        QCOMPARE(platform.quitCount, 0);
        QVERIFY(settles(model, platform));
        QCOMPARE(platform.quitCount, 1);
        QCOMPARE(model.busy(), true);
        QCOMPARE(busy.count(), 1);
        QCOMPARE(model.status(), QStringLiteral("Starting ZENTHO 0.2.0..."));
        const auto record = StandinGames::waitForRecord(record_);
        QVERIFY(record);
        QCOMPARE(record->cwd, QFileInfo(build("0.2.0")).canonicalFilePath());
        QCOMPARE(record->program, build("0.2.0") + QStringLiteral("/zentho"));
        QCOMPARE(record->arguments, QStringList());
    }
    void aGameThatEndsAtOnceShowsWhyAndFreesTheLauncher() {
        StandinGames::exitsAfter(build("0.2.0"), 0, 3);
        RecordingPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        watchGamesOf(model);
        model.playSelectedInstalledBuild();
        QVERIFY(settles(model, platform));
        QCOMPARE(model.status(),
                 QStringLiteral("Could not launch 0.2.0: The game exited during startup (status 3)."));
        QCOMPARE(model.busy(), false);
        QCOMPARE(platform.quitCount, 0);
    }
    void aFailedStartRescansTheSavedBuilds() {
        StandinGames::runsFor(build("0.1.190"), StandinGames::untilEnded);
        StandinGames::removesItselfAndExits(build("0.2.0"), record_, 0);
        RecordingPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        watchGamesOf(model);
        QCOMPARE(model.installedBuilds().size(), 2);
        QSignalSpy listed(&model, &LauncherModel::installedBuildsChanged);
        model.playSelectedInstalledBuild();
        QVERIFY(settles(model, platform));
        QCOMPARE(model.status(),
                 QStringLiteral("Could not launch 0.2.0: The game exited during startup (status 0)."));
        QCOMPARE(listed.count(), 1);
        QCOMPARE(model.installedBuilds(), (QList<InstalledBuild>{{"0.1.190", build("0.1.190")}}));
        QCOMPARE(model.selectedInstalledPath(), build("0.1.190"));
    }
    void aBuildThatLostItsExecutableShowsThePlatformError() {
        StandinGames::runsFor(build("0.2.0"), StandinGames::untilEnded);
        RecordingPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        watchGamesOf(model);
        QVERIFY(QFile::remove(build("0.2.0") + QStringLiteral("/zentho")));
        StandinGames::withoutExecutable(build("0.2.0"));
        model.playSelectedInstalledBuild();
        QVERIFY(settles(model, platform));
        QCOMPARE(model.status(), QStringLiteral("Could not launch 0.2.0: ") + build("0.2.0") +
                                     QStringLiteral("/zentho: No such file or directory"));
        QCOMPARE(model.busy(), false);
        QCOMPARE(platform.quitCount, 0);
        QVERIFY(model.installedBuilds().isEmpty());
        QCOMPARE(model.selectedInstalledPath(), QString());
    }
    void aBuildThatLostExecutePermissionShowsThePlatformError() {
        StandinGames::runsFor(build("0.2.0"), StandinGames::untilEnded);
        RecordingPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        watchGamesOf(model);
        StandinGames::notExecutable(build("0.2.0"));
        model.playSelectedInstalledBuild();
        QVERIFY(settles(model, platform));
        QCOMPARE(model.status(), QStringLiteral("Could not launch 0.2.0: ") + build("0.2.0") +
                                     QStringLiteral("/zentho: Permission denied"));
        QVERIFY(model.installedBuilds().isEmpty());
    }

    void theExecutableIsAlwaysZentho() {
        StandinGames::recorder(build("0.2.0"), record_, StandinGames::untilEnded);
        TestFiles::writeScript(build("0.2.0") + QStringLiteral("/game"), "exit 9\n");
        RecordingPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        watchGamesOf(model);
        model.playSelectedInstalledBuild();
        QVERIFY(settles(model, platform));
        QCOMPARE(platform.quitCount, 1);
        const auto record = StandinGames::waitForRecord(record_);
        QVERIFY(record);
        QCOMPARE(QFileInfo(record->program).fileName(), QStringLiteral("zentho"));
    }
    void playingNeitherReadsNorWritesTheCurrentBuildRecord() {
        StandinGames::runsFor(build("0.2.0"), StandinGames::untilEnded);
        const QByteArray state = "{\"version\":\"0.1.5\",\"path\":\"\\/nowhere\"}";
        TestFiles::writeFile(home_->statePath(), state);
        RecordingPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        watchGamesOf(model);
        QCOMPARE(model.installedVersion(), QStringLiteral("0.1.5"));
        model.playSelectedInstalledBuild();
        QVERIFY(settles(model, platform));
        QCOMPARE(platform.quitCount, 1);
        QCOMPARE(TestFiles::readFile(home_->statePath()), state);
        QCOMPARE(model.installedVersion(), QStringLiteral("0.1.5"));
    }
    void playingWithoutARecordCreatesNone() {
        StandinGames::runsFor(build("0.2.0"), StandinGames::untilEnded);
        RecordingPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        watchGamesOf(model);
        model.playSelectedInstalledBuild();
        QVERIFY(settles(model, platform));
        QCOMPARE(platform.quitCount, 1);
        QVERIFY(!QFile::exists(home_->statePath()));
    }

    void whileBusyPlayDoesNothing() {
        StandinGames::recorder(build("0.2.0"), record_, StandinGames::untilEnded);
        RecordingPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        watchGamesOf(model);
        LauncherModelProbe::setBusy(model, true);
        LauncherModelProbe::setStatus(model, QStringLiteral("Checking for updates..."));
        QSignalSpy status(&model, &LauncherModel::statusChanged);
        model.playSelectedInstalledBuild();
        // A play that went ahead would have said so and started its game before returning.
        QCOMPARE(games_->watched(), 0);
        QCOMPARE(status.count(), 0);
        QCOMPARE(model.busy(), true);
        QCOMPARE(platform.quitCount, 0);
        QVERIFY(!QFile::exists(record_));
    }
    void aSecondPlayWhileTheFirstRunsStartsNothing() {
        StandinGames::recorder(build("0.2.0"), record_, StandinGames::untilEnded);
        RecordingPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        watchGamesOf(model);
        model.playSelectedInstalledBuild();
        const auto first = StandinGames::waitForRecord(record_);
        QVERIFY(first);
        QVERIFY(QFile::remove(record_));
        model.playSelectedInstalledBuild();
        QVERIFY(settles(model, platform));
        QCOMPARE(platform.quitCount, 1);
        QCOMPARE(games_->watched(), 1);
        QVERIFY(!QFile::exists(record_));
    }
    void withNoSavedBuildPlayDoesNothing() {
        RecordingPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        QSignalSpy status(&model, &LauncherModel::statusChanged);
        model.playSelectedInstalledBuild();
        QCOMPARE(model.busy(), false);
        QCOMPARE(model.status(), QStringLiteral("Ready"));
        QCOMPARE(status.count(), 0);
    }
    void aSelectionLeftOnARemovedBuildDoesNothingUntilTheListIsRefreshed() {
        StandinGames::recorder(build("0.2.0"), record_, StandinGames::untilEnded);
        RecordingPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        watchGamesOf(model);
        model.setSelectedInstalledPath(build("0.3.0"));
        model.playSelectedInstalledBuild();
        QCOMPARE(model.busy(), false);
        QCOMPARE(model.status(), QStringLiteral("Ready"));
        QCOMPARE(games_->watched(), 0);
        QVERIFY(!QFile::exists(record_));
        LauncherModelProbe::refreshInstalledBuilds(model);
        QCOMPARE(model.selectedInstalledPath(), build("0.2.0"));
        model.playSelectedInstalledBuild();
        QCOMPARE(model.status(), QStringLiteral("Starting ZENTHO 0.2.0..."));
        QVERIFY(settles(model, platform));
        QCOMPARE(platform.quitCount, 1);
    }
    void withTwoListedBuildsOfOnePathTheFirstIsStarted() {
        StandinGames::runsFor(build("0.2.0"), StandinGames::untilEnded);
        RecordingPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        watchGamesOf(model);
        LauncherModelProbe::setInstalledBuilds(
            model, {{"0.2.0-first", build("0.2.0")}, {"0.2.0-second", build("0.2.0")}});
        model.playSelectedInstalledBuild();
        QCOMPARE(model.status(), QStringLiteral("Starting ZENTHO 0.2.0-first..."));
        QVERIFY(settles(model, platform));
        QCOMPARE(platform.quitCount, 1);
    }

    void thePendingInviteIsPassedAndTheLatestWins() {
        StandinGames::recorder(build("0.2.0"), record_, StandinGames::untilEnded);
        RecordingPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        watchGamesOf(model);
        LauncherModelProbe::setPendingInvite(model, QStringLiteral("zentho://invite/first"));
        LauncherModelProbe::setPendingInvite(model, QStringLiteral("zentho://invite/second room"));
        model.playSelectedInstalledBuild();
        QVERIFY(settles(model, platform));
        const auto record = StandinGames::waitForRecord(record_);
        QVERIFY(record);
        QCOMPARE(record->arguments, QStringList{QStringLiteral("zentho://invite/second room")});
    }
    void theInviteIsReadWhenTheGameStartsAndKeptForLaterStarts() {
        StandinGames::recorder(build("0.2.0"), record_, StandinGames::untilEnded);
        RecordingPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        watchGamesOf(model);
        LauncherModelProbe::setPendingInvite(model, QStringLiteral("zentho://a"));
        auto first = LauncherModelProbe::launch(model, QUrl::fromLocalFile(build("0.2.0")),
                                                QStringLiteral("zentho"));
        // Arrives during the first game's watch: too late for it, in time for the next.
        LauncherModelProbe::setPendingInvite(model, QStringLiteral("zentho://b"));
        QVERIFY(!waitForOutcome(std::move(first)));
        auto record = StandinGames::waitForRecord(record_);
        QVERIFY(record);
        QCOMPARE(record->arguments, QStringList{QStringLiteral("zentho://a")});
        QVERIFY(QFile::remove(record_));
        QVERIFY(!waitForOutcome(LauncherModelProbe::launch(
            model, QUrl::fromLocalFile(build("0.2.0")), QStringLiteral("zentho"))));
        record = StandinGames::waitForRecord(record_);
        QVERIFY(record);
        QCOMPARE(record->arguments, QStringList{QStringLiteral("zentho://b")});
        QCOMPARE(LauncherModelProbe::pendingInvite(model), QStringLiteral("zentho://b"));
    }

    void copyPutsTheDataFolderOnTheClipboard() {
        RecordingPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        model.copyDataFolder();
        QCOMPARE(platform.clipboardWrites, QStringList{home_->path() + QStringLiteral("/Zentho")});
        QVERIFY(!platform.clipboardWrites.first().endsWith(QLatin1Char('/')));
        QVERIFY(!platform.clipboardWrites.first().endsWith(QStringLiteral("launcher")));
        QCOMPARE(model.status(), QStringLiteral("ZENTHO data-folder path copied"));
        QVERIFY(!QFileInfo::exists(home_->path() + QStringLiteral("/Zentho")));
    }
    void copyWorksWhileAFlowRunsAndReplacesItsStatus() {
        RecordingPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        LauncherModelProbe::setBusy(model, true);
        LauncherModelProbe::setStatus(model, QStringLiteral("Checking for updates..."));
        model.copyDataFolder();
        QCOMPARE(platform.clipboardWrites.size(), 1);
        QCOMPARE(model.status(), QStringLiteral("ZENTHO data-folder path copied"));
        QCOMPARE(model.busy(), true);
        LauncherModelProbe::setStatus(model, QStringLiteral("Starting ZENTHO..."));
        QCOMPARE(model.status(), QStringLiteral("Starting ZENTHO..."));
    }
    void aRefusingClipboardStillGetsTheStatus() {
        RefusingClipboardPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        model.copyDataFolder();
        QCOMPARE(model.status(), QStringLiteral("ZENTHO data-folder path copied"));
    }
    void theRealClipboardReceivesThePath() {
        auto* app = qobject_cast<QGuiApplication*>(QCoreApplication::instance());
        QVERIFY(app);
        QGuiApplication::clipboard()->setText(QStringLiteral("something else"));
        QCOMPARE(QGuiApplication::clipboard()->text(), QStringLiteral("something else"));
        LinuxPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        model.copyDataFolder();
        QCOMPARE(QGuiApplication::clipboard()->text(), home_->path() + QStringLiteral("/Zentho"));
        QCOMPARE(model.status(), QStringLiteral("ZENTHO data-folder path copied"));
    }
};

QTEST_MAIN(TestInstalledPlay)
#include "TestInstalledPlay.moc"
