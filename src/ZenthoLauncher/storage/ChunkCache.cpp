#include "storage/ChunkCache.h"

#include "errors/FileError.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

// 64 lower-case hex digits: the only names the cache makes.
bool isChunkName(const QString& name) {
    return name.size() == 64 && std::all_of(name.begin(), name.end(), [](QChar c) {
               return (c >= QLatin1Char('0') && c <= QLatin1Char('9')) || (c >= QLatin1Char('a') && c <= QLatin1Char('f'));
           });
}

void writeWhole(int fd, const QByteArray& bytes, const QString& path) {
    qsizetype at = 0;
    while (at < bytes.size()) {
        const ssize_t written = ::write(fd, bytes.constData() + at, std::size_t(bytes.size() - at));
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            throwFileError(QStringLiteral("could not write %1").arg(path), written < 0 ? errno : ENOSPC);
        at += written;
    }
}

} // namespace

ChunkCache::ChunkCache(QString launcherRoot) : path_(launcherRoot + QStringLiteral("/chunks")) {}

QString ChunkCache::pathOf(const QString& sha256) const {
    return path_ + QLatin1Char('/') + sha256;
}

bool ChunkCache::holds(const QString& sha256, qint64 size) const {
    const QFileInfo info(pathOf(sha256));
    return isChunkName(sha256) && info.isFile() && !info.isSymLink() && info.size() == size;
}

void ChunkCache::keep(const QString& sha256, const QByteArray& bytes) const {
    if (!isChunkName(sha256))
        throwFileError(QStringLiteral("could not keep a chunk named %1").arg(sha256), EINVAL);
    if (!QDir().mkpath(path_))
        throwFileError(QStringLiteral("could not create %1").arg(path_));
    const QString hidden = path_ + QStringLiteral("/.") + sha256 + QStringLiteral(".part");
    const QByteArray hiddenName = QFile::encodeName(hidden);
    int fd = -1;
    while (fd < 0) {
        QByteArray spare;
        {
            const std::lock_guard lock(sparesMutex_);
            if (spares_.empty())
                break;
            spare = QFile::encodeName(spares_.back());
            spares_.pop_back();
        }
        if (::rename(spare.constData(), hiddenName.constData()) == 0)
            fd = ::open(hiddenName.constData(), O_WRONLY | O_TRUNC | O_CLOEXEC | O_NOFOLLOW);
    }
    if (fd < 0)
        fd = ::open(hiddenName.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0)
        throwFileError(QStringLiteral("could not create %1").arg(hidden));
    try {
        writeWhole(fd, bytes, hidden);
    } catch (...) {
        ::close(fd);
        ::unlink(hiddenName.constData());
        throw;
    }
    ::close(fd);
    if (::rename(hiddenName.constData(), QFile::encodeName(pathOf(sha256)).constData()) != 0) {
        const int err = errno;
        ::unlink(hiddenName.constData());
        throwFileError(QStringLiteral("could not move %1 into place").arg(hidden), err);
    }
}

void ChunkCache::release(const QString& sha256) const {
    if (!isChunkName(sha256))
        return;
    const QString spare = path_ + QStringLiteral("/.spare-") + sha256;
    const QByteArray spareName = QFile::encodeName(spare);
    if (::rename(QFile::encodeName(pathOf(sha256)).constData(), spareName.constData()) != 0)
        return;
    if (::truncate(spareName.constData(), 0) == 0) {
        const std::lock_guard lock(sparesMutex_);
        spares_.push_back(spare);
    } else {
        ::unlink(spareName.constData());
    }
}

void ChunkCache::trimTo(qint64 capBytes) const {
    QDir folder(path_);
    struct Kept {
        QString path;
        qint64 size;
        qint64 age; // modification time in ms; smaller is older
    };
    std::vector<Kept> kept;
    qint64 total = 0;
    const QFileInfoList entries =
        folder.entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    for (const QFileInfo& entry : entries) {
        if (!isChunkName(entry.fileName()) || !entry.isFile() || entry.isSymLink()) {
            // A crash mid-write, or something that is not ours to read from.
            if (entry.isDir() && !entry.isSymLink())
                QDir(entry.filePath()).removeRecursively();
            else
                QFile::remove(entry.filePath());
            continue;
        }
        kept.push_back({entry.filePath(), entry.size(), entry.lastModified().toMSecsSinceEpoch()});
        total += entry.size();
    }
    std::sort(kept.begin(), kept.end(), [](const Kept& a, const Kept& b) { return a.age < b.age; });
    for (const Kept& chunk : kept) {
        if (total <= capBytes)
            break;
        if (QFile::remove(chunk.path))
            total -= chunk.size;
    }
}

void ChunkCache::clear() const {
    QDir(path_).removeRecursively();
}
