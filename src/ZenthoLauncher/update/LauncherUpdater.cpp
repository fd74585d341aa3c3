#include "update/LauncherUpdater.h"

#include "errors/LauncherError.h"
#include "formats/BundleInfo.h"
#include "formats/ReleaseManifest.h"
#include "platform/FileManager.h"
#include "platform/Platform.h"
#include "process/ProcessTask.h"
#include "update/ChunkedBundle.h"
#include "update/FinishScript.h"
#include "update/ManifestFetch.h"
#include "update/StagingFolder.h"

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

LauncherUpdater::LauncherUpdater(InstallContext context, const Platform& platform, Running running,
                                 InviteSource pendingInvite)
    : staging_(std::move(context)),
      context_(staging_.context()),
      platform_(platform),
      running_(std::move(running)),
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

QCoro::Task<bool> LauncherUpdater::updateIfNeeded(QUrl manifestURL) {
    const ReleaseManifest manifest = co_await fetchReleaseManifest(
        context_.http, manifestURL, ManifestKind::launcher(), running_.manifestKeys);
    // Any other version text is an update, a lower one included: the server decides which
    // launcher everyone runs, and that is also how a bad release is rolled back.
    if (manifest.version == running_.version)
        co_return false;

    // Held until the finish script has been started, so no other launcher on this storage
    // works in it meanwhile.
    const StorageLock lock = co_await staging_.holdStorage();
    context_.reportStatus(downloadingStatus());
    // A release that also comes as chunks takes most of them from this very bundle; whatever goes
    // wrong on that way, the archive is downloaded as always.
    // Each result is named before it is moved on: g++ 12 destroys a temporary in a co_await
    // expression twice, and a staging folder's destructor removes the folder.
    std::optional<StagingFolder> put;
    if (manifest.chunks) {
        std::optional<StagingFolder> fromChunks =
            co_await stageBundleFromChunks(staging_, *manifest.chunks, platform_.bundlePath(), verifyingStatus());
        if (fromChunks)
            put.emplace(std::move(*fromChunks));
        else
            context_.reportStatus(downloadingStatus());
    }
    if (!put) {
        const ReleaseStaging::Archive archive{manifest.url, manifest.sha256, ManifestKind::launcher().platform,
                                              verifyingStatus(), QStringLiteral("launcher-staging-")};
        StagingFolder fromArchive = co_await staging_.stageArchive(archive);
        put.emplace(std::move(fromArchive));
    }
    StagingFolder& staging = *put;

    const QString staged = stagedBundle(staging, manifest.executable);
    co_await checkSeal(staged);
    // Read only now that the seal vouches for it. A release that packs the running launcher under
    // a new version would otherwise be handed over, restart, and be found again on every start.
    BundleInfo::refuseRunningVersion(staged, running_.version, manifest.version);
    checkTargetLocation(context_.files, platform_.bundlePath());

    handOver(staged);
    staging.handOver(); // the finish script moves the bundle out of it
    co_return true;
}

QString LauncherUpdater::stagedBundle(const StagingFolder& staging, const QString& executable) const {
    // The bundle that is checked must be the bundle that is moved into place: a link would be
    // followed by the check, yet moved as a link, installing whatever it points at unchecked.
    const QString staged = staging.pathOf(executable);
    const QFileInfo bundle(staged);
    if ((bundle.exists() || bundle.isSymLink()) && !context_.files.isRealFolderInside(staging.path(), staged))
        throw LauncherError::invalidLauncherSignature(
            executable + QStringLiteral(": not a folder inside the update"));
    const std::optional<QString> launcher =
        staging.executable(executable + QLatin1Char('/') + kBundleExecutable);
    if (!launcher || !context_.files.isExecutableFile(*launcher))
        throw LauncherError::missingLauncherExecutable();
    return staged;
}

QCoro::Task<void> LauncherUpdater::checkSeal(QString staged) const {
    // The verifier of the launcher that is running now decides, with the key it was built
    // with: a downloaded bundle can never vouch for itself.
    const std::vector<std::string> verify = verifierCommand(context_.files, platform_, staged);
    const CapturedProcessResult verdict = co_await runWithoutBlocking(
        verify.front(), std::vector<std::string>(verify.begin() + 1, verify.end()));
    if (verdict.status != 0)
        throw LauncherError::invalidLauncherSignature(QString::fromStdString(verdict.errors));
}

void LauncherUpdater::handOver(const QString& staged) const {
    const QString script = freshName(QStringLiteral("finish-launcher-update-"), QStringLiteral(".sh"));
    const QString backup = freshName(QStringLiteral("launcher-backup-") + running_.version + QLatin1Char('-'),
                                     QStringLiteral(".app"));
    // An invite that started this flow is not lost with this process: the new launcher follows it.
    FinishScript::writeAndStart(context_.files, script, platform_.processIdentifier(), staged,
                                platform_.bundlePath(), backup,
                                pendingInvite_ ? pendingInvite_() : std::nullopt);
}

QString LauncherUpdater::freshName(const QString& prefix, const QString& suffix) const {
    return context_.launcherRoot + QLatin1Char('/') + prefix + QString::fromStdString(makeUpperUuid()) +
           suffix;
}
