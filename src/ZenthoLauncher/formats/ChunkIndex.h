#pragma once

#include "errors/Failure.h"

#include <ContentChunker.h>

#include <QByteArray>
#include <QHash>
#include <QString>

#include <optional>
#include <vector>

// One chunk of a file: its name (the SHA-256 of its bytes, lower-case hex) and its length.
struct ChunkRef {
    QString sha256;
    qint64 size = 0;

    bool operator==(const ChunkRef&) const = default;
};

// How a chunk may also be fetched: as a zstd frame compressed against the bytes of `from`, chunks
// of an earlier release one after another (in practice the ones it replaces in the same file), so
// that a player holding them fetches only what changed. `stored` is the frame's length.
struct ChunkDelta {
    std::vector<ChunkRef> from;
    qint64 stored = 0;

    bool operator==(const ChunkDelta&) const = default;
};

// One entry of a build's tree. Files have a mode, a size, their own SHA-256 and their chunks in
// order; folders a mode; symlinks their target.
struct ChunkIndexEntry {
    enum class Kind { file, folder, symlink };

    QString path; // relative to the build's top, "/" between components
    Kind kind = Kind::file;
    int mode = 0;   // permission bits only (0 to 0777); 0 for a symlink
    qint64 size = 0; // a file's length; 0 otherwise
    QString target;  // a symlink's target
    QString sha256;  // a file's digest
    std::vector<ChunkRef> chunks;
    // A file's or folder's modification time in seconds since 1970, as tar keeps it; none in
    // indexes written before the release tool recorded it, and for symlinks.
    std::optional<qint64> mtime;

    bool operator==(const ChunkIndexEntry&) const = default;
};

// Every entry of one build's tree and how its files are cut into chunks: what a launcher needs to
// put the build together from chunks and to check the result, written by the release tool next
// to the archive as JSON:
//
//   {"format":1,"chunker":"fastcdc-gear64","min":16384,"average":65536,"max":262144,
//    "entries":[{"path":"data","kind":"folder","mode":493,"mtime":1764000000},
//               {"path":"data/a","kind":"file","mode":420,"mtime":1764000000,"size":5,"sha256":"...",
//                "chunks":[{"sha256":"...","size":5}]},
//               {"path":"data/b","kind":"symlink","target":"a"}]}
//
// Entries come parents first; the top folder itself is not an entry.
struct ChunkIndex {
    // An index is read whole into memory: 32 MiB holds a build of about 24 GiB at the default
    // chunk sizes.
    static constexpr qint64 kMaxBytes = 32 << 20;
    // Chunks a launcher is asked to hold in memory at once stay below this.
    static constexpr qint64 kLargestChunk = 16 << 20;

    ChunkSizes chunking = kDefaultChunkSizes;
    std::vector<ChunkIndexEntry> entries;
    // For a release that also has its chunks packed into one file (ChunkPack), the length of each
    // chunk's zstd frame there, keyed by its name; written as "stored" where the index first
    // names the chunk. Empty otherwise; launchers that know no packs never read it.
    QHash<QString, qint64> stored;
    // For a packed release, the chunks that are also packed as deltas (after every whole frame),
    // keyed by their name; written as "delta" where the index first names the chunk.
    QHash<QString, ChunkDelta> deltas;

    // Reads an index strictly and refuses anything a launcher must not act on: more than
    // kMaxBytes, malformed JSON, an unknown format or chunker, chunk sizes a ContentChunker
    // refuses or a maximum over kLargestChunk, paths that are empty, absolute, hold "." or ".."
    // or empty components or control characters, repeat an earlier path or lie below anything
    // but a folder listed before them, modes beyond 0777 (setuid, setgid, sticky), kinds other
    // than file, folder and symlink (devices, FIFOs, sockets), symlinks whose target is absolute
    // or leads out of the build (other symlinks of the index followed), files whose chunks do
    // not add up to their size or are empty or longer than the maximum, and digests that are not
    // 64 lower-case hex digits; stored sizes past what a chunk's frame can take, given for some
    // chunks only, or twice with two values; deltas without stored sizes, from no chunk or from
    // more than kLargestChunk bytes, past a frame's bound or given twice with two values.
    // Throws ChunkIndexError.
    static ChunkIndex decode(const QByteArray& json);

    // The index as JSON, one entry a line, in the order of `entries`.
    QByteArray encode() const;

    bool operator==(const ChunkIndex&) const = default;
};
