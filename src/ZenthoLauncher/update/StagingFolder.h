#pragma once

#include "platform/FileManager.h"

#include <QString>

#include <optional>
#include <utility>

// A folder an install unpacks or writes a release into, in the storage folder beside the
// versions folder. It removes itself, with whatever is in it, on every way out until it has been
// renamed into place or handed over. A failed removal is not worth masking the error that got us
// here, so it is ignored.
class StagingFolder {
public:
    StagingFolder(const FileManager& files, QString path) : files_(&files), path_(std::move(path)) {
        files_->createDirectory(path_);
        armed_ = true;
    }
    StagingFolder(StagingFolder&& other) noexcept
        : files_(other.files_), path_(std::move(other.path_)), armed_(std::exchange(other.armed_, false)) {}
    StagingFolder& operator=(StagingFolder&&) = delete;
    StagingFolder(const StagingFolder&) = delete;
    StagingFolder& operator=(const StagingFolder&) = delete;
    ~StagingFolder() {
        if (!armed_)
            return;
        try {
            files_->removeItem(path_);
        } catch (...) {
        }
    }

    const QString& path() const { return path_; }
    QString pathOf(const QString& relative) const { return path_ + QLatin1Char('/') + relative; }

    // The one rule for a release's executable: the real path of `relative` when it is a plain file
    // of the release itself (a link inside is followed; a link out of the folder, a folder, a FIFO
    // or a device is not one). Anything else could have a permission change or a start land on a
    // file that is not the release's.
    std::optional<QString> executable(const QString& relative) const {
        return files_->regularFileInside(path_, pathOf(relative));
    }

    // Renames the folder to `destination`, which must not exist yet; after that there is
    // nothing left to clean up.
    void moveTo(const QString& destination) {
        files_->moveItem(path_, destination);
        armed_ = false;
    }
    // Puts the staged tree at `destination`, which must exist, in one step, and takes what was
    // there in its place, to be removed with this folder: a build replaced so is whole before
    // and whole after, whenever the process dies.
    void exchangeWith(const QString& destination) { files_->exchangeItems(path_, destination); }
    // Leaves the folder to whoever takes its content from here on.
    void handOver() { armed_ = false; }

private:
    const FileManager* files_;
    QString path_;
    bool armed_ = false;
};
