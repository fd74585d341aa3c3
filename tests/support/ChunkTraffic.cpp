#include "ChunkTraffic.h"

#include "formats/ChunkIndex.h"
#include "formats/ChunkPack.h"

#include <QRegularExpression>

#include <algorithm>
#include <limits>

namespace ChunkTraffic {

QList<Get> getsIn(const QString& log) {
    // 127.0.0.1 [time] "GET /path HTTP/1.1" 200 1234 "range" "if-range" 17
    static const QRegularExpression line(
        QStringLiteral("\"GET (\\S+) ([^\"]*)\" (\\d+) (\\d+) \"([^\"]*)\" .* (\\d+)$"));
    QList<Get> gets;
    for (const QString& entry : log.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        const QRegularExpressionMatch match = line.match(entry);
        if (match.hasMatch())
            gets.append({match.captured(1), match.captured(3).toInt(), match.captured(4).toLongLong(),
                         match.captured(2), match.captured(6).toLongLong(),
                         match.captured(5) == QLatin1String("-") ? QString() : match.captured(5)});
    }
    return gets;
}

bool fetched(const QList<Get>& gets, const QString& path) {
    return std::any_of(gets.cbegin(), gets.cend(),
                       [&](const Get& get) { return get.path == path && get.status == 200; });
}

QString chunkOf(const QString& path) {
    static const QRegularExpression chunk(QStringLiteral("/[0-9a-f]{2}/([0-9a-f]{64})\\.zst$"));
    return chunk.match(path).captured(1);
}

QStringList chunkGets(const QList<Get>& gets, const QString& storePath) {
    QStringList chunks;
    for (const Get& get : gets) {
        if (get.path.startsWith(storePath + QLatin1Char('/')) && !chunkOf(get.path).isEmpty())
            chunks << chunkOf(get.path);
    }
    return chunks;
}

namespace {

// The keys of `spans` whose frames lie, whole or in part, in what the GETs of `packPath` asked for.
QStringList framesAsked(const QList<Get>& gets, const QString& packPath, const QHash<QString, ChunkPack::Span>& spans) {
    QStringList chunks;
    for (const Get& get : gets) {
        if (get.path != packPath)
            continue;
        QList<QPair<qint64, qint64>> asked;
        if (get.range.isEmpty())
            asked.append({0, std::numeric_limits<qint64>::max()});
        for (const QString& range : get.range.mid(6).split(QLatin1Char(','), Qt::SkipEmptyParts))
            asked.append({range.section(QLatin1Char('-'), 0, 0).toLongLong(), range.section(QLatin1Char('-'), 1, 1).toLongLong()});
        for (auto span = spans.cbegin(); span != spans.cend(); ++span) {
            const bool inside = std::any_of(asked.cbegin(), asked.cend(), [&](const QPair<qint64, qint64>& range) {
                return span->offset <= range.second && span->end() > range.first;
            });
            if (inside)
                chunks << span.key();
        }
    }
    return chunks;
}

} // namespace

QStringList packedChunkGets(const QList<Get>& gets, const QString& packPath, const ChunkIndex& index) {
    return framesAsked(gets, packPath, ChunkPack::spans(index));
}

QStringList packedDeltaGets(const QList<Get>& gets, const QString& packPath, const ChunkIndex& index) {
    return framesAsked(gets, packPath, ChunkPack::deltaSpans(index));
}

QSet<QString> chunksOf(const QByteArray& index) {
    QSet<QString> chunks;
    for (const ChunkIndexEntry& entry : ChunkIndex::decode(index).entries) {
        for (const ChunkRef& chunk : entry.chunks)
            chunks.insert(chunk.sha256);
    }
    return chunks;
}

} // namespace ChunkTraffic
