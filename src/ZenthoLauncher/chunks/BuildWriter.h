#pragma once

#include "chunks/ChunkPlan.h"
#include "formats/ChunkIndex.h"

#include <QHash>
#include <QString>

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

// Writes the build a ChunkIndex describes into one folder, in three steps: its folders and
// symlinks, then its files in as many rounds as the caller likes (as their chunks become
// readable), then the folders' modes and times. Every entry is checked against the index as it is
// written: a file's size and SHA-256 (of the bytes written, in order), every mode, every symlink's
// target. Modes come out as tar leaves them: the index's less the process's umask, or exactly the
// index's for root; folders get theirs last, so a read-only folder can still be filled.
//
// The index is one ChunkIndex::decode accepted: no entry leads outside the folder. Every step
// throws ChunkAssemblyError, whatever was written staying for the caller.
class BuildWriter {
public:
    enum class Start {
        empty,  // the folder exists and is empty
        resume, // the folder may hold what an earlier writer of the same index left
    };

    BuildWriter(QString folder, Start start);

    // Makes the folders and symlinks, so that every file's folder is there, and returns the files
    // still to write, in the index's order. Resuming, a file already there with the index's size
    // and SHA-256 is kept (its mode and time set again), and anything else the folder holds that
    // is not the index's, or not of its kind, goes first.
    std::vector<const ChunkIndexEntry*> makeTree(const ChunkIndex& index);

    // Writes `files` (entries of the index handed to makeTree) from their chunks, read at
    // `locations`, on up to four threads. The first failure stops the others from starting
    // another file and is thrown.
    void writeFiles(const std::vector<const ChunkIndexEntry*>& files, const QHash<QString, ChunkLocation>& locations) const;

    // Gives every folder its mode and time, innermost first.
    void finishFolders();

private:
    struct Folder {
        std::string path;
        mode_t mode;
        std::optional<qint64> mtime;
    };

    std::string pathOf(const ChunkIndexEntry& entry) const;
    void folder(const ChunkIndexEntry& entry);
    void symlink(const ChunkIndexEntry& entry) const;
    // Resuming: true when the file is already whole, after setting its mode and time again.
    bool keepIfWhole(const ChunkIndexEntry& entry) const;
    void removeWhatIsNotOf(const ChunkIndex& index) const;

    QString folder_;
    std::string top_;
    Start start_;
    mode_t umask_;
    std::vector<Folder> folders_;
};
