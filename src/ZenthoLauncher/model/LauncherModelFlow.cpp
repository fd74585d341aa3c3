// The main command: update the launcher if needed, then the game, then start it and quit. Every
// failure on the way falls back to the build already on disk, so offline play always works.

#include "model/LauncherModel.h"

#include "errors/LauncherError.h"
#include "identity/TrustedManifestKeys.h"
#include "net/HttpClient.h"
#include "net/UnreachableHosts.h"
#include "platform/FileManager.h"
#include "platform/Platform.h"
#include "storage/RolloutPlace.h"
#include "update/ManifestFetch.h"
#include "update/UpdateEndpoints.h"

#include <QDebug>
#include <QScopeGuard>

#include <exception>

namespace {
const QString kFallbackExecutable = QStringLiteral("zentho");
// Shown while a damaged build is put right before it starts (LauncherModelRepair.cpp).
const QString kRepairing = QStringLiteral("Repairing ZENTHO...");

QString failureText(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const LauncherError& failure) {
        return failure.errorDescription();
    } catch (const std::exception& failure) {
        return QString::fromUtf8(failure.what());
    } catch (...) {
    }
    return QStringLiteral("a failure of unknown kind");
}
} // namespace

void LauncherModel::updateAndPlay() {
    if (busy_)
        return;
    setBusy(true);
    runUpdateAndPlay(); // runs on by itself; nothing waits for it
}

QCoro::Task<void> LauncherModel::runUpdateAndPlay() {
    // A server that cannot be reached is not waited for twice in one press.
    UnreachableHosts unreachable;
    http_.rememberUnreachableIn(&unreachable);
    const auto forget = qScopeGuard([this] { http_.rememberUnreachableIn(nullptr); });
    repairsTried_.clear();
    setStatus(QStringLiteral("Checking launcher version..."));
    bool relaunching = false;
    try {
        relaunching = co_await updateLauncherIfNeeded();
    } catch (...) {
        // A launcher that cannot update itself still plays the game, and an invite that was
        // about to go to the new launcher goes to that game instead. Why goes to stderr for
        // whoever looks into it; the player reads the status.
        qWarning().noquote() << "The launcher did not update itself:" << failureText(std::current_exception());
        inviteHandedOn_ = false;
        setStatus(QStringLiteral("Launcher update unavailable; checking game..."));
    }
    if (relaunching) {
        setStatus(QStringLiteral("Restarting updated launcher..."));
        platform_.quit();
        co_return;
    }

    const InstalledState current = readInstalledState();
    setStatus(QStringLiteral("Checking for updates..."));
    std::exception_ptr updateError;
    try {
        co_await updateGameAndLaunch(current);
        platform_.quit();
        co_return;
    } catch (...) {
        updateError = std::current_exception();
    }

    // Read the record again: an install that got as far as recording its build makes that build
    // the one to fall back to.
    const QString runtime = readInstalledState().path;
    // Before the executable is looked for: a lost executable is damage a repair puts right.
    co_await repairIfDamaged(runtime, kRepairing);
    if (!files.isExecutableFile(runtime + QLatin1Char('/') + kFallbackExecutable)) {
        setStatus(QStringLiteral("Update failed: ") + describeError(updateError));
        setBusy(false);
        co_return;
    }
    setStatus(QStringLiteral("Update unavailable; starting installed version..."));
    std::exception_ptr launchError;
    try {
        co_await launch(QUrl::fromLocalFile(runtime), kFallbackExecutable);
    } catch (...) {
        launchError = std::current_exception();
    }
    if (launchError) {
        setStatus(QStringLiteral("Could not launch: ") + describeError(launchError));
        setBusy(false);
        co_return;
    }
    platform_.quit();
}

// A staged release waits for the installations outside its share: they start the build they
// have, exactly as when the server names that build. It is offered at once to a player who has no
// build to start, and to one following an invite, whose friend may already play it: joining needs
// the same build.
bool LauncherModel::heldBackByRollout(const ReleaseManifest& manifest, const InstalledState& current) {
    if (!manifest.rollout || (pendingInvite_ && !pendingInvite_->isEmpty()))
        return false;
    if (current.path.isEmpty() || !files.isExecutableFile(current.path + QLatin1Char('/') + kFallbackExecutable))
        return false;
    return !manifest.rollout->offers(RolloutPlace::of(files, launcherRoot()), QDateTime::currentDateTimeUtc());
}

QCoro::Task<void> LauncherModel::updateGameAndLaunch(InstalledState current) {
    const ReleaseManifest manifest =
        co_await fetchReleaseManifest(http_, manifestURL(), ManifestKind::game(), trustedManifestKeys());

    // Any difference in the version text is a release to install, a lower one included: the
    // server's version always wins, once the release is offered to this installation.
    if (manifest.version != current.version && heldBackByRollout(manifest, current)) {
        co_await repairIfDamaged(current.path, kRepairing);
        setStatus(QStringLiteral("Starting ZENTHO..."));
        co_await launch(QUrl::fromLocalFile(current.path), kFallbackExecutable);
        co_return;
    }
    QUrl runtime;
    if (manifest.version == current.version) {
        co_await repairIfDamaged(current.path, kRepairing);
        runtime = QUrl::fromLocalFile(current.path);
    } else {
        runtime = co_await install(manifest);
    }
    setStatus(QStringLiteral("Starting ZENTHO..."));
    co_await launch(runtime, manifest.executable);
}
