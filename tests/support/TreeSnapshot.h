#pragma once

#include <QStringList>

// Everything an unpacked tree is made of, one line per entry in name order: its path relative to
// the folder, its kind, its permission bits, and for a file its size, content digest and
// modification time, for a link its target. Files that are one file under several names (hard
// links) say which name came first. Two trees are the same when their snapshots are.
namespace TreeSnapshot {

// Whether a file's line ends with its modification time. A build put together from chunks has
// the times of its writing, where tar gives the archive's; everything else must agree.
enum class Times { compared, ignored };

QStringList of(const QString& folder, Times times = Times::compared);

} // namespace TreeSnapshot
