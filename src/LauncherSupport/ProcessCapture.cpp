#include <ProcessCapture.h>

#include <ChildSpawn.h>
#include <TemporaryFolder.h>
#include <Uuid.h>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <csignal>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

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
    // Takes the name off the disk now; the descriptor still reads and writes the file.
    void removeNow() {
        if (!path_.empty())
            ::unlink(path_.c_str());
        path_.clear();
    }
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

struct Running::State {
    CaptureFile out;
    CaptureFile err;
    pid_t pid = -1;
};

Running::Running(std::unique_ptr<State> state) : state_(std::move(state)) {}
Running::Running(Running&& other) noexcept = default;

Running::~Running() {
    if (!state_ || state_->pid <= 0)
        return;
    // Abandoned while the child still runs (its caller went away): end it rather than leave it
    // writing into files and folders that nobody will look at again.
    ::kill(state_->pid, SIGKILL);
    int ignored = 0;
    while (::waitpid(state_->pid, &ignored, 0) < 0 && errno == EINTR) {
    }
}

pid_t Running::pid() const {
    return state_->pid;
}

std::optional<CapturedProcessResult> Running::poll() {
    int waitStatus = 0;
    pid_t result;
    do {
        result = ::waitpid(state_->pid, &waitStatus, WNOHANG);
    } while (result < 0 && errno == EINTR);
    if (result == 0)
        return std::nullopt;
    if (result < 0) {
        const int err = errno;
        state_->pid = -1;
        throw std::system_error(err, std::generic_category(), "could not wait for the child");
    }
    return collect(waitStatus);
}

CapturedProcessResult Running::wait() {
    int waitStatus = 0;
    while (::waitpid(state_->pid, &waitStatus, 0) < 0) {
        if (errno != EINTR) {
            const int err = errno;
            state_->pid = -1;
            throw std::system_error(err, std::generic_category(), "could not wait for the child");
        }
    }
    return collect(waitStatus);
}

CapturedProcessResult Running::collect(int waitStatus) {
    state_->pid = -1;
    state_->out.sync();
    state_->err.sync();
    CapturedProcessResult result;
    result.status = statusFromWait(waitStatus);
    result.output = decodeStrictly(state_->out.readAll());
    result.errors = decodeStrictly(state_->err.readAll());
    return result;
}

Running start(const std::string& executable, const std::vector<std::string>& arguments,
              int standardInput) {
    const std::string uuid = makeUpperUuid();
    const std::string dir = temporaryFolder();

    // A failure to make the capture files happens before any child exists; what was already
    // created is left as it is, like any other half-made temporary file.
    auto state = std::make_unique<Running::State>();
    state->out.create(dir + "/zentho-launcher-stdout-" + uuid);
    state->err.create(dir + "/zentho-launcher-stderr-" + uuid);
    state->out.armRemoval();
    state->err.armRemoval();

    std::vector<const char*> argv;
    argv.reserve(arguments.size() + 2);
    // The program's name as argv[0] is how every POSIX program expects to be called; it is not
    // one of the caller's arguments.
    argv.push_back(executable.c_str());
    for (const std::string& argument : arguments)
        argv.push_back(argument.c_str());
    argv.push_back(nullptr);

    state->pid = spawnTiedToParent(executable, argv, state->out.fd(), state->err.fd(), standardInput);
    // A child fed through a pipe runs as long as a download does, so a launcher killed meanwhile
    // must not leave its capture files behind: both are read through their descriptors only.
    if (standardInput >= 0) {
        state->out.removeNow();
        state->err.removeNow();
    }
    return Running(std::move(state));
}

CapturedProcessResult run(const std::string& executable, const std::vector<std::string>& arguments) {
    return start(executable, arguments).wait();
}

} // namespace ProcessCapture
