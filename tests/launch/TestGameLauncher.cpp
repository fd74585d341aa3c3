#include "GameWatch.h"
#include "StandinGames.h"
#include "TaskOutcome.h"
#include "TestFiles.h"

#include "errors/LauncherError.h"
#include "launch/GameLauncher.h"
#include "process/ChildReaper.h"

#include <ProcessCapture.h>

#include <QCoroTask>
#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <memory>

#include <csignal>
#include <system_error>
#include <unistd.h>

namespace {

// Runs one launch to its end; returns what it threw, or null when the game started.
std::exception_ptr runLaunch(const QString& folder, const GameLauncher::Watch& watch,
                             const QString& executable = QStringLiteral("zentho"),
                             const std::optional<QString>& invite = {}) {
    return waitForOutcome(GameLauncher::launch(folder, executable, invite, watch));
}

std::optional<int> gameExitedStatus(std::exception_ptr error) {
    try {
        if (error)
            std::rethrow_exception(error);
    } catch (const LauncherError& e) {
        if (e.errorCase() == LauncherError::Case::gameExited)
            return e.exitStatus();
    } catch (...) {
    }
    return std::nullopt;
}

// The start error's code and text, when the error is a system error and not one of ours.
std::optional<std::pair<int, QString>> startError(std::exception_ptr error) {
    try {
        if (error)
            std::rethrow_exception(error);
    } catch (const LauncherError&) {
    } catch (const std::system_error& e) {
        return std::make_pair(e.code().value(), describeError(e));
    } catch (...) {
    }
    return std::nullopt;
}

QString ownStatusLine(const char* key) {
    for (const QByteArray& line : TestFiles::readFile(QStringLiteral("/proc/self/status")).split('\n'))
        if (line.startsWith(key))
            return QString::fromLatin1(line.mid(qstrlen(key))).trimmed();
    return {};
}

// A launch with the launcher's own watch, marking `done` when it has ended either way.
QCoro::Task<void> launchAndMark(QString folder, bool* done) {
    try {
        co_await GameLauncher::launch(folder, QStringLiteral("zentho"), std::nullopt);
    } catch (...) {
    }
    *done = true;
}

} // namespace

// Starting a game and watching it start. The watch is the test's (GameWatch), so that whether the
// game ended before the watch did is the test's choice, not the machine's speed; the launcher's
// own watch is proved to outlast what it must and to leave the event loop running, by the order
// of events, and its sleep on a clock the test moves in TestSleepAtLeast.
class TestGameLauncher : public QObject {
    Q_OBJECT

    QTemporaryDir* tmp_ = nullptr;
    QString build_;
    QString record_;
    std::unique_ptr<GameWatch> games_;

    // Until the game has ended or settled into its sleep.
    std::exception_ptr launch(const QString& folder,
                              const QString& executable = QStringLiteral("zentho"),
                              const std::optional<QString>& invite = {}) {
        return runLaunch(folder, games_->watch(), executable, invite);
    }

private slots:
    void init() {
        tmp_ = new QTemporaryDir;
        build_ = QFileInfo(tmp_->path()).canonicalFilePath() + QStringLiteral("/versions/0.2.0");
        record_ = tmp_->path() + QStringLiteral("/record");
        TestFiles::makeFolder(build_);
        games_ = std::make_unique<GameWatch>();
    }
    void cleanup() {
        // Every game of the test ends and is collected before its folder goes.
        QVERIFY(games_->endGames());
        games_.reset();
        delete tmp_;
    }

