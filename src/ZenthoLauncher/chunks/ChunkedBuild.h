#pragma once

#include "chunks/BuildWriter.h"
#include "chunks/ChunkPlan.h"
#include "chunks/ChunkSource.h"
#include "formats/ChunkIndex.h"

#include <QString>

#include <QCoroTask>

#include <functional>

class ChunkCache;
class DownloadObserver;
class HttpClient;

// One build to write from chunks, and where they come from.
struct ChunkedBuild {
    ChunkPlan plan;  // where the chunks on this disk are, and which ones are missing
    ChunkSource source; // where the missing ones are fetched from
    QString folder;  // what the build is written into
    BuildWriter::Start start = BuildWriter::Start::empty;
    // Chunks passing through the cache (fetched, or kept by an earlier try) and not yet written
    // take at most this many bytes; at least what peakCachedBytes tells, or the build stops
    // with ChunkAssemblyError when no file can be finished within it.
    qint64 cacheBytes = 0;
    // Sees the fetched bytes grow towards those of every chunk passing through the cache.
    DownloadObserver* observer = nullptr;
    // Called once every chunk is in: what is left is writing.
    std::function<void()> allFetched;
};

// Writes the build of `index` into `build.folder` while its missing chunks arrive: each is checked
// before the cache keeps it (fetchChunks), the client's `parallelChunks` requests at a time in the
// order the files first need them, and each file is written and checked as soon as all its chunks are on
// this disk (BuildWriter), several at a time on worker threads; a chunk leaves the cache once the
// last file that needs it is written. A process killed at any point loses only the chunks in
// flight and the files half written: whatever else was fetched is in the cache, whatever was
// written is in the folder for Start::resume to keep. The first failure lets no further request
// start and is thrown once the running ones are over: NetworkError, ChunkStoreError, FileError,
// ChunkAssemblyError.
QCoro::Task<void> writeBuildFromChunks(HttpClient& client, const ChunkIndex& index, ChunkedBuild build,
                                       const ChunkCache& cache);
