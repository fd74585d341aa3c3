#pragma once

#include "formats/ChunkIndex.h"

#include <QString>

#include <vector>

class TestServer;

// Chunks of bytes that do not compress, published into a chunk store under the server's document
// root (STORE/ab/<sha256>.zst, as the release tool lays one out), for tests and benchmarks that
// fetch many of them. Sizes are spread evenly between `smallest` and `largest`; the same `seed`
// makes the same chunks.
namespace PublishedChunks {

// Publishes `count` chunks into documentRoot()/<storePath> and returns them, each once.
std::vector<ChunkRef> publish(const TestServer& server, const QString& storePath, int count, qint64 smallest,
                              qint64 largest, quint32 seed);

// The bytes of `chunks` together.
qint64 bytesOf(const std::vector<ChunkRef>& chunks);

} // namespace PublishedChunks
