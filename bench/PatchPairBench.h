#pragma once

#include <QStringList>

// BenchChunkedUpdate's hotfix and engine-patch section: what a player with the base build
// fetches for each of PatchPairs' updates, through chunks and through the archive, on the real
// launcher and a real nginx at 50 MiB/s, for each of `runs`: a chunk average for the release
// tool's --chunk-average (0 for its default), with "z" after it for --compressed-index. Returns
// the bench's exit status.
int benchPatchPairs(qint64 total, const QStringList& runs);
