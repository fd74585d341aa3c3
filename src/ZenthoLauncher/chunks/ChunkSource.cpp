#include "chunks/ChunkSource.h"

#include "chunks/ChunkDownload.h"
#include "errors/Failure.h"
#include "formats/ChunkStore.h"
#include "net/ByteRanges.h"
#include "storage/ChunkCache.h"

#include <algorithm>

ChunkSource ChunkSource::of(const ReleaseChunks& chunks, const ChunkIndex& index) {
    if (!chunks.pack.isValid())
        return ChunkSource{chunks.store};
    return ChunkSource{chunks.store, chunks.pack, ChunkPack::spans(index)};
}

bool ChunkSource::joins(const std::vector<ChunkRef>& batch, const ChunkRef& next) const {
    if (batch.empty())
        return true;
    if (!packed())
        return false;
    qint64 bytes = spans.value(next.sha256).size;
    int ranges = 1;
    for (std::size_t i = 0; i < batch.size(); ++i) {
        const ChunkPack::Span span = spans.value(batch[i].sha256);
        bytes += span.size;
        if (i == 0 || spans.value(batch[i - 1].sha256).end() != span.offset)
            ++ranges;
    }
    if (spans.value(batch.back().sha256).end() == spans.value(next.sha256).offset)
        --ranges;
    return bytes <= kRequestBytes && ranges <= kMostRanges;
}

QCoro::Task<void> fetchChunks(HttpClient& client, const ChunkSource& source, std::vector<ChunkRef> batch,
                              const ChunkCache& cache, std::function<void(const ChunkRef&)> kept) {
    if (!source.packed()) {
        for (const ChunkRef& chunk : batch) {
            co_await fetchChunk(client, source.store, chunk, cache);
            kept(chunk);
        }
        co_return;
    }
    std::vector<ByteRanges::Range> ranges;
    for (const ChunkRef& chunk : batch) {
        const ChunkPack::Span span = source.spans.value(chunk.sha256);
        if (span.size == 0)
            throw ChunkStoreError("the pack holds no chunk " + chunk.sha256.toStdString());
        ranges.push_back({span.offset, span.end() - 1});
    }
    const std::vector<ByteRanges::Part> parts = co_await ByteRanges::fetch(client, source.pack, ranges);
    for (const ChunkRef& chunk : batch) {
        const ChunkPack::Span span = source.spans.value(chunk.sha256);
        const auto holder = std::find_if(parts.begin(), parts.end(), [&](const ByteRanges::Part& part) {
            return part.range.first <= span.offset && span.end() - 1 <= part.range.last;
        });
        if (holder == parts.end())
            throw ChunkStoreError(source.pack.toString().toStdString() + " sent no bytes of chunk " +
                                  chunk.sha256.toStdString());
        const QByteArray stored = holder->bytes.mid(span.offset - holder->range.first, span.size);
        cache.keep(chunk.sha256, ChunkStore::decode(stored, chunk.size, chunk.sha256));
        kept(chunk);
    }
}
