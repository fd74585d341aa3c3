// The reaper that collects the games the launcher lets go of: it waits for each adopted child by
// its own identifier, through a process descriptor or by looking now and then, and touches no
// other child.

#include "StandinGames.h"

#include "process/ChildReaper.h"

#include <QTest>

#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace {

pid_t spawnSleep(const char* duration) {
    pid_t pid = -1;
    const char* argv[] = {"/bin/sleep", duration, nullptr};
    if (::posix_spawn(&pid, "/bin/sleep", nullptr, nullptr, const_cast<char**>(argv), environ) != 0)
        return -1;
    return pid;
}

} // namespace

class TestChildReaper : public QObject {
    Q_OBJECT

private slots:
    void theReaperCollectsThroughAProcessDescriptor() {
        const pid_t pid = spawnSleep("0.3");
        QVERIFY(pid > 0);
        const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
        QVERIFY(pidfd >= 0);
        ChildReaper::adopt(pid, pidfd);
        QVERIFY(StandinGames::becomesZombieWhileNobodyLooks(pid));
        QTRY_VERIFY_WITH_TIMEOUT(!StandinGames::processState(pid), 60000);
    }
    void theReaperPollsWithoutADescriptor() {
        const pid_t pid = spawnSleep("0.3");
        QVERIFY(pid > 0);
        ChildReaper::adopt(pid, -1);
        QVERIFY(StandinGames::becomesZombieWhileNobodyLooks(pid));
        QTRY_VERIFY_WITH_TIMEOUT(!StandinGames::processState(pid), 60000);
    }
    // The twin: a child nobody adopted is left to whoever started it, even once the reaper has
    // collected a child it did adopt.
    void anUnadoptedChildStaysAZombie() {
        const pid_t unadopted = spawnSleep("0");
        QVERIFY(unadopted > 0);
        QVERIFY(StandinGames::becomesZombieWhileNobodyLooks(unadopted));
        const pid_t adopted = spawnSleep("0");
        QVERIFY(adopted > 0);
        ChildReaper::adopt(adopted, -1);
        QTRY_VERIFY_WITH_TIMEOUT(!StandinGames::processState(adopted), 60000);
        QCOMPARE(StandinGames::processState(unadopted), 'Z');
        int status = 0;
        QCOMPARE(::waitpid(unadopted, &status, 0), unadopted);
    }
};

QTEST_GUILESS_MAIN(TestChildReaper)
#include "TestChildReaper.moc"
