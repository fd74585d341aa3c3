#include "ChunkedRelease.h"

#include "formats/ChunkStore.h"
#include "formats/TreeChunker.h"
#include "trust/Sha256.h"

#include <Uuid.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>

#include <stdexcept>

namespace {

// Writes one chunk under a hidden name beside its place and renames it there.
void writeChunk(const QString& path, const QByteArray& frame) {
    const QFileInfo target(path);
    if (!QDir().mkpath(target.absolutePath()))
        throw std::runtime_error(target.absolutePath().toStdString() + ": cannot be created");
    const QString partial = target.absolutePath() + QStringLiteral("/.") + target.fileName() +
                            QStringLiteral(".partial-") + QString::fromStdString(makeUpperUuid());
    QFile file(partial);
    const bool written = file.open(QIODevice::WriteOnly | QIODevice::NewOnly) &&
                         file.write(frame) == frame.size() && file.flush();
    const QString error = file.errorString();
    file.close();
    if (!written || !QFile::rename(partial, path)) {
        QFile::remove(partial);
        throw std::runtime_error(path.toStdString() + ": cannot be written: " + error.toStdString());
    }
    file.setFileName(path);
    file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadGroup |
                        QFileDevice::ReadOther);
}

} // namespace

ChunkedRelease ChunkedRelease::make(const QString& source, const QString& store, const ChunkSizes& sizes,
                                    bool dryRun) {
    ChunkedRelease release;
    QSet<QString> seen;
    release.index = TreeChunker::index(
        source, sizes,
        [&](const ChunkIndexEntry&, const ChunkRef& chunk, std::uint64_t, const unsigned char* data, std::size_t size) {
            release.buildBytes += qint64(size);
            if (seen.contains(chunk.sha256))
                return;
            seen.insert(chunk.sha256);
            ++release.chunks;
            const QString path = store + QLatin1Char('/') + ChunkStore::relativePath(chunk.sha256);
            if (QFileInfo::exists(path))
                return;
            const QByteArray frame = ChunkStore::compress(reinterpret_cast<const char*>(data), size);
            ++release.added;
            release.addedBytes += frame.size();
            if (!dryRun)
                writeChunk(path, frame);
        });
    release.json = release.index.encode();
    try {
        if (!(ChunkIndex::decode(release.json) == release.index))
            throw std::runtime_error("the chunk index does not read back as written");
    } catch (const ChunkIndexError& error) {
        throw std::runtime_error(error.what());
    }
    Sha256 digest;
    digest.update(release.json);
    release.sha256 = digest.finishHex();
    return release;
}
