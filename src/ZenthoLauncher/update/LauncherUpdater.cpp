#include "update/LauncherUpdater.h"

#include "archive/Archive.h"
#include "errors/LauncherError.h"
#include "formats/BundleInfo.h"
#include "formats/ReleaseManifest.h"
#include "platform/FileManager.h"
#include "platform/Platform.h"
#include "process/ProcessTask.h"
#include "storage/StorageLock.h"
#include "update/FinishScript.h"
#include "update/ManifestFetch.h"
#include "update/StaleWork.h"
#include "update/VerifiedDownload.h"

#include <ProcessCapture.h>
#include <Uuid.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

const QString kBundleExecutable = QStringLiteral("Contents/MacOS/ZenthoLauncher");
const QString kVerifierName = QStringLiteral("zentho-codesign");

bool isAppBundlePath(const QString& path) {
    const QString name = QFileInfo(QDir::cleanPath(path)).fileName();
    return name.size() > 4 && name.endsWith(QLatin1String(".app"));
}

} // namespace

LauncherUpdater::LauncherUpdater(const FileManager& files, const Platform& platform,
                                 Running running, QString launcherRoot,
                                 StatusReporter reportStatus, InviteSource pendingInvite)
    : files_(files),
      platform_(platform),
      running_(std::move(running)),
      launcherRoot_(std::move(launcherRoot)),
      reportStatus_(std::move(reportStatus)),
      pendingInvite_(std::move(pendingInvite)) {}

std::vector<std::string> LauncherUpdater::verifierCommand(const FileManager& files,
                                                          const Platform& platform,
                                                          const QString& staged) {
    const QString beside = verifierPath(platform.bundlePath());
    const std::string bundle = QFile::encodeName(staged).toStdString();
    if (files.isExecutableFile(beside))
        return {QFile::encodeName(beside).toStdString(), "--verify", "--deep", "--strict", bundle};
    // Copied out of its bundle without its verifier, the launcher checks with its own key.
    return {QFile::encodeName(platform.executablePath()).toStdString(), "--codesign", "--verify",
            "--deep", "--strict", bundle};
}

QString LauncherUpdater::verifierPath(const QString& bundlePath) {
    const QString folder = isAppBundlePath(bundlePath)
                               ? QDir::cleanPath(bundlePath) + QStringLiteral("/Contents/MacOS")
                               : QDir::cleanPath(bundlePath);
    return folder + QLatin1Char('/') + kVerifierName;
}

void LauncherUpdater::checkTargetLocation(const FileManager& files, const QString& bundlePath) {
    if (!isAppBundlePath(bundlePath))
        throw LauncherError::launcherLocationNotWritable();
    if (!files.isWritableFile(QFileInfo(QDir::cleanPath(bundlePath)).absolutePath()))
        throw LauncherError::launcherLocationNotWritable();
}

QString LauncherUpdater::freshName(const QString& prefix, const QString& suffix) const {
    return launcherRoot_ + QLatin1Char('/') + prefix + QString::fromStdString(makeUpperUuid()) +
           suffix;
}

QCoro::Task<bool> LauncherUpdater::updateIfNeeded(QUrl manifestURL) {
    const ReleaseManifest manifest = co_await fetchReleaseManifest(
        manifestURL, ManifestKind::launcher(), running_.manifestKeys);
    // Any other version text is an update, a lower one included: the server decides which
    // launcher everyone runs, and that is also how a bad release is rolled back.
    if (manifest.version == running_.version)
        co_return false;

    // Held until the finish script has been started, so no other launcher on this storage
    // works in it meanwhile; what an earlier crash left behind goes first.
    files_.createDirectory(launcherRoot_);
    const StorageLock lock = co_await StorageLock::acquire(launcherRoot_);
    removeStaleWork(files_, launcherRoot_);

    reportStatus_(downloadingStatus());
    // The downloaded archive lives in this frame until the staging below has finished with it.
    // Unlike the manifest, the archive must come from an HTTP server: a local file is refused.
    const ArchiveDownload where{launcherRoot_, ManifestKind::launcher().platform, nullptr,
                                downloadObserver_};
    const DownloadedFile archive =
        co_await downloadVerifiedArchive(manifest.url, manifest.sha256, where);

    reportStatus_(verifyingStatus());
    co_await stageAndHandOver(archive.path(), manifest.executable, manifest.version);
    co_return true;
}

QCoro::Task<void> LauncherUpdater::stageAndHandOver(QString archivePath, QString executable,
                                                    QString version) {
    const QString staging = freshName(QStringLiteral("launcher-staging-"));
    files_.createDirectory(staging);
    checkArchiveListing(co_await runTarWithoutBlocking(listArguments(archivePath)));
    co_await runTarWithoutBlocking(extractArguments(archivePath, staging));

    const QString staged = staging + QLatin1Char('/') + executable;
    if (!files_.isExecutableFile(staged + QLatin1Char('/') + kBundleExecutable))
        throw LauncherError::missingLauncherExecutable();

    // The bundle that is checked must be the bundle that is moved into place: a link would be
    // followed by the check, yet moved as a link, installing whatever it points at unchecked.
    if (!files_.isRealFolderInside(staging, staged))
        throw LauncherError::invalidLauncherSignature(
            executable + QStringLiteral(": not a folder inside the update"));

    // The verifier of the launcher that is running now decides, with the key it was built
    // with: a downloaded bundle can never vouch for itself.
    const std::vector<std::string> verify = verifierCommand(files_, platform_, staged);
    const CapturedProcessResult verdict = co_await runWithoutBlocking(
        verify.front(), std::vector<std::string>(verify.begin() + 1, verify.end()));
    if (verdict.status != 0)
        throw LauncherError::invalidLauncherSignature(QString::fromStdString(verdict.errors));
    // Read only now that the seal vouches for it. A release that packs the running launcher under
    // a new version would otherwise be handed over, restart, and be found again on every start.
    BundleInfo::refuseRunningVersion(staged, running_.version, version);

    const QString target = platform_.bundlePath();
    checkTargetLocation(files_, target);

    const QString script = freshName(QStringLiteral("finish-launcher-update-"), QStringLiteral(".sh"));
    const QString backup = freshName(QStringLiteral("launcher-backup-") + running_.version +
                                         QLatin1Char('-'),
                                     QStringLiteral(".app"));
    // An invite that started this flow is not lost with this process: the new launcher follows it.
    FinishScript::writeAndStart(files_, script, platform_.processIdentifier(), staged, target,
                                backup, pendingInvite_ ? pendingInvite_() : std::nullopt);
}
