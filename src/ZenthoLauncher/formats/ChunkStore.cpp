#include "formats/ChunkStore.h"

#include "trust/Sha256.h"

#include "formats/ChunkIndex.h"

#include <zstd.h>

#include <memory>

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

namespace {

// A window that reaches from the chunk's last byte back to the base's first: zstd's patch-from.
int windowLogFor(qint64 bytes) {
    int log = 10; // zstd's smallest window
    while ((qint64(1) << log) < bytes)
        ++log;
    return log;
}

void check(std::size_t result, const char* what) {
    if (ZSTD_isError(result))
        throw ChunkStoreError(std::string(what) + ": " + ZSTD_getErrorName(result));
}

} // namespace

QByteArray compressAgainst(const char* data, std::size_t size, const QByteArray& base) {
    const std::unique_ptr<ZSTD_CCtx, decltype(&ZSTD_freeCCtx)> context(ZSTD_createCCtx(), &ZSTD_freeCCtx);
    check(ZSTD_CCtx_setParameter(context.get(), ZSTD_c_compressionLevel, kCompressionLevel), "zstd");
    check(ZSTD_CCtx_setParameter(context.get(), ZSTD_c_windowLog, windowLogFor(base.size() + qint64(size))), "zstd");
    check(ZSTD_CCtx_setPledgedSrcSize(context.get(), size), "zstd");
    check(ZSTD_CCtx_refPrefix(context.get(), base.constData(), std::size_t(base.size())), "zstd");
    QByteArray frame(qsizetype(ZSTD_compressBound(size)), Qt::Uninitialized);
    const std::size_t written = ZSTD_compress2(context.get(), frame.data(), std::size_t(frame.size()), data, size);
    check(written, "zstd");
    frame.truncate(qsizetype(written));
    return frame;
}

namespace {

// The checks both kinds of frame get; `decompress` fills the result.
template <typename Decompress>
QByteArray checkedDecode(const QByteArray& stored, qint64 size, const QString& sha256, Decompress decompress) {
    const QString name = sha256.left(12);
    const std::size_t frameSize = ZSTD_findFrameCompressedSize(stored.constData(), std::size_t(stored.size()));
    if (ZSTD_isError(frameSize) || frameSize != std::size_t(stored.size()))
        throw ChunkStoreError("chunk " + name.toStdString() + " is not one zstd frame");
    const unsigned long long announced = ZSTD_getFrameContentSize(stored.constData(), std::size_t(stored.size()));
    if (size < 0 || announced != static_cast<unsigned long long>(size))
        throw ChunkStoreError("chunk " + name.toStdString() + " holds another size than its index says");
    QByteArray bytes(qsizetype(size), Qt::Uninitialized);
    const std::size_t got = decompress(bytes);
    if (ZSTD_isError(got) || got != std::size_t(size))
        throw ChunkStoreError("chunk " + name.toStdString() + " does not decompress");
    Sha256 digest;
    digest.update(bytes);
    if (digest.finishHex() != sha256)
        throw ChunkStoreError("chunk " + name.toStdString() + " does not match its name");
    return bytes;
}

} // namespace

QByteArray decode(const QByteArray& stored, qint64 size, const QString& sha256) {
    return checkedDecode(stored, size, sha256, [&stored](QByteArray& bytes) {
        return ZSTD_decompress(bytes.data(), std::size_t(bytes.size()), stored.constData(), std::size_t(stored.size()));
    });
}

QByteArray decodeAgainst(const QByteArray& stored, const QByteArray& base, qint64 size, const QString& sha256) {
    return checkedDecode(stored, size, sha256, [&](QByteArray& bytes) -> std::size_t {
        const std::unique_ptr<ZSTD_DCtx, decltype(&ZSTD_freeDCtx)> context(ZSTD_createDCtx(), &ZSTD_freeDCtx);
        // The window a delta may ask for is bounded by what a launcher holds: the base and the chunk.
        const std::size_t limited = ZSTD_DCtx_setParameter(context.get(), ZSTD_d_windowLogMax,
                                                           windowLogFor(2 * ChunkIndex::kLargestChunk));
        const std::size_t prefixed = ZSTD_DCtx_refPrefix(context.get(), base.constData(), std::size_t(base.size()));
        if (ZSTD_isError(limited))
            return limited;
        if (ZSTD_isError(prefixed))
            return prefixed;
        return ZSTD_decompressDCtx(context.get(), bytes.data(), std::size_t(bytes.size()), stored.constData(),
                                   std::size_t(stored.size()));
    });
}

} // namespace ChunkStore
