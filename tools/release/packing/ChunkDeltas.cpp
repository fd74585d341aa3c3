#include "ChunkDeltas.h"

#include "formats/ChunkStore.h"

#include <QFile>
#include <QSet>

#include <algorithm>
#include <stdexcept>

namespace ChunkDeltas {

namespace {

// How far around the place where a chunk's bytes lay in the earlier file it is compared with: a
// chunk's bytes rarely moved further than this from where the nearest unchanged chunk says.
constexpr qint64 kReach = 64 << 10;
// A delta is kept when it takes at most this share of the whole frame (counting the index's lines
// that name its base), else the whole frame is as good.
constexpr double kWorthIt = 0.75;
constexpr qint64 kIndexBytesPerBase = 90;

struct Placed {
    ChunkRef chunk;
    qint64 offset = 0;
};

std::vector<Placed> placed(const ChunkIndexEntry& file) {
    std::vector<Placed> chunks;
    qint64 offset = 0;
    for (const ChunkRef& chunk : file.chunks) {
        chunks.push_back({chunk, offset});
        offset += chunk.size;
    }
    return chunks;
}

QByteArray readAt(QFile& file, qint64 offset, qint64 size) {
    if (!file.seek(offset))
        throw std::runtime_error(file.fileName().toStdString() + ": cannot be read");
    const QByteArray bytes = file.read(size);
    if (bytes.size() != size)
        throw std::runtime_error(file.fileName().toStdString() + ": cannot be read");
    return bytes;
}

// The chunks of `earlier` within kReach of bytes `from` to `to` of the earlier file; none when
// they come to more than a launcher holds as a base (chunks cut that large have no delta).
std::vector<ChunkRef> baseFor(const std::vector<Placed>& earlier, qint64 from, qint64 to) {
    std::vector<ChunkRef> base;
    qint64 bytes = 0;
    for (const Placed& one : earlier) {
        if (one.offset + one.chunk.size > from - kReach && one.offset < to + kReach) {
            base.push_back(one.chunk);
            bytes += one.chunk.size;
        }
    }
    return bytes <= ChunkIndex::kLargestChunk ? base : std::vector<ChunkRef>();
}

// Where the bytes of a file's new chunks lay in its earlier version: chunks both versions hold
// are anchors, and a new chunk's bytes moved as far as those of its nearest anchor (between two
// anchors, the one before it); without any anchor, as far as the file's length changed in
// proportion.
class Shifts {
public:
    Shifts(const std::vector<Placed>& now, const std::vector<Placed>& before, qint64 sizeNow, qint64 sizeBefore)
        : sizeNow_(sizeNow), sizeBefore_(sizeBefore) {
        QHash<QString, qint64> earlier;
        for (const Placed& one : before) {
            if (!earlier.contains(one.chunk.sha256))
                earlier.insert(one.chunk.sha256, one.offset);
        }
        for (const Placed& one : now) {
            if (const auto found = earlier.constFind(one.chunk.sha256); found != earlier.cend())
                anchors_.push_back({one.offset, *found - one.offset});
        }
    }

    qint64 earlierOffset(qint64 offset) const {
        if (anchors_.empty())
            return sizeNow_ == 0 ? 0 : qint64(double(offset) * double(sizeBefore_) / double(sizeNow_));
        auto after = std::upper_bound(anchors_.begin(), anchors_.end(), offset,
                                      [](qint64 at, const Anchor& anchor) { return at < anchor.offset; });
        const Anchor& nearest = after == anchors_.begin() ? *after : *std::prev(after);
        return offset + nearest.shift;
    }

private:
    struct Anchor {
        qint64 offset;
        qint64 shift;
    };
    std::vector<Anchor> anchors_;
    qint64 sizeNow_;
    qint64 sizeBefore_;
};

class StoreReader {
public:
    explicit StoreReader(const QString& store) : store_(store) {}

    // The bytes of `from` one after another, or empty when the store lacks one of them.
    QByteArray join(const std::vector<ChunkRef>& from) const {
        QByteArray bytes;
        for (const ChunkRef& chunk : from) {
            QFile file(store_ + QLatin1Char('/') + ChunkStore::relativePath(chunk.sha256));
            if (!file.open(QIODevice::ReadOnly))
                return {};
            bytes += ChunkStore::decode(file.readAll(), chunk.size, chunk.sha256);
        }
        return bytes;
    }

private:
    QString store_;
};

} // namespace

QHash<QString, Made> make(const ChunkIndex& index, const ChunkIndex& previous, const QString& root, const QString& store,
                          const QHash<QString, qint64>& stored) {
    QSet<QString> earlierChunks;
    QHash<QString, const ChunkIndexEntry*> earlierFiles;
    for (const ChunkIndexEntry& entry : previous.entries) {
        if (entry.kind != ChunkIndexEntry::Kind::file)
            continue;
        earlierFiles.insert(entry.path, &entry);
        for (const ChunkRef& chunk : entry.chunks)
            earlierChunks.insert(chunk.sha256);
    }
    const StoreReader reader(store);
    QHash<QString, Made> made;
    QSet<QString> tried;
    for (const ChunkIndexEntry& entry : index.entries) {
        const ChunkIndexEntry* earlier = earlierFiles.value(entry.path);
        if (entry.kind != ChunkIndexEntry::Kind::file || !earlier)
            continue;
        const std::vector<Placed> before = placed(*earlier);
        const std::vector<Placed> now = placed(entry);
        const Shifts shifts(now, before, entry.size, earlier->size);
        QFile file(root + QLatin1Char('/') + entry.path);
        if (!file.open(QIODevice::ReadOnly))
            throw std::runtime_error(file.fileName().toStdString() + ": cannot be read");
        for (const Placed& one : now) {
            const ChunkRef& chunk = one.chunk;
            if (earlierChunks.contains(chunk.sha256) || tried.contains(chunk.sha256))
                continue;
            tried.insert(chunk.sha256);
            const qint64 at = shifts.earlierOffset(one.offset);
            const std::vector<ChunkRef> from = baseFor(before, at, at + chunk.size);
            const QByteArray base = from.empty() ? QByteArray() : reader.join(from);
            if (base.isEmpty())
                continue;
            const QByteArray bytes = readAt(file, one.offset, chunk.size);
            QByteArray frame = ChunkStore::compressAgainst(bytes.constData(), std::size_t(bytes.size()), base);
            const qint64 cost = frame.size() + kIndexBytesPerBase * qint64(from.size());
            if (cost > kWorthIt * double(stored.value(chunk.sha256, ChunkStore::frameBound(chunk.size))))
                continue;
            made.insert(chunk.sha256, Made{ChunkDelta{from, frame.size()}, std::move(frame)});
        }
    }
    return made;
}

} // namespace ChunkDeltas
