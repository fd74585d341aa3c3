#include "StandinGames.h"
#include "TaskOutcome.h"
#include "TestFiles.h"

#include "errors/LauncherError.h"
#include "launch/GameLauncher.h"
#include "process/ChildReaper.h"

#include <ProcessCapture.h>

#include <QCoroTask>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <QTimer>

#include <csignal>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

extern char** environ;

namespace {

// Runs one launch to its end; returns what it threw, or null when the game started.
std::exception_ptr runLaunch(const QString& folder, const QString& executable = QStringLiteral("zentho"),
                             std::optional<QString> invite = std::nullopt) {
    return waitForOutcome(GameLauncher::launch(folder, executable, std::move(invite)));
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

// Blocks without running the event loop until the process is a zombie, i.e. has ended and has
// not been collected.
bool becomesZombieWhileNobodyLooks(qint64 pid) {
    for (int i = 0; i < 500; ++i) {
        if (StandinGames::processState(pid) == 'Z')
            return true;
        QThread::msleep(10);
    }
    return false;
}

pid_t spawnSleep(const char* duration) {
    pid_t pid = -1;
    const char* argv[] = {"/bin/sleep", duration, nullptr};
    if (::posix_spawn(&pid, "/bin/sleep", nullptr, nullptr, const_cast<char**>(argv), environ) != 0)
        return -1;
    return pid;
}

QCoro::Task<void> launchAndMark(QString folder, bool* done) {
    try {
        co_await GameLauncher::launch(folder, QStringLiteral("zentho"), std::nullopt);
    } catch (...) {
    }
    *done = true;
}

} // namespace

class TestGameLauncher : public QObject {
    Q_OBJECT

    QTemporaryDir* tmp_ = nullptr;
    QString build_;
    QString record_;

private slots:
    void init() {
        tmp_ = new QTemporaryDir;
        build_ = QFileInfo(tmp_->path()).canonicalFilePath() + QStringLiteral("/versions/0.2.0");
        record_ = tmp_->path() + QStringLiteral("/record");
        TestFiles::makeFolder(build_);
    }
    void cleanup() {
        // Let every game of the test end and be collected before its folder goes.
        QTRY_COMPARE_WITH_TIMEOUT(ChildReaper::pendingCount(), 0, 5000);
        delete tmp_;
    }

    void withoutInviteTheGameGetsNoArguments() {
        StandinGames::recorder(build_, record_);
        QVERIFY(!runLaunch(build_));
        const auto record = StandinGames::waitForRecord(record_);
        QVERIFY(record);
        QCOMPARE(record->arguments, QStringList());
        QCOMPARE(record->program, build_ + QStringLiteral("/zentho"));
    }
    void theInviteArrivesAsExactlyOneArgumentUnchanged() {
        const QString invite = QStringLiteral(
            "zentho://invite/R00M 42?name=\u00dcn\u00efc\u00f8d\u00e9 \U0001F3AE&note=\"quoted\" "
            "'single' $HOME `x` \\back;&&|");
        StandinGames::recorder(build_, record_);
        QVERIFY(!runLaunch(build_, QStringLiteral("zentho"), invite));
        const auto record = StandinGames::waitForRecord(record_);
        QVERIFY(record);
        QCOMPARE(record->arguments, QStringList{invite});
    }
    void anEmptyInviteIsStillOneArgument() {
        StandinGames::recorder(build_, record_);
        QVERIFY(!runLaunch(build_, QStringLiteral("zentho"), QString()));
        const auto record = StandinGames::waitForRecord(record_);
        QVERIFY(record);
        QCOMPARE(record->arguments, QStringList{QString()});
    }

    void theWorkingFolderIsTheBuildFolder() {
        const QString elsewhere = tmp_->path() + QStringLiteral("/launcher-cwd");
        TestFiles::makeFolder(elsewhere);
        const QString previous = QDir::currentPath();
        QVERIFY(QDir::setCurrent(elsewhere));
        StandinGames::recorder(build_, record_);
        const std::exception_ptr error = runLaunch(build_);
        QVERIFY(QDir::setCurrent(previous));
        QVERIFY(!error);
        const auto record = StandinGames::waitForRecord(record_);
        QVERIFY(record);
        QCOMPARE(record->cwd, build_);
        QVERIFY(record->cwd != QFileInfo(elsewhere).canonicalFilePath());
    }
    void aTrailingSlashOnTheFolderAddsNoEmptyComponent() {
        StandinGames::recorder(build_, record_);
        QVERIFY(!runLaunch(build_ + QLatin1Char('/')));
        const auto record = StandinGames::waitForRecord(record_);
        QVERIFY(record);
        QCOMPARE(record->program, build_ + QStringLiteral("/zentho"));
    }

