#include "launch/SleepAtLeast.h"

#include <QTimer>

#include <QCoroTimer>

namespace {

// A precise timer, because Qt's default (coarse) timers may fire up to 5% early.
QCoro::Task<void> preciseWait(std::chrono::milliseconds duration) {
    QTimer timer;
    timer.setTimerType(Qt::PreciseTimer);
    timer.setSingleShot(true);
    timer.start(duration);
    co_await timer;
}

} // namespace

WaitClock WaitClock::monotonic() {
    return {[] { return std::chrono::steady_clock::now(); }, preciseWait};
}

QCoro::Task<void> sleepAtLeast(std::chrono::milliseconds duration, WaitClock clock) {
    using namespace std::chrono;
    const auto deadline = clock.now() + duration;
    for (;;) {
        const auto left = ceil<milliseconds>(deadline - clock.now());
        if (left <= milliseconds::zero())
            co_return;
        co_await clock.wait(left);
    }
}
