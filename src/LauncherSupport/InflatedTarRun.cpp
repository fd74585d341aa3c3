#include <InflatedTarRun.h>

#include <GzipMemberInflater.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <deque>
#include <mutex>
#include <system_error>

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// A bigger pipe means fewer switches between the feeding thread and tar; the system's limit for
// unprivileged processes is usually exactly this.
constexpr int pipeSize = 1024 * 1024;
constexpr std::size_t fileReadSize = 1024 * 1024;

void closeDescriptor(int& fd) {
    if (fd >= 0)
        ::close(fd);
    fd = -1;
}

// False once tar no longer reads (it has exited or closed its input).
bool writeAll(int fd, const char* bytes, std::size_t size) {
    while (size > 0) {
        const ssize_t written = ::write(fd, bytes, size);
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        bytes += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

// A tar that stops reading early must not end the launcher with SIGPIPE: on this thread the
// signal stays blocked, so a write into a closed pipe fails with EPIPE instead, and whatever
// signal that left pending is taken away before the thread ends.
class SigpipeBlocked {
public:
    SigpipeBlocked() {
        sigemptyset(&set_);
        sigaddset(&set_, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &set_, nullptr);
    }
    ~SigpipeBlocked() {
        const timespec now{};
        while (sigtimedwait(&set_, nullptr, &now) == SIGPIPE) {
        }
    }
    SigpipeBlocked(const SigpipeBlocked&) = delete;
    SigpipeBlocked& operator=(const SigpipeBlocked&) = delete;

private:
    sigset_t set_;
};

} // namespace

struct InflatedTarRun::Shared {
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<std::string> chunks;
    std::size_t queuedBytes = 0;
    std::uint64_t keptBytes = 0; // appended bytes that were queued, the file's part starts here
    bool dropping = false;       // the queue overflowed or the bytes are not gzip: the rest comes from the file
    std::optional<std::string> finishPath;
    std::atomic<bool> stopping = false;
    bool reaped = false; // tar's process id is no longer ours to signal
    std::optional<Outcome> outcome;

    std::optional<ProcessCapture::Running> tar;
    pid_t pid = -1;
    int input = -1; // the write end of tar's standard input
    int ended = -1; // eventfd, written once the outcome is set

    // Kills tar unless it has been collected already, when its id may belong to someone else.
    void killTar() {
        std::lock_guard lock(mutex);
        if (!reaped)
            ::kill(pid, SIGKILL);
    }
};

InflatedTarRun::InflatedTarRun(const std::string& tar, const std::vector<std::string>& arguments)
    : shared_(std::make_unique<Shared>()) {
    Shared& s = *shared_;
    int pipe[2];
    if (::pipe2(pipe, O_CLOEXEC) != 0)
        throw std::system_error(errno, std::generic_category(), "could not make a pipe for tar");
    s.input = pipe[1];
    ::fcntl(s.input, F_SETPIPE_SZ, pipeSize); // a smaller pipe only costs a little speed
    s.ended = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (s.ended < 0) {
        const int err = errno;
        ::close(pipe[0]);
        closeDescriptor(s.input);
        throw std::system_error(err, std::generic_category(), "could not make an eventfd");
    }
    try {
        s.tar.emplace(ProcessCapture::start(tar, arguments, pipe[0]));
    } catch (...) {
        ::close(pipe[0]);
        closeDescriptor(s.input);
        closeDescriptor(s.ended);
        throw;
    }
    ::close(pipe[0]);
    s.pid = s.tar->pid();
    // Started on this thread: tar is tied to the thread that started it, which outlives the run.
    feeder_ = std::thread(&InflatedTarRun::feed, this);
}

InflatedTarRun::~InflatedTarRun() {
    Shared& s = *shared_;
    if (feeder_.joinable()) {
        {
            std::lock_guard lock(s.mutex);
            s.stopping = true;
        }
        s.wake.notify_all();
        s.killTar(); // a feeding thread blocked on the pipe gets EPIPE
        feeder_.join();
    }
    closeDescriptor(s.input);
    closeDescriptor(s.ended);
}

void InflatedTarRun::append(const char* bytes, std::size_t size) {
    Shared& s = *shared_;
    if (size == 0)
        return;
    {
        std::lock_guard lock(s.mutex);
        if (s.dropping || s.finishPath)
            return;
        // Bytes that do not open a gzip member are never inflated: refused here, before they are
        // queued, however long the feeding thread takes to see them.
        static constexpr unsigned char magic[] = {0x1f, 0x8b};
        for (std::size_t i = 0; s.keptBytes + i < sizeof magic && i < size; ++i) {
            if (static_cast<unsigned char>(bytes[i]) != magic[s.keptBytes + i]) {
                s.dropping = true;
                return;
            }
        }
        if (s.queuedBytes + size > maximumQueuedBytes) {
            s.dropping = true;
            return;
        }
        s.chunks.emplace_back(bytes, size);
        s.queuedBytes += size;
        s.keptBytes += size;
    }
    s.wake.notify_all();
}

void InflatedTarRun::finishFrom(const std::string& path) {
    {
        std::lock_guard lock(shared_->mutex);
        if (!shared_->finishPath)
            shared_->finishPath = path;
    }
    shared_->wake.notify_all();
}

int InflatedTarRun::endDescriptor() const {
    return shared_->ended;
}

std::optional<InflatedTarRun::Outcome> InflatedTarRun::outcome() {
    std::lock_guard lock(shared_->mutex);
    return shared_->outcome;
}

InflatedTarRun::Outcome InflatedTarRun::wait() {
    std::unique_lock lock(shared_->mutex);
    shared_->wake.wait(lock, [this] { return shared_->outcome.has_value(); });
    return *shared_->outcome;
}

void InflatedTarRun::feed() {
    Shared& s = *shared_;
    const SigpipeBlocked quietPipe;
    GzipMemberInflater gzip;
    bool tarReads = true;
    const GzipMemberInflater::Output toTar = [&](const char* bytes, std::size_t size) {
        // Inflating goes on after tar has stopped reading: the member is still checked to its end.
        if (tarReads)
            tarReads = writeAll(s.input, bytes, size);
    };

    bool fed = false; // every byte of the archive went through the inflater
    for (;;) {
        std::string chunk;
        std::string path;
        std::uint64_t offset = 0;
        {
            std::unique_lock lock(s.mutex);
            s.wake.wait(lock, [&] { return s.stopping || !s.chunks.empty() || s.finishPath; });
            if (s.stopping)
                break;
            if (!s.chunks.empty()) {
                chunk = std::move(s.chunks.front());
                s.chunks.pop_front();
                s.queuedBytes -= chunk.size();
            } else {
                path = *s.finishPath;
                offset = s.keptBytes;
            }
        }
        if (!chunk.empty()) {
            if (!gzip.feed(chunk.data(), chunk.size(), toTar))
                break; // not an archive for this path; its tar run no longer matters
            continue;
        }
        const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (file < 0)
            break;
        std::vector<char> buffer(fileReadSize);
        for (;;) {
            const ssize_t got = ::pread(file, buffer.data(), buffer.size(), off_t(offset));
            if (got < 0 && errno == EINTR)
                continue;
            if (got <= 0) {
                fed = got == 0;
                break;
            }
            offset += std::uint64_t(got);
            if (s.stopping || !gzip.feed(buffer.data(), std::size_t(got), toTar))
                break;
        }
        ::close(file);
        break;
    }

    const bool clean = fed && gzip.complete() && !s.stopping;
    {
        // Nothing reads the queue any more: what waits there, and whatever is still appended,
        // would only hold memory while an endless body keeps arriving.
        std::lock_guard lock(s.mutex);
        s.dropping = true;
        s.chunks.clear();
        s.queuedBytes = 0;
    }
    closeDescriptor(s.input); // tar sees the end of its input
    if (!clean)
        s.killTar(); // its result will not be used, so it need not go on
    siginfo_t info{};
    while (::waitid(P_PID, id_t(s.pid), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
    }
    {
        std::lock_guard lock(s.mutex);
        s.reaped = true;
    }
    Outcome outcome;
    try {
        outcome.tar = s.tar->wait();
        outcome.clean = clean && outcome.tar.status == 0;
    } catch (const std::exception&) {
        outcome.clean = false; // tar's output could not be read back
    }
    {
        std::lock_guard lock(s.mutex);
        s.outcome = std::move(outcome);
    }
    s.wake.notify_all();
    const std::uint64_t one = 1;
    while (::write(s.ended, &one, sizeof one) < 0 && errno == EINTR) {
    }
}