    void withoutInviteTheGameGetsNoArguments() {
        StandinGames::recorder(build_, record_, StandinGames::untilEnded);
        QVERIFY(!launch(build_));
        const auto record = StandinGames::waitForRecord(record_);
        QVERIFY(record);
        QCOMPARE(record->arguments, QStringList());
        QCOMPARE(record->program, build_ + QStringLiteral("/zentho"));
    }
    void theInviteArrivesAsExactlyOneArgumentUnchanged() {
        const QString invite = QStringLiteral(
            "zentho://invite/R00M 42?name=\u00dcn\u00efc\u00f8d\u00e9 \U0001F3AE&note=\"quoted\" "
            "'single' $HOME `x` \\back;&&|");
        StandinGames::recorder(build_, record_, StandinGames::untilEnded);
        QVERIFY(!launch(build_, QStringLiteral("zentho"), invite));
        const auto record = StandinGames::waitForRecord(record_);
        QVERIFY(record);
        QCOMPARE(record->arguments, QStringList{invite});
    }
    void anEmptyInviteIsStillOneArgument() {
        StandinGames::recorder(build_, record_, StandinGames::untilEnded);
        QVERIFY(!launch(build_, QStringLiteral("zentho"), QString()));
        const auto record = StandinGames::waitForRecord(record_);
        QVERIFY(record);
        QCOMPARE(record->arguments, QStringList{QString()});
    }

    void theWorkingFolderIsTheBuildFolder() {
        const QString elsewhere = tmp_->path() + QStringLiteral("/launcher-cwd");
        TestFiles::makeFolder(elsewhere);
        const QString previous = QDir::currentPath();
        QVERIFY(QDir::setCurrent(elsewhere));
        StandinGames::recorder(build_, record_, StandinGames::untilEnded);
        const std::exception_ptr error = launch(build_);
        QVERIFY(QDir::setCurrent(previous));
        QVERIFY(!error);
        const auto record = StandinGames::waitForRecord(record_);
        QVERIFY(record);
        QCOMPARE(record->cwd, build_);
        QVERIFY(record->cwd != QFileInfo(elsewhere).canonicalFilePath());
    }
    void aTrailingSlashOnTheFolderAddsNoEmptyComponent() {
        StandinGames::recorder(build_, record_, StandinGames::untilEnded);
        QVERIFY(!launch(build_ + QLatin1Char('/')));
        const auto record = StandinGames::waitForRecord(record_);
        QVERIFY(record);
        QCOMPARE(record->program, build_ + QStringLiteral("/zentho"));
    }

    void environmentAndStandardOutputAreInherited() {
        qputenv("ZENTHO_TEST_MARK", "mark \u00e9 42");
        StandinGames::recorder(build_, record_, StandinGames::untilEnded);
        const std::exception_ptr error = launch(build_);
        qunsetenv("ZENTHO_TEST_MARK");
        QVERIFY(!error);
        const auto record = StandinGames::waitForRecord(record_);
        QVERIFY(record);
        QCOMPARE(record->mark, QStringLiteral("mark \u00e9 42"));
        char target[256] = {};
        QVERIFY(::readlink("/proc/self/fd/1", target, sizeof target - 1) > 0);
        QCOMPARE(record->stdoutTarget, QString::fromUtf8(target));
    }
    void withoutTheVariableTheGameSeesNone() {
        qunsetenv("ZENTHO_TEST_MARK");
        StandinGames::recorder(build_, record_, StandinGames::untilEnded);
        QVERIFY(!launch(build_));
        const auto record = StandinGames::waitForRecord(record_);
        QVERIFY(record);
        QCOMPARE(record->mark, QString());
    }
    void theGameStartsWithNoBlockedSignals() {
        sigset_t usr1;
        sigemptyset(&usr1);
        sigaddset(&usr1, SIGUSR1);
        sigset_t previous;
        QCOMPARE(pthread_sigmask(SIG_BLOCK, &usr1, &previous), 0);
        const QString launcherMask = ownStatusLine("SigBlk:");
        StandinGames::recorder(build_, record_, StandinGames::untilEnded);
        const std::exception_ptr error = launch(build_);
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        QVERIFY(!error);
        // The launcher itself had a signal blocked, so a copied mask would show.
        QVERIFY(launcherMask != QStringLiteral("0000000000000000"));
        const auto record = StandinGames::waitForRecord(record_);
        QVERIFY(record);
        QCOMPARE(record->blockedSignals, QStringLiteral("0000000000000000"));
    }

