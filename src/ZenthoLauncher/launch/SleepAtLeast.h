#pragma once

#include <QCoroTask>

#include <chrono>
#include <functional>

// A clock to wait on: its time, and a wait for about a given duration that does not hold up the
// event loop. The launcher waits on the monotonic clock; a test hands in a clock it advances
// itself, so what happens when a wait ends early is decided by the test, not by a busy machine.
struct WaitClock {
    std::function<std::chrono::steady_clock::time_point()> now;
    // May end early: Qt's timers round to whole milliseconds and may fire before the time asked.
    std::function<QCoro::Task<void>(std::chrono::milliseconds)> wait;

    // std::chrono::steady_clock, and a precise Qt timer.
    static WaitClock monotonic();
};

// Suspends until at least `duration` has passed on `clock`. Every wait that ends early is
// followed by another for what is left, so the sleep is never cut short.
QCoro::Task<void> sleepAtLeast(std::chrono::milliseconds duration,
                               WaitClock clock = WaitClock::monotonic());
