#include "PublishedChunks.h"

#include "TestServer.h"

#include "formats/ChunkStore.h"

#include <QCryptographicHash>
#include <QRandomGenerator>

namespace PublishedChunks {

std::vector<ChunkRef> publish(const TestServer& server, const QString& storePath, int count, qint64 smallest,
                              qint64 largest, quint32 seed) {
    QRandomGenerator random(seed);
    std::vector<ChunkRef> chunks;
    for (int i = 0; i < count; ++i) {
        const qint64 size = smallest + qint64(random.bounded(quint64(largest - smallest + 1)));
        QByteArray bytes((size + 3) / 4 * 4, '\0');
        random.fillRange(reinterpret_cast<quint32*>(bytes.data()), bytes.size() / 4);
        bytes.truncate(size);
        const QString sha256 =
            QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex());
        server.writeFile(storePath + QLatin1Char('/') + ChunkStore::relativePath(sha256),
                         ChunkStore::compress(bytes.constData(), std::size_t(bytes.size())));
        chunks.push_back({sha256, size});
    }
    return chunks;
}

qint64 bytesOf(const std::vector<ChunkRef>& chunks) {
    qint64 total = 0;
    for (const ChunkRef& chunk : chunks)
        total += chunk.size;
    return total;
}

} // namespace PublishedChunks
