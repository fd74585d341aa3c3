#pragma once

#include <QList>
#include <QString>
#include <QtGlobal>

class FileManager;

// One build saved in the versions folder. Its identity is its path.
struct InstalledBuild {
    QString version; // the build folder's name
    QString path;    // the build folder's absolute path

    const QString& id() const { return path; }
    bool operator==(const InstalledBuild&) const = default;
};

size_t qHash(const InstalledBuild& build, size_t seed = 0);

// The builds in `versionsRoot`, newest first. A build is a visible folder holding an executable
// "zentho"; anything else, and anything that cannot be inspected, is skipped without a word. An
// unreadable or missing folder yields no builds. Builds whose versions compare equal keep the
// order of the listing.
QList<InstalledBuild> scanInstalledBuilds(const FileManager& files, const QString& versionsRoot);
