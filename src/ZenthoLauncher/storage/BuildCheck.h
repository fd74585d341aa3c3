#pragma once

#include "formats/ChunkIndex.h"

#include <QString>

#include <vector>

// One way a saved build differs from the index kept for it.
struct BuildDamage {
    enum class Kind {
        missing, // listed, not on disk
        kind,    // on disk as something else (a folder where a file belongs, ...)
        size,    // a file of another length
        mode,    // other permission bits
        target,  // a symlink pointing elsewhere
        content, // a file of the right length with other bytes
        extra,   // on disk, not listed
    };

    QString path; // relative to the build's top
    Kind kind = Kind::missing;

    // One word for the kind, as --verify prints it.
    QString what() const;
    bool operator==(const BuildDamage&) const = default;
};

// How closely a saved build is compared with its index. A quick check looks at what lstat tells
// (every listed entry there, of its kind, files of their size) and reads no file, so it can run
// before every start; a full check also compares modes, symlink targets and every file's SHA-256,
// and lists what the build holds beyond its index.
enum class BuildCheckDepth { quick, full };

// What the build in `folder` lacks or holds differently from `index`, in the index's order, extra
// entries last. The executable the launcher made runnable is not damage: its owner-execute bit
// is not compared.
std::vector<BuildDamage> checkBuild(const QString& folder, const ChunkIndex& index, BuildCheckDepth depth,
                                    const QString& executable = QString());
