#include "errors/Failure.h"
#include "formats/ChunkIndex.h"
#include "formats/ChunkPack.h"

#include <QTest>

namespace {

QString name(char digit) {
    return QString(64, QLatin1Char(digit));
}

// Two files sharing the chunk "a": the pack holds a, b, c in that order.
ChunkIndex packedIndex() {
    ChunkIndex index;
    ChunkIndexEntry one;
    one.path = QStringLiteral("one");
    one.mode = 0644;
    one.sha256 = name('1');
    one.chunks = {{name('a'), 100}, {name('b'), 200}};
    one.size = 300;
    ChunkIndexEntry two = one;
    two.path = QStringLiteral("two");
    two.chunks = {{name('c'), 50}, {name('a'), 100}};
    two.size = 150;
    index.entries = {one, two};
    index.stored = {{name('a'), 40}, {name('b'), 210}, {name('c'), 7}};
    return index;
}

QString refusalOf(const QByteArray& json) {
    try {
        ChunkIndex::decode(json);
    } catch (const ChunkIndexError& error) {
        return QString::fromUtf8(error.what());
    }
    return QString();
}

} // namespace

// Where a release's chunks lie in its pack follows from the index alone: the frames of its
// distinct chunks back to back, in the order the index first names them, each as long as its
// stored size.
class TestChunkPack : public QObject {
    Q_OBJECT

private slots:
    void spansFollowTheOrderTheIndexFirstNamesChunks() {
        const QHash<QString, ChunkPack::Span> spans = ChunkPack::spans(packedIndex());
        QCOMPARE(spans.size(), 3);
        QCOMPARE(spans.value(name('a')), (ChunkPack::Span{0, 40}));
        QCOMPARE(spans.value(name('b')), (ChunkPack::Span{40, 210}));
        QCOMPARE(spans.value(name('c')), (ChunkPack::Span{250, 7}));
        QCOMPARE(ChunkPack::bytes(packedIndex()), qint64(257));
    }

    // The twin: an index without stored sizes has no pack.
    void anIndexWithoutStoredSizesHasNoPack() {
        ChunkIndex index = packedIndex();
        index.stored.clear();
        QVERIFY(ChunkPack::spans(index).isEmpty());
        QCOMPARE(ChunkPack::bytes(index), qint64(0));
        QVERIFY(!index.encode().contains("\"stored\""));
    }

    // Each stored size is written once, where the index first names its chunk, and read back.
    void storedSizesAreWrittenOnceAndReadBack() {
        const QByteArray json = packedIndex().encode();
        QCOMPARE(json.count("\"stored\""), 3);
        QVERIFY(json.contains("{\"sha256\":\"" + name('a').toLatin1() + "\",\"size\":100,\"stored\":40}"));
        QVERIFY(json.contains("{\"sha256\":\"" + name('a').toLatin1() + "\",\"size\":100}"));
        QCOMPARE(ChunkIndex::decode(json), packedIndex());
    }

    // Deltas follow every whole frame, again in the order the index first names their chunks,
    // and are written once with their bases and read back.
    void deltasFollowTheWholeFrames() {
        ChunkIndex index = packedIndex();
        index.deltas.insert(name('c'), ChunkDelta{{{name('d'), 60}, {name('e'), 70}}, 5});
        index.deltas.insert(name('b'), ChunkDelta{{{name('f'), 200}}, 9});
        const QHash<QString, ChunkPack::Span> deltas = ChunkPack::deltaSpans(index);
        QCOMPARE(deltas.size(), 2);
        QCOMPARE(deltas.value(name('b')), (ChunkPack::Span{257, 9}));
        QCOMPARE(deltas.value(name('c')), (ChunkPack::Span{266, 5}));
        QCOMPARE(ChunkPack::spans(index), ChunkPack::spans(packedIndex()));
        QCOMPARE(ChunkPack::bytes(index), qint64(271));
        const QByteArray json = index.encode();
        QCOMPARE(json.count("\"delta\""), 2);
        QCOMPARE(ChunkIndex::decode(json), index);
    }

    // The twin: without deltas, nothing lies past the whole frames.
    void anIndexWithoutDeltasHasNoneInItsPack() {
        QVERIFY(ChunkPack::deltaSpans(packedIndex()).isEmpty());
        QVERIFY(!packedIndex().encode().contains("\"delta\""));
    }

