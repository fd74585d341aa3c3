#include "formats/ChunkIndex.h"

#include "formats/ChunkStore.h"
#include "formats/StrictJson.h"

#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QStringList>

#include <cmath>

namespace {

const QString kChunker = QStringLiteral("fastcdc-gear64");
constexpr int kFormat = 1;
// Longer names and targets than Linux itself takes are not a build anyone can unpack.
constexpr qsizetype kLongestPath = 4096;
constexpr qsizetype kLongestName = 255;
// Symlinks followed while resolving one target, as the kernel allows.
constexpr int kMostHops = 40;

using Kind = ChunkIndexEntry::Kind;

[[noreturn]] void refuse(const QString& reason) {
    throw ChunkIndexError(QStringLiteral("The chunk index is not usable: %1.").arg(reason));
}

QJsonValue member(const QJsonObject& object, const QString& key, const QString& where) {
    const auto found = object.constFind(key);
    if (found == object.constEnd())
        refuse(QStringLiteral("%1 has no \"%2\"").arg(where, key));
    return *found;
}

QString text(const QJsonObject& object, const QString& key, const QString& where) {
    const QJsonValue value = member(object, key, where);
    if (!value.isString())
        refuse(QStringLiteral("%1's \"%2\" is not a string").arg(where, key));
    return value.toString();
}

qint64 whole(const QJsonObject& object, const QString& key, const QString& where, qint64 most) {
    const QJsonValue value = member(object, key, where);
    const double number = value.toDouble(-1);
    if (!value.isDouble() || number < 0 || number > double(most) || std::floor(number) != number)
        refuse(QStringLiteral("%1's \"%2\" is not a whole number from 0 to %3").arg(where, key).arg(most));
    return qint64(number);
}

QString digest(const QJsonObject& object, const QString& where) {
    const QString value = text(object, QStringLiteral("sha256"), where);
    if (!ChunkStore::isChunkName(value))
        refuse(QStringLiteral("%1's \"sha256\" is not 64 lower-case hex digits").arg(where));
    return value;
}

bool hasControl(const QString& value) {
    for (const QChar c : value) {
        if (c.unicode() < 0x20 || c.unicode() == 0x7f)
            return true;
    }
    return false;
}

// The end of the year 9999: later times are no build's.
constexpr qint64 kLatestTime = 253402300799;

QByteArray mtimeMember(const ChunkIndexEntry& entry) {
    return entry.mtime ? ",\"mtime\":" + QByteArray::number(*entry.mtime) : QByteArray();
}

// A path the launcher can place below the build's top and nowhere else.
void checkPath(const QString& path) {
    const QString shown = QStringLiteral("the path \"%1\"").arg(path);
    if (path.isEmpty() || path.size() > kLongestPath)
        refuse(QStringLiteral("a path is empty or too long"));
    if (path.startsWith(QLatin1Char('/')))
        refuse(shown + QStringLiteral(" is absolute"));
    if (hasControl(path))
        refuse(shown + QStringLiteral(" holds a control character"));
    for (const QString& part : path.split(QLatin1Char('/'))) {
        if (part == QLatin1String(".."))
            refuse(shown + QStringLiteral(" leads out of the build"));
        if (part.isEmpty() || part == QLatin1String(".") || part.size() > kLongestName)
            refuse(shown + QStringLiteral(" has an empty, \".\" or too long component"));
    }
}

ChunkSizes readChunking(const QJsonObject& top) {
    if (whole(top, QStringLiteral("format"), QStringLiteral("the index"), 1 << 30) != kFormat)
        refuse(QStringLiteral("its format is not %1").arg(kFormat));
    if (text(top, QStringLiteral("chunker"), QStringLiteral("the index")) != kChunker)
        refuse(QStringLiteral("its chunker is not %1").arg(kChunker));
    const auto size = [&top](const char* key) {
        return std::size_t(whole(top, QLatin1String(key), QStringLiteral("the index"), ChunkIndex::kLargestChunk));
    };
    const ChunkSizes sizes{size("min"), size("average"), size("max")};
    try {
        ContentChunker{sizes};
    } catch (const std::invalid_argument& error) {
        refuse(QString::fromUtf8(error.what()));
    }
    return sizes;
}

// A chunk's "delta": {"stored": N, "from": [{"sha256": ..., "size": ...}, ...]}.
ChunkDelta readDelta(const QJsonValue& value, const QString& where, const ChunkRef& chunk) {
    if (!value.isObject())
        refuse(where + QStringLiteral("'s \"delta\" is not an object"));
    const QJsonObject object = value.toObject();
    ChunkDelta delta;
    delta.stored = whole(object, QStringLiteral("stored"), where + QStringLiteral("'s delta"), ChunkStore::frameBound(chunk.size));
    const QJsonValue from = member(object, QStringLiteral("from"), where + QStringLiteral("'s delta"));
    if (!from.isArray() || from.toArray().isEmpty())
        refuse(where + QStringLiteral("'s delta is from no chunk"));
    qint64 total = 0;
    for (const QJsonValue& base : from.toArray()) {
        if (!base.isObject())
            refuse(where + QStringLiteral("'s delta is from something that is not a chunk"));
        const QJsonObject object = base.toObject();
        const QString baseWhere = where + QStringLiteral("'s delta chunk");
        ChunkRef ref{digest(object, baseWhere), whole(object, QStringLiteral("size"), baseWhere, ChunkIndex::kLargestChunk)};
        total += ref.size;
        if (ref.size == 0 || total > ChunkIndex::kLargestChunk)
            refuse(where + QStringLiteral("'s delta is from empty chunks or from more bytes than a launcher holds"));
        delta.from.push_back(std::move(ref));
    }
    return delta;
}

void readFile(const QJsonObject& object, const QString& where, const ChunkSizes& sizes, ChunkIndexEntry& entry,
              ChunkIndex& index) {
    QHash<QString, qint64>& stored = index.stored;
    entry.size = whole(object, QStringLiteral("size"), where, qint64(1) << 53);
    entry.sha256 = digest(object, where);
    const QJsonValue chunks = member(object, QStringLiteral("chunks"), where);
    if (!chunks.isArray())
        refuse(where + QStringLiteral("'s \"chunks\" is not an array"));
    qint64 total = 0;
    for (const QJsonValue& value : chunks.toArray()) {
        if (!value.isObject())
            refuse(where + QStringLiteral(" has a chunk that is not an object"));
        const QJsonObject chunk = value.toObject();
        const QString chunkWhere = where + QStringLiteral("'s chunk");
        ChunkRef ref{digest(chunk, chunkWhere), whole(chunk, QStringLiteral("size"), chunkWhere, qint64(sizes.max))};
        if (ref.size == 0)
            refuse(where + QStringLiteral(" has an empty chunk"));
        if (chunk.contains(QStringLiteral("stored"))) {
            const qint64 size = whole(chunk, QStringLiteral("stored"), chunkWhere, ChunkStore::frameBound(ref.size));
            if (stored.value(ref.sha256, size) != size)
                refuse(where + QStringLiteral(" gives a chunk another stored size than before"));
            stored.insert(ref.sha256, size);
        }
        if (chunk.contains(QStringLiteral("delta"))) {
            const ChunkDelta delta = readDelta(chunk.value(QStringLiteral("delta")), chunkWhere, ref);
            if (index.deltas.contains(ref.sha256) && index.deltas.value(ref.sha256) != delta)
                refuse(where + QStringLiteral(" gives a chunk another delta than before"));
            index.deltas.insert(ref.sha256, delta);
        }
        total += ref.size;
        if (total > entry.size)
            break;
        entry.chunks.push_back(std::move(ref));
    }
    if (total != entry.size)
        refuse(where + QStringLiteral("'s chunks do not add up to its size"));
}

ChunkIndexEntry readEntry(const QJsonValue& value, const ChunkSizes& sizes, const QHash<QString, Kind>& earlier,
                          ChunkIndex& index) {
    if (!value.isObject())
        refuse(QStringLiteral("an entry is not an object"));
    const QJsonObject object = value.toObject();
    ChunkIndexEntry entry;
    entry.path = text(object, QStringLiteral("path"), QStringLiteral("an entry"));
    checkPath(entry.path);
    const QString where = QStringLiteral("\"%1\"").arg(entry.path);
    if (earlier.contains(entry.path))
        refuse(where + QStringLiteral(" is listed twice"));
    const qsizetype slash = entry.path.lastIndexOf(QLatin1Char('/'));
    if (slash > 0 && earlier.value(entry.path.left(slash), Kind::file) != Kind::folder)
        refuse(where + QStringLiteral(" does not lie in a folder listed before it"));

    const QString kind = text(object, QStringLiteral("kind"), where);
    if (kind == QLatin1String("symlink")) {
        entry.kind = Kind::symlink;
        entry.target = text(object, QStringLiteral("target"), where);
        if (entry.target.isEmpty() || entry.target.size() > kLongestPath || hasControl(entry.target))
            refuse(where + QStringLiteral(" has an empty, too long or unprintable target"));
        if (entry.target.startsWith(QLatin1Char('/')))
            refuse(where + QStringLiteral(" points outside the build"));
        return entry;
    }
    if (kind == QLatin1String("file"))
        entry.kind = Kind::file;
    else if (kind == QLatin1String("folder"))
        entry.kind = Kind::folder;
    else
        refuse(where + QStringLiteral(" is neither a file, a folder nor a symlink"));
    const qint64 mode = whole(object, QStringLiteral("mode"), where, 07777);
    if (mode & ~qint64(0777))
        refuse(where + QStringLiteral(" has a setuid, setgid or sticky mode"));
    entry.mode = int(mode);
    // Optional: indexes from before it was recorded still install, with the install's times.
    if (object.contains(QStringLiteral("mtime")))
        entry.mtime = whole(object, QStringLiteral("mtime"), where, kLatestTime);
    if (entry.kind == Kind::file)
        readFile(object, where, sizes, entry, index);
    return entry;
}

// Resolves a symlink's target the way the system will, through the index's own symlinks, and
// refuses one that would climb above the build's top.
void checkStaysInside(const ChunkIndexEntry& link, const QHash<QString, const ChunkIndexEntry*>& byPath) {
    QStringList at = link.path.split(QLatin1Char('/'));
    at.removeLast();
    QStringList pending = link.target.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    int hops = 0;
    while (!pending.isEmpty()) {
        const QString part = pending.takeFirst();
        if (part == QLatin1String("."))
            continue;
        if (part == QLatin1String("..")) {
            if (at.isEmpty())
                refuse(QStringLiteral("\"%1\" points outside the build").arg(link.path));
            at.removeLast();
            continue;
        }
        at.append(part);
        const ChunkIndexEntry* next = byPath.value(at.join(QLatin1Char('/')));
        if (next && next->kind == Kind::symlink) {
            if (++hops > kMostHops)
                refuse(QStringLiteral("\"%1\" points in a loop").arg(link.path));
            at.removeLast();
            pending = next->target.split(QLatin1Char('/'), Qt::SkipEmptyParts) + pending;
        }
    }
}

// One JSON string literal, quotes and escapes included.
QByteArray jsonString(const QString& value) {
    const QByteArray array = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    return array.mid(1, array.size() - 2);
}

} // namespace

