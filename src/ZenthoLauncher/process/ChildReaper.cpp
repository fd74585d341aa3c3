#include "process/ChildReaper.h"

#include <QCoreApplication>
#include <QSocketNotifier>
#include <QTimer>

#include <cerrno>
#include <sys/wait.h>
#include <unistd.h>

namespace {
int pending = 0;
} // namespace

void ChildReaper::adopt(pid_t pid, int pidfd) {
    // Owned by the application object: deleted with it when the launcher ends first.
    new ChildReaper(pid, pidfd, QCoreApplication::instance());
}

int ChildReaper::pendingCount() {
    return pending;
}

ChildReaper::ChildReaper(pid_t pid, int pidfd, QObject* parent)
    : QObject(parent), pid_(pid), pidfd_(pidfd) {
    ++pending;
    if (pidfd_ >= 0) {
        // A process descriptor becomes readable once its process has ended.
        notifier_ = new QSocketNotifier(pidfd_, QSocketNotifier::Read, this);
        connect(notifier_, &QSocketNotifier::activated, this, &ChildReaper::collect);
    } else {
        poll_ = new QTimer(this);
        poll_->setInterval(250);
        connect(poll_, &QTimer::timeout, this, &ChildReaper::collect);
        poll_->start();
    }
    // The child may have ended before we got here; a descriptor reports that at once, a poll
    // only after its first interval, so look now as well.
    QTimer::singleShot(0, this, &ChildReaper::collect);
}

ChildReaper::~ChildReaper() {
    --pending;
    if (notifier_)
        notifier_->setEnabled(false);
    if (pidfd_ >= 0)
        ::close(pidfd_);
}

void ChildReaper::collect() {
    if (pid_ <= 0)
        return;
    int status = 0;
    pid_t result;
    do {
        result = ::waitpid(pid_, &status, WNOHANG);
    } while (result < 0 && errno == EINTR);
    if (result == 0)
        return; // still running
    // Collected, or no longer ours to collect (ECHILD): either way there is nothing left to do.
    pid_ = -1;
    if (notifier_)
        notifier_->setEnabled(false);
    if (poll_)
        poll_->stop();
    deleteLater();
}
