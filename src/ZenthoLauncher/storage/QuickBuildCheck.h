#pragma once

#include "storage/BuildCheck.h"

#include <QString>

#include <optional>
#include <vector>

// The look a saved build gets before every start: the index kept for it (BuildIndexes.h) against
// what lstat shows of the build (BuildCheckDepth::quick). It reads no file's bytes, so it costs a
// stat per entry and the index's decoding, and it cannot see bytes changed in place: a file of
// its own length with other content passes, and only `--verify` finds it.
//
// The damage found, empty when the build looks whole; none when there is nothing to compare with
// (no index was kept for the build, or the one kept does not decode). Never throws.
std::optional<std::vector<BuildDamage>> quickBuildCheck(const QString& launcherRoot, const QString& buildFolder);
