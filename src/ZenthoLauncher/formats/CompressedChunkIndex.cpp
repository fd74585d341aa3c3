#include "formats/CompressedChunkIndex.h"

#include "formats/ChunkIndex.h"

#include <zstd.h>

#include <algorithm>

#include <memory>

namespace CompressedChunkIndex {

QByteArray compress(const QByteArray& json) {
    QByteArray frame(qsizetype(ZSTD_compressBound(std::size_t(json.size()))), Qt::Uninitialized);
    const std::size_t written = ZSTD_compress(frame.data(), std::size_t(frame.size()), json.constData(),
                                              std::size_t(json.size()), kCompressionLevel);
    if (ZSTD_isError(written))
        throw ChunkIndexError(std::string("zstd: ") + ZSTD_getErrorName(written));
    frame.truncate(qsizetype(written));
    return frame;
}

QByteArray decompress(const QByteArray& frame) {
    const std::size_t frameSize = ZSTD_findFrameCompressedSize(frame.constData(), std::size_t(frame.size()));
    if (ZSTD_isError(frameSize) || frameSize != std::size_t(frame.size()))
        throw ChunkIndexError("the compressed chunk index is not one zstd frame");
    // The header's content size is the sender's word: the output grows as the frame proves it,
    // up to the cap and a byte, which is over.
    const std::unique_ptr<ZSTD_DStream, decltype(&ZSTD_freeDStream)> stream(ZSTD_createDStream(), ZSTD_freeDStream);
    if (!stream)
        throw ChunkIndexError("out of memory for the compressed chunk index");
    QByteArray json;
    ZSTD_inBuffer in{frame.constData(), std::size_t(frame.size()), 0};
    std::size_t left = 1;
    while (left != 0) {
        const qsizetype step = qsizetype(ZSTD_DStreamOutSize());
        const qsizetype before = json.size();
        json.resize(std::min<qint64>(before + step, ChunkIndex::kMaxBytes + 1));
        ZSTD_outBuffer out{json.data() + before, std::size_t(json.size() - before), 0};
        left = ZSTD_decompressStream(stream.get(), &out, &in);
        json.truncate(before + qsizetype(out.pos));
        if (ZSTD_isError(left))
            throw ChunkIndexError(std::string("the compressed chunk index does not decompress: ") +
                                  ZSTD_getErrorName(left));
        if (json.size() > ChunkIndex::kMaxBytes)
            throw ChunkIndexError("the compressed chunk index holds more than " +
                                  std::to_string(ChunkIndex::kMaxBytes) + " bytes");
        if (left != 0 && out.pos == 0 && in.pos == in.size)
            throw ChunkIndexError("the compressed chunk index ends inside its frame");
    }
    return json;
}

} // namespace CompressedChunkIndex