ChunkIndex ChunkIndex::decode(const QByteArray& json) {
    if (json.size() > kMaxBytes)
        refuse(QStringLiteral("it is larger than %1 MiB").arg(kMaxBytes >> 20));
    const StrictJson document = StrictJson::parse(json);
    if (!document.ok())
        refuse(QStringLiteral("it is not valid JSON: %1").arg(document.error));
    if (!document.value.isObject())
        refuse(QStringLiteral("it is not a JSON object"));
    const QJsonObject top = document.value.toObject();

    ChunkIndex index;
    index.chunking = readChunking(top);
    const QJsonValue entries = member(top, QStringLiteral("entries"), QStringLiteral("the index"));
    if (!entries.isArray())
        refuse(QStringLiteral("its \"entries\" is not an array"));
    QHash<QString, Kind> earlier;
    for (const QJsonValue& value : entries.toArray()) {
        index.entries.push_back(readEntry(value, index.chunking, earlier, index));
        earlier.insert(index.entries.back().path, index.entries.back().kind);
    }
    if (!index.stored.isEmpty()) {
        for (const ChunkIndexEntry& entry : index.entries) {
            for (const ChunkRef& chunk : entry.chunks) {
                if (!index.stored.contains(chunk.sha256))
                    refuse(QStringLiteral("\"%1\" has a chunk without the stored size the others have").arg(entry.path));
            }
        }
    }
    if (!index.deltas.isEmpty() && index.stored.isEmpty())
        refuse(QStringLiteral("it gives deltas without a pack to hold them"));
    QHash<QString, const ChunkIndexEntry*> byPath;
    for (const ChunkIndexEntry& entry : index.entries)
        byPath.insert(entry.path, &entry);
    for (const ChunkIndexEntry& entry : index.entries) {
        if (entry.kind == Kind::symlink)
            checkStaysInside(entry, byPath);
    }
    return index;
}

