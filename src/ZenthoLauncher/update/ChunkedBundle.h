#pragma once

#include "formats/ReleaseManifest.h"
#include "update/ReleaseStaging.h"
#include "update/StagingFolder.h"

#include <QString>

#include <QCoroTask>

#include <optional>

// Puts a launcher release's bundle together from its chunks, in a fresh "launcher-staging-"
// folder, the way a game build is (writeBuildFromChunks): the running bundle's own files give
// every chunk they share with it, which for a new launcher is most of its libraries, and the rest
// comes from the release's pack or store. Nothing here vouches for the bundle: its seal is
// checked on what was put together, as on an unpacked archive.
//
// Shows `verifiedStatus` once every chunk is in. Returns the staging folder, or nothing, with
// nothing left behind, when the release's chunks do not pay (chunksPayFor)
// or anything on the way fails; the archive is then the way, as for a game build.
QCoro::Task<std::optional<StagingFolder>> stageBundleFromChunks(const ReleaseStaging& staging, ReleaseChunks chunks,
                                                                 QString runningBundle, QString verifiedStatus);
