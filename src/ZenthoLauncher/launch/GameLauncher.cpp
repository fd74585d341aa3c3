#include "launch/GameLauncher.h"

#include "errors/LauncherError.h"
#include "launch/GameProcess.h"

#include <QTimer>

#include <QCoroTimer>

namespace {

// Sleeps without blocking the event loop until at least `duration` has passed on the monotonic
// clock. A precise timer, because Qt's default timers may fire up to 5% early, and a re-check
// of the clock, so the watch is never cut short.
QCoro::Task<void> sleepAtLeast(std::chrono::milliseconds duration) {
    using namespace std::chrono;
    const auto deadline = steady_clock::now() + duration;
    for (;;) {
        const auto left = ceil<milliseconds>(deadline - steady_clock::now());
        if (left <= milliseconds::zero())
            co_return;
        QTimer timer;
        timer.setTimerType(Qt::PreciseTimer);
        timer.setSingleShot(true);
        timer.start(left);
        co_await timer;
    }
}

} // namespace

namespace GameLauncher {

QString programPath(const QString& runtimeFolder, const QString& executable) {
    if (runtimeFolder.endsWith(QLatin1Char('/')))
        return runtimeFolder + executable;
    return runtimeFolder + QLatin1Char('/') + executable;
}

QCoro::Task<void> launch(QString runtimeFolder, QString executable, std::optional<QString> invite) {
    const QStringList arguments = invite ? QStringList{*invite} : QStringList{};
    GameProcess game =
        GameProcess::start(programPath(runtimeFolder, executable), runtimeFolder, arguments);
    co_await sleepAtLeast(startupWatch);
    if (const auto status = game.endedStatus())
        throw LauncherError::gameExited(*status);
    // Still running: it has started. Letting go of `game` hands it to the background reaper.
}

} // namespace GameLauncher
