#include "model/LauncherModel.h"

#include "identity/LauncherVersion.h"
#include "identity/TrustedManifestKeys.h"
#include "model/DownloadMeter.h"
#include "platform/FileManager.h"
#include "update/LauncherUpdater.h"
#include "update/UpdateEndpoints.h"

QCoro::Task<bool> LauncherModel::updateLauncherIfNeeded() {
    LauncherUpdater updater(
        files, platform_, {launcherVersion(), trustedManifestKeys()}, launcherRoot(), [this](const QString& text) { setStatus(text); },
        [this] { return pendingInvite_; });
    DownloadMeter meter = downloadMeter();
    updater.setDownloadObserver(&meter);
    co_return co_await updater.updateIfNeeded(launcherManifestURL());
}
