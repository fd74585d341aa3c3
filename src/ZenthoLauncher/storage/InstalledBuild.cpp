#include "InstalledBuild.h"

#include "VersionOrder.h"
#include "platform/FileManager.h"

#include <QHash>

#include <algorithm>

size_t qHash(const InstalledBuild& build, size_t seed) {
    return qHashMulti(seed, build.version, build.path);
}

QList<InstalledBuild> scanInstalledBuilds(const FileManager& files, const QString& versionsRoot) {
    QList<FileManager::Entry> entries;
    try {
        entries = files.contentsOfDirectory(versionsRoot);
    } catch (const std::exception&) {
        return {};
    }
    QList<InstalledBuild> builds;
    for (const FileManager::Entry& entry : entries) {
        if (!entry.isDirectory.value_or(false))
            continue;
        const QString path = versionsRoot + QLatin1Char('/') + entry.name;
        if (files.isExecutableFile(path + QStringLiteral("/zentho")))
            builds.append(InstalledBuild{entry.name, path});
    }
    std::stable_sort(builds.begin(), builds.end(), [](const auto& a, const auto& b) {
        return compareVersionsNumerically(a.version, b.version) > 0;
    });
    return builds;
}
