#pragma once

#include "formats/ReleaseManifest.h"
#include "launch/GameLauncher.h"
#include "model/InstalledBuildList.h"
#include "net/HttpClient.h"
#include "storage/InstalledBuild.h"
#include "storage/InstalledState.h"
#include "storage/StorageLayout.h"
#include "update/InstallContext.h"

#include <QObject>
#include <QSet>
#include <QString>
#include <QUrl>

#include <QCoroTask>

#include <optional>

class DownloadMeter;
class DownloadObserver;
class FileManager;
class Platform;

// The one object that holds the launcher's state. The window shows its published properties and
// calls its three commands; every long operation runs as a coroutine on the main thread, and the
// `busy` flag is the only thing that keeps two of them apart.
class LauncherModel : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString status READ status NOTIFY statusChanged)
    Q_PROPERTY(bool busy READ busy NOTIFY busyChanged)
    Q_PROPERTY(QString installedVersion READ installedVersion NOTIFY installedVersionChanged)
    // The saved builds for the picker: a list model with the roles "version" and "path".
    Q_PROPERTY(InstalledBuildList* installedBuilds READ installedBuildList NOTIFY installedBuildsChanged)
    Q_PROPERTY(QString selectedInstalledPath READ selectedInstalledPath WRITE
                   setSelectedInstalledPath NOTIFY selectedInstalledPathChanged)
    // Fraction (0 to 1) of the game or launcher download that is running; -1 when none runs.
    Q_PROPERTY(double downloadProgress READ downloadProgress NOTIFY downloadProgressChanged)
    // One line on the running download, "148 MB of 1.2 GB · 45 MB/s · about 25 s left"; empty
    // when none runs.
    Q_PROPERTY(QString downloadCaption READ downloadCaption NOTIFY downloadCaptionChanged)

public:
    // Start-up: resolves the seed runtime, reads the current build and scans the saved builds.
    // Creates nothing on disk and never fails.
    explicit LauncherModel(Platform& platform, QObject* parent = nullptr);
    ~LauncherModel() override;

    QString status() const { return status_; }
    bool busy() const { return busy_; }
    QString installedVersion() const { return installedVersion_; }
    const QList<InstalledBuild>& installedBuilds() const { return installedBuilds_.builds(); }
    // The same builds as a list model, for the window.
    InstalledBuildList* installedBuildList() { return &installedBuilds_; }
    QString selectedInstalledPath() const { return selectedInstalledPath_; }
    void setSelectedInstalledPath(const QString& path);

    // The folder of the game build that ships inside the application bundle.
    QString seedRuntime() const { return seedRuntime_; }

    // The three commands of the window. Each returns at once; the two play commands do their
    // work in a task and do nothing while `busy`.
    Q_INVOKABLE void updateAndPlay();
    Q_INVOKABLE void playSelectedInstalledBuild();
    Q_INVOKABLE void copyDataFolder();

    // An invite link opened by the desktop: kept for the game and followed by updateAndPlay(),
    // also while another operation runs.
    Q_INVOKABLE void openInviteURL(const QString& url);
    // Whether an invite opened now would still reach a game. False from the moment the pending
    // invite is handed on, to a game being started or to the launcher replacing this one, until
    // that start fails and this launcher carries on: a link arriving then would be kept and never
    // passed on, so the launcher that brings it must follow it itself.
    bool followsInvites() const { return !inviteHandedOn_; }

    double downloadProgress() const { return downloadProgress_; }
    QString downloadCaption() const { return downloadCaption_; }

signals:
    void statusChanged();
    void busyChanged();
    void installedVersionChanged();
    void installedBuildsChanged();
    void selectedInstalledPathChanged();
    void downloadProgressChanged();
    void downloadCaptionChanged();

private:
    friend struct LauncherModelProbe; // lets the tests drive the private operations directly

    void setStatus(const QString& status);
    void setBusy(bool busy);
    void setInstalledVersion(const QString& version);
    // `fraction` of the running download, or -1 once it has ended.
    void setDownloadProgress(double fraction) {
        if (downloadProgress_ == fraction)
            return;
        downloadProgress_ = fraction;
        emit downloadProgressChanged();
    }
    void setDownloadCaption(const QString& caption) {
        if (downloadCaption_ == caption)
            return;
        downloadCaption_ = caption;
        emit downloadCaptionChanged();
    }
    // Shows a download's progress in the window and on the taskbar while it runs.
    DownloadMeter downloadMeter();
    // What the installs work with: the model's files and HTTP client, the storage folder, the
    // status line and `observer` for the download's progress.
    InstallContext installContext(DownloadObserver& observer);

    void refreshInstalledBuilds();
    InstalledState readInstalledState();
    // The current build when nothing has been recorded: the seed runtime at the launcher's own
    // version.
    InstalledState seedState() const;

    // The task behind updateAndPlay(), and its game half: fetch the game manifest, install when
    // the version differs, start. Any failure of the game half ends in the fallback start.
    QCoro::Task<void> runUpdateAndPlay();
    QCoro::Task<void> updateGameAndLaunch(InstalledState current);
    // True when `manifest` is a staged release not yet offered to this installation, which then
    // starts `current` as it is.
    bool heldBackByRollout(const ReleaseManifest& manifest, const InstalledState& current);

    // Fetches the launcher's own manifest and, when it names another version, downloads,
    // verifies and stages it and starts the script that swaps the bundles once this process has
    // gone. True means the caller must quit now.
    QCoro::Task<bool> updateLauncherIfNeeded();
    // Downloads, verifies and installs a game build, records it as current and returns its
    // folder.
    QCoro::Task<QUrl> install(ReleaseManifest manifest);
    // Before a saved build starts: when a quick check against the index kept for it finds it
    // damaged, shows `repairingStatus` and repairs it, once per press or play. True when it showed
    // the status, which the caller then replaces. Never throws: a build that cannot be repaired
    // now starts as it is, as every build did before builds were checked.
    QCoro::Task<bool> repairIfDamaged(QString buildFolder, QString repairingStatus);
    // Starts runtime/executable with the pending invite and returns once it has survived its
    // start-up watch.
    QCoro::Task<void> launch(QUrl runtime, QString executable);
    // The task behind playSelectedInstalledBuild(): starts the chosen saved build and quits, or
    // shows why it could not and rescans the saved builds.
    QCoro::Task<void> playInstalledBuild(InstalledBuild build);

    // Storage locations, each worked out on its first read and then kept.
    const QString& launcherRoot() { return layout_.launcherRoot(); }
    const QString& versionsRoot() { return layout_.versionsRoot(); }
    const QString& stateURL() { return layout_.stateURL(); }

    QString status_;
    bool busy_ = false;
    QString installedVersion_;
    InstalledBuildList installedBuilds_;
    QString selectedInstalledPath_;
    FileManager& files;
    Platform& platform_;
    // Every transfer of the model's operations; a press of the main button lends it a memo of
    // the servers that could not be reached.
    HttpClient http_;
    QString seedRuntime_;
    std::optional<QString> pendingInvite_;
    // The builds whose repair the running press or play has tried: a failed one is not tried
    // again before the fallback start of the same build.
    QSet<QString> repairsTried_;
    bool inviteHandedOn_ = false; // see followsInvites()
    // Every game the model starts is watched by this: the launcher's own watch, which the tests
    // replace.
    GameLauncher::Watch startupWatch_ = GameLauncher::monotonicWatch();
    StorageLayout layout_;
    double downloadProgress_ = -1;
    QString downloadCaption_;
};
