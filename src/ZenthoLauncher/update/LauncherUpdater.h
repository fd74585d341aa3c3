#pragma once

#include "trust/TrustedKeys.h"
#include "update/InstallContext.h"
#include "update/ReleaseStaging.h"

#include <QString>
#include <QUrl>

#include <QCoroTask>

#include <functional>
#include <optional>
#include <string>
#include <vector>

class FileManager;
class Platform;
class StagingFolder;

// The launcher's update of itself. It reads the launcher's own release manifest and, when that
// names any other version than the running one, stages the release the way every install does
// (ReleaseStaging: the storage held, the archive downloaded with resume, verified, vetted and
// unpacked), then has the bundle verifier that ships with the running launcher check the staged
// bundle's seal, refuses a bundle that is the running version under another name, and starts the
// finish script that swaps the bundles once this process has gone. The running bundle is never
// touched while the launcher runs. A refused update leaves nothing staged behind; a handed-over
// one stays in its staging folder until the finish script moves it into place.
class LauncherUpdater {
public:
    // Who is running: the launcher's own version, and the keys it trusts to sign its manifests
    // (none when it does not ask for signed manifests).
    struct Running {
        QString version;
        TrustedKeys manifestKeys;
    };
    // The invite the updated launcher is to follow, read when the swap is handed over.
    using InviteSource = std::function<std::optional<QString>()>;

    LauncherUpdater(InstallContext context, const Platform& platform, Running running,
                    InviteSource pendingInvite = {});

    // False: the manifest names the running version, nothing was done. True: the finish script
    // runs and the caller must quit at once so it can swap the bundles. Throws LauncherError for
    // what it detects itself; errors of the network, manifest decoding, files and child
    // processes pass through unchanged.
    QCoro::Task<bool> updateIfNeeded(QUrl manifestURL);

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
    // The staged bundle `executable` names, once it is a real folder of the update holding a
    // runnable launcher.
    QString stagedBundle(const StagingFolder& staging, const QString& executable) const;
    // Throws invalidLauncherSignature unless the running launcher's verifier passes `staged`.
    QCoro::Task<void> checkSeal(QString staged) const;
    // Starts the finish script that swaps `staged` in for the running bundle once we have gone.
    void handOver(const QString& staged) const;
    QString freshName(const QString& prefix, const QString& suffix) const;

    ReleaseStaging staging_;
    const InstallContext& context_;
    const Platform& platform_;
    Running running_;
    InviteSource pendingInvite_;
};