    void environmentAndStandardOutputAreInherited() {
        qputenv("ZENTHO_TEST_MARK", "mark \u00e9 42");
        StandinGames::recorder(build_, record_);
        const std::exception_ptr error = runLaunch(build_);
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
        StandinGames::recorder(build_, record_);
        QVERIFY(!runLaunch(build_));
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
        StandinGames::recorder(build_, record_);
        const std::exception_ptr error = runLaunch(build_);
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        QVERIFY(!error);
        // The launcher itself had a signal blocked, so a copied mask would show.
        QVERIFY(launcherMask != QStringLiteral("0000000000000000"));
        const auto record = StandinGames::waitForRecord(record_);
        QVERIFY(record);
        QCOMPARE(record->blockedSignals, QStringLiteral("0000000000000000"));
    }

    void theGameRunsInItsOwnSession() {
        StandinGames::recorder(build_, record_);
        QVERIFY(!runLaunch(build_));
        const auto record = StandinGames::waitForRecord(record_);
        QVERIFY(record);
        QCOMPARE(StandinGames::processSession(record->pid), record->pid);
        QCOMPARE(StandinGames::processGroup(record->pid), record->pid);
        QVERIFY(StandinGames::processSession(::getpid()) != record->pid);
        QCOMPARE(StandinGames::processSession(::getpid()), std::optional<qint64>(::getsid(0)));
    }

    void exitWithStatus3DuringTheWatchFails() {
        StandinGames::exitsAfter(build_, 0.2, 3);
        QCOMPARE(gameExitedStatus(runLaunch(build_)), 3);
    }
    void exitWithStatus0DuringTheWatchAlsoFails() {
        StandinGames::exitsAfter(build_, 0.2, 0);
        const std::exception_ptr error = runLaunch(build_);
        QCOMPARE(gameExitedStatus(error), 0);
        QCOMPARE(describeError(error), QStringLiteral("The game exited during startup (status 0)."));
    }
    void aSignalEndingTheGameReportsMinusTheSignal() {
        StandinGames::killedAfter(build_, 0.2, SIGKILL);
        QCOMPARE(gameExitedStatus(runLaunch(build_)), -SIGKILL);
        StandinGames::killedAfter(build_, 0.2, SIGTERM);
        QCOMPARE(gameExitedStatus(runLaunch(build_)), -SIGTERM);
    }
    void aGameRunningPastTheWatchHasStarted() {
        StandinGames::runsFor(build_, 1.5);
        QElapsedTimer clock;
        clock.start();
        QVERIFY(!runLaunch(build_));
        QVERIFY2(clock.elapsed() < 1500, "the launch waited for the game to end");
    }
    void aGameEndingAfterOneSecondIsASuccess() {
        StandinGames::exitsAfter(build_, 1.0, 7);
        QVERIFY(!runLaunch(build_));
    }
    void theWatchLastsTheFullTime() {
        StandinGames::runsFor(build_, 1.5);
        QElapsedTimer clock;
        clock.start();
        QVERIFY(!runLaunch(build_));
        QVERIFY2(clock.elapsed() >= GameLauncher::startupWatch.count(),
                 qPrintable(QString::number(clock.elapsed())));
    }
    void anEndJustBeforeTheWatchEndsIsCaught() {
        StandinGames::exitsAfter(build_, 0.6, 5);
        QCOMPARE(gameExitedStatus(runLaunch(build_)), 5);
    }

    void theEventLoopKeepsRunningDuringTheWatch() {
        StandinGames::runsFor(build_, 1.5);
        QElapsedTimer clock;
        clock.start();
        qint64 tickAt = -1;
        QTimer::singleShot(100, this, [&] { tickAt = clock.elapsed(); });
        bool done = false;
        launchAndMark(build_, &done);
        QVERIFY(!done); // the call returned at once, the watch still running
        QTRY_VERIFY_WITH_TIMEOUT(done, 5000);
        QVERIFY(tickAt >= 100);
        QVERIFY2(tickAt < 700, qPrintable(QString::number(tickAt)));
    }

