// A saved build gets a quick look before it starts: a crash, a disk error or a player's mistake
// can leave it without a file or with a file cut short, and such a build would otherwise only fail
// to start. What the look finds is put right from kept and fetched chunks first, under its own
// status and with the download on the progress divider; when that cannot be done now (no chunk
// store known, the network), the build starts as it is, exactly as before builds were checked,
// so a repair never stands between the player and an offline game.

#include "model/LauncherModel.h"

#include "errors/LauncherError.h"
#include "model/DownloadMeter.h"
#include "process/WorkerThread.h"
#include "storage/QuickBuildCheck.h"
#include "update/BuildRepair.h"

#include <QFileInfo>

QCoro::Task<bool> LauncherModel::repairIfDamaged(QString buildFolder, QString repairingStatus) {
    // Only builds of the versions folder are the launcher's to rewrite; the seed runtime has no
    // index and is never checked.
    if (QFileInfo(buildFolder).path() != versionsRoot() || repairsTried_.contains(buildFolder))
        co_return false;
    // Every argument of a co_await is named first: g++ 12 destroys a temporary there twice.
    const QString root = launcherRoot();
    const auto check = [root, buildFolder] { return quickBuildCheck(root, buildFolder); };
    std::optional<std::vector<BuildDamage>> damage;
    try {
        damage = co_await onWorkerThread(check);
    } catch (...) {
        // A check that could not run (no thread to be had) finds nothing.
    }
    if (!damage || damage->empty())
        co_return false;

    repairsTried_.insert(buildFolder);
    setStatus(repairingStatus);
    DownloadMeter meter = downloadMeter();
    BuildRepair repair(installContext(meter));
    const QString versions = versionsRoot();
    try {
        co_await repair.repair(versions, buildFolder);
    } catch (...) {
        qWarning("%s is damaged and could not be repaired (%s); starting it as it is", qPrintable(buildFolder),
                 qPrintable(describeError(std::current_exception())));
    }
    co_return true;
}
