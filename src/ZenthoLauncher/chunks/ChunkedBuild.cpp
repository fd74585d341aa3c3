#include "chunks/ChunkedBuild.h"

#include "chunks/ChunkSource.h"
#include "chunks/ChunkSchedule.h"
#include "errors/Failure.h"
#include "net/HttpClient.h"
#include "net/ResumableDownload.h"
#include "process/WorkerThread.h"
#include "storage/ChunkCache.h"

#include <QFile>
#include <QHash>
#include <QObject>
#include <QSet>

#include <QCoroSignal>

#include <algorithm>
#include <deque>
#include <exception>
#include <vector>

namespace {

// Rings whenever a fetch ends, so that the writer looks again at what it can write.
class Wakeup : public QObject {
    Q_OBJECT
signals:
    void rung();
};

struct ChunkState {
    qint64 size = 0;
    int usersLeft = 0;      // files still to write that need it
    bool viaCache = false;  // fetched or kept by an earlier try: leaves the cache after its last user
    bool present = false;
    std::vector<std::size_t> waiting; // files that wait for it
};

// Everything one build's writing and fetching share; only ever touched on the main thread.
struct Stream {
    Stream(HttpClient& client, const ChunkCache& cache, ChunkedBuild& build) : client(client), cache(cache), build(build) {}

    HttpClient& client;
    const ChunkCache& cache;
    ChunkedBuild& build;
    std::vector<const ChunkIndexEntry*> files;
    std::vector<std::vector<QString>> chunksOf; // each file's chunks, each once
    std::vector<int> pending;                   // each file's chunks not on this disk yet
    QHash<QString, ChunkState> chunks;
    std::vector<ChunkRef> queue; // to fetch, in the order the files first need them
    std::size_t next = 0;
    std::deque<std::size_t> writable;
    qint64 held = 0; // bytes of chunks in the cache, or on their way there, not yet written
    qint64 done = 0;
    qint64 total = 0;
    std::size_t writtenFiles = 0;
    int running = 0;
    bool stopping = false;
    bool fetchedAll = false;
    std::exception_ptr failure;
    std::vector<QCoro::Task<void>> fetchers;
    Wakeup wakeup;
    bool writerWaits = false;

    // Once per wait: a queued call still on its way when the writer has gone on would resume
    // a wait that is over.
    void ring() {
        if (writerWaits) {
            writerWaits = false;
            emit wakeup.rung();
        }
    }

    bool mayFetchNext() const {
        return !failure && !stopping && next < queue.size() &&
               (held == 0 || held + queue[next].size <= build.cacheBytes);
    }

    void arrived(const ChunkRef& chunk) {
        ChunkState& state = chunks[chunk.sha256];
        state.present = true;
        build.plan.found.insert(chunk.sha256, ChunkLocation{cache.pathOf(chunk.sha256), 0});
        for (const std::size_t file : state.waiting) {
            if (--pending[file] == 0)
                writable.push_back(file);
        }
        state.waiting.clear();
        done += chunk.size;
        if (build.observer)
            build.observer->progressed(done, total);
    }

    // The chunks of the cache that no file but those of `batch` still needs.
    std::vector<QString> neededOnlyBy(const std::vector<std::size_t>& batch) const {
        QHash<QString, int> uses;
        for (const std::size_t file : batch) {
            for (const QString& sha256 : chunksOf[file])
                ++uses[sha256];
        }
        std::vector<QString> last;
        for (auto it = uses.cbegin(); it != uses.cend(); ++it) {
            const ChunkState& state = chunks.value(it.key());
            if (state.viaCache && state.usersLeft == it.value())
                last.push_back(it.key());
        }
        return last;
    }

