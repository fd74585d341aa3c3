#include "launch/GameLauncher.h"

#include "errors/LauncherError.h"
#include "launch/GameProcess.h"

namespace GameLauncher {

Watch monotonicWatch(std::chrono::milliseconds duration, WaitClock clock) {
    // Not a coroutine itself: the sleep's frame keeps its own copies, whatever becomes of this
    // function object.
    return [duration, clock](pid_t) { return sleepAtLeast(duration, clock); };
}

QString programPath(const QString& runtimeFolder, const QString& executable) {
    if (runtimeFolder.endsWith(QLatin1Char('/')))
        return runtimeFolder + executable;
    return runtimeFolder + QLatin1Char('/') + executable;
}

QCoro::Task<void> launch(QString runtimeFolder, QString executable, std::optional<QString> invite,
                         Watch watch) {
    const QStringList arguments = invite ? QStringList{*invite} : QStringList{};
    GameProcess game =
        GameProcess::start(programPath(runtimeFolder, executable), runtimeFolder, arguments);
    co_await watch(game.pid());
    if (const auto status = game.endedStatus())
        throw LauncherError::gameExited(*status);
    // Still running: it has started. Letting go of `game` hands it to the background reaper.
}

} // namespace GameLauncher
