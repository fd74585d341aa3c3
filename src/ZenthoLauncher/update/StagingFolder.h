#pragma once

#include "platform/FileManager.h"

#include <QString>

// A staging folder that removes itself, with whatever was unpacked into it, on every way out
// until it has been renamed into place. A failed removal is not worth masking the error that
// got us here, so it is ignored.
class StagingFolder {
public:
    StagingFolder(const FileManager& files, QString path) : files_(files), path_(std::move(path)) {
        files_.createDirectory(path_);
        armed_ = true;
    }
    StagingFolder(const StagingFolder&) = delete;
    StagingFolder& operator=(const StagingFolder&) = delete;
    ~StagingFolder() {
        if (!armed_)
            return;
        try {
            files_.removeItem(path_);
        } catch (...) {
        }
    }

    const QString& path() const { return path_; }
    // Renames the folder to `destination`, which must not exist yet; after that there is
    // nothing left to clean up.
    void moveTo(const QString& destination) {
        files_.moveItem(path_, destination);
        armed_ = false;
    }

private:
    const FileManager& files_;
    QString path_;
    bool armed_ = false;
};
