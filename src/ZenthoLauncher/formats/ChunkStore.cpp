#include "formats/ChunkStore.h"

#include "trust/Sha256.h"

#include <zstd.h>

namespace ChunkStore {

bool isChunkName(const QString& sha256) {
    if (sha256.size() != 64)
        return false;
    for (const QChar c : sha256) {
        if (!((c >= QLatin1Char('0') && c <= QLatin1Char('9')) || (c >= QLatin1Char('a') && c <= QLatin1Char('f'))))
            return false;
    }
    return true;
}

QString relativePath(const QString& sha256) {
    return sha256.left(2) + QLatin1Char('/') + sha256 + QStringLiteral(".zst");
}

QByteArray compress(const char* data, std::size_t size) {
    QByteArray frame(qsizetype(ZSTD_compressBound(size)), Qt::Uninitialized);
    const std::size_t written = ZSTD_compress(frame.data(), std::size_t(frame.size()), data, size, kCompressionLevel);
    if (ZSTD_isError(written))
        throw ChunkStoreError(std::string("zstd: ") + ZSTD_getErrorName(written));
    frame.truncate(qsizetype(written));
    return frame;
}

QByteArray decode(const QByteArray& stored, qint64 size, const QString& sha256) {
    const QString name = sha256.left(12);
    const std::size_t frameSize = ZSTD_findFrameCompressedSize(stored.constData(), std::size_t(stored.size()));
    if (ZSTD_isError(frameSize) || frameSize != std::size_t(stored.size()))
        throw ChunkStoreError("chunk " + name.toStdString() + " is not one zstd frame");
    const unsigned long long announced = ZSTD_getFrameContentSize(stored.constData(), std::size_t(stored.size()));
    if (size < 0 || announced != static_cast<unsigned long long>(size))
        throw ChunkStoreError("chunk " + name.toStdString() + " holds another size than its index says");
    QByteArray bytes(qsizetype(size), Qt::Uninitialized);
    const std::size_t got = ZSTD_decompress(bytes.data(), std::size_t(bytes.size()), stored.constData(),
                                            std::size_t(stored.size()));
    if (ZSTD_isError(got) || got != std::size_t(size))
        throw ChunkStoreError("chunk " + name.toStdString() + " does not decompress");
    Sha256 digest;
    digest.update(bytes);
    if (digest.finishHex() != sha256)
        throw ChunkStoreError("chunk " + name.toStdString() + " does not match its name");
    return bytes;
}

} // namespace ChunkStore
