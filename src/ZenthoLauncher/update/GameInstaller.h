#pragma once

#include "chunks/ChunkSource.h"
#include "chunks/ChunkedInstall.h"
#include "formats/ReleaseManifest.h"
#include "update/InstallContext.h"
#include "update/ReleaseStaging.h"

#include <QString>

#include <QCoroTask>

#include <optional>

class StagingFolder;

// Turns one game release into an installed, recorded build: download, verify the digest, list
// and vet the archive, unpack it into a private staging folder, make the executable runnable,
// rename the staging folder into the versions folder and record the build as current. A release
// that also comes as chunks is first tried that way, a first install too: its checked index, the
// chunks the saved builds and earlier tries already hold, the missing ones fetched and checked,
// each file written and checked as soon as its chunks are in, into a folder that a killed try
// leaves for the next one (PartialBuilds); any failure there leaves the archive to do the
// install. A failure anywhere before the rename leaves the versions folder and the state file as
// they were.
class GameInstaller {
public:
    struct Locations {
        QString versionsRoot;
        QString statePath;
    };

    GameInstaller(InstallContext context, Locations locations);

    // Installs `manifest` (or, when its executable is already in place, only records it) and
    // returns the build folder's path. Throws LauncherError for what it detects itself; errors of
    // the network, the file system and tar's start pass through unchanged. Sets only the two
    // progress statuses, never an error status.
    QCoro::Task<QString> install(ReleaseManifest manifest);

    // versionsRoot + version, taken as given (a "/" in it nests folders), without a trailing "/".
    static QString installFolderFor(const QString& versionsRoot, const QString& version);

    static QString downloadingStatus() { return QStringLiteral("Downloading into ZENTHO storage..."); }
    static QString installingStatus() { return QStringLiteral("Installing verified update..."); }

private:
    QCoro::Task<void> downloadAndPlace(ReleaseManifest manifest, QString installFolder);
    // The release's chunk index, or nothing when it cannot be had or used.
    QCoro::Task<std::optional<FetchedChunkIndex>> fetchChunkIndexOrNothing(ReleaseChunks chunks);
    // Puts the build together from chunks and renames it to `installFolder`; false, with nothing
    // placed, when that does not pay or fails, for whatever reason.
    QCoro::Task<bool> placeFromChunks(const FetchedChunkIndex& release, ChunkSource source, QString executable,
                                      QString installFolder);
    // Makes the staged executable runnable and renames `staging` to `installFolder`.
    void placeStaged(StagingFolder& staging, const QString& executable, const QString& installFolder) const;

    ReleaseStaging staging_;
    const InstallContext& context_;
    Locations locations_;
};
