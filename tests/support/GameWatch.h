#pragma once

#include "launch/GameLauncher.h"

#include <QList>

// Start-up watches for tests, in place of the launcher's 750 ms, so that whether a game has ended
// by the end of its watch is decided by the game's own events, however slowly the machine runs:
//  - watch() ends once the game has ended (it then counts as exited) or has become `sleep`, which
//    is what a stand-in game that stays up execs (it then counts as started);
//  - atOnce() ends at once (a game that waits for the test counts as started).
// Either way the game is remembered, and every game still running when the GameWatch goes (or at
// endGames()) is killed and collected, so no test leaves one behind.
class GameWatch {
public:
    GameWatch() = default;
    ~GameWatch();
    GameWatch(const GameWatch&) = delete;
    GameWatch& operator=(const GameWatch&) = delete;

    // The watches hand out a pointer to this object: they must not outlive it.
    GameLauncher::Watch watch();
    GameLauncher::Watch atOnce();

    // How many games the watches have seen start.
    int watched() const { return int(games_.size()); }
    // Kills every watched game that still runs and waits until the launcher's reaper has
    // collected it; false when that took more than a generous while.
    bool endGames();

private:
    void remember(pid_t game);

    QList<int> games_; // a process descriptor of each, which never signals a stranger
};
