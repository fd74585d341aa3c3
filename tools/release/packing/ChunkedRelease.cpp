#include "ChunkedRelease.h"

#include "ChunkDeltas.h"

#include "formats/ChunkPack.h"
#include "formats/ChunkStore.h"
#include "formats/TreeChunker.h"
#include "trust/Sha256.h"

#include <Uuid.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QSet>

#include <stdexcept>

namespace {

QString partialNameFor(const QFileInfo& target) {
    return target.absolutePath() + QStringLiteral("/.") + target.fileName() + QStringLiteral(".partial-") +
           QString::fromStdString(makeUpperUuid());
}

// Writes one chunk under a hidden name beside its place and renames it there.
void writeChunk(const QString& path, const QByteArray& frame) {
    const QFileInfo target(path);
    if (!QDir().mkpath(target.absolutePath()))
        throw std::runtime_error(target.absolutePath().toStdString() + ": cannot be created");
    const QString partial = partialNameFor(target);
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

// The pack as it is written: a hidden file beside its place until every frame is in.
class PackFile {
public:
    PackFile(const QString& path, bool dryRun) : path_(path) {
        if (path.isEmpty() || dryRun)
            return;
        file_.setFileName(partialNameFor(QFileInfo(path)));
        if (!file_.open(QIODevice::WriteOnly | QIODevice::NewOnly))
            throw std::runtime_error(path.toStdString() + ": cannot be written: " + file_.errorString().toStdString());
    }
    ~PackFile() {
        if (file_.isOpen()) {
            file_.close();
            file_.remove();
        }
    }

    bool wanted() const { return !path_.isEmpty(); }

    void append(const QByteArray& frame) {
        if (file_.isOpen() && file_.write(frame) != frame.size())
            throw std::runtime_error(path_.toStdString() + ": cannot be written: " + file_.errorString().toStdString());
    }

    void finish() {
        if (!file_.isOpen())
            return;
        const bool flushed = file_.flush();
        file_.close();
        file_.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadGroup |
                             QFileDevice::ReadOther);
        QFile::remove(path_);
        if (!flushed || !file_.rename(path_)) {
            file_.remove();
            throw std::runtime_error(path_.toStdString() + ": cannot be written");
        }
    }

private:
    QString path_;
    QFile file_;
};

QByteArray readStored(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw std::runtime_error(path.toStdString() + ": cannot be read: " + file.errorString().toStdString());
    return file.readAll();
}

} // namespace

ChunkedRelease ChunkedRelease::make(const QString& source, const QString& store, const ChunkSizes& sizes,
                                    bool dryRun, const QString& pack, bool withTop, const ChunkIndex* previous) {
    ChunkedRelease release;
    PackFile packFile(pack, dryRun);
    QHash<QString, qint64> stored;
    QHash<QString, ChunkPack::Span> written;
    QSet<QString> seen;
    const auto cut = withTop ? &TreeChunker::indexWithTop : &TreeChunker::index;
    release.index = cut(
        source, sizes,
        [&](const ChunkIndexEntry&, const ChunkRef& chunk, std::uint64_t, const unsigned char* data, std::size_t size) {
            release.buildBytes += qint64(size);
            if (seen.contains(chunk.sha256))
                return;
            seen.insert(chunk.sha256);
            ++release.chunks;
            const QString path = store + QLatin1Char('/') + ChunkStore::relativePath(chunk.sha256);
            QByteArray frame;
            if (QFileInfo::exists(path)) {
                if (!packFile.wanted())
                    return;
                // The store's own frame, so that the pack holds exactly what the store does.
                frame = readStored(path);
            } else {
                frame = ChunkStore::compress(reinterpret_cast<const char*>(data), size);
                ++release.added;
                release.addedBytes += frame.size();
                if (!dryRun)
                    writeChunk(path, frame);
            }
            if (packFile.wanted()) {
                packFile.append(frame);
                stored.insert(chunk.sha256, frame.size());
                written.insert(chunk.sha256, ChunkPack::Span{release.packBytes, frame.size()});
                release.packBytes += frame.size();
            }
        });
    release.index.stored = stored;
    QHash<QString, ChunkPack::Span> deltasWritten;
    if (previous && packFile.wanted()) {
        const QString root = withTop ? QFileInfo(source).absolutePath() : source;
        const QHash<QString, ChunkDeltas::Made> deltas = ChunkDeltas::make(release.index, *previous, root, store, stored);
        for (const ChunkIndexEntry& entry : release.index.entries) {
            for (const ChunkRef& chunk : entry.chunks) {
                const auto made = deltas.constFind(chunk.sha256);
                if (made == deltas.cend() || release.index.deltas.contains(chunk.sha256))
                    continue;
                packFile.append(made->frame);
                release.index.deltas.insert(chunk.sha256, made->delta);
                deltasWritten.insert(chunk.sha256, ChunkPack::Span{release.packBytes, made->frame.size()});
                release.packBytes += made->frame.size();
                ++release.deltas;
                release.deltaBytes += made->frame.size();
            }
        }
    }
    release.json = release.index.encode();
    try {
        const ChunkIndex readBack = ChunkIndex::decode(release.json);
        if (!(readBack == release.index))
            throw std::runtime_error("the chunk index does not read back as written");
        if (ChunkPack::spans(readBack) != written || ChunkPack::deltaSpans(readBack) != deltasWritten)
            throw std::runtime_error("the chunk pack does not hold the chunks where the index says");
    } catch (const ChunkIndexError& error) {
        throw std::runtime_error(error.what());
    }
    packFile.finish();
    Sha256 digest;
    digest.update(release.json);
    release.sha256 = digest.finishHex();
    return release;
}
