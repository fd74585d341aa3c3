#include "TaskOutcome.h"

#include "archive/Archive.h"
#include "process/ProcessTask.h"

#include "errors/LauncherError.h"

#include <QCoroTask>
#include <QDir>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>


namespace {

// How many times a 20 ms timer fired while `work` ran: the main thread's event loop at work.
template <typename Work>
int ticksDuring(Work work) {
    int ticks = 0;
    QTimer timer;
    timer.setInterval(20);
    QObject::connect(&timer, &QTimer::timeout, [&] { ++ticks; });
    timer.start();
    work();
    return ticks;
}

} // namespace

// A child run from a coroutine must leave the window's event loop running, and must give exactly
// what the blocking run gives.
class TestProcessTask : public QObject {
    Q_OBJECT

private slots:
    void eventLoopRunsWhileTheChildRuns() {
        const int ticks = ticksDuring([] {
            const CapturedProcessResult result = QCoro::waitFor(
                runWithoutBlocking("/bin/sh", {"-c", "sleep 0.6; printf done; exit 4"}));
            QCOMPARE(result.status, 4);
            QCOMPARE(result.output, std::string("done"));
        });
        QVERIFY2(ticks >= 10, qPrintable(QString::number(ticks)));
    }
    // The twin: the blocking run holds the loop up for the child's whole life.
    void blockingRunStopsTheEventLoop() {
        const int ticks = ticksDuring([] {
            QCOMPARE(ProcessCapture::run("/bin/sh", {"-c", "sleep 0.6"}).status, 0);
            QCoreApplication::processEvents();
        });
        QVERIFY2(ticks <= 1, qPrintable(QString::number(ticks)));
    }

    void startErrorsPassThrough() {
        const std::exception_ptr error = waitForOutcome([]() -> QCoro::Task<void> {
            co_await runWithoutBlocking("/nonexistent/program", {});
        }());
        QVERIFY_THROWS_EXCEPTION(std::system_error, std::rethrow_exception(error));
    }

    void tarGivesTheSameOutputAndErrorsAsTheBlockingRun() {
        QTemporaryDir dir;
        const QString missing = dir.filePath(QStringLiteral("missing.tar.gz"));
        QString blockingError;
        QString taskError;
        try {
            runTar(listArguments(missing));
        } catch (const LauncherError& error) {
            blockingError = error.errorDescription();
        }
        const std::exception_ptr error = waitForOutcome([&]() -> QCoro::Task<void> {
            co_await runTarWithoutBlocking(listArguments(missing));
        }());
        try {
            std::rethrow_exception(error);
        } catch (const LauncherError& e) {
            taskError = e.errorDescription();
        } catch (...) {
        }
        QVERIFY(blockingError.contains(QStringLiteral("missing.tar.gz")));
        QCOMPARE(taskError, blockingError);
        QCOMPARE(QCoro::waitFor(runTarWithoutBlocking({QStringLiteral("--version")})),
                 runTar({QStringLiteral("--version")}));
    }
};

QTEST_GUILESS_MAIN(TestProcessTask)
#include "TestProcessTask.moc"
