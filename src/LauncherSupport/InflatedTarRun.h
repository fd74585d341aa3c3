#pragma once

#include <ProcessCapture.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

// One tar run (`tar <arguments>`, reading the archive from standard input, so the arguments hold
// "-f -" and no compression option) on the inflated form of a gzip archive. A thread of its own
// inflates the archive with igzip and writes it into tar's standard input, so that tar never waits
// for GNU gzip, which inflates several times slower, and the caller's thread never waits for tar.
//
// The run is only an accelerator: its result counts when the archive was a single, complete,
// checked gzip member (GzipMemberInflater) and tar exited with status 0, for then tar read exactly
// what `tar -z` would have read through gzip. Otherwise the caller falls back to tar's own
// decompression, whose result and error text are the reference.
class InflatedTarRun {
public:
    struct Outcome {
        bool clean = false; // a single checked gzip member, all of it fed, and tar exited 0
        CapturedProcessResult tar;
    };

    // The most appended bytes that wait in memory for the feeding thread.
    static constexpr std::size_t maximumQueuedBytes = 16 * 1024 * 1024;

    // Starts `tar` with `arguments` and the feeding thread. Throws as ProcessCapture::start does,
    // and std::system_error when the pipe or the thread cannot be made.
    InflatedTarRun(const std::string& tar, const std::vector<std::string>& arguments);
    // A run that has not ended is stopped: tar is killed and the thread joined.
    ~InflatedTarRun();
    InflatedTarRun(const InflatedTarRun&) = delete;
    InflatedTarRun& operator=(const InflatedTarRun&) = delete;

    // The archive's next bytes, in order, while they arrive. Never waits: bytes beyond
    // maximumQueuedBytes are not kept, and finishFrom() reads them back from the archive's file.
    void append(const char* bytes, std::size_t size);
    // No more bytes will be appended: the whole archive is in the file at `path`, of which the
    // appended bytes were the beginning. A run that was given no bytes reads all of the file.
    void finishFrom(const std::string& path);

    // A descriptor that becomes readable once the run has ended.
    int endDescriptor() const;
    // The outcome once the run has ended, else nothing. Never waits.
    std::optional<Outcome> outcome();
    // Waits until the run has ended and returns its outcome.
    Outcome wait();

private:
    struct Shared;
    void feed();

    std::unique_ptr<Shared> shared_;
    std::thread feeder_;
};
