#include <ContentChunker.h>

#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <vector>

#include <unistd.h>

namespace {

// splitmix64 from a fixed seed: 256 well-mixed 64-bit values, the same on every machine and in
// every build, without a table of magic numbers in the source.
constexpr std::array<std::uint64_t, 256> makeGear() {
    std::array<std::uint64_t, 256> gear{};
    std::uint64_t state = 0x5a454e54484f4344ULL; // fixed forever: the chunks' names depend on it
    for (std::uint64_t& value : gear) {
        state += 0x9e3779b97f4a7c15ULL;
        std::uint64_t z = state;
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
        value = z ^ (z >> 31);
    }
    return gear;
}

constexpr std::array<std::uint64_t, 256> kGear = makeGear();

// A mask of the `bits` highest bits. The gear hash shifts left once a byte, so its top bits
// depend on the last 64 bytes while its low bits depend only on the last few.
constexpr std::uint64_t topBits(unsigned bits) {
    return bits == 0 ? 0 : ~std::uint64_t(0) << (64 - bits);
}

// Below this a chunk costs more in index entries and requests than it can save.
constexpr std::size_t kSmallestMin = 64;

} // namespace

ContentChunker::ContentChunker(ChunkSizes sizes) : sizes_(sizes) {
    if (sizes.min < kSmallestMin || sizes.min > sizes.average || sizes.average > sizes.max ||
        !std::has_single_bit(sizes.average))
        throw std::invalid_argument("chunk sizes must satisfy 64 <= min <= average <= max with a "
                                    "power-of-two average");
    // Two bits either side of the average's own: the normalised chunking that keeps most chunks
    // near the average instead of spreading them from min to max.
    const unsigned bits = unsigned(std::countr_zero(sizes.average));
    strictMask_ = topBits(bits + 2);
    looseMask_ = topBits(bits > 2 ? bits - 2 : 1);
}

std::size_t ContentChunker::cut(const unsigned char* data, std::size_t size) const {
    if (size <= sizes_.min)
        return size;
    const std::size_t end = size < sizes_.max ? size : sizes_.max;
    const std::size_t normal = end < sizes_.average ? end : sizes_.average;
    std::uint64_t hash = 0;
    std::size_t i = sizes_.min;
    for (; i < normal; ++i) {
        hash = (hash << 1) + kGear[data[i]];
        if ((hash & strictMask_) == 0)
            return i + 1;
    }
    for (; i < end; ++i) {
        hash = (hash << 1) + kGear[data[i]];
        if ((hash & looseMask_) == 0)
            return i + 1;
    }
    return end;
}

void ContentChunker::chunkFile(int fd, const ChunkCallback& onChunk) const {
    // Room for two of the longest chunks, so a refill moves at most one chunk's worth of bytes.
    std::vector<unsigned char> buffer(2 * sizes_.max > (std::size_t(4) << 20) ? 2 * sizes_.max
                                                                             : std::size_t(4) << 20);
    std::size_t start = 0; // first byte not yet cut
    std::size_t filled = 0;
    std::uint64_t offset = 0;
    bool ended = false;
    for (;;) {
        while (!ended && filled - start < sizes_.max) {
            if (start > 0) {
                std::memmove(buffer.data(), buffer.data() + start, filled - start);
                filled -= start;
                start = 0;
            }
            const ssize_t got = ::read(fd, buffer.data() + filled, buffer.size() - filled);
            if (got < 0) {
                if (errno == EINTR)
                    continue;
                throw std::system_error(errno, std::generic_category(), "read");
            }
            if (got == 0)
                ended = true;
            filled += std::size_t(got);
        }
        if (filled == start)
            return;
        const std::size_t length = cut(buffer.data() + start, filled - start);
        onChunk(offset, buffer.data() + start, length);
        offset += length;
        start += length;
    }
}
