#pragma once

#include "formats/ChunkIndex.h"

#include <QUrl>

#include <QCoroTask>

class ChunkCache;
class HttpClient;

// The address of the chunk `sha256` in the chunk store at `store`: STORE/ab/<sha256>.zst.
QUrl chunkUrl(const QUrl& store, const QString& sha256);

// Fetches the chunk `chunk` from the store at `store`, with the client's download limits and a
// body no larger than its chunk can be stored in, and checks it (one zstd frame of its size whose
// bytes hash to its name) before `cache` keeps it. Throws NetworkError, ChunkStoreError (also for
// an answer other than 200), FileError.
QCoro::Task<void> fetchChunk(HttpClient& client, QUrl store, ChunkRef chunk, const ChunkCache& cache);