    void aMissingExecutableIsThePlatformStartError() {
        StandinGames::withoutExecutable(build_);
        const auto error = startError(runLaunch(build_));
        QVERIFY(error);
        QCOMPARE(error->first, ENOENT);
        QVERIFY2(error->second.startsWith(build_ + QStringLiteral("/zentho: ")), qPrintable(error->second));
        QVERIFY(error->second.contains(QStringLiteral("No such file or directory")));
    }
    void anExecutableNameThatNamesNoFileFailsTheStart() {
        StandinGames::runsFor(build_, 1.5);
        const auto error = startError(runLaunch(build_, QStringLiteral("zentho-other")));
        QVERIFY(error);
        QCOMPARE(error->first, ENOENT);
        QVERIFY(error->second.contains(QStringLiteral("/zentho-other")));
    }
    void aFileWithoutExecutePermissionFailsAndIsLeftAsItIs() {
        StandinGames::notExecutable(build_);
        const auto error = startError(runLaunch(build_));
        QVERIFY(error);
        QCOMPARE(error->first, EACCES);
        QCOMPARE(QFileInfo(build_ + QStringLiteral("/zentho")).permissions() & QFile::ExeOwner,
                 QFile::Permissions());
    }
    void aFileThatIsNoProgramFailsTheStart() {
        StandinGames::notAProgram(build_);
        const auto error = startError(runLaunch(build_));
        QVERIFY(error);
        QCOMPARE(error->first, ENOEXEC);
    }
    void aMissingBuildFolderFailsTheStart() {
        const auto error = startError(runLaunch(tmp_->path() + QStringLiteral("/versions/9.9.9")));
        QVERIFY(error);
        QCOMPARE(error->first, ENOENT);
    }

    void aStartedGameIsCollectedOnceItEnds() {
        StandinGames::recorder(build_, record_, 1.0);
        QVERIFY(!runLaunch(build_));
        const auto record = StandinGames::waitForRecord(record_);
        QVERIFY(record);
        QVERIFY(StandinGames::processState(record->pid));
        QVERIFY(StandinGames::processState(record->pid) != 'Z');
        QCOMPARE(ChildReaper::pendingCount(), 1);
        // Nothing collects it while the event loop is held up: this is what a leak would look like.
        QVERIFY(becomesZombieWhileNobodyLooks(record->pid));
        QTRY_VERIFY_WITH_TIMEOUT(!StandinGames::processState(record->pid), 3000);
        QTRY_COMPARE_WITH_TIMEOUT(ChildReaper::pendingCount(), 0, 1000);
    }
    void aGameThatEndedDuringTheWatchIsCollectedAtOnce() {
        StandinGames::removesItselfAndExits(build_, record_, 3);
        QCOMPARE(gameExitedStatus(runLaunch(build_)), 3);
        const auto record = StandinGames::waitForRecord(record_);
        QVERIFY(record);
        QCOMPARE(StandinGames::processState(record->pid), std::nullopt);
        QCOMPARE(ChildReaper::pendingCount(), 0);
    }
    void collectingGamesLeavesOtherChildrenAlone() {
        StandinGames::recorder(build_, record_, 1.0);
        QVERIFY(!runLaunch(build_));
        QCOMPARE(ChildReaper::pendingCount(), 1);
        struct sigaction current {};
        QCOMPARE(sigaction(SIGCHLD, nullptr, &current), 0);
        QVERIFY(current.sa_handler == SIG_DFL);
        QCOMPARE(current.sa_flags & SA_NOCLDWAIT, 0);
        // A blocking capture of another child still sees its own status while a game is watched.
        QCOMPARE(ProcessCapture::run("/bin/sh", {"-c", "sleep 0.1; exit 4"}).status, 4);
        const auto record = StandinGames::waitForRecord(record_);
        QVERIFY(record);
        QTRY_VERIFY_WITH_TIMEOUT(!StandinGames::processState(record->pid), 3000);
        QCOMPARE(ProcessCapture::run("/bin/sh", {"-c", "exit 6"}).status, 6);
    }

    void theReaperCollectsThroughAProcessDescriptor() {
        const pid_t pid = spawnSleep("0.3");
        QVERIFY(pid > 0);
        const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
        QVERIFY(pidfd >= 0);
        ChildReaper::adopt(pid, pidfd);
        QVERIFY(becomesZombieWhileNobodyLooks(pid));
        QTRY_VERIFY_WITH_TIMEOUT(!StandinGames::processState(pid), 3000);
    }
    void theReaperPollsWithoutADescriptor() {
        const pid_t pid = spawnSleep("0.3");
        QVERIFY(pid > 0);
        ChildReaper::adopt(pid, -1);
        QVERIFY(becomesZombieWhileNobodyLooks(pid));
        QTRY_VERIFY_WITH_TIMEOUT(!StandinGames::processState(pid), 3000);
    }
    void anUnadoptedChildStaysAZombie() {
        const pid_t pid = spawnSleep("0.1");
        QVERIFY(pid > 0);
        QVERIFY(becomesZombieWhileNobodyLooks(pid));
        QTest::qWait(300);
        QCOMPARE(StandinGames::processState(pid), 'Z');
        int status = 0;
        QCOMPARE(::waitpid(pid, &status, 0), pid);
    }
};

QTEST_MAIN(TestGameLauncher)
#include "TestGameLauncher.moc"
