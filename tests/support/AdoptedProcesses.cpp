#include "AdoptedProcesses.h"

#include "RealLauncher.h"
#include "StandinGames.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QTest>

#include <sys/wait.h>
#include <unistd.h>

namespace {

// Every process whose parent is this one, from /proc.
QList<qint64> children() {
    QList<qint64> found;
    const qint64 self = ::getpid();
    for (const QString& entry : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        bool number = false;
        const qint64 pid = entry.toLongLong(&number);
        if (number && StandinGames::parentProcess(pid) == std::optional<qint64>(self))
            found << pid;
    }
    return found;
}

} // namespace

AdoptedProcesses::AdoptedProcesses() : known_(children()) {
    RealLauncher::becomeSubreaper();
}

AdoptedProcesses::~AdoptedProcesses() {
    endAll();
}

QList<qint64> AdoptedProcesses::running() {
    QList<qint64> alive;
    for (const qint64 pid : children()) {
        if (known_.contains(pid))
            continue;
        // Only a child that has ended is collected; one that runs stays as it is.
        if (::waitpid(pid_t(pid), nullptr, WNOHANG) == 0)
            alive << pid;
    }
    return alive;
}

bool AdoptedProcesses::waitUntilAllEnded(int timeoutMs) {
    return QTest::qWaitFor([this] { return running().isEmpty(); }, timeoutMs);
}

void AdoptedProcesses::endAll() {
    // A child that ends hands its own children to this process, their subreaper: a launcher
    // ended here may just have started its game. So look again until none is left (a bound
    // against a process that forks as fast as it is ended).
    for (int round = 0; round < 20; ++round) {
        const QList<qint64> alive = running();
        if (alive.isEmpty())
            return;
        for (const qint64 pid : alive)
            RealLauncher::terminateAndCollect(pid);
    }
}

void AdoptedProcesses::endRunningFrom(const QString& folder) {
    for (const qint64 pid : RealLauncher::processesRunningFrom(folder))
        if (pid != ::getpid())
            RealLauncher::terminateAndCollect(pid);
}
