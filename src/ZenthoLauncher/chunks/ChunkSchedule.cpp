#include "chunks/ChunkSchedule.h"

#include "storage/ChunkCache.h"

#include <QHash>
#include <QSet>

#include <algorithm>

bool passesThroughCache(const ChunkPlan& plan, const ChunkCache& cache, const QString& sha256) {
    const auto found = plan.found.constFind(sha256);
    return found == plan.found.cend() || found->file == cache.pathOf(sha256);
}

qint64 peakCachedBytes(const std::vector<const ChunkIndexEntry*>& files, const ChunkPlan& plan, const ChunkCache& cache) {
    QHash<QString, std::size_t> lastUser;
    QHash<QString, qint64> sizes;
    for (std::size_t i = 0; i < files.size(); ++i) {
        for (const ChunkRef& chunk : files[i]->chunks) {
            if (passesThroughCache(plan, cache, chunk.sha256)) {
                lastUser.insert(chunk.sha256, i);
                sizes.insert(chunk.sha256, chunk.size);
            }
        }
    }
    // What earlier tries kept is there from the start.
    QSet<QString> held;
    qint64 bytes = 0;
    for (auto it = sizes.cbegin(); it != sizes.cend(); ++it) {
        if (plan.found.contains(it.key())) {
            held.insert(it.key());
            bytes += it.value();
        }
    }
    qint64 peak = bytes;
    for (std::size_t i = 0; i < files.size(); ++i) {
        for (const ChunkRef& chunk : files[i]->chunks) {
            if (sizes.contains(chunk.sha256) && !held.contains(chunk.sha256)) {
                held.insert(chunk.sha256);
                bytes += chunk.size;
            }
        }
        peak = std::max(peak, bytes);
        for (const ChunkRef& chunk : files[i]->chunks) {
            if (lastUser.value(chunk.sha256, files.size()) == i && held.remove(chunk.sha256))
                bytes -= chunk.size;
        }
    }
    return peak;
}

std::vector<const ChunkIndexEntry*> filesOf(const ChunkIndex& index) {
    std::vector<const ChunkIndexEntry*> files;
    for (const ChunkIndexEntry& entry : index.entries) {
        if (entry.kind == ChunkIndexEntry::Kind::file)
            files.push_back(&entry);
    }
    return files;
}
