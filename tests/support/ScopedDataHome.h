#pragma once

#include "LauncherStorage.h"

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>

// A private per-user data folder for one test: points $XDG_DATA_HOME at a fresh temporary
// folder and restores the previous value when it goes out of scope.
class ScopedDataHome {
public:
    ScopedDataHome();
    ~ScopedDataHome();
    ScopedDataHome(const ScopedDataHome&) = delete;
    ScopedDataHome& operator=(const ScopedDataHome&) = delete;

    QString path() const { return dir_.path(); }
    LauncherStorage storage() const { return LauncherStorage(path()); }
    QString launcherRoot() const { return storage().root(); }
    QString versionsRoot() const { return storage().versions(); }
    QString statePath() const { return storage().state(); }

private:
    QTemporaryDir dir_;
    bool hadPrevious_;
    QByteArray previous_;
};
