#include "chunks/ChunkedInstall.h"

#include "archive/Archive.h"
#include "chunks/ChunkSchedule.h"
#include "errors/Failure.h"
#include "formats/CompressedChunkIndex.h"
#include "net/FreeSpace.h"
#include "net/HttpClient.h"
#include "net/TransferLimits.h"
#include "storage/BuildCheck.h"
#include "storage/BuildIndexes.h"
#include "storage/InstalledBuild.h"

#include <QFileInfo>
#include <QSet>

#include <algorithm>

QCoro::Task<FetchedChunkIndex> fetchChunkIndex(HttpClient& client, ReleaseChunks chunks) {
    // The compressed form when the release has one: the same index in about half the bytes.
    const bool compressed = chunks.compressedIndex.isValid();
    const QUrl url = compressed ? chunks.compressedIndex : chunks.index;
    const HttpResponse response = co_await client.metadata(url, ChunkIndex::kMaxBytes);
    if (response.statusCode != 200)
        throw ChunkIndexError(url.toString().toStdString() + " answered " +
                                 std::to_string(response.statusCode.value_or(0)));
    // Nothing of the index is looked at before its digest has matched: the file's, then, for a
    // compressed one, that of what it holds.
    if (sha256Hex(response.body) != (compressed ? chunks.compressedSha256 : chunks.sha256).toLower())
        throw ChunkIndexError(url.toString().toStdString() + " is not the index the manifest names");
    const QByteArray json = compressed ? CompressedChunkIndex::decompress(response.body) : response.body;
    if (compressed && sha256Hex(json) != chunks.sha256.toLower())
        throw ChunkIndexError(url.toString().toStdString() + " does not hold the index the manifest names");
    FetchedChunkIndex fetched{json, ChunkIndex::decode(json)};
    QString listing;
    for (const ChunkIndexEntry& entry : fetched.index.entries)
        listing += entry.path + QLatin1Char('\n');
    checkArchiveListing(listing);
    co_return fetched;
}

std::vector<SeedBuild> seedBuilds(const FileManager& files, const QString& launcherRoot,
                                  const QString& versionsRoot, const QString& currentBuild, int maximumOthers) {
    const BuildIndexes kept(launcherRoot);
    const auto keptIndex = [&](const QString& folder) -> std::optional<ChunkIndex> {
        if (const std::optional<QByteArray> bytes = kept.read(folder)) {
            try {
                return ChunkIndex::decode(*bytes);
            } catch (const ChunkIndexError&) {
                // Read the build itself instead.
            }
        }
        return std::nullopt;
    };

    std::vector<SeedBuild> seeds;
    if (!currentBuild.isEmpty())
        seeds.push_back({currentBuild, keptIndex(currentBuild)});
    int others = 0;
    for (const InstalledBuild& build : scanInstalledBuilds(files, versionsRoot)) {
        if (others == maximumOthers)
            break;
        if (build.path == currentBuild)
            continue;
        if (std::optional<ChunkIndex> index = keptIndex(build.path)) {
            seeds.push_back({build.path, std::move(index)});
            ++others;
        }
    }
    return seeds;
}

bool chunksArePaying(qint64 peakCachedBytes, qint64 cacheBytes) {
    return peakCachedBytes <= cacheBytes;
}

bool requestsArePaying(qint64 missingBytes, qint64 buildBytes, bool packed) {
    return packed || missingBytes <= buildBytes / 2;
}

bool chunksPayFor(const ChunkIndex& index, const ChunkPlan& plan, const ChunkCache& cache, bool packed,
                  qint64 cacheBytes) {
    return chunksArePaying(peakCachedBytes(filesOf(index), plan, cache), cacheBytes) &&
           requestsArePaying(plan.missingBytes, buildBytes(index), packed);
}

namespace {

// The bytes of the files of `index` that `folder` holds at their size, as the look before a start
// sees them.
qint64 bytesAlreadyIn(const QString& folder, const ChunkIndex& index) {
    if (folder.isEmpty() || !QFileInfo(folder).isDir())
        return 0;
    QSet<QString> damaged;
    for (const BuildDamage& damage : checkBuild(folder, index, BuildCheckDepth::quick))
        damaged.insert(damage.path);
    qint64 total = 0;
    for (const ChunkIndexEntry& entry : index.entries) {
        if (entry.kind == ChunkIndexEntry::Kind::file && !damaged.contains(entry.path))
            total += entry.size;
    }
    return total;
}

} // namespace

void requireRoomForChunks(const QString& root, const ChunkIndex& index, const ChunkPlan& plan,
                          const TransferLimits& limits, const QString& partial) {
    const qint64 cached = std::min(limits.chunkCacheBytes, plan.keptBytes + plan.missingBytes);
    FreeSpace::require({{root, buildBytes(index) - bytesAlreadyIn(partial, index) + cached}},
                       limits.freeSpaceReserve);
}

qint64 buildBytes(const ChunkIndex& index) {
    qint64 total = 0;
    for (const ChunkIndexEntry& entry : index.entries)
        total += entry.size;
    return total;
}
