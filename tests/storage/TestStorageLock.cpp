#include "TaskOutcome.h"

#include "errors/Failure.h"
#include "errors/FileError.h"
#include "storage/StorageLock.h"

#include <QCoroTask>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <chrono>
#include <optional>

// One install at a time per storage folder, across processes; a holder that dies frees it.
class TestStorageLock : public QObject {
    Q_OBJECT

    // Holds `folder` in another process (flock(1)), started and holding on return, until the test
    // closes the holder's standard input (or kills it).
    static void holdElsewhere(QProcess& holder, const QString& folder) {
        holder.start(QStringLiteral("/usr/bin/flock"),
                     {QStringLiteral("-x"), QStringLiteral("-o"), folder, QStringLiteral("/bin/sh"),
                      QStringLiteral("-c"), QStringLiteral("echo held; exec cat >/dev/null")});
        QVERIFY(holder.waitForReadyRead(60000));
    }

private slots:
    // Nothing holds the folder: it is taken before the call returns, without a turn of the event
    // loop.
    void freeFolderIsTakenAtOnce() {
        QTemporaryDir dir;
        QCoro::Task<StorageLock> acquire = StorageLock::acquire(dir.path());
        QVERIFY(acquire.isReady());
    }

    // The twin: a folder another process holds is waited for, with the event loop running, until
    // that process lets it go.
    void heldFolderIsWaitedForUntilReleased() {
        QTemporaryDir dir;
        QProcess holder;
        holdElsewhere(holder, dir.path());
        bool acquired = false;
        // Kept in a variable: the coroutine reaches `acquired` through this closure.
        const auto acquire = [&]() -> QCoro::Task<void> {
            const StorageLock lock = co_await StorageLock::acquire(dir.path());
            acquired = true;
        };
        QCoro::Task<void> waiting = acquire();
        QVERIFY(!acquired);
        // Handled while the lock is awaited, after at least one more look at it: Qt fires due
        // timers in the order of their deadlines, and the next look is due first.
        std::optional<bool> acquiredWhileHeld;
        QTimer::singleShot(300, this, [&] {
            acquiredWhileHeld = acquired;
            holder.closeWriteChannel(); // the holder ends, and its lock with it
        });
        QCoro::waitFor(std::move(waiting));
        QCOMPARE(acquiredWhileHeld, std::optional<bool>(false));
        QVERIFY(acquired);
        QTRY_COMPARE_WITH_TIMEOUT(holder.state(), QProcess::NotRunning, 60000);
    }

    // A holder that never lets go (a hung launcher) is given up on after the patience, with a
    // reason the flow shows like any other failure; the twin above is let in once released.
    void holderThatNeverLetsGoIsGivenUpOn() {
        QTemporaryDir dir;
        QProcess holder;
        holdElsewhere(holder, dir.path());
        const std::exception_ptr error = waitForOutcome([&]() -> QCoro::Task<void> {
            co_await StorageLock::acquire(dir.path(), std::chrono::milliseconds(1000));
        }());
        QVERIFY(error);
        try {
            std::rethrow_exception(error);
        } catch (const StorageBusyError& busy) {
            QCOMPARE(busy.description(), QStringLiteral("Another launcher has kept %1 busy for 1 s; try again once it is done.")
                                             .arg(dir.path()));
        }
        // Still held: giving up took nothing from the holder.
        QCOMPARE(holder.state(), QProcess::Running);
        holder.closeWriteChannel();
        QVERIFY(holder.waitForFinished(60000));
    }

    void holdingKeepsOthersOutUntilReleased() {
        QTemporaryDir dir;
        std::optional<StorageLock> held;
        QCoro::waitFor([&]() -> QCoro::Task<void> {
            held.emplace(co_await StorageLock::acquire(dir.path()));
        }());
        QProcess probe;
        probe.start(QStringLiteral("/usr/bin/flock"), {QStringLiteral("-n"), dir.path(), QStringLiteral("/bin/true")});
        QVERIFY(probe.waitForFinished(60000));
        QCOMPARE(probe.exitCode(), 1);
        held.reset();
        probe.start(QStringLiteral("/usr/bin/flock"), {QStringLiteral("-n"), dir.path(), QStringLiteral("/bin/true")});
        QVERIFY(probe.waitForFinished(60000));
        QCOMPARE(probe.exitCode(), 0);
    }

    void killedHolderFreesTheFolder() {
        QTemporaryDir dir;
        QProcess holder;
        holdElsewhere(holder, dir.path());
        holder.kill(); // SIGKILL: nothing of the holder gets to unlock
        QVERIFY(holder.waitForFinished(60000));
        // The kernel let go of the lock when the holder ended: it is taken at once.
        QVERIFY(StorageLock::acquire(dir.path()).isReady());
    }

    void missingFolderIsAFileError() {
        QTemporaryDir dir;
        const std::exception_ptr error = waitForOutcome([&]() -> QCoro::Task<void> {
            co_await StorageLock::acquire(dir.filePath(QStringLiteral("missing")));
        }());
        QVERIFY_THROWS_EXCEPTION(FileError, std::rethrow_exception(error));
    }
};

QTEST_GUILESS_MAIN(TestStorageLock)
#include "TestStorageLock.moc"
