#include "app/RepairCommand.h"

#include "app/SavedBuildSelection.h"

#include "net/HttpClient.h"
#include "net/UnreachableHosts.h"
#include "storage/BuildIndexes.h"
#include "storage/StorageLayout.h"
#include "update/BuildRepair.h"

#include <QCoreApplication>

#include <QCoroTask>

#include <exception>

namespace {

QCoro::Task<bool> repairOne(BuildRepair& repair, const QString& versionsRoot, const QString& name, std::FILE* output) {
    try {
        const QString folder = versionsRoot + QLatin1Char('/') + name;
        const RepairOutcome outcome = co_await repair.repair(versionsRoot, folder);
        if (outcome.damage.empty()) {
            std::fprintf(output, "%s: whole\n", qPrintable(name));
        } else {
            std::fprintf(output, "%s: repaired, %zu entries put right, %d chunks (%lld bytes) fetched\n", qPrintable(name),
                         outcome.damage.size(), outcome.fetchedChunks, static_cast<long long>(outcome.fetchedBytes));
        }
        co_return true;
    } catch (const std::exception& error) {
        std::fprintf(output, "%s: cannot be repaired: %s\n", qPrintable(name), error.what());
    }
    co_return false;
}

} // namespace

int repairSavedBuilds(const FileManager& files, const QString& version, std::FILE* output, std::FILE* errors) {
    static int argc = 1;
    static char name[] = "zentho-launcher";
    static char* argv[] = {name, nullptr};
    QCoreApplication app(argc, argv);

    StorageLayout storage(files);
    const QString versionsRoot = storage.versionsRoot();
    const std::optional<QStringList> names = selectSavedBuilds(versionsRoot, version, errors);
    if (!names)
        return 1;
    HttpClient http;
    UnreachableHosts unreachable; // one server that cannot be reached is not waited for per build
    http.rememberUnreachableIn(&unreachable);
    BuildRepair repair(InstallContext{files, http, storage.launcherRoot(), [](const QString&) {}, nullptr});
    const BuildIndexes indexes(storage.launcherRoot());
    int status = 0;
    for (const QString& build : *names) {
        // A build installed from a release without chunks has no index to be repaired from.
        if (!indexes.read(versionsRoot + QLatin1Char('/') + build)) {
            std::fprintf(output, "%s: not checked, no index was kept for it\n", qPrintable(build));
            if (!version.isEmpty())
                status = 1;
            continue;
        }
        if (!QCoro::waitFor(repairOne(repair, versionsRoot, build, output)))
            status = 1;
    }
    return status;
}
