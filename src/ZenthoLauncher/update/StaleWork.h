#pragma once

#include <QString>

class FileManager;

// Removes what an install that never finished (the launcher crashed, was killed or lost power)
// left in the storage folder `launcherRoot`: unpacking folders ("staging-" + UUID) and
// temporary state files ("current-macos.json.tmp" and the hidden files it is written through),
// and whatever in the downloads folder no download can go on from (a download that can still be
// resumed stays).
// Only for a caller that holds the StorageLock: then no other launcher can be using them.
// Installed builds, the state file and a launcher update's staged bundle are never touched.
// Failures are ignored; the next install tries again.
void removeStaleWork(const FileManager& files, const QString& launcherRoot);
