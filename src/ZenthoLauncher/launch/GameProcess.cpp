#include "launch/GameProcess.h"

#include "process/ChildReaper.h"

#include <ProcessCapture.h>

#include <QFile>

#include <cerrno>
#include <csignal>
#include <spawn.h>
#include <string>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

// Through the system call itself: glibc 2.36's <sys/pidfd.h> lacks C linkage for C++ callers.
int openProcessDescriptor(pid_t pid) {
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
}

// posix_spawn's attribute and file-action objects, released on every path.
struct SpawnSetup {
    SpawnSetup() {
        posix_spawnattr_init(&attributes);
        posix_spawn_file_actions_init(&actions);
    }
    ~SpawnSetup() {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
    }
    SpawnSetup(const SpawnSetup&) = delete;
    SpawnSetup& operator=(const SpawnSetup&) = delete;

    posix_spawnattr_t attributes;
    posix_spawn_file_actions_t actions;
};

[[noreturn]] void throwStartError(int err, const QString& program) {
    throw std::system_error(err, std::generic_category(), QFile::encodeName(program).toStdString());
}

} // namespace

GameProcess GameProcess::start(const QString& program, const QString& workingFolder,
                               const QStringList& arguments) {
    const QByteArray programBytes = QFile::encodeName(program);
    const QByteArray folderBytes = QFile::encodeName(workingFolder);
    std::vector<QByteArray> argumentBytes;
    argumentBytes.reserve(static_cast<std::size_t>(arguments.size()));
    for (const QString& argument : arguments)
        argumentBytes.push_back(argument.toUtf8());

    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(programBytes.constData()));
    for (QByteArray& argument : argumentBytes)
        argv.push_back(argument.data());
    argv.push_back(nullptr);

    SpawnSetup setup;
    // Its own session keeps the game alive when the launcher, its process group or its terminal
    // goes away. The game also starts with no blocked signals and default signal handlers, not
    // whatever state the launcher's event loop happens to be in.
    sigset_t none;
    sigemptyset(&none);
    sigset_t all;
    sigfillset(&all);
    posix_spawnattr_setsigmask(&setup.attributes, &none);
    posix_spawnattr_setsigdefault(&setup.attributes, &all);
    posix_spawnattr_setflags(&setup.attributes, static_cast<short>(POSIX_SPAWN_SETSID |
                                                                   POSIX_SPAWN_SETSIGMASK |
                                                                   POSIX_SPAWN_SETSIGDEF));
    posix_spawn_file_actions_addchdir_np(&setup.actions, folderBytes.constData());

    pid_t pid = -1;
    const int err = ::posix_spawn(&pid, programBytes.constData(), &setup.actions,
                                  &setup.attributes, argv.data(), environ);
    if (err != 0)
        throwStartError(err, program);
    // Taken at once, while the child cannot yet have been collected, so the descriptor can only
    // ever refer to our game. On a kernel without process descriptors the reaper polls instead.
    const int pidfd = openProcessDescriptor(pid);
    return GameProcess(pid, pidfd, program);
}

GameProcess::GameProcess(pid_t pid, int pidfd, QString program)
    : pid_(pid), pidfd_(pidfd), program_(std::move(program)) {}

GameProcess::GameProcess(GameProcess&& other) noexcept
    : pid_(other.pid_), pidfd_(other.pidfd_), program_(std::move(other.program_)) {
    other.pid_ = -1;
    other.pidfd_ = -1;
}

GameProcess::~GameProcess() {
    if (pid_ > 0)
        ChildReaper::adopt(pid_, pidfd_);
    else if (pidfd_ >= 0)
        ::close(pidfd_);
}

std::optional<std::int32_t> GameProcess::endedStatus() {
    if (pid_ <= 0)
        throw std::system_error(ECHILD, std::generic_category(),
                                QFile::encodeName(program_).toStdString());
    int waitStatus = 0;
    pid_t result;
    do {
        result = ::waitpid(pid_, &waitStatus, WNOHANG);
    } while (result < 0 && errno == EINTR);
    if (result == 0)
        return std::nullopt;
    const int err = errno;
    pid_ = -1;
    if (pidfd_ >= 0)
        ::close(pidfd_);
    pidfd_ = -1;
    if (result < 0)
        throw std::system_error(err, std::generic_category(),
                                "could not watch " + QFile::encodeName(program_).toStdString());
    return ProcessCapture::statusFromWait(waitStatus);
}
