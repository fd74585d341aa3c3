#pragma once

#include <QString>

#include <optional>

class FileManager;

// Where the launcher keeps everything it stores: <application-support>/Zentho/launcher, its
// "versions" folder and the state file "current-macos.json". Each location is worked out on its
// first read and then kept for the life of the object, so a later change of $XDG_DATA_HOME or
// $HOME never moves a running launcher's storage. Nothing here touches the disk.
class StorageLayout {
public:
    explicit StorageLayout(const FileManager& files) : files_(files) {}

    const QString& launcherRoot();
    const QString& versionsRoot();
    const QString& stateURL(); // a file-system path, named after the record it locates
    // The game's own data folder: always exactly the parent of launcherRoot.
    QString dataFolder();

private:
    const FileManager& files_;
    std::optional<QString> launcherRoot_;
    std::optional<QString> versionsRoot_;
    std::optional<QString> stateURL_;
};
