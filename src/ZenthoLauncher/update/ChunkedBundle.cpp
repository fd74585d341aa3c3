#include "update/ChunkedBundle.h"

#include "chunks/ChunkSource.h"
#include "chunks/ChunkedBuild.h"
#include "chunks/ChunkedInstall.h"
#include "formats/TreeChunker.h"
#include "net/HttpClient.h"
#include "process/WorkerThread.h"
#include "storage/ChunkCache.h"

#include <QDebug>
#include <QFileInfo>


namespace {

// The running bundle as a build that can give chunks: cut as its release was, under its own
// folder's name, read from the folder it lies in. None when it is not a folder that can be read.
std::vector<SeedBuild> runningBundleSeed(const QString& bundle, const ChunkSizes& sizes) {
    try {
        return {SeedBuild{QFileInfo(bundle).absolutePath(), TreeChunker::indexWithTop(bundle, sizes)}};
    } catch (const ChunkIndexError& error) {
        qWarning().noquote() << "The running launcher's bundle gives no chunks to its update:" << error.what();
    }
    return {};
}

} // namespace

QCoro::Task<std::optional<StagingFolder>> stageBundleFromChunks(const ReleaseStaging& staging, ReleaseChunks chunks,
                                                                 QString runningBundle, QString verifiedStatus) {
    const InstallContext& context = staging.context();
    HttpClient& client = context.http;
    const ChunkCache cache(context.launcherRoot);
    const qint64 cacheCap = client.limits().chunkCacheBytes;
    try {
        const FetchedChunkIndex release = co_await fetchChunkIndex(client, chunks);
        const ChunkIndex& index = release.index;
        cache.trimTo(cacheCap);
        const std::vector<SeedBuild> seeds =
            co_await onWorkerThread([&] { return runningBundleSeed(runningBundle, index.chunking); });
        ChunkPlan plan = co_await onWorkerThread([&] { return planChunks(index, cache, seeds); });
        ChunkSource source = ChunkSource::of(chunks, index);
        if (!chunksPayFor(index, plan, cache, source.packed(), cacheCap))
            co_return std::nullopt;
        requireRoomForChunks(context.launcherRoot, index, plan, client.limits());
        StagingFolder folder = staging.newStagingFolder(QStringLiteral("launcher-staging-"));
        ChunkedBuild build{std::move(plan), std::move(source), folder.path(), BuildWriter::Start::empty, cacheCap,
                           context.downloadObserver, [&context, verifiedStatus] { context.reportStatus(verifiedStatus); }};
        co_await writeBuildFromChunks(client, index, std::move(build), cache);
        cache.clear();
        co_return std::optional<StagingFolder>(std::move(folder));
    } catch (const std::exception& error) {
        qWarning().noquote() << "Putting the launcher update together from chunks failed, so its archive is downloaded:"
                             << error.what();
    }
    co_return std::nullopt;
}
