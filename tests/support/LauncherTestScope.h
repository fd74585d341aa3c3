#pragma once

#include "AdoptedProcesses.h"

#include <QString>
#include <QTemporaryDir>

// What one test function that runs real launchers owns: a fresh folder, and whatever its
// launchers leave behind (games, finish scripts, relaunched launchers), which is ended before
// the folder they may run from is removed.
class LauncherTestScope {
public:
    LauncherTestScope() = default;
    LauncherTestScope(const LauncherTestScope&) = delete;
    LauncherTestScope& operator=(const LauncherTestScope&) = delete;
    ~LauncherTestScope() {
        adopted_.endAll();
        AdoptedProcesses::endRunningFrom(dir_.path());
    }

    QString path(const QString& relative) const { return dir_.filePath(relative); }
    AdoptedProcesses& adopted() { return adopted_; }

private:
    QTemporaryDir dir_; // made first, so removed last
    AdoptedProcesses adopted_;
};
