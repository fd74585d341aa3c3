#pragma once

#include <QObject>

#include <sys/types.h>

class QSocketNotifier;
class QTimer;

// Collects the exit of a child this process started and then let go (a game that is left running
// on its own), so that it never lingers as a zombie while the launcher keeps running. Each
// adopted child is waited for by its own process identifier only, and never with a blocking
// wait, so children that other code waits for are left alone; no SIGCHLD handler is involved.
class ChildReaper : public QObject {
public:
    // Takes over `pid` and, when it is not -1, `pidfd` (a descriptor from pidfd_open, which the
    // reaper closes). Without a descriptor the child is looked at every quarter of a second
    // instead. The reaper lives on the application object and deletes itself once the child is
    // collected, so a launcher that quits before its game ends leaves nothing behind.
    static void adopt(pid_t pid, int pidfd);

    // How many adopted children have not been collected yet.
    static int pendingCount();

    ~ChildReaper() override;

private:
    ChildReaper(pid_t pid, int pidfd, QObject* parent);
    void collect();

    pid_t pid_;
    int pidfd_;
    QSocketNotifier* notifier_ = nullptr;
    QTimer* poll_ = nullptr;
};
