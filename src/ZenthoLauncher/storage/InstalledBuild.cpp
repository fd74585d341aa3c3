#include "storage/InstalledBuild.h"

#include "platform/FileManager.h"
#include "storage/VersionOrder.h"

#include <QHash>

#include <algorithm>
#include <vector>

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
    // Each version is decoded for the comparison once, not at every comparison of the sort.
    struct Found {
        QList<uint> order;
        InstalledBuild build;
    };
    std::vector<Found> found;
    found.reserve(static_cast<size_t>(entries.size()));
    for (const FileManager::Entry& entry : entries) {
        if (!entry.isDirectory.value_or(false))
            continue;
        const QString path = versionsRoot + QLatin1Char('/') + entry.name;
        if (files.isExecutableFile(path + QStringLiteral("/zentho")))
            found.push_back(Found{entry.name.toUcs4(), InstalledBuild{entry.name, path}});
    }
    std::stable_sort(found.begin(), found.end(), [](const Found& a, const Found& b) {
        return compareVersionsNumerically(a.order, b.order) > 0;
    });
    QList<InstalledBuild> builds;
    builds.reserve(static_cast<qsizetype>(found.size()));
    for (Found& one : found)
        builds.append(std::move(one.build));
    return builds;
}
