#pragma once

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
    QString launcherRoot() const { return path() + QStringLiteral("/Zentho/launcher"); }
    QString versionsRoot() const { return launcherRoot() + QStringLiteral("/versions"); }
    QString statePath() const { return launcherRoot() + QStringLiteral("/current-macos.json"); }

private:
    QTemporaryDir dir_;
    bool hadPrevious_;
    QByteArray previous_;
};
