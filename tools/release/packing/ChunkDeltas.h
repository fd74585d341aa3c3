#pragma once

#include "formats/ChunkIndex.h"

#include <QByteArray>
#include <QHash>
#include <QString>

// Deltas for a release's new chunks against the release before it: a chunk that a small edit, an
// insertion or a recompressed archive inside the build changed mostly holds bytes the chunks it
// replaces held, often shifted. Compressed against those (ChunkStore::compressAgainst), it costs
// a player who has the earlier build a fraction of its whole frame.
namespace ChunkDeltas {

struct Made {
    ChunkDelta delta;
    QByteArray frame;
};

// A delta for every chunk of `index` that `previous` does not hold, in a file that `previous` has
// under the same path, against the chunks of that file around the same place (read from `store`,
// which holds every chunk of `previous`), kept only where it is clearly smaller than the chunk's
// whole frame (`stored`). The chunks' own bytes are read from the build at `root` (the folder the
// index's paths start from). Throws std::runtime_error for a build or store that cannot be read.
QHash<QString, Made> make(const ChunkIndex& index, const ChunkIndex& previous, const QString& root, const QString& store,
                          const QHash<QString, qint64>& stored);

} // namespace ChunkDeltas
