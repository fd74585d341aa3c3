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

    // A chunk whose every base is on this disk is asked for as its delta; one with a base this
    // disk lacks, or none, as its whole frame.
    void aDeltaIsAskedForOnlyWhenEveryBaseIsHere() {
        ChunkSource pack = packOf(3, 1000);
        ChunkIndex index;
        ChunkIndexEntry file;
        file.path = QStringLiteral("f");
        file.chunks = {chunk(0), chunk(1), chunk(2)};
        file.size = 300;
        index.entries = {file};
        index.stored = {{name(0), 1000}, {name(1), 1000}, {name(2), 1000}};
        index.deltas.insert(name(0), ChunkDelta{{chunk(50), chunk(51)}, 30});
        index.deltas.insert(name(1), ChunkDelta{{chunk(52)}, 40});
        ChunkPlan plan;
        plan.missing = {chunk(0), chunk(1), chunk(2)};
        plan.bases.insert(name(50), ChunkLocation{QStringLiteral("/old/f"), 0});
        plan.bases.insert(name(51), ChunkLocation{QStringLiteral("/old/f"), 100});
        pack.useDeltas(index, plan);
        QCOMPARE(pack.deltas.size(), 1);
        QCOMPARE(pack.spanOf(name(0)), (ChunkPack::Span{3000, 30}));
        QCOMPARE(pack.deltas.value(name(0)).base.size(), std::size_t(2));
        QCOMPARE(pack.deltas.value(name(0)).base[1].second.offset, qint64(100));
        // The twins: a base not here, and no delta at all.
        QCOMPARE(pack.spanOf(name(1)), (ChunkPack::Span{1000, 1000}));
        QCOMPARE(pack.spanOf(name(2)), (ChunkPack::Span{2000, 1000}));
        ChunkSource::Request request;
        QVERIFY(pack.add(request, chunk(0)));
        QVERIFY(pack.add(request, chunk(1)));
        QCOMPARE(request.bytes, qint64(1030));
        QCOMPARE(request.ranges, 2);
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
