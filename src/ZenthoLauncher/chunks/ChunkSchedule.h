#pragma once

#include "chunks/ChunkPlan.h"
#include "formats/ChunkIndex.h"

#include <vector>

class ChunkCache;

// True when the chunk `sha256` of `plan` passes through the chunk cache on its way into the build:
// it is still to be fetched, or an earlier try kept it there. Chunks read from saved builds do not.
bool passesThroughCache(const ChunkPlan& plan, const ChunkCache& cache, const QString& sha256);

// The most bytes the chunk cache holds at once while `files` (entries of one index) are written in
// their order, each once its chunks are in: the chunks passing through the cache come in the order
// the files first need them and go once the last file that needs them is written. A build is
// written from chunks only when this fits the cache's cap, so fetching ahead never has to wait for
// room that writing cannot make.
qint64 peakCachedBytes(const std::vector<const ChunkIndexEntry*>& files, const ChunkPlan& plan, const ChunkCache& cache);

// Every file entry of `index`, in its order.
std::vector<const ChunkIndexEntry*> filesOf(const ChunkIndex& index);
