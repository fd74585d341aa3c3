#pragma once

#include <QString>

#include <stdexcept>

// Too little room on a disk for what the launcher is about to write, in the words the player
// reads after "Update failed: ", for example "Not enough free space in
// /home/u/.local/share/Zentho/launcher: 1.2 GB needed, 310 MB free.".
class DiskSpaceError : public std::runtime_error {
public:
    explicit DiskSpaceError(const QString& description)
        : std::runtime_error(description.toStdString()) {}
};