    // After `file` is written: its chunks' last users are gone, and the cache let them go.
    void written(std::size_t file) {
        for (const QString& sha256 : chunksOf[file]) {
            ChunkState& state = chunks[sha256];
            if (--state.usersLeft == 0 && state.viaCache)
                held -= state.size;
        }
    }
};

// One of the parallel fetchers: takes the next chunks, as many as one request brings, while there
// is room for them in the cache.
QCoro::Task<void> fetchInTurn(Stream& stream) {
    while (stream.mayFetchNext()) {
        ChunkSource::Request request;
        while (stream.mayFetchNext() && stream.build.source.add(request, stream.queue[stream.next]))
            stream.held += stream.queue[stream.next++].size;
        try {
            co_await fetchChunks(stream.client, stream.build.source, request.chunks, stream.cache,
                                 [&stream](const ChunkRef& chunk) {
                                     stream.arrived(chunk);
                                     stream.ring();
                                 });
        } catch (...) {
            if (!stream.failure)
                stream.failure = std::current_exception();
            break;
        }
        stream.ring();
    }
    --stream.running;
    stream.ring();
}

void startFetchers(Stream& stream) {
    std::erase_if(stream.fetchers, [](const QCoro::Task<void>& fetcher) { return fetcher.isReady(); });
    while (stream.running < std::max(1, stream.client.limits().parallelChunks) && stream.mayFetchNext()) {
        ++stream.running;
        stream.fetchers.push_back(fetchInTurn(stream)); // runs until its first request is under way
    }
}

void noteWhenAllFetched(Stream& stream) {
    if (stream.fetchedAll || stream.failure || stream.next < stream.queue.size() || stream.running > 0)
        return;
    stream.fetchedAll = true;
    if (stream.build.observer)
        stream.build.observer->ended();
    if (stream.build.allFetched)
        stream.build.allFetched();
}

void plan(Stream& stream) {
    ChunkPlan& plan = stream.build.plan;
    stream.chunksOf.resize(stream.files.size());
    stream.pending.resize(stream.files.size(), 0);
    for (std::size_t i = 0; i < stream.files.size(); ++i) {
        QSet<QString> seen;
        for (const ChunkRef& chunk : stream.files[i]->chunks) {
            if (seen.contains(chunk.sha256))
                continue;
            seen.insert(chunk.sha256);
            stream.chunksOf[i].push_back(chunk.sha256);
            ChunkState& state = stream.chunks[chunk.sha256];
            if (state.usersLeft++ == 0) {
                state.size = chunk.size;
                state.viaCache = passesThroughCache(plan, stream.cache, chunk.sha256);
                state.present = plan.found.contains(chunk.sha256);
                if (state.present && state.viaCache)
                    stream.held += chunk.size;
            }
            if (!state.present) {
                state.waiting.push_back(i);
                ++stream.pending[i];
            }
        }
        if (stream.pending[i] == 0)
            stream.writable.push_back(i);
    }
    // Files a resumed build already holds need none of their chunks.
    for (const ChunkRef& chunk : plan.missing) {
        if (stream.chunks.contains(chunk.sha256))
            stream.queue.push_back(chunk);
    }
    stream.done = stream.held;
    stream.total = stream.held;
    for (const ChunkRef& chunk : stream.queue)
        stream.total += chunk.size;
}

// Writes every file whose chunks are all on this disk, then lets the chunks no other file needs
// go.
QCoro::Task<void> writeWhatCanBeWritten(Stream& stream, const BuildWriter& writer) {
    const std::vector<std::size_t> batch(stream.writable.begin(), stream.writable.end());
    stream.writable.clear();
    // The writer's own copies: fetches go on adding to the plan while it works.
    std::vector<const ChunkIndexEntry*> files;
    QHash<QString, ChunkLocation> locations;
    for (const std::size_t file : batch) {
        files.push_back(stream.files[file]);
        for (const QString& sha256 : stream.chunksOf[file])
            locations.insert(sha256, stream.build.plan.found.value(sha256));
    }
    // Letting hundreds of chunks go empties as many files, which takes tens of milliseconds and
    // more where freed blocks are discarded at once: done on the main thread, it kept the network
    // from being read while every request's answer waited, and left the line idle.
    const std::vector<QString> released = stream.neededOnlyBy(batch);
    co_await onWorkerThread([&] {
        writer.writeFiles(files, locations);
        for (const QString& sha256 : released)
            stream.cache.release(sha256);
    });
    for (const std::size_t file : batch)
        stream.written(file);
    stream.writtenFiles += batch.size();
}

} // namespace

QCoro::Task<void> writeBuildFromChunks(HttpClient& client, const ChunkIndex& index, ChunkedBuild build,
                                       const ChunkCache& cache) {
    BuildWriter writer(build.folder, build.start);
    build.source.useDeltas(index, build.plan);
    Stream stream(client, cache, build);
    stream.files = co_await onWorkerThread([&] { return writer.makeTree(index); });
    plan(stream);
    if (build.observer)
        build.observer->progressed(stream.done, stream.total);

    bool writingFailed = false;
    while (stream.writtenFiles < stream.files.size() && !stream.failure) {
        startFetchers(stream);
        noteWhenAllFetched(stream);
        if (!stream.writable.empty()) {
            try {
                co_await writeWhatCanBeWritten(stream, writer);
            } catch (...) {
                stream.failure = std::current_exception();
                writingFailed = true;
            }
            continue;
        }
        if (stream.running == 0) {
            stream.failure = std::make_exception_ptr(ChunkAssemblyError(
                QStringLiteral("the chunks of the next file to write do not fit in the chunk cache's %1 bytes")
                    .arg(build.cacheBytes)));
            break;
        }
        stream.writerWaits = true;
        co_await qCoro(&stream.wakeup, &Wakeup::rung);
    }

    stream.stopping = true;
    for (QCoro::Task<void>& fetcher : stream.fetchers) {
        if (!fetcher.isReady())
            co_await fetcher;
    }
    noteWhenAllFetched(stream);
    if (stream.failure) {
        if (build.observer && !stream.fetchedAll)
            build.observer->ended();
        // What did arrive is written all the same, for the next try to keep.
        if (!writingFailed && !stream.writable.empty()) {
            try {
                co_await writeWhatCanBeWritten(stream, writer);
            } catch (...) {
            }
        }
        std::rethrow_exception(stream.failure);
    }
    co_await onWorkerThread([&] { writer.finishFolders(); });
}

#include "ChunkedBuild.moc"
