#pragma once

#include "errors/Failure.h"

#include <QByteArray>

// A chunk index as one zstd frame, which a release may publish beside its JSON: the index is
// mostly hexadecimal digests, which zstd stores in about half their text, and every update
// fetches it whole. The frame holds the JSON's exact bytes, so what is kept and checked after
// decompression is the same index a launcher would have fetched as JSON.
namespace CompressedChunkIndex {

// Compresses long and hard: a release compresses its index once, every player fetches it.
inline constexpr int kCompressionLevel = 19;

QByteArray compress(const QByteArray& json);

// The JSON the frame holds. Refuses anything but exactly one frame, and a frame whose content
// (whatever its header says) grows past ChunkIndex::kMaxBytes, without ever holding more than
// that in memory. Throws ChunkIndexError.
QByteArray decompress(const QByteArray& frame);

} // namespace CompressedChunkIndex
