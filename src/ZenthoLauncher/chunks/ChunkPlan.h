#pragma once

#include "formats/ChunkIndex.h"

#include <QHash>
#include <QString>

#include <optional>
#include <utility>
#include <vector>

class ChunkCache;

// Where a chunk's bytes can be read on this disk: `size` bytes from `offset` on in `file`.
struct ChunkLocation {
    QString file;
    qint64 offset = 0;
};

// A saved build that may hold chunks of the release being installed: its folder and, when one
// was kept, the index of the release it came from.
struct SeedBuild {
    QString folder;
    std::optional<ChunkIndex> index;
};

// Where each chunk of a release comes from: read from the disk, or still to be fetched.
struct ChunkPlan {
    QHash<QString, ChunkLocation> found;
    std::vector<ChunkRef> missing; // each chunk once, in the order the index first names it
    qint64 missingBytes = 0;
    qint64 keptBytes = 0;   // found in the chunk cache: fetched by an earlier try
    qint64 wantedBytes = 0; // every distinct chunk of the release
    // Chunks of earlier releases that deltas of missing chunks are made against (ChunkDelta),
    // found in saved builds through their kept indexes.
    QHash<QString, ChunkLocation> bases;
    // Indexes made by reading seeds that had none, worth keeping for the next update.
    std::vector<std::pair<QString, ChunkIndex>> madeIndexes;
};

// Finds the chunks of `wanted` in the cache and then in each seed in turn: through the seed's
// index when it has one cut with `wanted`'s sizes (a file that is not a plain file of the size the
// index gives is passed over), else by reading the whole seed and cutting it the same way, which
// only happens while chunks are still missing. A seed that cannot be read is passed over. Nothing
// found here is trusted: the bytes are checked when they are read. Then the bases of the deltas
// `wanted` gives for missing chunks, in the seeds that have an index.
ChunkPlan planChunks(const ChunkIndex& wanted, const ChunkCache& cache, const std::vector<SeedBuild>& seeds);
