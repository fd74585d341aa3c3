#include "model/LauncherModel.h"

#include "model/DownloadMeter.h"
#include "update/GameInstaller.h"

QCoro::Task<QUrl> LauncherModel::install(ReleaseManifest manifest) {
    const QString version = manifest.version;
    GameInstaller installer(files, {launcherRoot(), versionsRoot(), stateURL()},
                            [this](const QString& text) { setStatus(text); });
    DownloadMeter meter = downloadMeter();
    installer.setDownloadObserver(&meter);
    const QString installFolder = co_await installer.install(std::move(manifest));

    setInstalledVersion(version);
    refreshInstalledBuilds();
    co_return QUrl::fromLocalFile(installFolder);
}
