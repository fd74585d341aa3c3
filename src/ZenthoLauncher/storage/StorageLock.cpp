#include "storage/StorageLock.h"

#include "errors/Failure.h"
#include "errors/FileError.h"

#include <QDeadlineTimer>
#include <QFile>

#include <QCoroTimer>

#include <cerrno>
#include <chrono>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace {
// How often a waiting launcher looks again; an install holds the lock for seconds to minutes.
constexpr std::chrono::milliseconds kRetryInterval{100};
} // namespace

QCoro::Task<StorageLock> StorageLock::acquire(QString root, std::chrono::milliseconds patience) {
    const QDeadlineTimer deadline(patience);
    const int fd = ::open(QFile::encodeName(root).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        throwFileError(QStringLiteral("could not open %1").arg(root));
    StorageLock lock(fd);
    for (;;) {
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0)
            co_return lock;
        if (errno != EWOULDBLOCK && errno != EINTR)
            throwFileError(QStringLiteral("could not lock %1").arg(root));
        // Another launcher is installing into the same storage; it usually lets go within the
        // network limits, but one that hangs or holds on must not block this one for ever.
        if (deadline.hasExpired())
            throw StorageBusyError(QStringLiteral("Another launcher has kept %1 busy for %2 s; try again once it "
                                                  "is done.")
                                       .arg(root)
                                       .arg(std::chrono::duration_cast<std::chrono::seconds>(patience).count()));
        co_await QCoro::sleepFor(kRetryInterval);
    }
}

StorageLock::StorageLock(StorageLock&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

StorageLock::~StorageLock() {
    if (fd_ >= 0)
        ::close(fd_); // closing the only descriptor releases the lock
}
