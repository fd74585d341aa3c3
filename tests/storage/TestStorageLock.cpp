#include "TaskOutcome.h"

#include "errors/FileError.h"
#include "storage/StorageLock.h"

#include <QCoroTask>
#include <QCoroTimer>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <chrono>
#include <optional>

// One install at a time per storage folder, across processes; a holder that dies frees it.
class TestStorageLock : public QObject {
    Q_OBJECT

    // Holds `folder` in another process (flock(1)) for `seconds`, started and holding on return.
    static void holdElsewhere(QProcess& holder, const QString& folder, double seconds) {
        holder.start(QStringLiteral("/usr/bin/flock"),
                     {QStringLiteral("-x"), QStringLiteral("-o"), folder, QStringLiteral("/bin/sh"), QStringLiteral("-c"),
                      QStringLiteral("echo held; sleep %1").arg(seconds)});
        QVERIFY(holder.waitForReadyRead(5000));
    }

private slots:
    void freeFolderIsTakenAtOnce() {
        QTemporaryDir dir;
        QElapsedTimer clock;
        clock.start();
        QCoro::waitFor([&]() -> QCoro::Task<void> {
            const StorageLock lock = co_await StorageLock::acquire(dir.path());
        }());
        QVERIFY(clock.elapsed() < 1000);
    }

    // The twin: a folder another process holds is waited for, with the event loop running.
    void heldFolderIsWaitedForUntilReleased() {
        QTemporaryDir dir;
        QProcess holder;
        holdElsewhere(holder, dir.path(), 0.8);
        int ticks = 0;
        QTimer timer;
        connect(&timer, &QTimer::timeout, [&] { ++ticks; });
        timer.start(20);
        QElapsedTimer clock;
        clock.start();
        QCoro::waitFor([&]() -> QCoro::Task<void> {
            const StorageLock lock = co_await StorageLock::acquire(dir.path());
        }());
        QVERIFY2(clock.elapsed() >= 500, qPrintable(QString::number(clock.elapsed())));
        QVERIFY(ticks >= 10);
        holder.waitForFinished(5000);
    }

    void holdingKeepsOthersOutUntilReleased() {
        QTemporaryDir dir;
        std::optional<StorageLock> held;
        QCoro::waitFor([&]() -> QCoro::Task<void> {
            held.emplace(co_await StorageLock::acquire(dir.path()));
        }());
        QProcess probe;
        probe.start(QStringLiteral("/usr/bin/flock"), {QStringLiteral("-n"), dir.path(), QStringLiteral("/bin/true")});
        QVERIFY(probe.waitForFinished(5000));
        QCOMPARE(probe.exitCode(), 1);
        held.reset();
        probe.start(QStringLiteral("/usr/bin/flock"), {QStringLiteral("-n"), dir.path(), QStringLiteral("/bin/true")});
        QVERIFY(probe.waitForFinished(5000));
        QCOMPARE(probe.exitCode(), 0);
    }

    void killedHolderFreesTheFolder() {
        QTemporaryDir dir;
        QProcess holder;
        holdElsewhere(holder, dir.path(), 30);
        holder.kill(); // SIGKILL: nothing of the holder gets to unlock
        holder.waitForFinished(5000);
        QElapsedTimer clock;
        clock.start();
        QCoro::waitFor([&]() -> QCoro::Task<void> {
            const StorageLock lock = co_await StorageLock::acquire(dir.path());
        }());
        QVERIFY(clock.elapsed() < 2000);
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
