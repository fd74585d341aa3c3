// The model's two installs, a game build and the launcher itself: both run the same staged,
// verified install (update/ReleaseStaging.h), report to the same status line and progress
// divider, and differ only in what they do with what they staged.

#include "model/LauncherModel.h"

#include "identity/LauncherVersion.h"
#include "identity/TrustedManifestKeys.h"
#include "model/DownloadMeter.h"
#include "update/GameInstaller.h"
#include "update/LauncherUpdater.h"
#include "update/UpdateEndpoints.h"

InstallContext LauncherModel::installContext(DownloadObserver& observer) {
    return InstallContext{files, http_, launcherRoot(), [this](const QString& text) { setStatus(text); },
                          &observer};
}

QCoro::Task<bool> LauncherModel::updateLauncherIfNeeded() {
    DownloadMeter meter = downloadMeter();
    // Read as the finish script is started: the invite goes to the launcher it starts, and a
    // later one could not.
    const auto handOverInvite = [this] {
        inviteHandedOn_ = true;
        return pendingInvite_;
    };
    LauncherUpdater updater(installContext(meter), platform_,
                            {launcherVersion(), trustedManifestKeys()}, handOverInvite);
    co_return co_await updater.updateIfNeeded(launcherManifestURL());
}

QCoro::Task<QUrl> LauncherModel::install(ReleaseManifest manifest) {
    const QString version = manifest.version;
    DownloadMeter meter = downloadMeter();
    GameInstaller installer(installContext(meter), {versionsRoot(), stateURL()});
    const QString installFolder = co_await installer.install(std::move(manifest));

    setInstalledVersion(version);
    refreshInstalledBuilds();
    co_return QUrl::fromLocalFile(installFolder);
}
