#pragma once

#include "BenchPress.h"

#include <QString>

// A repair as a player meets it after a disk error: one file of a saved build damaged over
// `damagedBytes` from its start, no other build here to take its chunks from, and the real
// launcher's --repair fetching what the damage took from the release's store.
struct RepairRun {
    QString file;          // the damaged file, relative to the build
    qint64 damaged = 0;    // bytes overwritten
    double seconds = -1;   // the launcher's run, start to end
    Traffic traffic;       // what nginx sent meanwhile
    int exitCode = -1;
    QString output;        // its one line, "0.3.1: repaired, ..."
    bool whole = false;    // --verify says the build is whole afterwards
};

// Damages the largest file of the build `version` in the storage `data` (removing every other
// saved build first) and repairs it with the game manifest at `manifestUrl`.
RepairRun repairDamagedFile(const TestServer& server, const QString& data, const QString& manifestUrl,
                            const QString& version, qint64 damagedBytes);
