#include "formats/ChunkPack.h"

namespace ChunkPack {

QHash<QString, Span> spans(const ChunkIndex& index) {
    QHash<QString, Span> spans;
    if (index.stored.isEmpty())
        return spans;
    qint64 offset = 0;
    for (const ChunkIndexEntry& entry : index.entries) {
        for (const ChunkRef& chunk : entry.chunks) {
            if (spans.contains(chunk.sha256))
                continue;
            const qint64 size = index.stored.value(chunk.sha256);
            spans.insert(chunk.sha256, Span{offset, size});
            offset += size;
        }
    }
    return spans;
}

qint64 bytes(const ChunkIndex& index) {
    qint64 total = 0;
    for (const qint64 size : index.stored)
        total += size;
    return total;
}

} // namespace ChunkPack
