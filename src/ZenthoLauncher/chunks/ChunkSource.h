#pragma once

#include "chunks/ChunkPlan.h"
#include "formats/ChunkIndex.h"
#include "formats/ChunkPack.h"
#include "formats/ReleaseManifest.h"

#include <QHash>
#include <QUrl>

#include <QCoroTask>

#include <functional>
#include <utility>
#include <vector>

class ChunkCache;
class HttpClient;

// Where the chunks a build lacks are fetched from: the chunk store, one request a chunk, or,
// when the release has one, its pack, where one request brings many chunks by byte ranges. A far
// player waits a round trip per request, so a first install from the pack runs at the line's
// speed and a patch takes a request or two where the store takes one a chunk.
struct ChunkSource {
    // A request to the pack asks for at most this many bytes: enough for several requests in
    // flight to fill a line a continent away, little enough to spread a first install over them.
    static constexpr qint64 kRequestBytes = 4 << 20;
    // and at most this many ranges, which keeps its Range header within what servers take (nginx:
    // 8 KiB a header line).
    static constexpr int kMostRanges = 128;

    QUrl store;
    QUrl pack = QUrl();                         // invalid: every chunk comes from the store
    QHash<QString, ChunkPack::Span> spans = {}; // where each chunk lies in `pack`
    // Chunks fetched as deltas instead: where the delta lies in `pack` and the chunks on this
    // disk it is made against, in order.
    struct Delta {
        ChunkPack::Span span;
        std::vector<std::pair<ChunkRef, ChunkLocation>> base;
    };
    QHash<QString, Delta> deltas = {};
    // Ranges a request may ask for: kMostRanges, or 1 once the server has answered a request for
    // several with the whole file (a store or CDN that serves one range a request).
    int mostRanges = kMostRanges;

    // The pack when both the manifest and the index describe it, the store otherwise.
    static ChunkSource of(const ReleaseChunks& chunks, const ChunkIndex& index);

    bool packed() const { return pack.isValid() && !spans.isEmpty(); }

    // Takes up the deltas `index` gives whose every base `plan` found on this disk: a chunk that
    // a patch changed comes as the few bytes that differ from the chunks it replaces.
    void useDeltas(const ChunkIndex& index, const ChunkPlan& plan);

    // Where `chunk` is fetched from in the pack: its delta's span or its whole frame's.
    ChunkPack::Span spanOf(const QString& sha256) const;

    // The chunks of one request, gathered in the order the index first names them (the pack's).
    struct Request {
        std::vector<ChunkRef> chunks;
        qint64 bytes = 0; // of the pack, asked for
        int ranges = 0;
        qint64 end = -1; // where the last chunk's frame ends in the pack
    };

    // Adds `next` to `request` when it may be asked for in the same request: always to an empty
    // one; from the store, never to another; from the pack while the request stays within
    // kRequestBytes and mostRanges. False, leaving `request` as it was, otherwise.
    bool add(Request& request, const ChunkRef& next) const;
};

// Fetches the chunks of `batch` (one request; see ChunkSource::add) and checks each (one zstd
// frame of its size whose bytes hash to its name; a delta, read with its base from this disk,
// likewise) before `cache` keeps it and `kept` is told. A chunk's bytes are never trusted for
// being where the pack should hold it, nor a base for being where a kept index says. An answer cut short
// still gives the chunks it holds whole. Throws NetworkError (also for a server that does not
// answer ranges), ChunkStoreError (another answer than the chunk, or a chunk the answer lacks),
// FileError. A server that answers the request's several ranges with the whole file is asked
// again one range a request, and `source` asks for one range a request from then on; one that
// does so for a single range ends in NetworkError.
QCoro::Task<void> fetchChunks(HttpClient& client, ChunkSource& source, std::vector<ChunkRef> batch,
                              const ChunkCache& cache, std::function<void(const ChunkRef&)> kept);
