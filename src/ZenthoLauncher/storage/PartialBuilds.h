#pragma once

#include <QString>

class FileManager;

// Builds being written from chunks, one folder per release under the storage root:
// "chunk-build-" + the SHA-256 of the release's chunk index. Unlike a staging folder, such a
// folder outlives a killed or failed install, so that the next try of the same release keeps
// the files already written; it goes once any build is installed, or when another release is
// written from chunks.
//
// Only for a caller that holds the StorageLock.
class PartialBuilds {
public:
    PartialBuilds(const FileManager& files, QString launcherRoot);

    // The folder of the release whose chunk index has the digest `indexSha256` (64 hex digits).
    QString folderFor(const QString& indexSha256) const;
    // Removes every such folder but `keep` (none when empty). Failures are ignored: the next
    // install tries again.
    void removeAllBut(const QString& keep) const;
    // Readies `folder` (one of folderFor's) for a try: true when a folder of our own is there to
    // be taken up again; a link or file under its name is removed, never followed.
    bool takeUp(const QString& folder) const;

private:
    const FileManager& files_;
    QString launcherRoot_;
};
