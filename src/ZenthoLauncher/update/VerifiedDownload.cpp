#include "update/VerifiedDownload.h"

#include "errors/LauncherError.h"
#include "net/DownloadsFolder.h"
#include "net/HttpClient.h"
#include "net/ResumableDownload.h"
#include "platform/FileManager.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <optional>
#include <utility>

DownloadedFile::DownloadedFile(DownloadedFile&& other) noexcept
    : path_(std::exchange(other.path_, QString())) {}

DownloadedFile& DownloadedFile::operator=(DownloadedFile&& other) noexcept {
    if (this != &other) {
        remove();
        path_ = std::exchange(other.path_, QString());
    }
    return *this;
}

DownloadedFile::~DownloadedFile() { remove(); }

void DownloadedFile::remove() {
    if (path_.isEmpty())
        return;
    QFile::remove(path_);
    // Only succeeds once nothing else is in it.
    QDir().rmdir(QFileInfo(path_).absolutePath());
    path_.clear();
}

QCoro::Task<DownloadedFile> downloadVerifiedArchive(HttpClient& http, const FileManager& files, QUrl url,
                                                    QString sha256, ArchiveDownload where) {
    const DownloadsFolder folder(files, where.launcherRoot);
    const DownloadsFolder::Partial partial = folder.prepare(where.kind, sha256);
    // Named, not a braced temporary in the co_await: g++ 12 destroys such a temporary twice.
    const ResumableDownload::Options options{where.sink, where.observer, where.launcherRoot};
    DownloadResult result;
    try {
        result = co_await ResumableDownload::run(http, files, url, partial, options);
    } catch (...) {
        folder.removeIfEmpty();
        throw;
    }
    if (result.statusCode != std::optional<int>(200)) {
        folder.removeIfEmpty();
        throw LauncherError::downloadFailed();
    }
    DownloadedFile archive(partial.archive);
    // Exact comparison on purpose: a digest with stray blanks or a prefix is a broken manifest,
    // and accepting it would hide that from the people who publish them.
    if (result.sha256Hex != sha256.toLower())
        throw LauncherError::hashMismatch();
    co_return archive;
}
