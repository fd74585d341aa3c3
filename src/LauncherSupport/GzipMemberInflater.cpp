#include <GzipMemberInflater.h>

#include <isa-l/igzip_lib.h>

#include <algorithm>
#include <cstdint>
#include <string>

namespace {

enum Flag : unsigned char {
    headerChecksum = 0x02,
    extraField = 0x04,
    originalName = 0x08,
    comment = 0x10,
    // Encryption and two reserved bits: gzip refuses a member with any of them.
    refused = 0xE0,
};

// Names and comments are ended by a zero byte and could run on forever; gzip itself has limits
// on a stored name. Real archives carry none or a short one, so a long one is left to gzip.
constexpr std::size_t maximumNameLength = 255;
// The largest header worth waiting for: the fixed part, a full extra field and two names.
constexpr std::size_t maximumHeaderLength = 10 + 2 + 65535 + 2 * (maximumNameLength + 1);

enum class HeaderParse { incomplete, rejected, parsed };

// Finds the end of a zero-terminated field starting at `at`; npos while it has not arrived.
std::size_t endOfText(const std::string& header, std::size_t at) {
    const std::size_t end = header.find('\0', at);
    return end == std::string::npos ? std::string::npos : end + 1;
}

// Parses the member header at the start of `header`, setting `length` to its size once parsed.
HeaderParse parseHeader(const std::string& header, std::size_t& length) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(header[i]); };
    for (std::size_t i = 0; i < 4 && i < header.size(); ++i) {
        static const unsigned char expected[] = {0x1f, 0x8b, 8}; // magic, then deflate
        if (i < 3 && byte(i) != expected[i])
            return HeaderParse::rejected;
        if (i == 3 && (byte(3) & (refused | headerChecksum)) != 0)
            return HeaderParse::rejected;
    }
    std::size_t at = 10; // magic, method, flags, modification time, extra flags, system
    if (header.size() < at)
        return HeaderParse::incomplete;
    const unsigned char flags = byte(3);
    if (flags & extraField) {
        if (header.size() < at + 2)
            return HeaderParse::incomplete;
        at += 2 + (std::size_t(byte(at)) | std::size_t(byte(at + 1)) << 8);
        if (header.size() < at)
            return HeaderParse::incomplete;
    }
    for (const Flag text : {originalName, comment}) {
        if (!(flags & text))
            continue;
        const std::size_t end = endOfText(header, at);
        if (end == std::string::npos) {
            return header.size() - at > maximumNameLength ? HeaderParse::rejected
                                                          : HeaderParse::incomplete;
        }
        if (end - at - 1 > maximumNameLength)
            return HeaderParse::rejected;
        at = end;
    }
    length = at;
    return HeaderParse::parsed;
}

} // namespace

struct GzipMemberInflater::State {
    std::string header; // bytes of the header while it is still arriving
    bool headerDone = false;
    bool finished = false; // the trailer has been read and checked
    bool givenUp = false;
    inflate_state inflater{};
    unsigned char out[256 * 1024];

    bool inflate(const unsigned char* bytes, std::size_t size, const Output& output) {
        if (finished) // nothing may follow the one member
            return size == 0;
        inflater.next_in = const_cast<unsigned char*>(bytes);
        inflater.avail_in = static_cast<std::uint32_t>(size);
        for (;;) {
            inflater.next_out = out;
            inflater.avail_out = sizeof out;
            if (isal_inflate(&inflater) != ISAL_DECOMP_OK)
                return false;
            const std::size_t produced = sizeof out - inflater.avail_out;
            if (produced > 0)
                output(reinterpret_cast<const char*>(out), produced);
            if (inflater.block_state == ISAL_BLOCK_FINISH) {
                finished = true;
                return inflater.avail_in == 0;
            }
            if (inflater.avail_in == 0 && inflater.avail_out > 0)
                return true;
        }
    }
};

GzipMemberInflater::GzipMemberInflater() : state_(std::make_unique<State>()) {
    isal_inflate_init(&state_->inflater);
    // The header is read here; igzip inflates the body and checks the trailer's CRC-32 and length.
    state_->inflater.crc_flag = ISAL_GZIP_NO_HDR_VER;
}

GzipMemberInflater::~GzipMemberInflater() = default;

bool GzipMemberInflater::feed(const char* bytes, std::size_t size, const Output& output) {
    State& s = *state_;
    if (!s.givenUp && !s.headerDone) {
        const std::size_t taken = std::min(size, maximumHeaderLength + 1 - s.header.size());
        s.header.append(bytes, taken);
        bytes += taken;
        size -= taken;
        std::size_t length = 0;
        switch (parseHeader(s.header, length)) {
        case HeaderParse::incomplete:
            // Everything offered went into the header, unless the header outgrew its limit.
            if (s.header.size() <= maximumHeaderLength)
                return true;
            s.givenUp = true;
            break;
        case HeaderParse::rejected:
            s.givenUp = true;
            break;
        case HeaderParse::parsed: {
            s.headerDone = true;
            const std::string rest = s.header.substr(length);
            s.header = std::string();
            s.givenUp = !s.inflate(reinterpret_cast<const unsigned char*>(rest.data()), rest.size(),
                                   output);
            break;
        }
        }
    }
    // Handed over in pieces of at most 1 GiB, so that each fits igzip's 32-bit count.
    constexpr std::size_t piece = std::size_t(1) << 30;
    while (!s.givenUp && size > 0) {
        const std::size_t now = std::min(size, piece);
        s.givenUp = !s.inflate(reinterpret_cast<const unsigned char*>(bytes), now, output);
        bytes += now;
        size -= now;
    }
    return !s.givenUp;
}

bool GzipMemberInflater::complete() const {
    return state_->finished && !state_->givenUp;
}

bool GzipMemberInflater::givenUp() const {
    return state_->givenUp;
}
