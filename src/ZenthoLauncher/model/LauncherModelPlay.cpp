// Starting a game: the one place a game process is started, playing a build saved in the
// versions folder without any network access, and handing out the game's data-folder path.

#include "model/LauncherModel.h"

#include "errors/LauncherError.h"
#include "launch/GameLauncher.h"
#include "platform/Platform.h"

#include <algorithm>

namespace {
// A saved build is always started by this name, whatever manifest it once came from.
const QString kInstalledExecutable = QStringLiteral("zentho");

QString startingStatus(const QString& version) {
    return QStringLiteral("Starting ZENTHO ") + version + QStringLiteral("...");
}
QString repairingStatus(const QString& version) {
    return QStringLiteral("Repairing ZENTHO ") + version + QStringLiteral("...");
}
} // namespace

QCoro::Task<void> LauncherModel::launch(QUrl runtime, QString executable) {
    // Read now, as the game is started: an invite opened before this moment goes to this game,
    // and none is taken after it unless this start fails and the flow goes on.
    inviteHandedOn_ = true;
    try {
        co_await GameLauncher::launch(runtime.toLocalFile(), std::move(executable), pendingInvite_,
                                      startupWatch_);
    } catch (...) {
        inviteHandedOn_ = false;
        throw;
    }
}

void LauncherModel::playSelectedInstalledBuild() {
    if (busy_)
        return;
    const auto chosen =
        std::find_if(installedBuilds().cbegin(), installedBuilds().cend(),
                     [&](const InstalledBuild& build) { return build.path == selectedInstalledPath_; });
    if (chosen == installedBuilds().cend())
        return;
    const InstalledBuild build = *chosen;
    setBusy(true);
    setStatus(startingStatus(build.version));
    playInstalledBuild(build); // runs on by itself; nothing waits for it
}

QCoro::Task<void> LauncherModel::playInstalledBuild(InstalledBuild build) {
    repairsTried_.clear();
    const QString repairing = repairingStatus(build.version); // named: see LauncherModelRepair.cpp
    if (co_await repairIfDamaged(build.path, repairing))
        setStatus(startingStatus(build.version));
    std::exception_ptr failure;
    try {
        co_await launch(QUrl::fromLocalFile(build.path), kInstalledExecutable);
    } catch (...) {
        failure = std::current_exception();
    }
    if (!failure) {
        // The game runs on its own; the launcher's work is done. `busy` stays set until it ends.
        platform_.quit();
        co_return;
    }
    setStatus(QStringLiteral("Could not launch ") + build.version + QStringLiteral(": ") +
              describeError(failure));
    setBusy(false);
    // The build may have been removed or damaged since the list was made.
    refreshInstalledBuilds();
}

void LauncherModel::copyDataFolder() {
    try {
        platform_.setClipboardText(layout_.dataFolder());
    } catch (...) {
        // A clipboard that refuses the text is not the user's problem to read about here.
    }
    setStatus(QStringLiteral("ZENTHO data-folder path copied"));
}
