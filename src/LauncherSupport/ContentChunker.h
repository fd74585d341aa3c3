#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

// Bounds of content-defined chunks, in bytes. A chunk is never shorter than `min` (unless it is
// the last of its file), never longer than `max`, and about `average` long on most data.
struct ChunkSizes {
    std::size_t min = 0;
    std::size_t average = 0;
    std::size_t max = 0;

    bool operator==(const ChunkSizes&) const = default;
};

// What the release tool cuts builds with; an index records the sizes it was cut with. An edit
// costs its own bytes plus about one and a half average chunks around it, so the average trades
// patch size against the number of chunks (requests, index size). bench/BenchChunkStore prints
// that trade side by side: on a 1 GiB build with 1 % changed in 40 places and a new 5 MiB file,
// the new chunks come to about 1.8, 2.1, 2.8, 3.7 and 6.0 % of the archive for averages of 32,
// 64, 128, 256 and 512 KiB. 64 KiB keeps such a patch, with its index (1.3 MB per GiB, about
// 14,500 chunks), well under 3 % of the archive; 128 KiB would leave almost no room for the
// index, and 32 KiB doubles requests and index for little gain. Edits scattered in many small
// spots pay the chunks around each one many times over: eight 64 KiB edits in each of 20 files
// and a new 5 MiB file cost 3.7 % of the archive at 64 KiB and 2.3 % at 16 KiB with the index
// compressed (BenchChunkedUpdate pairs), which a release chooses with pack's --chunk-average;
// the default stays, since 16 KiB quadruples a first install's requests and lowers the largest
// build whose index fits ChunkIndex::kMaxBytes to about 6 GiB.
inline constexpr ChunkSizes kDefaultChunkSizes{16 * 1024, 64 * 1024, 256 * 1024};

// Cuts bytes into content-defined chunks (FastCDC: a gear rolling hash over the last 64 bytes,
// a cut where the hash's top bits are zero, a stricter mask before the average length and a
// looser one after it, so lengths cluster around the average). Where a cut falls depends only
// on the bytes just before it, so an insertion or a change moves the cuts near it and no
// others: the chunks of the rest of the file keep their names. The gear table and the masks are
// fixed forever; changing either renames every chunk ever published.
class ContentChunker {
public:
    // The sizes must satisfy 64 <= min <= average <= max and average must be a power of two;
    // throws std::invalid_argument otherwise.
    explicit ContentChunker(ChunkSizes sizes = kDefaultChunkSizes);

    const ChunkSizes& sizes() const { return sizes_; }

    // The length of the chunk that starts at `data`. `size` is what is available from there: at
    // least `max` bytes, unless the input ends within them. Returns a length from 1 to
    // min(size, max), or 0 when `size` is 0.
    std::size_t cut(const unsigned char* data, std::size_t size) const;

    // Reads the open file `fd` from its current offset to its end and hands each chunk to
    // `onChunk` in order, with the chunk's offset in the stream read. The bytes are valid only
    // during the call. Throws std::system_error when a read fails.
    using ChunkCallback = std::function<void(std::uint64_t offset, const unsigned char* data, std::size_t size)>;
    void chunkFile(int fd, const ChunkCallback& onChunk) const;

private:
    ChunkSizes sizes_;
    std::uint64_t strictMask_ = 0; // before `average` bytes: fewer cuts
    std::uint64_t looseMask_ = 0;  // after it: more cuts
};
