#include "chunks/ChunkDownload.h"

#include "errors/Failure.h"
#include "formats/ChunkStore.h"
#include "net/HttpClient.h"
#include "storage/ChunkCache.h"

QUrl chunkUrl(const QUrl& store, const QString& sha256) {
    QString base = store.toString();
    while (base.endsWith(QLatin1Char('/')))
        base.chop(1);
    return QUrl(base + QLatin1Char('/') + ChunkStore::relativePath(sha256));
}

QCoro::Task<void> fetchChunk(HttpClient& client, QUrl store, ChunkRef chunk, const ChunkCache& cache) {
    const QUrl url = chunkUrl(store, chunk.sha256);
    const HttpResponse response = co_await client.capped(url, ChunkStore::frameBound(chunk.size));
    if (response.statusCode != 200)
        throw ChunkStoreError(url.toString().toStdString() + " answered " + std::to_string(response.statusCode.value_or(0)));
    cache.keep(chunk.sha256, ChunkStore::decode(response.body, chunk.size, chunk.sha256));
}
