#include "TestFiles.h"

#include "chunks/ChunkPlan.h"
#include "formats/TreeChunker.h"
#include "storage/ChunkCache.h"

#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

namespace {

constexpr ChunkSizes kSmall{64, 256, 1024};

// Bytes that repeat nowhere, so that a chunk can only be found where it was put.
QByteArray pattern(int size, int seed) {
    QByteArray bytes(size, '\0');
    QRandomGenerator generator{quint32(seed)};
    generator.fillRange(reinterpret_cast<quint32*>(bytes.data()), size / 4);
    return bytes;
}

qint64 chunkBytes(const ChunkIndex& index) {
    qint64 total = 0;
    QSet<QString> seen;
    for (const ChunkIndexEntry& entry : index.entries)
        for (const ChunkRef& chunk : entry.chunks)
            if (!seen.contains(chunk.sha256)) {
                seen.insert(chunk.sha256);
                total += chunk.size;
            }
    return total;
}

} // namespace

// Where each chunk of a release comes from: the cache, a saved build's kept index, or the saved
// build read afresh; and what is left to fetch.
class TestChunkPlan : public QObject {
    Q_OBJECT

    QTemporaryDir dir_;
    QString old_;
    ChunkIndex oldIndex_;
    ChunkIndex wanted_;

private slots:
    void initTestCase() {
        old_ = dir_.filePath(QStringLiteral("versions/0.3.0"));
        TestFiles::writeFile(old_ + QStringLiteral("/a.pak"), pattern(20000, 1));
        TestFiles::writeFile(old_ + QStringLiteral("/b.pak"), pattern(8000, 2));
        oldIndex_ = TreeChunker::index(old_, kSmall);
        const QString next = dir_.filePath(QStringLiteral("next"));
        TestFiles::writeFile(next + QStringLiteral("/a.pak"), pattern(20000, 1));
        TestFiles::writeFile(next + QStringLiteral("/b.pak"), pattern(8000, 2) + pattern(8000, 3));
        wanted_ = TreeChunker::index(next, kSmall);
    }

    void nothingToSeedFromLeavesEverythingMissing() {
        const ChunkCache cache(dir_.filePath(QStringLiteral("empty-root")));
        const ChunkPlan plan = planChunks(wanted_, cache, {});
        QCOMPARE(plan.missingBytes, chunkBytes(wanted_));
        QCOMPARE(plan.wantedBytes, chunkBytes(wanted_));
        QVERIFY(plan.found.isEmpty());
    }

    // Read afresh, the old build gives all it shares, and its index is made for the next time.
    void savedBuildIsReadWhenItHasNoIndex() {
        const ChunkCache cache(dir_.filePath(QStringLiteral("empty-root")));
        const ChunkPlan plan = planChunks(wanted_, cache, {SeedBuild{old_, std::nullopt}});
        QVERIFY(plan.missingBytes > 0);
        QVERIFY(plan.missingBytes < plan.wantedBytes / 2);
        QCOMPARE(plan.madeIndexes.size(), std::size_t(1));
        QCOMPARE(plan.madeIndexes.front().second, oldIndex_);
        // Every chunk is either found or missing, never both.
        QSet<QString> missing;
        for (const ChunkRef& chunk : plan.missing) {
            QVERIFY(!plan.found.contains(chunk.sha256));
            missing.insert(chunk.sha256);
        }
        for (const ChunkIndexEntry& entry : wanted_.entries)
            for (const ChunkRef& chunk : entry.chunks)
                QVERIFY(plan.found.contains(chunk.sha256) != missing.contains(chunk.sha256));
    }

    // A kept index gives the same without reading, but only for files still as it says.
    void keptIndexIsTrustedOnlyForFilesOfItsSize() {
        const ChunkCache cache(dir_.filePath(QStringLiteral("empty-root")));
        const ChunkPlan byIndex = planChunks(wanted_, cache, {SeedBuild{old_, oldIndex_}});
        const ChunkPlan byReading = planChunks(wanted_, cache, {SeedBuild{old_, std::nullopt}});
        QCOMPARE(byIndex.missingBytes, byReading.missingBytes);
        QVERIFY(byIndex.madeIndexes.empty());

        ChunkIndex stale = oldIndex_;
        for (ChunkIndexEntry& entry : stale.entries)
            if (entry.path == QStringLiteral("a.pak"))
                entry.size += 1; // the file on disk is no longer what this index says
        const ChunkPlan byStale = planChunks(wanted_, cache, {SeedBuild{old_, stale}});
        QVERIFY(byStale.missingBytes >= byIndex.missingBytes + 20000 - 1024);
    }

    // Chunks an earlier try kept come first and are counted as kept, not missing.
    void keptChunksCountAsFound() {
        const QString root = dir_.filePath(QStringLiteral("with-cache"));
        const ChunkCache cache(root);
        const ChunkPlan before = planChunks(wanted_, cache, {SeedBuild{old_, oldIndex_}});
        QVERIFY(!before.missing.empty());
        const ChunkRef first = before.missing.front();
        cache.keep(first.sha256, QByteArray(int(first.size), 'x'));
        const ChunkPlan after = planChunks(wanted_, cache, {SeedBuild{old_, oldIndex_}});
        QCOMPARE(after.keptBytes, first.size);
        QCOMPARE(after.missingBytes, before.missingBytes - first.size);
        QCOMPARE(after.found.value(first.sha256).file, cache.pathOf(first.sha256));
    }
};

QTEST_GUILESS_MAIN(TestChunkPlan)
#include "TestChunkPlan.moc"
