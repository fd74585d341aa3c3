#include "TaskOutcome.h"
#include "TestFiles.h"

#include "archive/Archive.h"
#include "process/ProcessTask.h"

#include "errors/LauncherError.h"

#include <QCoroTask>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <string>
#include <vector>

namespace {

// A child that ends with status 4 and "done" once `file` exists, or with status 9 when it has
// looked for it `looks` times, 10 ms apart, in vain.
std::vector<std::string> waitsForFile(const QString& file, int looks) {
    return {"-c",
            "i=0; while [ ! -e \"$0\" ]; do i=$((i+1)); [ $i -gt " + std::to_string(looks) +
                " ] && exit 9; sleep 0.01; done; printf done; exit 4",
            QFile::encodeName(file).toStdString()};
}

} // namespace

// A child run from a coroutine must leave the window's event loop running, and must give exactly
// what the blocking run gives.
class TestProcessTask : public QObject {
    Q_OBJECT

    QTemporaryDir dir_;

private slots:
    // The child ends only after the event loop has handled a posted event (which makes its file),
    // so it ends well only if the loop ran while the coroutine waited for it.
    void eventLoopRunsWhileTheChildRuns() {
        const QString loopRan = dir_.filePath(QStringLiteral("loop-ran"));
        QMetaObject::invokeMethod(
            this, [loopRan] { TestFiles::writeFile(loopRan, ""); }, Qt::QueuedConnection);
        const CapturedProcessResult result =
            QCoro::waitFor(runWithoutBlocking("/bin/sh", waitsForFile(loopRan, 6000)));
        QCOMPARE(result.status, 4);
        QCOMPARE(result.output, std::string("done"));
    }
    // The twin: the blocking run holds the loop up for the child's whole life, so the same child
    // looks for its file in vain, and the posted event is handled only afterwards.
    void blockingRunStopsTheEventLoop() {
        const QString loopRan = dir_.filePath(QStringLiteral("loop-ran-too-late"));
        QMetaObject::invokeMethod(
            this, [loopRan] { TestFiles::writeFile(loopRan, ""); }, Qt::QueuedConnection);
        QCOMPARE(ProcessCapture::run("/bin/sh", waitsForFile(loopRan, 20)).status, 9);
        QVERIFY(!QFile::exists(loopRan));
        QCoreApplication::processEvents();
        QVERIFY(QFile::exists(loopRan));
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
