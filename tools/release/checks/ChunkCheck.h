#pragma once

#include "formats/ChunkIndex.h"
#include "formats/ReleaseManifest.h"

#include <QString>

// The checks of a release's chunks, as a launcher that installs from them depends on: the index
// the manifest names, the tree it describes and the chunks in the store. Each failure is a
// CheckFailed naming "index" or "chunks".
namespace ChunkCheck {

// The index at `path`, whose SHA-256 must be the one `chunks` gives and which must pass the
// launcher's own strict reading.
ChunkIndex readIndex(const QString& path, const ReleaseChunks& chunks);

// The compressed index at `path`, whose SHA-256 must be the one `chunks` gives for it and which
// must decompress, as a launcher does, to exactly the index the manifest names.
void checkCompressedIndex(const QString& path, const ReleaseChunks& chunks);

// The chunk pack at `path` must hold every chunk of `index` where the index's stored sizes put it
// (ChunkPack), each decoding and matching its name and size, then the deltas the index gives, each
// decoding against its base chunks from `store` to its chunk (with no store at hand, only their
// place is checked), and nothing after the last. Returns the pack's SHA-256, taken as it is read.
QString checkPack(const QString& path, const ChunkIndex& index, const QString& store = QString());

// The index must describe the unpacked build at `folder` exactly: the same entries in the same
// order, kinds, symlink targets, sizes, digests and chunk cuts, and the same modes as far as the
// unpacking process's umask lets them show.
void compareWithTree(const ChunkIndex& index, const QString& folder);

// Every chunk the index names must be in the store folder `store`, decode and match its name
// and size. Returns how many distinct chunks were checked.
qint64 checkStore(const ChunkIndex& index, const QString& store);

} // namespace ChunkCheck
