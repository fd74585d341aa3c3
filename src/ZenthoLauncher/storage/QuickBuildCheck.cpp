#include "storage/QuickBuildCheck.h"

#include "storage/BuildIndexes.h"

std::optional<std::vector<BuildDamage>> quickBuildCheck(const QString& launcherRoot, const QString& buildFolder) {
    const std::optional<QByteArray> kept = BuildIndexes(launcherRoot).read(buildFolder);
    if (!kept)
        return std::nullopt;
    try {
        return checkBuild(buildFolder, ChunkIndex::decode(*kept), BuildCheckDepth::quick);
    } catch (...) {
        // An index that cannot be read says nothing about the build, which then starts as it is.
        return std::nullopt;
    }
}
