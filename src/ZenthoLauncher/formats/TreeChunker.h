#pragma once

#include "formats/ChunkIndex.h"

#include <QString>

#include <cstdint>
#include <functional>

// Cuts every file of a build's tree into chunks and describes the tree as a ChunkIndex: the
// release tool makes a release's index this way, and the same cuts of a build already on disk
// name the chunks it can give to the next one.
namespace TreeChunker {

// Called for each chunk in tree order, with the entry it belongs to (path, kind and mode set),
// the chunk, its offset in the file and its bytes (valid only during the call).
using OnChunk = std::function<void(const ChunkIndexEntry& file, const ChunkRef& chunk, std::uint64_t offset,
                                   const unsigned char* data, std::size_t size)>;

// The index of everything below `root` (not `root` itself): folders before what they hold,
// names in byte order, symlinks not followed. Modes are the permission, setuid, setgid and sticky
// bits as found, so ChunkIndex::decode of the result refuses what a launcher would. Throws
// ChunkIndexError naming the entry that is not a file, folder or symlink or cannot be read.
ChunkIndex index(const QString& root, const ChunkSizes& sizes, const OnChunk& onChunk = {});

// The index of the folder `folder` itself and everything below it, as an archive that holds the
// folder as its one top-level entry lists them: the folder's own name first, every path below
// it under that name. A launcher bundle is released so. Throws ChunkIndexError as index does,
// also when `folder` is not a folder.
ChunkIndex indexWithTop(const QString& folder, const ChunkSizes& sizes, const OnChunk& onChunk = {});

} // namespace TreeChunker