static QByteArray deltaMember(const ChunkDelta& delta) {
    QByteArray json = ",\"delta\":{\"stored\":" + QByteArray::number(delta.stored) + ",\"from\":[";
    for (std::size_t i = 0; i < delta.from.size(); ++i)
        json += (i == 0 ? "{\"sha256\":" : ",{\"sha256\":") + jsonString(delta.from[i].sha256) +
                ",\"size\":" + QByteArray::number(delta.from[i].size) + '}';
    return json + "]}";
}

QByteArray ChunkIndex::encode() const {
    QByteArray json = "{\"format\":" + QByteArray::number(kFormat) + ",\"chunker\":" + jsonString(kChunker) +
                      ",\"min\":" + QByteArray::number(qulonglong(chunking.min)) +
                      ",\"average\":" + QByteArray::number(qulonglong(chunking.average)) +
                      ",\"max\":" + QByteArray::number(qulonglong(chunking.max)) + ",\"entries\":[";
    QSet<QString> storedWritten; // a chunk's stored size is given where the index first names it
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const ChunkIndexEntry& entry = entries[i];
        json += i == 0 ? "\n" : ",\n";
        json += "{\"path\":" + jsonString(entry.path);
        switch (entry.kind) {
        case Kind::symlink: json += ",\"kind\":\"symlink\",\"target\":" + jsonString(entry.target); break;
        case Kind::folder:
            json += ",\"kind\":\"folder\",\"mode\":" + QByteArray::number(entry.mode) + mtimeMember(entry);
            break;
        case Kind::file:
            json += ",\"kind\":\"file\",\"mode\":" + QByteArray::number(entry.mode) + mtimeMember(entry) +
                    ",\"size\":" + QByteArray::number(entry.size) + ",\"sha256\":" + jsonString(entry.sha256) +
                    ",\"chunks\":[";
            for (std::size_t c = 0; c < entry.chunks.size(); ++c) {
                const ChunkRef& chunk = entry.chunks[c];
                json += (c == 0 ? "{\"sha256\":" : ",{\"sha256\":") + jsonString(chunk.sha256) +
                        ",\"size\":" + QByteArray::number(chunk.size);
                if (stored.contains(chunk.sha256) && !storedWritten.contains(chunk.sha256)) {
                    json += ",\"stored\":" + QByteArray::number(stored.value(chunk.sha256));
                    storedWritten.insert(chunk.sha256);
                    if (deltas.contains(chunk.sha256))
                        json += deltaMember(deltas.value(chunk.sha256));
                }
                json += '}';
            }
            json += ']';
            break;
        }
        json += '}';
    }
    json += "\n]}\n";
    return json;
}
