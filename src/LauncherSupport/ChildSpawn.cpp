#include <ChildSpawn.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

extern char** environ;

namespace {

// Between fork and exec only async-signal-safe calls are allowed: no allocation, no locks.
[[noreturn]] void reportAndExit(int channel, int err) {
    ssize_t written;
    do {
        written = ::write(channel, &err, sizeof err);
    } while (written < 0 && errno == EINTR);
    ::_exit(127);
}

} // namespace

pid_t spawnTiedToParent(const std::string& executable, const std::vector<const char*>& argv,
                        int standardOutput, int standardError, int standardInput) {
    // The child tells us through this pipe why exec failed; a successful exec closes it unread.
    int channel[2];
    if (::pipe2(channel, O_CLOEXEC) != 0)
        throw std::system_error(errno, std::generic_category(), executable);
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid < 0) {
        const int err = errno;
        ::close(channel[0]);
        ::close(channel[1]);
        throw std::system_error(err, std::generic_category(), executable);
    }
    if (pid == 0) {
        ::close(channel[0]);
        // If the parent died before the request took effect, the signal will never come.
        if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != parent)
            ::_exit(127);
        if (::dup2(standardOutput, STDOUT_FILENO) < 0 || ::dup2(standardError, STDERR_FILENO) < 0 ||
            (standardInput >= 0 && ::dup2(standardInput, STDIN_FILENO) < 0))
            reportAndExit(channel[1], errno);
        ::execve(executable.c_str(), const_cast<char* const*>(argv.data()), environ);
        reportAndExit(channel[1], errno);
    }

    ::close(channel[1]);
    int startError = 0;
    ssize_t got;
    do {
        got = ::read(channel[0], &startError, sizeof startError);
    } while (got < 0 && errno == EINTR);
    ::close(channel[0]);
    if (got != static_cast<ssize_t>(sizeof startError))
        return pid;
    int ignored = 0;
    while (::waitpid(pid, &ignored, 0) < 0 && errno == EINTR) {
    }
    throw std::system_error(startError, std::generic_category(), executable);
}
