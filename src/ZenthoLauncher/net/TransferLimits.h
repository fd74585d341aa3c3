#pragma once

#include "net/TransferWatchdog.h"

#include <QtGlobal>

#include <chrono>

// How much a server may cost the launcher. The defaults are the product's; tests pass smaller
// ones so that a limit is reached in a moment.
struct TransferLimits {
    // A manifest is a few hundred bytes of JSON. 1 MiB leaves room for any notes a publisher may
    // add while keeping an endless or bloated answer from taking the launcher's memory.
    static constexpr qint64 defaultMaximumManifestBytes = 1024 * 1024;
    // A manifest fetch must end within this, however steadily the bytes come: the buttons stay
    // disabled while it runs, and offline play must not wait on a server that drip-feeds.
    static constexpr std::chrono::milliseconds defaultManifestDeadline{30000};
    // An archive download does not start, or stops, when it would leave less than this free
    // where it is written or unpacked: enough for the system and the user's other programs to go
    // on writing their logs and caches while the launcher fails cleanly, small next to any disk
    // a game is installed on.
    static constexpr qint64 defaultFreeSpaceReserve = qint64(64) * 1024 * 1024;
    // Chunks fetched and not yet written into the build take at most this, between attempts too:
    // what an install from chunks needs on the disk besides the build. A file is written once all
    // its chunks are in, so a release with a file larger than this comes as its archive instead.
    static constexpr qint64 defaultChunkCacheBytes = qint64(256) << 20;
    // Chunks are small: a few requests in flight keep a link busy where one would wait on each
    // round trip, and a server sees no more connections than a browser opens.
    static constexpr int defaultParallelChunks = 6;

    // Archives keep the throughput floor and no overall deadline: slow links must work.
    TransferWatchdog::Limits download{};
    TransferWatchdog::Limits manifest = [] {
        TransferWatchdog::Limits limits;
        limits.deadline = defaultManifestDeadline;
        return limits;
    }();
    qint64 maximumManifestBytes = defaultMaximumManifestBytes;
    qint64 freeSpaceReserve = defaultFreeSpaceReserve;
    qint64 chunkCacheBytes = defaultChunkCacheBytes;
    int parallelChunks = defaultParallelChunks;
};
