#include "update/ReleaseStaging.h"

#include "archive/Archive.h"
#include "archive/ArchiveExtraction.h"
#include "archive/StreamedListing.h"
#include "platform/FileManager.h"
#include "update/StaleWork.h"
#include "update/VerifiedDownload.h"

#include <Uuid.h>

ReleaseStaging::ReleaseStaging(InstallContext context) : context_(std::move(context)) {}

QCoro::Task<StorageLock> ReleaseStaging::holdStorage() {
    context_.files.createDirectory(context_.launcherRoot);
    StorageLock lock = co_await StorageLock::acquire(context_.launcherRoot);
    removeStaleWork(context_.files, context_.launcherRoot);
    co_return lock;
}

StagingFolder ReleaseStaging::newStagingFolder(const QString& prefix) const {
    return StagingFolder(context_.files, context_.launcherRoot + QLatin1Char('/') + prefix +
                                             QString::fromStdString(makeUpperUuid()));
}

QCoro::Task<StagingFolder> ReleaseStaging::stageArchive(Archive archive) {
    // Listed while it arrives, so the listing is ready about when the digest is; nothing of it is
    // trusted until the digest has matched.
    StreamedListing listing;
    // Named, not a braced temporary in the co_await: g++ 12 destroys such a temporary twice.
    const ArchiveDownload where{context_.launcherRoot, archive.kind, &listing, context_.downloadObserver};
    DownloadedFile download =
        co_await downloadVerifiedArchive(context_.http, context_.files, archive.url, archive.sha256, where);
    context_.reportStatus(archive.verifiedStatus);

    StagingFolder staging = newStagingFolder(archive.stagingPrefix);
    // Nothing is unpacked before the whole listing has passed the rule. The archive is only
    // needed by the two tar runs; it goes right after them, so a large download never lingers.
    checkArchiveListing(co_await listing.listingOf(download.path()));
    co_await extractArchive(context_.files, download.path(), staging.path());
    download = DownloadedFile();
    co_return std::move(staging);
}
