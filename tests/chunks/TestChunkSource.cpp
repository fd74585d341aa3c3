#include "chunks/ChunkSource.h"

#include <QTest>

namespace {

QString name(int number) {
    return QStringLiteral("%1").arg(number, 64, 10, QLatin1Char('0'));
}

// A pack of `count` chunks of `stored` bytes each, back to back.
ChunkSource packOf(int count, qint64 stored) {
    ChunkSource source{QUrl(QStringLiteral("https://example.invalid/store")),
                       QUrl(QStringLiteral("https://example.invalid/r.chunks.pack"))};
    for (int i = 0; i < count; ++i)
        source.spans.insert(name(i), ChunkPack::Span{i * stored, stored});
    return source;
}

ChunkRef chunk(int number) {
    return ChunkRef{name(number), 100};
}

} // namespace

// How many chunks one request brings: one from a store; from a pack, chunks in a row as one
// range, as many as fit in the request's bytes and ranges.
class TestChunkSource : public QObject {
    Q_OBJECT

private slots:
    void aStoreAsksForOneChunkARequest() {
        const ChunkSource store{QUrl(QStringLiteral("https://example.invalid/store"))};
        QVERIFY(!store.packed());
        ChunkSource::Request request;
        QVERIFY(store.add(request, chunk(0)));
        QVERIFY(!store.add(request, chunk(1)));
        QCOMPARE(request.chunks.size(), std::size_t(1));
    }

    void chunksInARowAreOneRangeAndAGapStartsAnother() {
        const ChunkSource pack = packOf(10, 1000);
        QVERIFY(pack.packed());
        ChunkSource::Request request;
        for (const int number : {0, 1, 2, 5, 6, 9})
            QVERIFY(pack.add(request, chunk(number)));
        QCOMPARE(request.ranges, 3);
        QCOMPARE(request.bytes, qint64(6000));
        QCOMPARE(request.end, qint64(10000));
    }

    // The twins: a request stops short of more bytes or more ranges than it may ask for, and the
    // chunk it refused is left for the next.
    void aRequestStopsAtItsBytes() {
        const qint64 stored = ChunkSource::kRequestBytes / 4;
        const ChunkSource pack = packOf(8, stored);
        ChunkSource::Request request;
        for (int i = 0; i < 4; ++i)
            QVERIFY(pack.add(request, chunk(i)));
        QVERIFY(!pack.add(request, chunk(4)));
        QCOMPARE(request.chunks.size(), std::size_t(4));
        QCOMPARE(request.bytes, ChunkSource::kRequestBytes);
        ChunkSource::Request next;
        QVERIFY(pack.add(next, chunk(4)));
    }
    void aRequestStopsAtItsRanges() {
        const ChunkSource pack = packOf(2 * ChunkSource::kMostRanges + 4, 10);
        ChunkSource::Request request;
        for (int i = 0; i < ChunkSource::kMostRanges; ++i)
            QVERIFY(pack.add(request, chunk(2 * i)));
        QCOMPARE(request.ranges, ChunkSource::kMostRanges);
        QVERIFY(!pack.add(request, chunk(2 * ChunkSource::kMostRanges)));
        // A chunk right after the last one asked for adds no range, so it still fits.
        QVERIFY(pack.add(request, chunk(2 * ChunkSource::kMostRanges - 1)));
        QCOMPARE(request.ranges, ChunkSource::kMostRanges);
    }
};

QTEST_GUILESS_MAIN(TestChunkSource)
#include "TestChunkSource.moc"
