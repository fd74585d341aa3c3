#include "chunks/ChunkDownload.h"

#include "errors/Failure.h"
#include "formats/ChunkStore.h"
#include "net/HttpClient.h"
#include "net/ResumableDownload.h"
#include "storage/ChunkCache.h"

#include <exception>

namespace {

// zstd's own bound for a frame that holds `size` bytes, with room for the frame's header.
qint64 storedBound(qint64 size) {
    return size + size / 128 + 4096;
}

struct Round {
    HttpClient& client;
    const ChunkDownload& download;
    const ChunkCache& cache;
    std::size_t next = 0;
    qint64 done = 0;
    qint64 total = 0;
    std::exception_ptr failure;
};

// One of the parallel fetchers: takes the next chunk nobody has taken until none is left or one
// of them has failed.
QCoro::Task<void> fetchInTurn(Round& round) {
    while (!round.failure && round.next < round.download.missing.size()) {
        const ChunkRef chunk = round.download.missing[round.next++];
        try {
            const QUrl url = chunkUrl(round.download.store, chunk.sha256);
            const HttpResponse response = co_await round.client.capped(url, storedBound(chunk.size));
            if (response.statusCode != 200)
                throw ChunkStoreError(url.toString().toStdString() + " answered " +
                                         std::to_string(response.statusCode.value_or(0)));
            round.cache.keep(chunk.sha256, ChunkStore::decode(response.body, chunk.size, chunk.sha256));
        } catch (...) {
            if (!round.failure)
                round.failure = std::current_exception();
            co_return;
        }
        round.done += chunk.size;
        if (round.download.observer)
            round.download.observer->progressed(round.done, round.total);
    }
}

} // namespace

QUrl chunkUrl(const QUrl& store, const QString& sha256) {
    QString base = store.toString();
    while (base.endsWith(QLatin1Char('/')))
        base.chop(1);
    return QUrl(base + QLatin1Char('/') + ChunkStore::relativePath(sha256));
}

QCoro::Task<void> downloadChunks(HttpClient& client, ChunkDownload download, const ChunkCache& cache) {
    qint64 total = download.keptBytes;
    for (const ChunkRef& chunk : download.missing)
        total += chunk.size;
    Round round{client, download, cache, 0, download.keptBytes, total, nullptr};
    if (download.observer)
        download.observer->progressed(round.done, round.total);

    std::vector<QCoro::Task<void>> fetchers;
    for (int i = 0; i < std::max(1, client.limits().parallelChunks); ++i)
        fetchers.push_back(fetchInTurn(round)); // each starts at once and runs until it suspends
    for (QCoro::Task<void>& fetcher : fetchers)
        co_await fetcher;
    if (download.observer)
        download.observer->ended();
    if (round.failure)
        std::rethrow_exception(round.failure);
}
