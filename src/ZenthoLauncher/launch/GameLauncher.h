#pragma once

#include "launch/SleepAtLeast.h"

#include <QString>

#include <QCoroTask>

#include <chrono>
#include <functional>
#include <optional>

#include <sys/types.h>

// Starts a game build and watches it for a short while. A game that is still running at the end
// of the watch has started; one that has already ended could not stay up and is reported with
// its exit status, so the launcher stays open instead of quitting on a game that died.
namespace GameLauncher {

// How long a freshly started game must stay up, on the monotonic clock, with no tolerance.
inline constexpr std::chrono::milliseconds startupWatch{750};

// What a launch awaits between starting the game, whose process identifier it is given, and
// looking whether the game still runs. The launcher's own is the sleep below; a test hands in one
// that ends on the game's own events, so that which comes first is the test's choice.
using Watch = std::function<QCoro::Task<void>(pid_t game)>;

// The launcher's watch: at least `duration` on `clock`, never cut short.
Watch monotonicWatch(std::chrono::milliseconds duration = startupWatch,
                     WaitClock clock = WaitClock::monotonic());

// Starts runtimeFolder/executable with runtimeFolder as its working folder, the launcher's
// environment and standard streams, and as its only argument the invite when there is one
// (passed exactly as given), no argument otherwise. The file is neither checked nor changed
// beforehand: a missing or non-executable file fails the start itself.
//
// Suspends for the start-up watch (`watch`) without blocking the event loop, then returns if the
// game is still running. Throws std::system_error (the system's reason and the program path) when
// the game cannot be started, and LauncherError::gameExited(status) when it has ended by the end of
// the watch, status 0 included. A game that keeps running is never signalled; its exit is collected
// later in the background.
QCoro::Task<void> launch(QString runtimeFolder, QString executable, std::optional<QString> invite,
                         Watch watch = monotonicWatch());

// The program a launch starts: the executable inside the runtime folder.
QString programPath(const QString& runtimeFolder, const QString& executable);

} // namespace GameLauncher
