#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

// Lets this process open only `spare` more file descriptors until the object goes away: the one
// honest way to make a file creation fail for a process that runs as root.
class DescriptorLimit {
public:
    explicit DescriptorLimit(int spare) {
        const int lowestFree = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (lowestFree >= 0)
            ::close(lowestFree);
        active_ = lowestFree >= 0 && ::getrlimit(RLIMIT_NOFILE, &saved_) == 0;
        if (!active_)
            return;
        rlimit tight = saved_;
        tight.rlim_cur = rlim_t(lowestFree + spare);
        active_ = ::setrlimit(RLIMIT_NOFILE, &tight) == 0;
    }
    ~DescriptorLimit() {
        if (active_)
            ::setrlimit(RLIMIT_NOFILE, &saved_);
    }
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;

    bool active() const { return active_; }

private:
    rlimit saved_{};
    bool active_ = false;
};
