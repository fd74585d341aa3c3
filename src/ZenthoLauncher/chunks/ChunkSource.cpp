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

bool ChunkSource::add(Request& request, const ChunkRef& next) const {
    const ChunkPack::Span span = spans.value(next.sha256);
    if (!request.chunks.empty()) {
        const int ranges = request.ranges + (span.offset == request.end ? 0 : 1);
        if (!packed() || request.bytes + span.size > kRequestBytes || ranges > kMostRanges)
            return false;
    }
    request.ranges += request.chunks.empty() || span.offset != request.end ? 1 : 0;
    request.bytes += span.size;
    request.end = span.end();
    request.chunks.push_back(next);
    return true;
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
    // Each chunk's frame is gathered as the answer brings it, checked and kept the moment it is
    // whole: a slow line shows progress chunk by chunk, and an answer cut short still leaves
    // every chunk it held whole.
    struct Wanted {
        ChunkRef chunk;
        ChunkPack::Span span;
        QByteArray frame;
        qint64 filled = 0;
    };
    std::vector<Wanted> wanted;
    std::vector<ByteRanges::Range> ranges;
    for (const ChunkRef& chunk : batch) {
        const ChunkPack::Span span = source.spans.value(chunk.sha256);
        if (span.size == 0)
            throw ChunkStoreError("the pack holds no chunk " + chunk.sha256.toStdString());
        wanted.push_back({chunk, span, {}, 0});
        ranges.push_back({span.offset, span.end() - 1});
    }
    std::sort(wanted.begin(), wanted.end(), [](const Wanted& a, const Wanted& b) { return a.span.offset < b.span.offset; });
    const auto take = [&](qint64 offset, const char* data, qint64 size) {
        const qint64 end = offset + size;
        auto it = std::upper_bound(wanted.begin(), wanted.end(), offset,
                                   [](qint64 at, const Wanted& one) { return at < one.span.offset; });
        if (it != wanted.begin())
            --it;
        for (; it != wanted.end() && it->span.offset < end; ++it) {
            const qint64 from = std::max(offset, it->span.offset);
            const qint64 to = std::min(end, it->span.end());
            if (from >= to || it->filled == it->span.size)
                continue;
            if (it->frame.isEmpty())
                it->frame.resize(it->span.size);
            std::copy(data + (from - offset), data + (to - offset), it->frame.data() + (from - it->span.offset));
            it->filled += to - from;
            if (it->filled >= it->span.size) {
                it->filled = it->span.size;
                cache.keep(it->chunk.sha256, ChunkStore::decode(it->frame, it->chunk.size, it->chunk.sha256));
                it->frame = QByteArray();
                kept(it->chunk);
            }
        }
    };
    co_await ByteRanges::fetch(client, source.pack, ranges, take);
    for (const Wanted& one : wanted) {
        if (one.filled < one.span.size)
            throw ChunkStoreError(source.pack.toString().toStdString() + " sent no bytes of chunk " +
                                  one.chunk.sha256.toStdString());
    }
}
