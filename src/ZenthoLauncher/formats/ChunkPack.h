#pragma once

#include "formats/ChunkIndex.h"

#include <QHash>
#include <QString>

// A release's chunks packed into one file beside its archive: the zstd frame of every distinct
// chunk of the build, as the chunk store keeps it, back to back in the order the index first
// names them. A launcher asks for the parts it lacks by byte ranges, many in one request, where
// a chunk store costs a request per chunk; a first install reads the file from end to end. The
// index gives each frame's length ("stored"), so where a chunk lies follows from the index alone.
// After the last whole frame come the deltas the index gives (ChunkDelta), again in the order the
// index first names their chunks; launchers that know no deltas never ask for those bytes.
namespace ChunkPack {

// Where one chunk's frame lies in the pack.
struct Span {
    qint64 offset = 0;
    qint64 size = 0;

    qint64 end() const { return offset + size; }
    bool operator==(const Span&) const = default;
};

// Every chunk's span, keyed by its name; empty when the index gives no stored sizes.
QHash<QString, Span> spans(const ChunkIndex& index);

// Every delta's span, keyed by the name of the chunk it makes.
QHash<QString, Span> deltaSpans(const ChunkIndex& index);

// The pack's length: the end of its last frame.
qint64 bytes(const ChunkIndex& index);

} // namespace ChunkPack
