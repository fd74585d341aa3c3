#pragma once

#include "formats/ChunkIndex.h"

#include <QUrl>

#include <QCoroTask>

#include <vector>

class ChunkCache;
class DownloadObserver;
class HttpClient;

// The address of the chunk `sha256` in the chunk store at `store`: STORE/ab/<sha256>.zst.
QUrl chunkUrl(const QUrl& store, const QString& sha256);

// What one round of chunk downloads fetches, and what it reports its progress against.
struct ChunkDownload {
    QUrl store;
    std::vector<ChunkRef> missing; // each chunk once
    qint64 keptBytes = 0;          // of the same build, already in the cache from an earlier try
    DownloadObserver* observer = nullptr;
};

// Fetches every chunk of `download.missing`, the client's `parallelChunks` at a time, each with
// the client's download limits and a body no larger than its chunk can be stored in. Each is
// checked (one zstd frame of its size whose bytes hash to its name) before `cache` keeps it; the
// observer sees the kept bytes grow towards the kept and missing bytes together. The first
// failure lets no further request start and is thrown once the running ones are over:
// NetworkError, ChunkStoreError (also for an answer other than 200), FileError.
QCoro::Task<void> downloadChunks(HttpClient& client, ChunkDownload download, const ChunkCache& cache);
