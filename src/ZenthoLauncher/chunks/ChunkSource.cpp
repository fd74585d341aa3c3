#include "chunks/ChunkSource.h"

#include "chunks/ChunkDownload.h"
#include "errors/Failure.h"
#include "formats/ChunkStore.h"
#include "net/ByteRanges.h"
#include "storage/ChunkCache.h"

#include <QFile>

#include <algorithm>

ChunkSource ChunkSource::of(const ReleaseChunks& chunks, const ChunkIndex& index) {
    if (!chunks.pack.isValid())
        return ChunkSource{chunks.store};
    return ChunkSource{chunks.store, chunks.pack, ChunkPack::spans(index)};
}

void ChunkSource::useDeltas(const ChunkIndex& index, const ChunkPlan& plan) {
    if (!packed() || index.deltas.isEmpty())
        return;
    const QHash<QString, ChunkPack::Span> deltaSpans = ChunkPack::deltaSpans(index);
    for (const ChunkRef& chunk : plan.missing) {
        const auto delta = index.deltas.constFind(chunk.sha256);
        if (delta == index.deltas.cend())
            continue;
        Delta usable{deltaSpans.value(chunk.sha256), {}};
        for (const ChunkRef& from : delta->from) {
            const auto found = plan.bases.constFind(from.sha256);
            if (found == plan.bases.cend())
                break;
            usable.base.emplace_back(from, *found);
        }
        if (usable.base.size() == delta->from.size())
            deltas.insert(chunk.sha256, std::move(usable));
    }
}

ChunkPack::Span ChunkSource::spanOf(const QString& sha256) const {
    const auto delta = deltas.constFind(sha256);
    return delta != deltas.cend() ? delta->span : spans.value(sha256);
}

bool ChunkSource::add(Request& request, const ChunkRef& next) const {
    const ChunkPack::Span span = spanOf(next.sha256);
    if (!request.chunks.empty()) {
        const int ranges = request.ranges + (span.offset == request.end ? 0 : 1);
        if (!packed() || request.bytes + span.size > kRequestBytes || ranges > mostRanges)
            return false;
    }
    request.ranges += request.chunks.empty() || span.offset != request.end ? 1 : 0;
    request.bytes += span.size;
    request.end = span.end();
    request.chunks.push_back(next);
    return true;
}

namespace {

// The bases of a delta one after another, as this disk holds them now.
QByteArray readBase(const ChunkSource::Delta& delta) {
    QByteArray bytes;
    for (const auto& [chunk, at] : delta.base) {
        QFile file(at.file);
        if (!file.open(QIODevice::ReadOnly) || !file.seek(at.offset))
            throw ChunkStoreError("a delta's base " + at.file.toStdString() + " cannot be read");
        const QByteArray read = file.read(chunk.size);
        if (read.size() != chunk.size)
            throw ChunkStoreError("a delta's base " + at.file.toStdString() + " is cut short");
        bytes += read;
    }
    return bytes;
}

QByteArray decodeFrame(const ChunkSource& source, const ChunkRef& chunk, const QByteArray& frame) {
    const auto delta = source.deltas.constFind(chunk.sha256);
    if (delta == source.deltas.cend())
        return ChunkStore::decode(frame, chunk.size, chunk.sha256);
    return ChunkStore::decodeAgainst(frame, readBase(*delta), chunk.size, chunk.sha256);
}

} // namespace

QCoro::Task<void> fetchChunks(HttpClient& client, ChunkSource& source, std::vector<ChunkRef> batch,
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
        const ChunkPack::Span span = source.spanOf(chunk.sha256);
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
                cache.keep(it->chunk.sha256, decodeFrame(source, it->chunk, it->frame));
                it->frame = QByteArray();
                kept(it->chunk);
            }
        }
    };
    std::vector<ByteRanges::Range> oneAtATime;
    try {
        co_await ByteRanges::fetch(client, source.pack, ranges, take);
    } catch (const ByteRanges::RangesIgnored&) {
        oneAtATime = ByteRanges::joined(ranges);
        if (oneAtATime.size() < 2)
            throw;
    }
    if (!oneAtATime.empty()) {
        source.mostRanges = 1;
        for (const ByteRanges::Range& range : oneAtATime) {
            // Named: g++ 12 mishandles a braced temporary in a co_await.
            const std::vector<ByteRanges::Range> one{range};
            co_await ByteRanges::fetch(client, source.pack, one, take);
        }
    }
    for (const Wanted& one : wanted) {
        if (one.filled < one.span.size)
            throw ChunkStoreError(source.pack.toString().toStdString() + " sent no bytes of chunk " +
                                  one.chunk.sha256.toStdString());
    }
}
