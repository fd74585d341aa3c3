#pragma once

#include "model/LauncherModel.h"

// Reaches the model's private operations and fields from the tests.
struct LauncherModelProbe {
    static QString launcherRoot(LauncherModel& m) { return m.launcherRoot(); }
    static QString versionsRoot(LauncherModel& m) { return m.versionsRoot(); }
    static QString stateURL(LauncherModel& m) { return m.stateURL(); }
    static InstalledState readInstalledState(LauncherModel& m) { return m.readInstalledState(); }
    static void refreshInstalledBuilds(LauncherModel& m) { m.refreshInstalledBuilds(); }
    static std::optional<QString> pendingInvite(LauncherModel& m) { return m.pendingInvite_; }
    static void setPendingInvite(LauncherModel& m, const QString& invite) {
        m.pendingInvite_ = invite;
    }
    static void setBusy(LauncherModel& m, bool busy) { m.setBusy(busy); }
    static void setStartupWatch(LauncherModel& m, GameLauncher::Watch watch) {
        m.startupWatch_ = std::move(watch);
    }
    static void setStatus(LauncherModel& m, const QString& status) { m.setStatus(status); }
    static void setDownloadProgress(LauncherModel& m, double fraction) {
        m.setDownloadProgress(fraction);
    }
    static void showDownload(LauncherModel& m, double fraction, const QString& caption) {
        m.setDownloadProgress(fraction);
        m.setDownloadCaption(caption);
    }
    static QCoro::Task<void> launch(LauncherModel& m, const QUrl& runtime, const QString& executable) {
        return m.launch(runtime, executable);
    }
    static void setInstalledBuilds(LauncherModel& m, const QList<InstalledBuild>& builds) {
        m.installedBuilds_.setBuilds(builds);
    }
    static QCoro::Task<QUrl> install(LauncherModel& m, const ReleaseManifest& manifest) {
        return m.install(manifest);
    }
    static QCoro::Task<bool> updateLauncherIfNeeded(LauncherModel& m) {
        return m.updateLauncherIfNeeded();
    }
};
