#pragma once

#include "chunks/ChunkPlan.h"
#include "formats/ChunkIndex.h"
#include "formats/ReleaseManifest.h"

#include <QByteArray>

#include <QCoroTask>

#include <vector>

class ChunkCache;
class FileManager;
class HttpClient;
struct TransferLimits;

// A release's chunk index as fetched: its bytes, which hash to the digest the manifest gives, and
// what they say.
struct FetchedChunkIndex {
    QByteArray bytes;
    ChunkIndex index;
};

// Fetches the index `chunks` names and accepts it only as the body of a plain HTTP 200 whose
// SHA-256 is the manifest's (letter case aside), that ChunkIndex::decode reads and whose every
// path passes the archive listing rule. Throws NetworkError, ChunkIndexError (another status or
// digest, or an index that does not read), LauncherError::unsafeArchive.
QCoro::Task<FetchedChunkIndex> fetchChunkIndex(HttpClient& client, ReleaseChunks chunks);

// The saved builds an update can take chunks from, the current one first, each with the index
// kept for it: the current build, and, of the others, at most `maximumOthers` that have an index
// kept (newest first), since reading a whole build costs as much as fetching a good part of it.
std::vector<SeedBuild> seedBuilds(const FileManager& files, const QString& launcherRoot,
                                  const QString& versionsRoot, const QString& currentBuild, int maximumOthers = 4);

// The rule that picks chunks or the archive once the release's index is at hand and usable: the
// build is written from chunks, a first install as well as an update, whenever the chunk cache's
// cap holds what writing it file by file keeps there at most (peakCachedBytes); only a release
// with a file whose chunks alone exceed the cap comes as its archive. Fetched whole, a release's
// chunks come to about its archive's bytes (each is compressed, as the archive is; those on this
// disk are not fetched at all), need no archive beside the build on the disk, and are written as
// they arrive instead of after the last byte.
bool chunksArePaying(qint64 peakCachedBytes, qint64 cacheBytes);

// The other half of the rule: chunks from a store cost a request each, which a far player waits
// a round trip for, a few at a time; so from a store only a release of which at most half the
// bytes are missing (a patch, a repair) comes as chunks, and a first install as its archive. A
// pack brings many chunks a request and so any release at the line's speed.
bool requestsArePaying(qint64 missingBytes, qint64 buildBytes, bool packed);

// Both halves of the rule for `plan`, a release's chunks against what this disk holds: true when
// its build is to come from chunks through a cache of `cacheBytes`, from a pack when `packed`.
bool chunksPayFor(const ChunkIndex& index, const ChunkPlan& plan, const ChunkCache& cache, bool packed,
                  qint64 cacheBytes);

// Refuses with DiskSpaceError a build from chunks that the disk of `root` cannot hold: the build
// and what passes through the cache at most, with the limits' reserve kept; never an archive
// beside them. Files already of their size in `partial`, a build of the same release cut short
// and taken up again, are on the disk already and need no more room.
void requireRoomForChunks(const QString& root, const ChunkIndex& index, const ChunkPlan& plan,
                          const TransferLimits& limits, const QString& partial = QString());

// The bytes of every file of the release: what its build takes on the disk.
qint64 buildBytes(const ChunkIndex& index);
