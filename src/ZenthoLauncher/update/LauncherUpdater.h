#pragma once

#include "trust/TrustedKeys.h"

#include <QString>
#include <QUrl>

#include <QCoroTask>

#include <functional>
#include <optional>
#include <string>
#include <vector>

class DownloadObserver;
class FileManager;
class Platform;

// The launcher's update of itself. It reads the launcher's own release manifest and, when that
// names any other version than the running one, downloads the archive, checks its digest, vets
// and unpacks it into a staging folder, has the bundle verifier that ships with the running
// launcher check the staged bundle's seal, refuses a bundle that is the running version under
// another name, and starts the finish script that swaps the bundles once this process has gone.
// The running bundle is never touched while the launcher runs, and nothing is cleaned up
// afterwards: every run uses fresh UUID names, so leftovers never collide.
class LauncherUpdater {
public:
    using StatusReporter = std::function<void(const QString&)>;
    // The invite the updated launcher is to follow, read when the swap is handed over.
    using InviteSource = std::function<std::optional<QString>()>;

    // Who is running: the launcher's own version, and the keys it trusts to sign its manifests
    // (none when it does not ask for signed manifests).
    struct Running {
        QString version;
        TrustedKeys manifestKeys;
    };

    LauncherUpdater(const FileManager& files, const Platform& platform, Running running,
                    QString launcherRoot, StatusReporter reportStatus, InviteSource pendingInvite = {});

    // False: the manifest names the running version, nothing was done. True: the finish script
    // runs and the caller must quit at once so it can swap the bundles. Throws LauncherError for
    // what it detects itself; errors of the network, manifest decoding, files and child
    // processes pass through unchanged.
    QCoro::Task<bool> updateIfNeeded(QUrl manifestURL);

    // Who sees the archive's download arrive; none by default.
    void setDownloadObserver(DownloadObserver* observer) { downloadObserver_ = observer; }

    // Throws launcherLocationNotWritable unless `bundlePath` is an ".app" folder whose parent
    // this process may write to (the swap renames the bundle inside that parent).
    static void checkTargetLocation(const FileManager& files, const QString& bundlePath);
    // The bundle verifier that ships beside the launcher executable: Contents/MacOS of an ".app"
    // bundle, or the executable's own folder when the launcher runs from outside a bundle.
    static QString verifierPath(const QString& bundlePath);
    // The command that checks the seal of `staged`: the verifier beside the executable when it is
    // there, else the running launcher executable in its own verifier mode, so a launcher moved
    // out of its bundle still gets as far as the check of its own location.
    static std::vector<std::string> verifierCommand(const FileManager& files,
                                                    const Platform& platform,
                                                    const QString& staged);

    static QString downloadingStatus() { return QStringLiteral("Downloading launcher update..."); }
    static QString verifyingStatus() { return QStringLiteral("Verifying launcher update..."); }

private:
    // Steps after the digest matched: stage, verify, check the target, start the swap.
    // `version` is the one the manifest names.
    QCoro::Task<void> stageAndHandOver(QString archivePath, QString executable, QString version);
    QString freshName(const QString& prefix, const QString& suffix = {}) const;

    const FileManager& files_;
    const Platform& platform_;
    Running running_;
    QString launcherRoot_;
    StatusReporter reportStatus_;
    InviteSource pendingInvite_;
    DownloadObserver* downloadObserver_ = nullptr;
};
