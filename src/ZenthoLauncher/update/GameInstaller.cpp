#include "update/GameInstaller.h"

#include "chunks/ChunkedBuild.h"
#include "chunks/ChunkedInstall.h"
#include "errors/LauncherError.h"
#include "net/HttpClient.h"
#include "platform/FileManager.h"
#include "process/WorkerThread.h"
#include "storage/BuildIndexes.h"
#include "storage/ChunkCache.h"
#include "storage/InstalledState.h"
#include "storage/PartialBuilds.h"
#include "archive/Archive.h"
#include "update/ManifestFetch.h"

#include <QDebug>


GameInstaller::GameInstaller(InstallContext context, Locations locations)
    : staging_(std::move(context)), context_(staging_.context()), locations_(std::move(locations)) {}

QString GameInstaller::installFolderFor(const QString& versionsRoot, const QString& version) {
    QString folder = versionsRoot + QLatin1Char('/') + version;
    while (folder.size() > 1 && folder.endsWith(QLatin1Char('/')))
        folder.chop(1);
    return folder;
}

QCoro::Task<QString> GameInstaller::install(ReleaseManifest manifest) {
    context_.files.createDirectory(locations_.versionsRoot);
    // Held to the end: another launcher on the same storage waits here rather than installing
    // the same build beside us, and then finds it in place.
    const StorageLock lock = co_await staging_.holdStorage();
    const QString installFolder = installFolderFor(locations_.versionsRoot, manifest.version);

    // A build already on disk is made current again without fetching it a second time; this is
    // also how an install whose state write failed gets completed later.
    if (!context_.files.fileExists(installFolder + QLatin1Char('/') + manifest.executable))
        co_await downloadAndPlace(manifest, installFolder);

    InstalledState{manifest.version, installFolder}.write(context_.files, locations_.statePath);
    co_return installFolder;
}

QCoro::Task<void> GameInstaller::downloadAndPlace(ReleaseManifest manifest, QString installFolder) {
    context_.reportStatus(downloadingStatus());
    // A release that also comes as chunks is put together from the builds already here and the
    // chunks they lack; whatever goes wrong on that way, the archive installs the release as
    // always.
    std::optional<FetchedChunkIndex> chunkIndex;
    bool placed = false;
    if (manifest.chunks) {
        chunkIndex = co_await fetchChunkIndexOrNothing(*manifest.chunks);
        if (chunkIndex)
            placed = co_await placeFromChunks(*chunkIndex, ChunkSource::of(*manifest.chunks, chunkIndex->index),
                                              manifest.executable, installFolder);
    }

    if (!placed) {
        // A chunk path that got as far as writing the build said so; what comes now is a download.
        if (chunkIndex)
            context_.reportStatus(downloadingStatus());
        // Named, not a braced temporary in the co_await: g++ 12 destroys such a temporary twice.
        const ReleaseStaging::Archive archive{manifest.url, manifest.sha256, ManifestKind::game().platform,
                                              installingStatus(), QStringLiteral("staging-")};
        StagingFolder staging = co_await staging_.stageArchive(archive);
        placeStaged(staging, manifest.executable, installFolder);
    }

    // Chunks kept by earlier tries are in the build now, or belong to a release no longer wanted;
    // the index tells the next update what the build holds without reading it.
    ChunkCache(context_.launcherRoot).clear();
    PartialBuilds(context_.files, context_.launcherRoot).removeAllBut(QString());
    if (chunkIndex) {
        const BuildIndexes kept(context_.launcherRoot);
        kept.write(installFolder, chunkIndex->bytes);
        kept.writeStore(installFolder, manifest.chunks->store, manifest.chunks->pack);
    }
}

QCoro::Task<std::optional<FetchedChunkIndex>> GameInstaller::fetchChunkIndexOrNothing(ReleaseChunks chunks) {
    try {
        co_return co_await fetchChunkIndex(context_.http, chunks);
    } catch (const std::exception& error) {
        qWarning().noquote() << "The release's chunk index is not usable, so its archive is downloaded:"
                             << error.what();
    }
    co_return std::nullopt;
}

QCoro::Task<bool> GameInstaller::placeFromChunks(const FetchedChunkIndex& release, ChunkSource source,
                                                 QString executable, QString installFolder) {
    HttpClient& client = context_.http;
    const ChunkIndex& index = release.index;
    const ChunkCache cache(context_.launcherRoot);
    const qint64 cacheCap = client.limits().chunkCacheBytes;
    try {
        cache.trimTo(cacheCap);
        const QString current = InstalledState::read(context_.files, locations_.statePath, {}).path;
        const std::vector<SeedBuild> seeds =
            seedBuilds(context_.files, context_.launcherRoot, locations_.versionsRoot, current);
        ChunkPlan plan = co_await onWorkerThread([&] { return planChunks(index, cache, seeds); });
        const BuildIndexes keptIndexes(context_.launcherRoot);
        for (const auto& [folder, made] : plan.madeIndexes)
            keptIndexes.write(folder, made.encode());
        if (!chunksPayFor(index, plan, cache, source.packed(), cacheCap))
            co_return false;
        const PartialBuilds partials(context_.files, context_.launcherRoot);
        const QString folder = partials.folderFor(sha256Hex(release.bytes));
        requireRoomForChunks(context_.launcherRoot, index, plan, client.limits(), folder);
        partials.removeAllBut(folder);
        const bool resuming = partials.takeUp(folder);
        StagingFolder staging(context_.files, folder);
        ChunkedBuild build{std::move(plan), std::move(source), folder,
                           resuming ? BuildWriter::Start::resume : BuildWriter::Start::empty, cacheCap,
                           context_.downloadObserver, [this] { context_.reportStatus(installingStatus()); }};
        try {
            co_await writeBuildFromChunks(client, index, std::move(build), cache);
        } catch (...) {
            // What was written is kept for the next try of the same release, as the fetched chunks are.
            staging.handOver();
            throw;
        }
        placeStaged(staging, executable, installFolder);
        co_return true;
    } catch (const std::exception& error) {
        qWarning().noquote() << "Installing from chunks failed, so the archive is downloaded:" << error.what();
    }
    co_return false;
}

void GameInstaller::placeStaged(StagingFolder& staging, const QString& executable, const QString& installFolder) const {
    const std::optional<QString> stagedExecutable = staging.executable(executable);
    if (!stagedExecutable)
        throw LauncherError::missingExecutable();
    context_.files.setPosixPermissions(*stagedExecutable, 0755);
    staging.moveTo(installFolder);
}
