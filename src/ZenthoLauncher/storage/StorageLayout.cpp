#include "StorageLayout.h"

#include "platform/FileManager.h"

#include <QFileInfo>

const QString& StorageLayout::launcherRoot() {
    if (!launcherRoot_) {
        const QStringList folders = files_.applicationSupportFolders();
        // Without any data folder for the user, fall back to the conventional one below the
        // account's home folder.
        const QString base = folders.isEmpty()
                                 ? files_.homeFolderForCurrentUser() + QStringLiteral("/.local/share")
                                 : folders.first();
        launcherRoot_ = base + QStringLiteral("/Zentho/launcher");
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
