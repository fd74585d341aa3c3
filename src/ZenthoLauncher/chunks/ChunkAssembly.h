#pragma once

#include "chunks/ChunkPlan.h"
#include "errors/Failure.h"
#include "formats/ChunkIndex.h"

#include <QHash>
#include <QString>

// Writes the build `index` describes into the empty folder `staging`: its folders, its symlinks
// and each file from its chunks, read at `locations`, files on several threads. Every entry is
// checked against the index as it is written: a file's size and SHA-256 (of the bytes written, in
// order), every mode, every symlink's target. Modes come out as tar leaves them: the index's less
// the process's umask, or exactly the index's for root; folders get theirs last, so a read-only
// folder can still be filled. The index is one ChunkIndex::decode accepted: no entry leads outside
// `staging`. Throws ChunkAssemblyError, whatever was written staying for the caller to remove.
void assembleBuild(const ChunkIndex& index, const QHash<QString, ChunkLocation>& locations, const QString& staging);
