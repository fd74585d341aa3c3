#pragma once

#include <QByteArray>
#include <QString>

#include <memory>
#include <optional>
#include <vector>

// Where publish lays a release out: the server's document root as a local folder, or a remote
// that rclone reaches (an object store, WebDAV, SFTP...). Paths are relative to that root, with
// "/" between their parts. Every method throws std::runtime_error naming what failed.
class PublishTarget {
public:
    virtual ~PublishTarget() = default;

    // How `relative` is named on the output lines: "DIR/release/..." or "remote:path/release/...".
    virtual QString name(const QString& relative) const = 0;
    // The lower-case SHA-256 of what the target holds at `relative`; nothing when it holds
    // nothing there, and a digest no file has when it holds something that is not a file.
    virtual std::optional<QString> sha256(const QString& relative) = 0;
    // What the target holds at `relative`; nothing when it holds nothing there.
    virtual std::optional<QByteArray> read(const QString& relative) = 0;
    // A file on this machine with what the target holds at `relative`, fetched into `scratch`
    // (a folder) when the target is not a local folder; nothing when it holds nothing there.
    virtual std::optional<QString> localCopy(const QString& relative, const QString& scratch) = 0;
    // True when the target holds, at `relative`, the chunk whose store file is `storeFile` whole
    // and sound, so publishing it again would change nothing.
    virtual bool holdsChunk(const QString& relative, const QString& storeFile, qint64 size,
                            const QString& sha256) = 0;
    // Copies the local files `from`/`each` of `names` to `to`/`each`, all before it returns.
    virtual void putAll(const QString& from, const std::vector<QString>& names, const QString& to) = 0;
    // Copies the local file `from` to `relative`, replacing what is there as one change.
    virtual void put(const QString& from, const QString& relative) = 0;

    // The document root at `folder` on this machine: each file is written under a hidden name,
    // flushed to disk and renamed into place.
    static std::unique_ptr<PublishTarget> folder(const QString& folder);
    // The remote `remote` ("name:path" as rclone spells it) through the rclone program at
    // `rclone`: each file is one upload, which an object store makes visible whole.
    static std::unique_ptr<PublishTarget> rclone(const QString& remote, const QString& rclone);
};
