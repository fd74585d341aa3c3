#pragma once

#include <cstddef>

// Sees an archive's body in order from its first byte: as it streams in and, when a download
// resumes, as the bytes kept from before are read back. Work that needs the whole body (the
// digest, the archive's listing) then happens while it arrives instead of after it.
class BodySink {
public:
    virtual ~BodySink() = default;
    // The body starts again from its first byte: whatever was seen so far no longer counts.
    virtual void restart() = 0;
    virtual void append(const char* bytes, std::size_t size) = 0;
};
