#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

// Lets this process open only `spare` more file descriptors until the object goes away: the one
// honest way to make a file creation fail for a process that runs as root. The sanitizer build's
// type checks probe memory through a pipe the first time they meet a type; a test that throws
// and inspects an exception under the limit has it meet that type once before (seen()).
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

    // Lets the sanitizer's type checks meet `Error` while descriptors are still to be had.
    template <typename Error>
    static void seen() {
        try {
            throw Error(0, "seen before the limit");
        } catch (const Error& error) {
            (void)error.code();
        }
    }

private:
    rlimit saved_{};
    bool active_ = false;
};
