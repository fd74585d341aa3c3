#pragma once

#include "storage/StorageLock.h"
#include "update/InstallContext.h"
#include "update/StagingFolder.h"

#include <QString>
#include <QUrl>

#include <QCoroTask>

// The steps every install shares, a game build's and the launcher's own alike: hold the storage
// folder, clear what a killed install left in it, and turn a release's archive into a staging
// folder that holds exactly what the archive unpacks to. Only what is then done with the staged
// tree differs: a game build is renamed into the versions folder, a launcher bundle has its seal
// checked and is handed to the finish script.
class ReleaseStaging {
public:
    explicit ReleaseStaging(InstallContext context);

    // Waits, without holding up the window, until no other launcher works in the storage folder,
    // then holds it until the returned lock goes, after removing what an interrupted install left
    // there (StaleWork.h). Creates the storage folder when it is missing.
    QCoro::Task<StorageLock> holdStorage();

    // One release archive and how its staging is named and announced.
    struct Archive {
        QUrl url;
        QString sha256;
        QString kind;           // the release's platform value: one download per kind is kept
        QString verifiedStatus; // shown once the digest has matched
        QString stagingPrefix;  // the staging folder is this + a fresh UUID, in the storage folder
    };

    // Downloads the archive (resuming what an earlier attempt kept), listing it as it arrives;
    // once its digest matches, shows `verifiedStatus`, vets the listing with the archive rule and
    // only then unpacks it into a fresh staging folder, which it returns. The archive's file goes
    // as soon as it is unpacked. Throws as downloadVerifiedArchive, checkArchiveListing and
    // extractArchive do; the staging folder never outlives a failure.
    QCoro::Task<StagingFolder> stageArchive(Archive archive);

    // A fresh, empty staging folder named `prefix` + UUID in the storage folder.
    StagingFolder newStagingFolder(const QString& prefix) const;

    const InstallContext& context() const { return context_; }

private:
    InstallContext context_;
};
