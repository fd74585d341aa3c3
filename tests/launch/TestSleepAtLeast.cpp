// The sleep behind the start-up watch, on a clock the test moves: every wait that ends early is
// followed by another for the rest, so the watch is never cut short, whatever the timers do.

#include "launch/GameLauncher.h"
#include "launch/SleepAtLeast.h"

#include <QTest>

#include <chrono>

using namespace std::chrono_literals;

namespace {

QCoro::Task<void> noWait() {
    co_return;
}

// A clock that only moves when it is waited on: each wait moves it by the next of `moves`, or by
// exactly what was asked once they have run out. It never suspends, so a sleep on it is over by
// the time the call returns.
struct ScriptedClock {
    std::chrono::steady_clock::time_point now{};
    QList<std::chrono::microseconds> moves;
    QList<std::chrono::milliseconds> asked; // every wait, in order

    WaitClock clock() {
        return {[this] { return now; },
                [this](std::chrono::milliseconds duration) {
                    asked.append(duration);
                    now +=
                        moves.isEmpty() ? std::chrono::microseconds(duration) : moves.takeFirst();
                    return noWait();
                }};
    }
    std::chrono::microseconds advanced() const {
        return std::chrono::duration_cast<std::chrono::microseconds>(now.time_since_epoch());
    }
};

} // namespace

class TestSleepAtLeast : public QObject {
    Q_OBJECT

private slots:
    // How a sleep of 750 ms goes, for waits that each move the clock by `moves` in turn (by what
    // they asked once those have run out): the waits it asks for, and it ends having slept its
    // whole time.
    void theSleepLastsItsWholeTime_data() {
        using Waits = QList<std::chrono::milliseconds>;
        QTest::addColumn<QList<std::chrono::microseconds>>("moves");
        QTest::addColumn<Waits>("asked");
        QTest::newRow("a wait that ends on time is the only one")
            << QList<std::chrono::microseconds>{} << Waits{750ms};
        // The last of them a fraction of a millisecond early: the rest is rounded up.
        QTest::newRow("waits that end early are followed by others for the rest")
            << QList<std::chrono::microseconds>{700ms, 49ms, 900us} << Waits{750ms, 50ms, 1ms, 1ms};
        // The twin: a clock that does not move never ends the sleep, however often its waits end.
        QTest::newRow("waits that take no time end nothing")
            << QList<std::chrono::microseconds>{0us, 0us, 0us} << Waits{750ms, 750ms, 750ms, 750ms};
        QTest::newRow("a clock past the end ends it at once")
            << QList<std::chrono::microseconds>{2s} << Waits{750ms};
    }
    void theSleepLastsItsWholeTime() {
        QFETCH(QList<std::chrono::microseconds>, moves);
        QFETCH(QList<std::chrono::milliseconds>, asked);
        ScriptedClock scripted;
        scripted.moves = moves;
        const QCoro::Task<void> sleep = sleepAtLeast(750ms, scripted.clock());
        QVERIFY(sleep.isReady());
        QCOMPARE(scripted.asked, asked);
        QVERIFY(scripted.advanced() >= 750ms);
    }

    void aSleepOfNothingAsksForNoWait() {
        ScriptedClock scripted;
        QVERIFY(sleepAtLeast(0ms, scripted.clock()).isReady());
        QVERIFY(scripted.asked.isEmpty());
    }

    // The launcher's watch is this sleep for 750 ms...
    void theLaunchersWatchSleeps750Milliseconds() {
        QCOMPARE(GameLauncher::startupWatch, 750ms);
        ScriptedClock scripted;
        scripted.moves = {749ms};
        const QCoro::Task<void> watch =
            GameLauncher::monotonicWatch(GameLauncher::startupWatch, scripted.clock())(0);
        QVERIFY(watch.isReady());
        QCOMPARE(scripted.asked, (QList<std::chrono::milliseconds>{750ms, 1ms}));
    }
    // ...on the monotonic clock, whose readings it takes.
    void theLaunchersClockIsTheMonotonicClock() {
        const auto before = std::chrono::steady_clock::now();
        const auto reading = WaitClock::monotonic().now();
        const auto after = std::chrono::steady_clock::now();
        QVERIFY(before <= reading && reading <= after);
    }
};

QTEST_GUILESS_MAIN(TestSleepAtLeast)
#include "TestSleepAtLeast.moc"
