#pragma once

#include "net/DownloadsFolder.h"

#include <QString>
#include <QUrl>

#include <QCoroTask>

#include <optional>

class BodySink;
class FileManager;
class HttpClient;

// Follows a running download.
class DownloadObserver {
public:
    virtual ~DownloadObserver() = default;
    // `done` bytes of the archive are in its file, kept ones included; `total` is its whole
    // size when the server told it.
    virtual void progressed(qint64 done, std::optional<qint64> total) = 0;
    // The download is over, whichever way it ended.
    virtual void ended() = 0;
};

// How a download ended without a transport error.
struct DownloadResult {
    // 200 when the whole body is in the file, in one answer or pieced together from ranges;
    // otherwise the status of the answer that brought no body (none when it was not HTTP).
    std::optional<int> statusCode;
    QString sha256Hex; // of the whole file, when it is whole
};

// Downloads one archive into its file in the downloads folder so that no byte has to come twice:
//  - An attempt starts by reading back what an earlier one kept (its digest and the sink see
//    those bytes first) and asks only for the rest, with Range and, so that a changed file is
//    never spliced onto the old one, If-Range with the validator the server gave for it.
//  - A 206 whose range starts where the file ends continues it. A 200 starts over from the first
//    byte. A 416 or a range that does not fit starts over with a plain request.
//  - A connection that drops in the body is resumed at once, at most `maximumResumes` times per
//    attempt, and only while each try adds bytes; each try keeps the client's never-hang limits.
//  - Before a body is taken, the disks must have room for the rest of it, for unpacking the whole
//    archive beside `unpackFolder` and for the client's free-space reserve; a body that would eat
//    into the reserve stops and its file is removed (DiskSpaceError).
//  - Whatever ends an attempt early leaves the file and its validator for the next one when the
//    server gave a validator, and removes them when it did not.
// Errors of the transfer, the disks and the file pass through.
class ResumableDownload {
public:
    struct Options {
        BodySink* sink = nullptr; // sees exactly the bytes the digest sees, in order
        DownloadObserver* observer = nullptr;
        QString unpackFolder; // where the archive will be unpacked
        int maximumResumes = 5;
    };

    // `files` writes the validator beside the archive.
    static QCoro::Task<DownloadResult> run(HttpClient& client, const FileManager& files, QUrl url,
                                           DownloadsFolder::Partial partial, Options options);
};
