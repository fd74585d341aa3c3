#pragma once

#include "chunks/ChunkPlan.h"
#include "chunks/ChunkSource.h"
#include "storage/BuildCheck.h"
#include "update/InstallContext.h"
#include "update/ReleaseStaging.h"

#include <QCoroTask>

#include <vector>

// What repairing one saved build found and did.
struct RepairOutcome {
    std::vector<BuildDamage> damage; // what was wrong; empty when the build was whole
    int fetchedChunks = 0;           // chunks fetched from the release's store
    qint64 fetchedBytes = 0;         // their bytes, as the build holds them
};

// Puts a damaged saved build right from the index kept for it: every chunk comes from where it can
// be read on this disk (the build's own undamaged files and the unchanged chunks of its changed
// ones, other saved builds, chunks kept by an earlier try) or, only when it is nowhere here, from
// the pack its release was published with (many chunks a request), else, or when the pack cannot
// be had, from its chunk store. The build is written whole into a staging folder with every check of an install and then
// exchanged with the damaged one in one rename, so a repair killed at any point leaves the build
// as it was or whole; the damaged tree goes with the staging folder.
class BuildRepair {
public:
    explicit BuildRepair(InstallContext context);

    // Repairs the build in `buildFolder` (one folder of `versionsRoot`). A whole build is left
    // untouched. Throws Failure when it cannot be repaired: no index was kept for it, or chunks
    // it lacks cannot be had (no store known, the network), and the install errors otherwise.
    QCoro::Task<RepairOutcome> repair(QString versionsRoot, QString buildFolder);

private:
    // Writes the build of `index` whole into a staging folder and exchanges it with the one in
    // `buildFolder`.
    QCoro::Task<void> rebuild(const ChunkIndex& index, ChunkPlan plan, ChunkSource source, QString buildFolder);

    ReleaseStaging staging_;
};