    void theGameRunsInItsOwnSession() {
        StandinGames::recorder(build_, record_, StandinGames::untilEnded);
        QVERIFY(!launch(build_));
        const auto record = StandinGames::waitForRecord(record_);
        QVERIFY(record);
        QCOMPARE(StandinGames::processSession(record->pid), record->pid);
        QCOMPARE(StandinGames::processGroup(record->pid), record->pid);
        QVERIFY(StandinGames::processSession(::getpid()) != record->pid);
        QCOMPARE(StandinGames::processSession(::getpid()), std::optional<qint64>(::getsid(0)));
    }

    // The game ends, then the watch does: the launch reports the end with its status.
    void exitWithStatus3DuringTheWatchFails() {
        StandinGames::exitsAfter(build_, 0, 3);
        QCOMPARE(gameExitedStatus(launch(build_)), 3);
    }
    void exitWithStatus0DuringTheWatchAlsoFails() {
        StandinGames::exitsAfter(build_, 0, 0);
        const std::exception_ptr error = launch(build_);
        QCOMPARE(gameExitedStatus(error), 0);
        QCOMPARE(describeError(error), QStringLiteral("The game exited during startup (status 0)."));
    }
    void aSignalEndingTheGameReportsMinusTheSignal() {
        StandinGames::killedAfter(build_, 0, SIGKILL);
        QCOMPARE(gameExitedStatus(launch(build_)), -SIGKILL);
        StandinGames::killedAfter(build_, 0, SIGTERM);
        QCOMPARE(gameExitedStatus(launch(build_)), -SIGTERM);
    }
    // The watch ends while the game runs: it has started, and the launch did not wait for its end.
    void aGameRunningPastTheWatchHasStarted() {
        StandinGames::recorder(build_, record_, StandinGames::untilEnded);
        QVERIFY(!launch(build_));
        const auto record = StandinGames::waitForRecord(record_);
        QVERIFY(record);
        const std::optional<char> state = StandinGames::processState(record->pid);
        QVERIFY(state && *state != 'Z');
    }
    // The launcher's own watch sleeps without holding up the event loop, for the whole of its
    // time: Qt fires due timers in the order of their deadlines, so a timer started before the
    // launch and due 10 ms before its watch ends fires while the launch still waits, however late
    // the machine gets to either.
    void theLaunchersWatchOutlastsATimerStartedBeforeIt() {
        StandinGames::recorder(build_, record_, StandinGames::untilEnded);
        bool done = false;
        std::optional<bool> doneWhenFired;
        QTimer::singleShot(GameLauncher::startupWatch - std::chrono::milliseconds(10),
                           Qt::PreciseTimer, this, [&] { doneWhenFired = done; });
        launchAndMark(build_, &done);
        QVERIFY(!done); // the call returned at once, the watch still running
        QTRY_VERIFY_WITH_TIMEOUT(done, 60000);
        QCOMPARE(doneWhenFired, std::optional<bool>(false));
        endGameOf(record_);
    }

    void aMissingExecutableIsThePlatformStartError() {
        StandinGames::withoutExecutable(build_);
        const auto error = startError(launch(build_));
        QVERIFY(error);
        QCOMPARE(error->first, ENOENT);
        QVERIFY2(error->second.startsWith(build_ + QStringLiteral("/zentho: ")), qPrintable(error->second));
        QVERIFY(error->second.contains(QStringLiteral("No such file or directory")));
        QCOMPARE(games_->watched(), 0);
    }
    void anExecutableNameThatNamesNoFileFailsTheStart() {
        StandinGames::runsFor(build_, StandinGames::untilEnded);
        const auto error = startError(launch(build_, QStringLiteral("zentho-other")));
        QVERIFY(error);
        QCOMPARE(error->first, ENOENT);
        QVERIFY(error->second.contains(QStringLiteral("/zentho-other")));
    }
    void aFileWithoutExecutePermissionFailsAndIsLeftAsItIs() {
        StandinGames::notExecutable(build_);
        const auto error = startError(launch(build_));
        QVERIFY(error);
        QCOMPARE(error->first, EACCES);
        QCOMPARE(QFileInfo(build_ + QStringLiteral("/zentho")).permissions() & QFile::ExeOwner,
                 QFile::Permissions());
    }
    void aFileThatIsNoProgramFailsTheStart() {
        StandinGames::notAProgram(build_);
        const auto error = startError(launch(build_));
        QVERIFY(error);
        QCOMPARE(error->first, ENOEXEC);
    }
    void aMissingBuildFolderFailsTheStart() {
        const auto error = startError(launch(tmp_->path() + QStringLiteral("/versions/9.9.9")));
        QVERIFY(error);
        QCOMPARE(error->first, ENOENT);
    }

