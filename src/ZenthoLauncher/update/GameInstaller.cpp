#include "GameInstaller.h"

#include "errors/LauncherError.h"
#include "platform/FileManager.h"
#include "storage/InstalledState.h"
#include "storage/StaleWork.h"
#include "storage/StorageLock.h"
#include "update/Archive.h"
#include "update/ArchiveExtraction.h"
#include "update/ManifestFetch.h"
#include "update/StreamedListing.h"
#include "update/VerifiedDownload.h"

#include <Uuid.h>

namespace {

// A staging folder that removes itself, with whatever was unpacked into it, on every way out
// until it has been renamed into place. A failed removal is not worth masking the error that
// got us here, so it is ignored.
class StagingFolder {
public:
    StagingFolder(const FileManager& files, QString path) : files_(files), path_(std::move(path)) {
        files_.createDirectory(path_);
        armed_ = true;
    }
    StagingFolder(const StagingFolder&) = delete;
    StagingFolder& operator=(const StagingFolder&) = delete;
    ~StagingFolder() {
        if (!armed_)
            return;
        try {
            files_.removeItem(path_);
        } catch (...) {
        }
    }

    const QString& path() const { return path_; }
    // Renames the folder to `destination`, which must not exist yet; after that there is
    // nothing left to clean up.
    void moveTo(const QString& destination) {
        files_.moveItem(path_, destination);
        armed_ = false;
    }

private:
    const FileManager& files_;
    QString path_;
    bool armed_ = false;
};

QString appendComponent(const QString& folder, const QString& name) {
    return folder + QLatin1Char('/') + name;
}

} // namespace

GameInstaller::GameInstaller(const FileManager& files, Locations locations,
                             StatusReporter reportStatus)
    : files_(files), locations_(std::move(locations)), reportStatus_(std::move(reportStatus)) {}

QString GameInstaller::installFolderFor(const QString& versionsRoot, const QString& version) {
    QString folder = appendComponent(versionsRoot, version);
    while (folder.size() > 1 && folder.endsWith(QLatin1Char('/')))
        folder.chop(1);
    return folder;
}

QCoro::Task<QString> GameInstaller::install(ReleaseManifest manifest) {
    files_.createDirectory(locations_.versionsRoot);
    // Held to the end: another launcher on the same storage waits here rather than installing
    // the same build beside us, and then finds it in place.
    const StorageLock lock = co_await StorageLock::acquire(locations_.launcherRoot);
    removeStaleWork(files_, locations_.launcherRoot);
    const QString installFolder = installFolderFor(locations_.versionsRoot, manifest.version);

    // A build already on disk is made current again without fetching it a second time; this is
    // also how an install whose state write failed gets completed later.
    if (!files_.fileExists(appendComponent(installFolder, manifest.executable)))
        co_await downloadAndPlace(manifest, installFolder);

    InstalledState{manifest.version, installFolder}.write(files_, locations_.statePath);
    co_return installFolder;
}

QCoro::Task<void> GameInstaller::downloadAndPlace(ReleaseManifest manifest, QString installFolder) {
    reportStatus_(downloadingStatus());
    // Listed while it arrives, so the listing is ready about when the digest is; nothing of it is
    // trusted until the digest has matched.
    StreamedListing listing;
    // Named, not a braced temporary in the co_await: g++ 12 destroys such a temporary twice.
    const ArchiveDownload where{locations_.launcherRoot, ManifestKind::game().platform, &listing,
                                downloadObserver_};
    DownloadedFile archive = co_await downloadVerifiedArchive(manifest.url, manifest.sha256, where);

    reportStatus_(installingStatus());
    co_await unpackAndPlace(std::move(archive), listing, manifest.executable, installFolder);
}

QCoro::Task<void> GameInstaller::unpackAndPlace(DownloadedFile archive, StreamedListing& listing,
                                                QString executable, QString installFolder) {
    StagingFolder staging(files_, appendComponent(locations_.launcherRoot,
                                                  QStringLiteral("staging-") +
                                                      QString::fromStdString(makeUpperUuid())));
    {
        // The downloaded archive is only needed by the two tar runs; it goes right after them,
        // before the build is moved into place, so a large download never lingers. Nothing is
        // unpacked before the whole listing has passed the rule.
        DownloadedFile download = std::move(archive);
        checkArchiveListing(co_await listing.listingOf(download.path()));
        co_await extractArchive(files_, download.path(), staging.path());
    }

    // Only a plain file of the build itself can be the game: a link out of the staging folder
    // would have the permission change below land on a file that is not ours, and a folder or
    // a device recorded as current would block every later start.
    const std::optional<QString> stagedExecutable =
        files_.regularFileInside(staging.path(), appendComponent(staging.path(), executable));
    if (!stagedExecutable)
        throw LauncherError::missingExecutable();
    files_.setPosixPermissions(*stagedExecutable, 0755);
    staging.moveTo(installFolder);
}