    // Deltas a launcher could not place or hold are refused with the index.
    void inconsistentDeltasAreRefused_data() {
        ChunkIndex index = packedIndex();
        index.deltas.insert(name('b'), ChunkDelta{{{name('f'), 200}}, 9});
        const QByteArray good = index.encode();
        const QByteArray delta = "\"delta\":{\"stored\":9,\"from\":[{\"sha256\":\"" + name('f').toLatin1() + "\",\"size\":200}]}";
        QVERIFY(good.contains(delta));
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QString>("reason");
        QByteArray none = good;
        none.replace(delta, "\"delta\":{\"stored\":9,\"from\":[]}");
        QTest::newRow("from no chunk") << none << QStringLiteral("from no chunk");
        QByteArray huge = good;
        huge.replace("\"size\":200}]}", "\"size\":16777216},{\"sha256\":\"" + name('f').toLatin1() + "\",\"size\":1}]}");
        QTest::newRow("from more than a launcher holds") << huge << QStringLiteral("more bytes than a launcher holds");
        QByteArray large = good;
        large.replace("\"stored\":9,", "\"stored\":99999,");
        QTest::newRow("larger than a frame can be") << large << QStringLiteral("\"stored\" is not a whole number");
        const QByteArray b = "{\"sha256\":\"" + name('b').toLatin1() + "\",\"size\":200";
        ChunkIndex again = index;
        again.entries[1].chunks.push_back({name('b'), 200});
        again.entries[1].size += 200;
        QByteArray repeated = again.encode();
        const qsizetype second = repeated.lastIndexOf(b + "}");
        QVERIFY(second > 0);
        repeated.replace(second, b.size() + 1, b + ",\"delta\":{\"stored\":8,\"from\":[{\"sha256\":\"" + name('f').toLatin1() + "\",\"size\":200}]}}");
        QTest::newRow("two deltas for one chunk") << repeated << QStringLiteral("another delta");
        ChunkIndex unpacked = index;
        unpacked.stored.clear();
        QByteArray withoutPack = unpacked.encode();
        withoutPack.replace(b + "}", b + "," + delta + "}");
        QTest::newRow("without a pack") << withoutPack << QStringLiteral("without a pack");
    }
    void inconsistentDeltasAreRefused() {
        QFETCH(QByteArray, json);
        QFETCH(QString, reason);
        const QString refusal = refusalOf(json);
        QVERIFY2(refusal.contains(reason), qPrintable(refusal));
    }

    // The twins: stored sizes that cannot place every chunk, or a frame past what its chunk can
    // take, make the index unusable rather than send a launcher to the wrong bytes.
    void inconsistentStoredSizesAreRefused_data() {
        const QByteArray good = packedIndex().encode();
        const QByteArray a = "{\"sha256\":\"" + name('a').toLatin1() + "\",\"size\":100";
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QString>("reason");
        QByteArray twice = good;
        twice.replace(a + "}", a + ",\"stored\":41}");
        QTest::newRow("two sizes for one chunk") << twice << QStringLiteral("another stored size");
        QByteArray missing = good;
        missing.replace("\"size\":200,\"stored\":210", "\"size\":200");
        QTest::newRow("a chunk without") << missing << QStringLiteral("without the stored size");
        QByteArray huge = good;
        huge.replace("\"size\":200,\"stored\":210", "\"size\":200,\"stored\":99999");
        QTest::newRow("larger than a frame can be") << huge << QStringLiteral("\"stored\" is not a whole number");
        QByteArray negative = good;
        negative.replace("\"size\":200,\"stored\":210", "\"size\":200,\"stored\":-1");
        QTest::newRow("negative") << negative << QStringLiteral("\"stored\" is not a whole number");
    }
    void inconsistentStoredSizesAreRefused() {
        QFETCH(QByteArray, json);
        QFETCH(QString, reason);
        const QString refusal = refusalOf(json);
        QVERIFY2(refusal.contains(reason), qPrintable(refusal));
    }
};

QTEST_GUILESS_MAIN(TestChunkPack)
#include "TestChunkPack.moc"
