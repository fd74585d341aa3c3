#pragma once

#include <QString>
#include <QUrl>

#include <QCoroTask>

class BodySink;
class DownloadObserver;
class FileManager;
class HttpClient;

// A downloaded, verified archive in the storage's downloads folder. The file belongs to this
// object: it goes, with the downloads folder once that is empty, when the object goes, so the
// caller keeps it for exactly as long as it needs it (for an install: until extraction is over).
class DownloadedFile {
public:
    DownloadedFile() = default;
    explicit DownloadedFile(QString path) : path_(std::move(path)) {}
    DownloadedFile(DownloadedFile&& other) noexcept;
    DownloadedFile& operator=(DownloadedFile&& other) noexcept;
    DownloadedFile(const DownloadedFile&) = delete;
    DownloadedFile& operator=(const DownloadedFile&) = delete;
    ~DownloadedFile();

    const QString& path() const { return path_; }

private:
    void remove();

    QString path_;
};

// Where a release archive is downloaded to, and who sees it arrive.
struct ArchiveDownload {
    QString launcherRoot; // the storage root: the downloads folder and the unpacking place
    QString kind;         // the release's platform value, which keeps one download per kind
    BodySink* sink = nullptr;
    DownloadObserver* observer = nullptr;
};

// Downloads a release archive, resuming what an earlier attempt kept, and accepts it only as the
// whole body of a plain HTTP 200 (pieced together from ranges or not); a partial, empty or cached
// answer, or a local file, throws LauncherError::downloadFailed. Its SHA-256 must equal `sha256`
// lower-cased, exactly: no blanks or prefixes are forgiven (hashMismatch, and the file goes).
// Errors of the transfer and the disks pass through.
QCoro::Task<DownloadedFile> downloadVerifiedArchive(HttpClient& http, const FileManager& files, QUrl url,
                                                    QString sha256, ArchiveDownload where);
