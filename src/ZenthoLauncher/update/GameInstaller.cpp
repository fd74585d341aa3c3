#include "update/GameInstaller.h"

#include "archive/Archive.h"
#include "archive/ArchiveExtraction.h"
#include "archive/StreamedListing.h"
#include "chunks/ChunkAssembly.h"
#include "chunks/ChunkDownload.h"
#include "chunks/ChunkedInstall.h"
#include "errors/LauncherError.h"
#include "net/FreeSpace.h"
#include "net/HttpClient.h"
#include "platform/FileManager.h"
#include "process/WorkerThread.h"
#include "storage/BuildIndexes.h"
#include "storage/ChunkCache.h"
#include "storage/InstalledState.h"
#include "storage/StorageLock.h"
#include "update/ManifestFetch.h"
#include "update/StagingFolder.h"
#include "update/StaleWork.h"
#include "update/VerifiedDownload.h"

#include <Uuid.h>

#include <QDebug>

namespace {

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
    // A release that also comes as chunks is put together from the builds already here and the
    // chunks they lack; whatever goes wrong on that way, the archive installs the release as
    // always.
    std::optional<FetchedChunkIndex> chunkIndex;
    bool placed = false;
    if (manifest.chunks) {
        chunkIndex = co_await fetchChunkIndexOrNothing(*manifest.chunks);
        if (chunkIndex)
            placed = co_await placeFromChunks(*chunkIndex, manifest.chunks->store, manifest.executable,
                                              installFolder);
    }

    if (!placed) {
        // Listed while it arrives, so the listing is ready about when the digest is; nothing of it
        // is trusted until the digest has matched.
        StreamedListing listing;
        // Named, not a braced temporary in the co_await: g++ 12 destroys such a temporary twice.
        const ArchiveDownload where{locations_.launcherRoot, ManifestKind::game().platform, &listing,
                                    downloadObserver_};
        DownloadedFile archive = co_await downloadVerifiedArchive(manifest.url, manifest.sha256, where);

        reportStatus_(installingStatus());
        co_await unpackAndPlace(std::move(archive), listing, manifest.executable, installFolder);
    }

    // Chunks kept by earlier tries are in the build now, or belong to a release no longer wanted;
    // the index tells the next update what the build holds without reading it.
    ChunkCache(locations_.launcherRoot).clear();
    if (chunkIndex)
        BuildIndexes(locations_.launcherRoot).write(installFolder, chunkIndex->bytes);
}

QCoro::Task<std::optional<FetchedChunkIndex>> GameInstaller::fetchChunkIndexOrNothing(ReleaseChunks chunks) {
    try {
        co_return co_await fetchChunkIndex(HttpClient::shared(), chunks);
    } catch (const std::exception& error) {
        qWarning().noquote() << "The release's chunk index is not usable, so its archive is downloaded:"
                             << error.what();
    }
    co_return std::nullopt;
}

QCoro::Task<bool> GameInstaller::placeFromChunks(const FetchedChunkIndex& release, QUrl store,
                                                 QString executable, QString installFolder) {
    HttpClient& client = HttpClient::shared();
    const ChunkIndex& index = release.index;
    const ChunkCache cache(locations_.launcherRoot);
    try {
        cache.trimTo(client.limits().chunkCacheBytes);
        const QString current = InstalledState::read(files_, locations_.statePath, {}).path;
        const std::vector<SeedBuild> seeds =
            seedBuilds(files_, locations_.launcherRoot, locations_.versionsRoot, current);
        ChunkPlan plan = co_await onWorkerThread([&] { return planChunks(index, cache, seeds); });
        const BuildIndexes keptIndexes(locations_.launcherRoot);
        for (const auto& [folder, made] : plan.madeIndexes)
            keptIndexes.write(folder, made.encode());
        if (!chunksArePaying(plan, client.limits().chunkCacheBytes))
            co_return false;

        FreeSpace::require({{locations_.launcherRoot, plan.missingBytes + buildBytes(index)}},
                           client.limits().freeSpaceReserve);
        ChunkDownload download{store, plan.missing, plan.keptBytes, downloadObserver_};
        co_await downloadChunks(client, std::move(download), cache);
        for (const ChunkRef& chunk : plan.missing)
            plan.found.insert(chunk.sha256, ChunkLocation{cache.pathOf(chunk.sha256), 0});

        reportStatus_(installingStatus());
        StagingFolder staging(files_, newStagingPath());
        co_await onWorkerThread([&] { assembleBuild(index, plan.found, staging.path()); });
        placeStaged(staging, executable, installFolder);
        co_return true;
    } catch (const std::exception& error) {
        qWarning().noquote() << "Installing from chunks failed, so the archive is downloaded:" << error.what();
    }
    co_return false;
}

QString GameInstaller::newStagingPath() const {
    return appendComponent(locations_.launcherRoot,
                           QStringLiteral("staging-") + QString::fromStdString(makeUpperUuid()));
}

QCoro::Task<void> GameInstaller::unpackAndPlace(DownloadedFile archive, StreamedListing& listing,
                                                QString executable, QString installFolder) {
    StagingFolder staging(files_, newStagingPath());
    {
        // The downloaded archive is only needed by the two tar runs; it goes right after them,
        // before the build is moved into place, so a large download never lingers. Nothing is
        // unpacked before the whole listing has passed the rule.
        DownloadedFile download = std::move(archive);
        checkArchiveListing(co_await listing.listingOf(download.path()));
        co_await extractArchive(files_, download.path(), staging.path());
    }
    placeStaged(staging, executable, installFolder);
}

void GameInstaller::placeStaged(StagingFolder& staging, const QString& executable, const QString& installFolder) const {
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
