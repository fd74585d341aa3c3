#pragma once

#include <QByteArray>
#include <QString>

// File helpers shared by the packing and checking subcommands.
namespace ReleaseFiles {

// The two platforms a manifest may name: the game's and the launcher's own.
inline const char* const kGamePlatform = "macos-arm64";
inline const char* const kLauncherPlatform = "macos-launcher-arm64";
// Where a launcher bundle keeps the executable the launcher checks before it swaps bundles.
inline const char* const kBundleExecutable = "Contents/MacOS/ZenthoLauncher";

bool isKnownPlatform(const QString& platform);

// Lower-case hexadecimal SHA-256 of a whole file, read in pieces so a large archive never has
// to fit in memory. Throws std::runtime_error naming the file when it cannot be read.
QString sha256OfFile(const QString& path);

// Writes `bytes` to a hidden sibling of `path` and renames it into place, so a reader (or a web
// server) never sees half a file. Throws std::runtime_error naming `path`.
void writeFileAtomically(const QString& path, const QByteArray& bytes);

// The whole file at `path`. Throws std::runtime_error naming the file when it cannot be read.
QByteArray readFile(const QString& path);

// Copies `from` to `to` as a publisher needs it: folders up to `to` are made (0755), the bytes go
// to a hidden sibling created new (0644), reach the disk, and only then take the name `to` by
// one rename, which a reader sees happen at once. Throws std::runtime_error naming the file.
void copyFileDurably(const QString& from, const QString& to);

// True for an existing regular file (symlinks followed) that this process may execute.
bool isExecutableFile(const QString& path);

// Why `version` cannot name a release, or empty when it can. Releases become folder and file
// names, so only letters, digits and . _ + - are allowed, starting with a letter or digit.
QString versionProblem(const QString& version);

// Why `relative` cannot name something inside an archive, or empty when it can: it must not be
// empty, start with "/" or have a ".." component (the launcher's own listing rule).
QString relativePathProblem(const QString& relative);

} // namespace ReleaseFiles
