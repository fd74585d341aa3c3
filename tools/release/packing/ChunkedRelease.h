#pragma once

#include "formats/ChunkIndex.h"

#include <QByteArray>
#include <QString>

// A build cut into chunks for a chunk store: the index that describes it and what it added to
// the store.
struct ChunkedRelease {
    ChunkIndex index;
    QByteArray json;     // the index as written
    QString sha256;      // of `json`
    qint64 chunks = 0;   // distinct chunks in the build
    qint64 added = 0;    // of those, chunks the store did not hold yet
    qint64 addedBytes = 0; // their size in the store, compressed
    qint64 buildBytes = 0; // every file's bytes, uncompressed
    qint64 packBytes = 0;  // the pack's length, when one was asked for
    qint64 deltas = 0;     // deltas in the pack
    qint64 deltaBytes = 0; // their bytes

    // Cuts every file below `source` (already vetted by ReleaseTree) into chunks of `sizes`
    // and writes each chunk that `store` lacks as STORE/ab/<sha256>.zst, under a hidden name
    // renamed into place so a store is never left with half a chunk. A dry run writes nothing
    // and counts the same. The index must read back as written: what a launcher would refuse
    // (a setuid mode, say) is refused here. With a `pack` path, every distinct chunk's frame also
    // goes into that one file (ChunkPack), in the order the index first names them, and the index
    // gives each frame's length; the file too is written under a hidden name and renamed into
    // place. Throws std::runtime_error.
    // With `withTop`, the archive holds `source` itself as its one top-level entry (a launcher
    // bundle), and so does the index (TreeChunker::indexWithTop).
    // With a pack and the index of the `previous` release (whose chunks `store` holds), the pack
    // also holds deltas of the new chunks against it (ChunkDeltas), after every whole frame.
    static ChunkedRelease make(const QString& source, const QString& store, const ChunkSizes& sizes, bool dryRun,
                               const QString& pack = QString(), bool withTop = false,
                               const ChunkIndex* previous = nullptr);
};
