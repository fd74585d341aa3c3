#include "formats/ChunkPack.h"

#include <optional>

namespace ChunkPack {

namespace {

qint64 wholeFrameBytes(const ChunkIndex& index) {
    qint64 total = 0;
    for (const qint64 size : index.stored)
        total += size;
    return total;
}

// Lays out, from `offset` on, the frame of every chunk `sizeOf` gives one for, in the order the
// index first names the chunks.
template <typename SizeOf>
QHash<QString, Span> layOut(const ChunkIndex& index, qint64 offset, SizeOf sizeOf) {
    QHash<QString, Span> spans;
    for (const ChunkIndexEntry& entry : index.entries) {
        for (const ChunkRef& chunk : entry.chunks) {
            if (spans.contains(chunk.sha256))
                continue;
            if (const std::optional<qint64> size = sizeOf(chunk.sha256)) {
                spans.insert(chunk.sha256, Span{offset, *size});
                offset += *size;
            }
        }
    }
    return spans;
}

} // namespace

QHash<QString, Span> spans(const ChunkIndex& index) {
    if (index.stored.isEmpty())
        return {};
    return layOut(index, 0, [&index](const QString& sha256) { return std::optional<qint64>(index.stored.value(sha256)); });
}

QHash<QString, Span> deltaSpans(const ChunkIndex& index) {
    if (index.stored.isEmpty() || index.deltas.isEmpty())
        return {};
    return layOut(index, wholeFrameBytes(index), [&index](const QString& sha256) -> std::optional<qint64> {
        const auto delta = index.deltas.constFind(sha256);
        if (delta == index.deltas.cend())
            return std::nullopt;
        return delta->stored;
    });
}

qint64 bytes(const ChunkIndex& index) {
    qint64 total = wholeFrameBytes(index);
    for (const ChunkDelta& delta : index.deltas)
        total += delta.stored;
    return total;
}

} // namespace ChunkPack
