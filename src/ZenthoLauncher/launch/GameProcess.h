#pragma once

#include <QString>
#include <QStringList>

#include <cstdint>
#include <optional>

#include <sys/types.h>

// One started game. The game runs in a session of its own, so it is not in the launcher's process
// group, has no controlling terminal of the launcher's, and keeps running when the launcher quits
// or its terminal closes. The object is only a watch on the child: destroying it never signals the
// game; a game that is still running then is handed to the ChildReaper, which collects its exit
// later without blocking.
class GameProcess {
public:
    // Starts `program` with `arguments` (argv[0] is the program path, and these follow it), in
    // `workingFolder`, with this process's environment and standard streams. Throws
    // std::system_error with the system's reason and the program path when it cannot start
    // (missing file, no execute permission, not a program, missing working folder).
    static GameProcess start(const QString& program, const QString& workingFolder,
                             const QStringList& arguments);

    GameProcess(GameProcess&& other) noexcept;
    GameProcess& operator=(GameProcess&&) = delete;
    GameProcess(const GameProcess&) = delete;
    GameProcess& operator=(const GameProcess&) = delete;
    ~GameProcess();

    pid_t pid() const { return pid_; }

    // Looks without blocking whether the game has ended. When it has, collects it and returns its
    // status: the exit code, or -N when signal N ended it. Throws std::system_error when the
    // child can no longer be waited for.
    std::optional<std::int32_t> endedStatus();

private:
    GameProcess(pid_t pid, int pidfd, QString program);

    pid_t pid_ = -1;
    int pidfd_ = -1;
    QString program_;
};
