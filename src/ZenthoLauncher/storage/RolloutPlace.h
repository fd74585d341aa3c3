#pragma once

#include <QString>

class FileManager;

// This installation's place among all installations for staged rollouts: a number from 0 up to
// 100, drawn once at random and kept in the storage folder as "rollout-place", so that a share
// that grows reaches the same installations first and a launcher never drops in and out of a
// share from one start to the next. Nothing identifies the installation, and it never leaves the
// machine: the launcher compares it with the manifest's share and tells nobody.
namespace RolloutPlace {

inline constexpr const char* kFileName = "rollout-place";

// The kept place, or a new one drawn and kept when there is none or it does not read as a place
// (a new one that cannot be written is still used, and drawn again on the next start).
double of(const FileManager& files, const QString& launcherRoot);

} // namespace RolloutPlace
