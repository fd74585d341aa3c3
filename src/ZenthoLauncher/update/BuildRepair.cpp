#include "update/BuildRepair.h"

#include "chunks/ChunkSchedule.h"
#include "chunks/ChunkedBuild.h"
#include "chunks/ChunkedInstall.h"
#include "errors/Failure.h"
#include "formats/ChunkPack.h"
#include "net/FreeSpace.h"
#include "net/HttpClient.h"
#include "platform/FileManager.h"
#include "process/WorkerThread.h"
#include "storage/BuildIndexes.h"
#include "storage/ChunkCache.h"
#include "storage/StorageLock.h"

#include <QDebug>
#include <QFileInfo>
#include <QSet>

#include <algorithm>

namespace {

// A saved build is always started by this name, so the launcher made it runnable.
const QString kExecutable = QStringLiteral("zentho");

// The build's own index less what is damaged: only its undamaged files may lend their bytes.
ChunkIndex withoutDamage(ChunkIndex index, const std::vector<BuildDamage>& damage) {
    QSet<QString> damaged;
    for (const BuildDamage& entry : damage)
        damaged.insert(entry.path);
    std::erase_if(index.entries, [&](const ChunkIndexEntry& entry) { return damaged.contains(entry.path); });
    return index;
}

} // namespace

BuildRepair::BuildRepair(InstallContext context) : staging_(std::move(context)) {}

QCoro::Task<RepairOutcome> BuildRepair::repair(QString versionsRoot, QString buildFolder) {
    const InstallContext& context = staging_.context();
    const StorageLock lock = co_await staging_.holdStorage();
    const BuildIndexes kept(context.launcherRoot);
    const std::optional<QByteArray> keptIndex = kept.read(buildFolder);
    if (!keptIndex)
        throw Failure(QStringLiteral("no index was kept for it, so what it should hold is not known"));
    const ChunkIndex index = ChunkIndex::decode(*keptIndex);

    RepairOutcome outcome;
    outcome.damage = co_await onWorkerThread([&] { return checkBuild(buildFolder, index, BuildCheckDepth::full, kExecutable); });
    if (outcome.damage.empty())
        co_return outcome;

    // The build's undamaged files first, then the other saved builds, as an update seeds.
    std::vector<SeedBuild> seeds{{buildFolder, withoutDamage(index, outcome.damage)}};
    for (SeedBuild& other : seedBuilds(context.files, context.launcherRoot, versionsRoot, QString()))
        if (other.folder != buildFolder)
            seeds.push_back(std::move(other));
    // Last, and read only while chunks are still missing: the damaged build cut afresh, which
    // finds the chunks of a changed file that the change left as they were.
    seeds.push_back({buildFolder, std::nullopt});
    const ChunkCache cache(context.launcherRoot);
    ChunkPlan plan = co_await onWorkerThread([&] { return planChunks(index, cache, seeds); });
    FreeSpace::require({{context.launcherRoot, plan.missingBytes + buildBytes(index)}},
                       context.http.limits().freeSpaceReserve);
    std::optional<QUrl> store;
    if (!plan.missing.empty()) {
        store = kept.readStore(buildFolder);
        if (!store)
            throw Failure(QStringLiteral("%1 of its chunks are nowhere on this disk and no chunk store is known for it")
                              .arg(plan.missing.size()));
        outcome.fetchedChunks = int(plan.missing.size());
        outcome.fetchedBytes = plan.missingBytes;
    }

    // From the release's pack when it had one (the damaged chunks in a request or two), else, or
    // when the pack cannot be had any more, from its store.
    ChunkSource source{store.value_or(QUrl())};
    if (const std::optional<QUrl> pack = kept.readPack(buildFolder); store && pack && !index.stored.isEmpty())
        source = ChunkSource{*store, *pack, ChunkPack::spans(index)};
    if (source.packed()) {
        std::optional<QString> packFailed;
        try {
            co_await rebuild(index, plan, source, buildFolder);
        } catch (const NetworkError& error) {
            packFailed = QString::fromUtf8(error.what());
        } catch (const ChunkStoreError& error) {
            packFailed = QString::fromUtf8(error.what());
        }
        if (!packFailed) {
            cache.clear();
            co_return outcome;
        }
        qWarning().noquote() << "Repairing from the release's pack failed, so its chunk store is asked:" << *packFailed;
        // What the pack did bring is in the cache now.
        plan = co_await onWorkerThread([&] { return planChunks(index, cache, seeds); });
    }
    // Named: g++ 12 destroys a braced temporary in a co_await twice.
    ChunkSource fromStore{store.value_or(QUrl())};
    co_await rebuild(index, std::move(plan), std::move(fromStore), buildFolder);
    cache.clear();
    co_return outcome;
}

QCoro::Task<void> BuildRepair::rebuild(const ChunkIndex& index, ChunkPlan plan, ChunkSource source, QString buildFolder) {
    const InstallContext& context = staging_.context();
    const ChunkCache cache(context.launcherRoot);
    DownloadObserver* observer = plan.missing.empty() ? nullptr : context.downloadObserver;
    StagingFolder staging = staging_.newStagingFolder(QStringLiteral("staging-"));
    // A repair is never refused for the cache's cap: it may hold all that the repair fetches.
    const qint64 cacheBytes = std::max(context.http.limits().chunkCacheBytes, peakCachedBytes(filesOf(index), plan, cache));
    ChunkedBuild build{std::move(plan), std::move(source), staging.path(), BuildWriter::Start::empty, cacheBytes, observer, {}};
    co_await writeBuildFromChunks(context.http, index, std::move(build), cache);
    if (const std::optional<QString> executable = staging.executable(kExecutable))
        context.files.setPosixPermissions(*executable, 0755);
    staging.exchangeWith(buildFolder);
}
