#pragma once

#include "errors/Failure.h"

#include <QByteArray>
#include <QString>

#include <cstddef>

// How a chunk is kept in a chunk store, on the publisher's disk and on the release server alike.
// A chunk is named by the SHA-256 of its uncompressed bytes and kept as one zstd frame at
// STORE/ab/abcdef....zst, where "ab" is the name's first two digits: 256 folders, none of which
// grows past a few thousand files even for stores of many releases. A name says the content, so
// a chunk file is never replaced by other bytes and every release shares the same store.
namespace ChunkStore {

// The zstd level chunks are stored with: text-like data comes out about 6 % smaller than with
// gzip -6 and 12 % smaller than with zstd -6, at about gzip's speed, and only a release's new
// chunks are compressed; bytes that do not compress are stored as they are.
inline constexpr int kCompressionLevel = 9;

// True for 64 lower-case hexadecimal digits, the only form a chunk's name takes.
bool isChunkName(const QString& sha256);

// "ab/abcdef....zst" for the chunk named `sha256`, relative to the store's root.
QString relativePath(const QString& sha256);

// The most bytes a stored chunk of `size` bytes takes: zstd's own bound for a frame that holds
// them, with room for the frame's header.
constexpr qint64 frameBound(qint64 size) {
    return size + size / 128 + 4096;
}

// One zstd frame holding `size` bytes (the frame records the size).
QByteArray compress(const char* data, std::size_t size);

// The bytes of the stored chunk `stored`, checked to be the chunk named `sha256` of `size`
// bytes: exactly one frame that says it holds `size` bytes, holds them, and hashes to `sha256`.
// Never allocates more than `size` bytes for the result. Throws ChunkStoreError.
QByteArray decode(const QByteArray& stored, qint64 size, const QString& sha256);

// One zstd frame holding `size` bytes compressed against `base` (zstd's patch-from): bytes that
// `base` holds too cost a few bytes each, so a chunk that replaces a similar one packs small.
QByteArray compressAgainst(const char* data, std::size_t size, const QByteArray& base);

// decode() for a frame made by compressAgainst: the same checks, with the same `base`. Bytes
// other than the base it was made against give other bytes, which fail the name.
QByteArray decodeAgainst(const QByteArray& stored, const QByteArray& base, qint64 size, const QString& sha256);

} // namespace ChunkStore
