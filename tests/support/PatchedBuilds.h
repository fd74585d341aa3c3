#pragma once

#include <QByteArray>
#include <QString>

#include <random>

// A game build and a hotfix of it, generated for the chunk benchmarks: 0.3.0 holds 32 files of
// bytes that do not compress (like packed assets) and 32 of text-like data, and 0.3.1 changes
// about 1 % of the bytes in 20 of them (half rewritten in place, half inserted, so later bytes
// move) and adds a 5 MiB file. The same seed every time, so that figures of different runs and
// benchmarks compare.
namespace PatchedBuilds {

inline constexpr int kChangedFiles = 20;

// Bytes that do not compress.
QByteArray noise(qint64 size, std::mt19937_64& random);
// Lines of words and numbers from a small vocabulary, which gzip and zstd shrink about threefold,
// like configuration, scripts and level data.
QByteArray text(qint64 size, std::mt19937_64& random);
// Writes `bytes` to `path`; false when it could not.
bool write(const QString& path, const QByteArray& bytes);

// Writes 0.3.0 to `old` and 0.3.1 to `next`, each about `total` bytes with the stand-in game as
// "zentho"; returns the bytes changed in files 0.3.0 has, or -1 when a file could not be written.
qint64 make(const QString& old, const QString& next, qint64 total);

} // namespace PatchedBuilds
