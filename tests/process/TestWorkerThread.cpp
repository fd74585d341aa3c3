#include "TaskOutcome.h"

#include "process/WorkerThread.h"

#include <QTest>

#include <stdexcept>

namespace {

// Runs `rounds` pieces of work that end at once, one after the other, and counts those that came back.
QCoro::Task<void> runRounds(int rounds, int* done) {
    for (int i = 0; i < rounds; ++i) {
        const int value = co_await onWorkerThread([i] { return i; });
        if (value == i)
            ++*done;
    }
}

} // namespace

// Work handed to a thread of its own comes back to the coroutine that handed it over, however
// quickly it ends.
class TestWorkerThread : public QObject {
    Q_OBJECT

private slots:
    // A thread that ends before its coroutine waits for it is not missed: many such rounds all
    // come back (before, one now and then ended between the look at the thread and the wait,
    // and the coroutine waited for ever).
    void workThatEndsAtOnceComesBack() {
        int done = 0;
        QCOMPARE(waitForOutcome(runRounds(20000, &done)), std::exception_ptr());
        QCOMPARE(done, 20000);
    }

    // The twin: what the work throws reaches the coroutine.
    void whatTheWorkThrowsIsThrownThere() {
        const auto failing = []() -> QCoro::Task<void> {
            co_await onWorkerThread([] { throw std::runtime_error("disk gone"); });
        };
        const std::exception_ptr error = waitForOutcome(failing());
        QVERIFY(error);
        try {
            std::rethrow_exception(error);
        } catch (const std::runtime_error& failure) {
            QCOMPARE(QByteArray(failure.what()), QByteArray("disk gone"));
        }
    }
};

QTEST_GUILESS_MAIN(TestWorkerThread)
#include "TestWorkerThread.moc"
