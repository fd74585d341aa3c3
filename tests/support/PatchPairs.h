#pragma once

#include <QString>

// Two updates of one game build, shaped like the updates games ship, for comparing what a player
// downloads through chunks with other ways of patching. The build holds 32 files of bytes that do
// not compress and 32 of text-like data (PatchedBuilds' kinds), a 128 MB gzip-compressed pack of
// both kinds mixed, the stand-in game as "zentho" and a symlink data/current -> levels00.txt.
//
//   hotfix        eight 64 KiB rewrites spread over each of 20 files, a new 5 MiB file, and
//                 data/current moved to data/latest -> levels01.txt
//   engine patch  the hotfix, plus 100,000 bytes inserted in the middle of 5 other files, and
//                 3.6 % of the pack's content rewritten (36 spots spread over it) and the pack
//                 compressed again
//
// The same seeds every time, so that figures of different runs compare.
namespace PatchPairs {

inline constexpr int kHotfixFiles = 20;
inline constexpr int kHotfixEditsPerFile = 8;
inline constexpr int kEditBytes = 64 * 1024;
inline constexpr int kInsertedFiles = 5;
inline constexpr int kInsertedBytes = 100000;

struct Made {
    qint64 buildBytes = -1; // of the base, every file's bytes; -1 when a file could not be written
    qint64 packBytes = 0;   // the compressed pack's, in the base
};

// Writes the base build to `base`, the hotfix to `hotfix` and the engine patch to `engine`, each
// about `total` bytes with the pack included (at least 256 MiB).
Made make(const QString& base, const QString& hotfix, const QString& engine, qint64 total);

} // namespace PatchPairs
