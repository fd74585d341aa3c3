#include "ChunkCheck.h"

#include "ReleaseCheck.h"
#include "ReleaseFiles.h"

#include "archive/Archive.h"
#include "formats/ChunkPack.h"
#include "formats/ChunkStore.h"
#include "formats/CompressedChunkIndex.h"
#include "formats/TreeChunker.h"
#include "trust/Sha256.h"

#include <QFile>
#include <QSet>

#include <algorithm>

#include <sys/stat.h>

namespace ChunkCheck {

namespace {

const char* kindName(ChunkIndexEntry::Kind kind) {
    switch (kind) {
    case ChunkIndexEntry::Kind::file: return "a file";
    case ChunkIndexEntry::Kind::folder: return "a folder";
    case ChunkIndexEntry::Kind::symlink: return "a symlink";
    }
    return "?";
}

// What differs between the index's entry and the archive's, or empty when nothing does.
QString difference(const ChunkIndexEntry& indexed, const ChunkIndexEntry& found, int umask) {
    if (indexed.kind != found.kind)
        return QStringLiteral("is %1 in the index and %2 in the archive")
            .arg(QLatin1String(kindName(indexed.kind)), QLatin1String(kindName(found.kind)));
    if (indexed.target != found.target)
        return QStringLiteral("points to \"%1\" in the index and to \"%2\" in the archive").arg(indexed.target, found.target);
    if ((indexed.mode & ~umask) != (found.mode & ~umask))
        return QStringLiteral("has mode %1 in the index and %2 in the archive")
            .arg(indexed.mode, 4, 8, QLatin1Char('0'))
            .arg(found.mode, 4, 8, QLatin1Char('0'));
    if (indexed.size != found.size)
        return QStringLiteral("is %1 bytes in the index and %2 in the archive").arg(indexed.size).arg(found.size);
    if (indexed.sha256 != found.sha256)
        return QStringLiteral("has other bytes in the archive than in the index");
    if (indexed.chunks != found.chunks)
        return QStringLiteral("is cut into other chunks than the index says");
    if (indexed.mtime && found.mtime && indexed.mtime != found.mtime)
        return QStringLiteral("was modified at %1 by the index and at %2 in the archive").arg(*indexed.mtime).arg(*found.mtime);
    return {};
}

// The chunk's bytes as the store at `store` keeps them, checked against its name and size.
QByteArray readFromStore(const QString& store, const ChunkRef& chunk) {
    const QString path = store + QLatin1Char('/') + ChunkStore::relativePath(chunk.sha256);
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw CheckFailed("chunks", path + QStringLiteral(" cannot be read: ") + file.errorString());
    try {
        return ChunkStore::decode(file.readAll(), chunk.size, chunk.sha256);
    } catch (const ChunkStoreError& error) {
        throw CheckFailed("chunks", path + QStringLiteral(": ") + QString::fromUtf8(error.what()));
    }
}

// The deltas after the pack's whole frames, in the pack's order: each must make its chunk from
// its base.
void checkDeltas(QFile& pack, const ChunkIndex& index, const QString& store, Sha256& digest) {
    const QHash<QString, ChunkPack::Span> spans = ChunkPack::deltaSpans(index);
    QHash<QString, qint64> sizes;
    for (const ChunkIndexEntry& entry : index.entries)
        for (const ChunkRef& chunk : entry.chunks)
            sizes.insert(chunk.sha256, chunk.size);
    std::vector<std::pair<ChunkPack::Span, QString>> inOrder;
    for (auto it = spans.cbegin(); it != spans.cend(); ++it)
        inOrder.emplace_back(it.value(), it.key());
    std::sort(inOrder.begin(), inOrder.end(), [](const auto& a, const auto& b) { return a.first.offset < b.first.offset; });
    for (const auto& [span, sha256] : inOrder) {
        if (!pack.seek(span.offset))
            throw CheckFailed("chunks", pack.fileName() + QStringLiteral(" cannot be read"));
        const QByteArray frame = pack.read(span.size);
        digest.update(frame);
        if (store.isEmpty())
            continue;
        QByteArray base;
        for (const ChunkRef& from : index.deltas.value(sha256).from)
            base += readFromStore(store, from);
        try {
            ChunkStore::decodeAgainst(frame, base, sizes.value(sha256), sha256);
        } catch (const ChunkStoreError& error) {
            throw CheckFailed("chunks", QStringLiteral("the pack's delta at %1: %2").arg(span.offset).arg(QString::fromUtf8(error.what())));
        }
    }
}

int currentUmask() {
    const mode_t mask = ::umask(022);
    ::umask(mask);
    return int(mask);
}

} // namespace

ChunkIndex readIndex(const QString& path, const ReleaseChunks& chunks) {
    if (!QFile::exists(path))
        throw CheckFailed("index", path + QStringLiteral(" is missing"));
    const QString digest = ReleaseFiles::sha256OfFile(path);
    if (digest != chunks.sha256.toLower())
        throw CheckFailed("index", QStringLiteral("the index's digest is %1, the manifest says \"%2\"").arg(digest, chunks.sha256));
    try {
        return ChunkIndex::decode(ReleaseFiles::readFile(path));
    } catch (const ChunkIndexError& error) {
        throw CheckFailed("index", QString::fromUtf8(error.what()));
    }
}

void checkCompressedIndex(const QString& path, const ReleaseChunks& chunks) {
    if (!QFile::exists(path))
        throw CheckFailed("index", path + QStringLiteral(" is missing"));
    const QString digest = ReleaseFiles::sha256OfFile(path);
    if (digest != chunks.compressedSha256.toLower())
        throw CheckFailed("index", QStringLiteral("the compressed index's digest is %1, the manifest says \"%2\"")
                                       .arg(digest, chunks.compressedSha256));
    QByteArray json;
    try {
        json = CompressedChunkIndex::decompress(ReleaseFiles::readFile(path));
    } catch (const ChunkIndexError& error) {
        throw CheckFailed("index", QString::fromUtf8(error.what()));
    }
    if (sha256Hex(json) != chunks.sha256.toLower())
        throw CheckFailed("index", path + QStringLiteral(" does not hold the index the manifest names"));
}

QString checkPack(const QString& path, const ChunkIndex& index, const QString& store) {
    QFile pack(path);
    if (!pack.open(QIODevice::ReadOnly))
        throw CheckFailed("chunks", path + QStringLiteral(" is missing or cannot be read"));
    if (index.stored.isEmpty())
        throw CheckFailed("chunks", QStringLiteral("the index gives no stored sizes, so the pack cannot be read"));
    if (pack.size() != ChunkPack::bytes(index))
        throw CheckFailed("chunks", QStringLiteral("the pack is %1 bytes long, its chunks take %2")
                                        .arg(pack.size())
                                        .arg(ChunkPack::bytes(index)));
    const QHash<QString, ChunkPack::Span> spans = ChunkPack::spans(index);
    // The chunks come in the pack's own order and its length is theirs, so reading them reads the
    // whole file once, front to back.
    Sha256 digest;
    QSet<QString> checked;
    for (const ChunkIndexEntry& entry : index.entries) {
        for (const ChunkRef& chunk : entry.chunks) {
            if (checked.contains(chunk.sha256))
                continue;
            checked.insert(chunk.sha256);
            const ChunkPack::Span span = spans.value(chunk.sha256);
            if (!pack.seek(span.offset))
                throw CheckFailed("chunks", path + QStringLiteral(" cannot be read"));
            const QByteArray frame = pack.read(span.size);
            digest.update(frame);
            try {
                ChunkStore::decode(frame, chunk.size, chunk.sha256);
            } catch (const ChunkStoreError& error) {
                throw CheckFailed("chunks", QStringLiteral("the pack's chunk at %1: %2")
                                                .arg(span.offset)
                                                .arg(QString::fromUtf8(error.what())));
            }
        }
    }
    checkDeltas(pack, index, store, digest);
    return digest.finishHex();
}

void compareWithTree(const ChunkIndex& index, const QString& folder) {
    ChunkIndex found;
    try {
        found = TreeChunker::index(folder, index.chunking);
    } catch (const std::runtime_error& error) {
        throw CheckFailed("index", QString::fromUtf8(error.what()));
    }
    const int umask = currentUmask();
    const std::size_t common = std::min(index.entries.size(), found.entries.size());
    for (std::size_t i = 0; i < common; ++i) {
        const ChunkIndexEntry& indexed = index.entries[i];
        const ChunkIndexEntry& unpacked = found.entries[i];
        if (indexed.path != unpacked.path) {
            const bool inArchive = std::any_of(found.entries.begin(), found.entries.end(),
                                               [&indexed](const ChunkIndexEntry& e) { return e.path == indexed.path; });
            throw CheckFailed("index", inArchive ? QStringLiteral("\"%1\" is in the archive and not in the index (or "
                                                                  "not in tree order)").arg(unpacked.path)
                                                 : QStringLiteral("\"%1\" is in the index and not in the archive")
                                                       .arg(indexed.path));
        }
        if (const QString problem = difference(indexed, unpacked, umask); !problem.isEmpty())
            throw CheckFailed("index", QStringLiteral("\"%1\" %2").arg(indexed.path, problem));
    }
    if (index.entries.size() > common)
        throw CheckFailed("index", QStringLiteral("\"%1\" is in the index and not in the archive").arg(index.entries[common].path));
    if (found.entries.size() > common)
        throw CheckFailed("index", QStringLiteral("\"%1\" is in the archive and not in the index").arg(found.entries[common].path));
}

qint64 checkStore(const ChunkIndex& index, const QString& store) {
    QSet<QString> checked;
    for (const ChunkIndexEntry& entry : index.entries) {
        for (const ChunkRef& chunk : entry.chunks) {
            if (checked.contains(chunk.sha256))
                continue;
            readFromStore(store, chunk);
            checked.insert(chunk.sha256);
        }
    }
    return checked.size();
}

} // namespace ChunkCheck
