#include "update/VerifiedDownload.h"

#include "errors/LauncherError.h"

#include <optional>

QCoro::Task<DownloadedFile> downloadVerifiedArchive(QUrl url, QString sha256, BodySink* sink) {
    DownloadedFile archive = co_await HttpClient::shared().download(url, sink);
    if (archive.statusCode() != std::optional<int>(200))
        throw LauncherError::downloadFailed();
    // Exact comparison on purpose: a digest with stray blanks or a prefix is a broken manifest,
    // and accepting it would hide that from the people who publish them.
    if (archive.sha256Hex() != sha256.toLower())
        throw LauncherError::hashMismatch();
    co_return archive;
}
