#include "ProcessCapture.h"

#include "TemporaryFolder.h"
#include "Uuid.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace {

// Owns one capture file: its descriptor and its path, both released on every exit path.
class CaptureFile {
public:
    CaptureFile() = default;
    CaptureFile(const CaptureFile&) = delete;
    CaptureFile& operator=(const CaptureFile&) = delete;
    ~CaptureFile() { release(); }

    void create(std::string path) {
        const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (fd < 0)
            throw FileWriteError(errno, "could not create the capture file " + path);
        fd_ = fd;
        path_ = std::move(path);
    }
    // Once the child has been set up, the file is ours to delete whatever happens next.
    void armRemoval() { removeOnRelease_ = true; }
    int fd() const { return fd_; }

    void sync() const {
        if (::fsync(fd_) != 0)
            throw std::system_error(errno, std::generic_category(), "could not flush " + path_);
    }

    std::string readAll() const {
        std::string bytes;
        char buffer[64 * 1024];
        off_t offset = 0;
        for (;;) {
            const ssize_t n = ::pread(fd_, buffer, sizeof buffer, offset);
            if (n < 0) {
                if (errno == EINTR)
                    continue;
                throw std::system_error(errno, std::generic_category(), "could not read " + path_);
            }
            if (n == 0)
                return bytes;
            bytes.append(buffer, static_cast<std::size_t>(n));
            offset += n;
        }
    }

private:
    void release() {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = -1;
        if (removeOnRelease_ && !path_.empty())
            ::unlink(path_.c_str());
    }

    int fd_ = -1;
    std::string path_;
    bool removeOnRelease_ = false;
};

class SpawnFileActions {
public:
    SpawnFileActions() { posix_spawn_file_actions_init(&actions_); }
    ~SpawnFileActions() { posix_spawn_file_actions_destroy(&actions_); }
    SpawnFileActions(const SpawnFileActions&) = delete;
    SpawnFileActions& operator=(const SpawnFileActions&) = delete;
    posix_spawn_file_actions_t* get() { return &actions_; }

private:
    posix_spawn_file_actions_t actions_;
};

std::string decodeStrictly(std::string bytes) {
    return ProcessCapture::isValidUtf8(bytes) ? std::move(bytes) : std::string();
}

} // namespace

namespace ProcessCapture {

std::int32_t statusFromWait(int waitStatus) {
    if (WIFEXITED(waitStatus))
        return WEXITSTATUS(waitStatus);
    if (WIFSIGNALED(waitStatus))
        return -WTERMSIG(waitStatus);
    return waitStatus;
}

bool isValidUtf8(const std::string& bytes) {
    const auto* s = reinterpret_cast<const unsigned char*>(bytes.data());
    const std::size_t n = bytes.size();
    std::size_t i = 0;
    while (i < n) {
        const unsigned char c = s[i];
        if (c < 0x80) {
            ++i;
            continue;
        }
        std::size_t length;
        unsigned int min;
        unsigned int cp;
        if ((c & 0xE0) == 0xC0) {
            length = 2, min = 0x80, cp = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            length = 3, min = 0x800, cp = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            length = 4, min = 0x10000, cp = c & 0x07;
        } else {
            return false;
        }
        if (i + length > n)
            return false;
        for (std::size_t k = 1; k < length; ++k) {
            if ((s[i + k] & 0xC0) != 0x80)
                return false;
            cp = (cp << 6) | (s[i + k] & 0x3F);
        }
        if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
            return false;
        i += length;
    }
    return true;
}

CapturedProcessResult run(const std::string& executable, const std::vector<std::string>& arguments) {
    const std::string uuid = makeUpperUuid();
    const std::string dir = temporaryFolder();

    // A failure to make the capture files happens before any child exists; what was already
    // created is left as it is, like any other half-made temporary file.
    CaptureFile out;
    CaptureFile err;
    out.create(dir + "/zentho-launcher-stdout-" + uuid);
    err.create(dir + "/zentho-launcher-stderr-" + uuid);
    out.armRemoval();
    err.armRemoval();

    SpawnFileActions actions;
    posix_spawn_file_actions_adddup2(actions.get(), out.fd(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(actions.get(), err.fd(), STDERR_FILENO);

    std::vector<char*> argv;
    argv.reserve(arguments.size() + 2);
    // The program's name as argv[0] is how every POSIX program expects to be called; it is not
    // one of the caller's arguments.
    argv.push_back(const_cast<char*>(executable.c_str()));
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);

    pid_t pid = 0;
    const int spawnError =
        ::posix_spawn(&pid, executable.c_str(), actions.get(), nullptr, argv.data(), environ);
    if (spawnError != 0)
        throw std::system_error(spawnError, std::generic_category(), executable);

    int waitStatus = 0;
    while (::waitpid(pid, &waitStatus, 0) < 0) {
        if (errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "could not wait for " + executable);
    }

    out.sync();
    err.sync();
    CapturedProcessResult result;
    result.status = statusFromWait(waitStatus);
    result.output = decodeStrictly(out.readAll());
    result.errors = decodeStrictly(err.readAll());
    return result;
}

} // namespace ProcessCapture
