#pragma once

#include <cstddef>
#include <functional>
#include <memory>

// Inflates a gzip stream as its bytes arrive, with igzip, for as long as the stream is one that
// GNU gzip would decompress to exactly the same bytes without a word: a single member, a header
// with nothing gzip would question (method deflate, no reserved or header-checksum flags, short
// names), a body that inflates cleanly, and a trailer whose CRC-32 and length match. Anything else
// (a second member, bytes after the member, a corrupt or cut-off body) makes it give up rather
// than guess; the caller then leaves the stream to gzip itself, whose verdict is the reference.
class GzipMemberInflater {
public:
    using Output = std::function<void(const char* bytes, std::size_t size)>;

    GzipMemberInflater();
    ~GzipMemberInflater();
    GzipMemberInflater(const GzipMemberInflater&) = delete;
    GzipMemberInflater& operator=(const GzipMemberInflater&) = delete;

    // Takes the next `size` bytes of the stream and hands what they inflate to, in order, to
    // `output`. Returns false once the stream has been given up on; later calls do nothing.
    bool feed(const char* bytes, std::size_t size, const Output& output);

    // True when the bytes fed so far end exactly with one complete, checked member.
    bool complete() const;
    bool givenUp() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};
