// The main command: update the launcher if needed, then the game, then start it and quit. Every
// failure on the way falls back to the build already on disk, so offline play always works.

#include "model/LauncherModel.h"

#include "errors/LauncherError.h"
#include "identity/TrustedManifestKeys.h"
#include "net/HttpClient.h"
#include "net/UnreachableHosts.h"
#include "platform/FileManager.h"
#include "platform/Platform.h"
#include "update/ManifestFetch.h"
#include "update/UpdateEndpoints.h"

#include <QScopeGuard>

namespace {
const QString kFallbackExecutable = QStringLiteral("zentho");
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
    setStatus(QStringLiteral("Checking launcher version..."));
    bool relaunching = false;
    try {
        relaunching = co_await updateLauncherIfNeeded();
    } catch (...) {
        // A launcher that cannot update itself still plays the game, and an invite that was
        // about to go to the new launcher goes to that game instead.
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

QCoro::Task<void> LauncherModel::updateGameAndLaunch(InstalledState current) {
    const ReleaseManifest manifest =
        co_await fetchReleaseManifest(http_, manifestURL(), ManifestKind::game(), trustedManifestKeys());

    QUrl runtime;
    // Any difference in the version text is a release to install, a lower one included: the
    // server's version always wins.
    if (manifest.version == current.version) {
        runtime = QUrl::fromLocalFile(current.path);
    } else {
        runtime = co_await install(manifest);
    }
    setStatus(QStringLiteral("Starting ZENTHO..."));
    co_await launch(runtime, manifest.executable);
}