    // The watch ends while the game runs: it has started, even though it ends, with an error
    // status, right after. The reaper collects it then.
    void aStartedGameIsCollectedOnceItEnds() {
        const QString exitNow = tmp_->path() + QStringLiteral("/exit-now");
        StandinGames::endsWhenTold(build_, record_, exitNow, 7);
        QVERIFY(!runLaunch(build_, games_->atOnce()));
        const auto record = StandinGames::waitForRecord(record_);
        QVERIFY(record);
        QVERIFY(StandinGames::processState(record->pid));
        QVERIFY(StandinGames::processState(record->pid) != 'Z');
        QCOMPARE(ChildReaper::pendingCount(), 1);
        TestFiles::writeFile(exitNow, "");
        // Nothing collects it while the event loop is held up: this is what a leak would look like.
        QVERIFY(StandinGames::becomesZombieWhileNobodyLooks(record->pid));
        QTRY_VERIFY_WITH_TIMEOUT(!StandinGames::processState(record->pid), 60000);
        QTRY_COMPARE_WITH_TIMEOUT(ChildReaper::pendingCount(), 0, 60000);
    }
    void aGameThatEndedDuringTheWatchIsCollectedAtOnce() {
        StandinGames::removesItselfAndExits(build_, record_, 3);
        QCOMPARE(gameExitedStatus(launch(build_)), 3);
        const auto record = StandinGames::waitForRecord(record_);
        QVERIFY(record);
        QCOMPARE(StandinGames::processState(record->pid), std::nullopt);
        QCOMPARE(ChildReaper::pendingCount(), 0);
    }
    void collectingGamesLeavesOtherChildrenAlone() {
        const QString exitNow = tmp_->path() + QStringLiteral("/exit-now");
        StandinGames::endsWhenTold(build_, record_, exitNow, 0);
        QVERIFY(!runLaunch(build_, games_->atOnce()));
        QCOMPARE(ChildReaper::pendingCount(), 1);
        struct sigaction current {};
        QCOMPARE(sigaction(SIGCHLD, nullptr, &current), 0);
        QVERIFY(current.sa_handler == SIG_DFL);
        QCOMPARE(current.sa_flags & SA_NOCLDWAIT, 0);
        // A blocking capture of another child still sees its own status while a game is watched.
        QCOMPARE(ProcessCapture::run("/bin/sh", {"-c", "sleep 0.1; exit 4"}).status, 4);
        const auto record = StandinGames::waitForRecord(record_);
        QVERIFY(record);
        TestFiles::writeFile(exitNow, "");
        QTRY_VERIFY_WITH_TIMEOUT(!StandinGames::processState(record->pid), 60000);
        QCOMPARE(ProcessCapture::run("/bin/sh", {"-c", "exit 6"}).status, 6);
    }

private:
    // Ends the game a launch with the launcher's own watch left running, by its recorded
    // identifier: the reaper holds it until then, so the identifier is still this game's.
    void endGameOf(const QString& recordPath) {
        const auto record = StandinGames::waitForRecord(recordPath);
        QVERIFY(record);
        QCOMPARE(::kill(pid_t(record->pid), SIGKILL), 0);
        QTRY_COMPARE_WITH_TIMEOUT(ChildReaper::pendingCount(), 0, 60000);
    }
};

QTEST_MAIN(TestGameLauncher)
#include "TestGameLauncher.moc"
