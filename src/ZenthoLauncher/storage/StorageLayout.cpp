#include "storage/StorageLayout.h"

#include "platform/FileManager.h"

#include <QFileInfo>

namespace {

// `base` with `relative` appended as a path; a base that already ends in "/" (the root folder
// above all) gets no second one.
QString appendPath(QString base, const QString& relative) {
    while (base.endsWith(QLatin1Char('/')))
        base.chop(1);
    return base + QLatin1Char('/') + relative;
}

} // namespace

const QString& StorageLayout::launcherRoot() {
    if (!launcherRoot_) {
        const QStringList folders = files_.applicationSupportFolders();
        // Without any data folder for the user, fall back to the conventional one below the
        // account's home folder.
        const QString base = folders.isEmpty()
                                 ? appendPath(files_.homeFolderForCurrentUser(), QStringLiteral(".local/share"))
                                 : folders.first();
        launcherRoot_ = appendPath(base, QStringLiteral("Zentho/launcher"));
    }
    return *launcherRoot_;
}

const QString& StorageLayout::versionsRoot() {
    if (!versionsRoot_)
        versionsRoot_ = launcherRoot() + QStringLiteral("/versions");
    return *versionsRoot_;
}

const QString& StorageLayout::stateURL() {
    if (!stateURL_)
        stateURL_ = launcherRoot() + QStringLiteral("/current-macos.json");
    return *stateURL_;
}

QString StorageLayout::dataFolder() {
    return QFileInfo(launcherRoot()).path();
}
