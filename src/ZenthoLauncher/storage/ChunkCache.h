#pragma once

#include <QByteArray>
#include <QString>

#include <mutex>
#include <vector>

// The "chunks" folder under the storage root: chunks of a build being put together, kept as they
// arrive so that an update cut short (a lost connection, a closed window, a crash) never fetches
// a checked chunk twice. Each chunk is one file named by the SHA-256 of its bytes, written under a
// hidden name and renamed, so a name always holds a whole chunk. The folder is emptied once a
// build is installed and kept below a size cap in between, oldest chunks going first.
//
// Only for a caller that holds the StorageLock, and one thread an object but for release().
// Nothing here checks a chunk's bytes against its name: they were checked before they were kept,
// and whatever reads them back checks them again.
class ChunkCache {
public:
    explicit ChunkCache(QString launcherRoot);

    const QString& path() const { return path_; }
    // Where the chunk named `sha256` is, or would be, kept.
    QString pathOf(const QString& sha256) const;
    // True when a chunk of `size` bytes is kept under `sha256`.
    bool holds(const QString& sha256, qint64 size) const;
    // Keeps `bytes` as the chunk `sha256`, in the file of a released chunk when there is one.
    // Throws FileError when they cannot be written.
    void keep(const QString& sha256, const QByteArray& bytes) const;
    // Lets the chunk `sha256` go once nothing needs it. Its file is emptied and kept under a
    // hidden name for the next chunk kept by this object: a first install passes thousands of
    // chunks through the cache, and creating a file costs far more than writing one over (on
    // ext4 without a journal, looking for a free inode among the ones just freed took most of
    // the install's time). A hidden name is never a chunk: the next trim removes what is left.
    // Safe on another thread than keep().
    void release(const QString& sha256) const;
    // Removes half-written chunks and names the cache does not make, then the oldest chunks
    // until the rest take at most `capBytes`.
    void trimTo(qint64 capBytes) const;
    // Removes every chunk and the folder itself. Failures are ignored: the next trim tries again.
    void clear() const;

private:
    QString path_;
    // Released files, empty, for keep() to write over.
    mutable std::mutex sparesMutex_;
    mutable std::vector<QString> spares_;
};
