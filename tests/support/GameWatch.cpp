#include "GameWatch.h"

#include "StandinGames.h"
#include "TestFiles.h"

#include "process/ChildReaper.h"

#include <QTest>

#include <QCoroTimer>

#include <csignal>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// Nothing collects a watched game before its watch is over, so an ended one stays a zombie until
// the launch looks at it. The name is the one the kernel took from the last exec.
bool hasSettled(pid_t game) {
    const std::optional<char> state = StandinGames::processState(game);
    return !state || *state == 'Z' ||
           TestFiles::readFile(QStringLiteral("/proc/%1/comm").arg(game)) == "sleep\n";
}

QCoro::Task<void> untilSettled(pid_t game) {
    while (!hasSettled(game))
        co_await QCoro::sleepFor(std::chrono::milliseconds(5));
}

QCoro::Task<void> noWait() {
    co_return;
}

} // namespace

GameWatch::~GameWatch() {
    endGames();
}

void GameWatch::remember(pid_t game) {
    games_.append(static_cast<int>(::syscall(SYS_pidfd_open, game, 0)));
}

GameLauncher::Watch GameWatch::watch() {
    return [this](pid_t game) {
        remember(game);
        return untilSettled(game);
    };
}

GameLauncher::Watch GameWatch::atOnce() {
    return [this](pid_t game) {
        remember(game);
        return noWait();
    };
}

bool GameWatch::endGames() {
    for (const int pidfd : std::as_const(games_)) {
        if (pidfd < 0)
            continue;
        // A game that has ended already (or was collected) is not signalled again.
        ::syscall(SYS_pidfd_send_signal, pidfd, SIGKILL, nullptr, 0);
        ::close(pidfd);
    }
    games_.clear();
    return QTest::qWaitFor([] { return ChildReaper::pendingCount() == 0; }, 60000);
}
