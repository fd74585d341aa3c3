#include "app/VerifyCommand.h"

#include "app/SavedBuildSelection.h"

#include "formats/ChunkIndex.h"
#include "storage/BuildCheck.h"
#include "storage/BuildIndexes.h"
#include "storage/StorageLayout.h"

#include <QDir>

#include <exception>
#include <optional>

namespace {

// A saved build is started by this name, so it is the one entry the launcher made runnable.
const QString kInstalledExecutable = QStringLiteral("zentho");

enum class Verdict { whole, damaged, unchecked };

Verdict verifyOne(const BuildIndexes& indexes, const QString& version, const QString& folder, std::FILE* output) {
    const std::optional<QByteArray> kept = indexes.read(folder);
    if (!kept) {
        std::fprintf(output, "%s: not checked, no index was kept for it\n", qPrintable(version));
        return Verdict::unchecked;
    }
    ChunkIndex index;
    try {
        index = ChunkIndex::decode(*kept);
    } catch (const std::exception& error) {
        std::fprintf(output, "%s: not checked, its kept index is unreadable: %s\n", qPrintable(version), error.what());
        return Verdict::unchecked;
    }
    const std::vector<BuildDamage> damage = checkBuild(folder, index, BuildCheckDepth::full, kInstalledExecutable);
    if (damage.empty()) {
        std::fprintf(output, "%s: whole\n", qPrintable(version));
        return Verdict::whole;
    }
    std::fprintf(output, "%s: damaged\n", qPrintable(version));
    for (const BuildDamage& entry : damage)
        std::fprintf(output, "  %s: %s\n", qPrintable(entry.path), qPrintable(entry.what()));
    return Verdict::damaged;
}

} // namespace

int verifySavedBuilds(const FileManager& files, const QString& version, std::FILE* output, std::FILE* errors) {
    StorageLayout storage(files);
    const QDir versions(storage.versionsRoot());
    const std::optional<QStringList> selected = selectSavedBuilds(versions.path(), version, errors);
    if (!selected)
        return 1;
    const QStringList& names = *selected;
    const BuildIndexes indexes(storage.launcherRoot());
    int status = 0;
    for (const QString& name : names) {
        const Verdict verdict = verifyOne(indexes, name, versions.filePath(name), output);
        if (verdict == Verdict::damaged || (verdict == Verdict::unchecked && !version.isEmpty()))
            status = 1;
    }
    if (names.isEmpty())
        std::fprintf(output, "No saved builds in %s.\n", qPrintable(versions.path()));
    return status;
}
