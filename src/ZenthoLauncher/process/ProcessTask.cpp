#include "process/ProcessTask.h"

#include <QSocketNotifier>

#include <QCoroSignal>
#include <QCoroTimer>

#include <chrono>
#include <memory>

#include <sys/syscall.h>
#include <unistd.h>

namespace {

// Through the system call itself: glibc 2.36's <sys/pidfd.h> lacks C linkage for C++ callers.
int openProcessDescriptor(pid_t pid) {
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
}

struct Descriptor {
    explicit Descriptor(int fd) : fd(fd) {}
    ~Descriptor() {
        if (fd >= 0)
            ::close(fd);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int fd;
};

// Passes the notifier's signal (a process descriptor or a run's end descriptor has become
// readable) on as one without Qt's private tag, which cannot be awaited safely: the awaiter would
// bind a reference to a tag that does not exist.
class EndNotice : public QObject {
    Q_OBJECT

public:
    explicit EndNotice(int descriptor) : notifier_(descriptor, QSocketNotifier::Read) {
        connect(&notifier_, &QSocketNotifier::activated, this, &EndNotice::ended);
    }

signals:
    void ended();

private:
    QSocketNotifier notifier_;
};

} // namespace

QCoro::Task<CapturedProcessResult> runWithoutBlocking(std::string executable,
                                                      std::vector<std::string> arguments) {
    ProcessCapture::Running child = ProcessCapture::start(executable, arguments);
    // Taken while the child cannot have been collected yet, so it can only refer to our child.
    const Descriptor descriptor(openProcessDescriptor(child.pid()));
    std::unique_ptr<EndNotice> ended;
    if (descriptor.fd >= 0)
        ended = std::make_unique<EndNotice>(descriptor.fd);
    for (;;) {
        if (auto result = child.poll())
            co_return std::move(*result);
        if (ended) // readable once the process has ended
            co_await qCoro(ended.get(), &EndNotice::ended);
        else
            co_await QCoro::sleepFor(std::chrono::milliseconds(10));
    }
}

QCoro::Task<InflatedTarRun::Outcome> outcomeWithoutBlocking(InflatedTarRun& run) {
    EndNotice ended(run.endDescriptor());
    for (;;) {
        if (auto outcome = run.outcome())
            co_return std::move(*outcome);
        co_await qCoro(&ended, &EndNotice::ended);
    }
}

#include "ProcessTask.moc"
