#include "chunks/ChunkPlan.h"

#include "formats/TreeChunker.h"
#include "storage/ChunkCache.h"

#include <QFile>
#include <QFileInfo>
#include <QSet>

#include <stdexcept>

#include <sys/stat.h>

namespace {

bool isPlainFileOfSize(const QString& path, qint64 size) {
    struct stat info {};
    return ::lstat(QFile::encodeName(path).constData(), &info) == 0 && S_ISREG(info.st_mode) && info.st_size == size;
}

class Finder {
public:
    Finder(ChunkPlan& plan, QHash<QString, ChunkLocation>& into) : plan_(plan), into_(into) {}

    // The chunks not found yet, each once.
    QSet<QString> pending;

    void found(const ChunkRef& chunk, const QString& file, qint64 offset) {
        if (pending.remove(chunk.sha256))
            into_.insert(chunk.sha256, ChunkLocation{file, offset});
    }

    void fromIndex(const QString& folder, const ChunkIndex& index) {
        for (const ChunkIndexEntry& entry : index.entries) {
            if (pending.isEmpty())
                return;
            if (entry.kind != ChunkIndexEntry::Kind::file)
                continue;
            const QString file = folder + QLatin1Char('/') + entry.path;
            if (!isPlainFileOfSize(file, entry.size))
                continue;
            qint64 offset = 0;
            for (const ChunkRef& chunk : entry.chunks) {
                found(chunk, file, offset);
                offset += chunk.size;
            }
        }
    }

    // Reads the whole build; its index is kept for the next update.
    void byReading(const QString& folder, const ChunkSizes& sizes) {
        ChunkIndex made = TreeChunker::index(
            folder, sizes,
            [&](const ChunkIndexEntry& file, const ChunkRef& chunk, std::uint64_t offset, const unsigned char*,
                std::size_t) { found(chunk, folder + QLatin1Char('/') + file.path, qint64(offset)); });
        plan_.madeIndexes.emplace_back(folder, std::move(made));
    }

private:
    ChunkPlan& plan_;
    QHash<QString, ChunkLocation>& into_;
};

// Looks for the bases of the deltas of the missing chunks, in seeds that have an index only:
// reading a whole build for a delta would cost more than the delta saves.
void findBases(const ChunkIndex& wanted, ChunkPlan& plan, const std::vector<SeedBuild>& seeds) {
    Finder finder(plan, plan.bases);
    for (const ChunkRef& chunk : plan.missing) {
        const auto delta = wanted.deltas.constFind(chunk.sha256);
        if (delta == wanted.deltas.cend())
            continue;
        for (const ChunkRef& base : delta->from)
            finder.pending.insert(base.sha256);
    }
    for (const SeedBuild& seed : seeds) {
        if (finder.pending.isEmpty())
            return;
        if (seed.index)
            finder.fromIndex(seed.folder, *seed.index);
    }
}

} // namespace

ChunkPlan planChunks(const ChunkIndex& wanted, const ChunkCache& cache, const std::vector<SeedBuild>& seeds) {
    ChunkPlan plan;
    Finder finder(plan, plan.found);
    // Emptied after every install, the cache is usually not there at all.
    const bool cacheHoldsAny = QFileInfo(cache.path()).isDir();
    for (const ChunkIndexEntry& entry : wanted.entries) {
        for (const ChunkRef& chunk : entry.chunks) {
            if (finder.pending.contains(chunk.sha256) || plan.found.contains(chunk.sha256))
                continue;
            plan.wantedBytes += chunk.size;
            if (cacheHoldsAny && cache.holds(chunk.sha256, chunk.size)) {
                plan.found.insert(chunk.sha256, ChunkLocation{cache.pathOf(chunk.sha256), 0});
                plan.keptBytes += chunk.size;
            } else {
                finder.pending.insert(chunk.sha256);
            }
        }
    }

    for (const SeedBuild& seed : seeds) {
        if (finder.pending.isEmpty())
            break;
        if (seed.index && seed.index->chunking == wanted.chunking) {
            finder.fromIndex(seed.folder, *seed.index);
            continue;
        }
        try {
            finder.byReading(seed.folder, wanted.chunking);
        } catch (const std::exception&) {
            // A build with something the chunker does not read (a FIFO, an unreadable file)
            // simply gives nothing more.
        }
    }

    QSet<QString> listed;
    for (const ChunkIndexEntry& entry : wanted.entries) {
        for (const ChunkRef& chunk : entry.chunks) {
            if (finder.pending.contains(chunk.sha256) && !listed.contains(chunk.sha256)) {
                listed.insert(chunk.sha256);
                plan.missing.push_back(chunk);
                plan.missingBytes += chunk.size;
            }
        }
    }
    if (!wanted.deltas.isEmpty())
        findBases(wanted, plan, seeds);
    return plan;
}
