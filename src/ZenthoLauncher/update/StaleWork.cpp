#include "update/StaleWork.h"

#include "net/DownloadsFolder.h"
#include "platform/FileManager.h"

#include <QDir>
#include <QFileInfo>

namespace {

// Only the kinds an install makes: anything else under such a name was put there by hand.
bool isStale(const QFileInfo& entry) {
    const QString name = entry.fileName();
    if (entry.isSymLink())
        return false;
    if (name.startsWith(QLatin1String("staging-")))
        return entry.isDir();
    return entry.isFile() && (name == QLatin1String("current-macos.json.tmp") ||
                              name.startsWith(QLatin1String(".current-macos.json.tmp.")));
}

} // namespace

void removeStaleWork(const FileManager& files, const QString& launcherRoot) {
    // Hidden names included: the state file's own temporary copies start with a full stop.
    const QFileInfoList entries =
        QDir(launcherRoot).entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System |
                                         QDir::NoDotAndDotDot);
    for (const QFileInfo& entry : entries) {
        if (!isStale(entry))
            continue;
        try {
            files.removeItem(entry.filePath());
        } catch (const std::exception&) {
        }
    }
    const DownloadsFolder downloads(files, launcherRoot);
    downloads.removeStale();
    downloads.removeIfEmpty();
}
