// The room a build from chunks asks of the disk: the build and the cache's share, less the whole
// files a build of the same release cut short already holds there.

#include "SmallDisk.h"
#include "TestFiles.h"
#include "TestRequirements.h"

#include "chunks/ChunkPlan.h"
#include "chunks/ChunkedInstall.h"
#include "errors/Failure.h"
#include "formats/ChunkIndex.h"
#include "net/TransferLimits.h"

#include <QTest>

namespace {

constexpr qint64 kMiB = 1024 * 1024;

// An index of four files of 4 MiB each, missing every chunk.
ChunkIndex fourFiles() {
    ChunkIndex index;
    for (int i = 0; i < 4; ++i) {
        ChunkIndexEntry entry;
        entry.path = QStringLiteral("data/pack%1.bin").arg(i);
        entry.mode = 0644;
        entry.size = 4 * kMiB;
        index.entries.push_back(entry);
    }
    return index;
}

TransferLimits smallCache() {
    TransferLimits limits;
    limits.chunkCacheBytes = kMiB;
    limits.freeSpaceReserve = kMiB;
    return limits;
}

} // namespace

class TestChunkedInstall : public QObject {
    Q_OBJECT

    // A plan that fetches the whole release: the cache takes its cap.
    static ChunkPlan everythingMissing() {
        ChunkPlan plan;
        plan.missingBytes = 16 * kMiB;
        return plan;
    }

private slots:
    void initTestCase() { ZENTHO_REQUIRE(root); }

    // 12 MiB of the 16 are on the disk already as whole files of a build cut short: the rest, the
    // cache and the reserve fit in what is left of a 20 MiB disk.
    void aBuildTakenUpAgainNeedsRoomOnlyForWhatItLacks() {
        SmallDisk disk(20);
        QVERIFY(!disk.path().isEmpty());
        const QString partial = disk.path() + QStringLiteral("/chunk-build-x");
        for (int i = 0; i < 3; ++i)
            TestFiles::writeFile(partial + QStringLiteral("/data/pack%1.bin").arg(i), QByteArray(4 * kMiB, 'x'));
        requireRoomForChunks(disk.path(), fourFiles(), everythingMissing(), smallCache(), partial);
    }

    // The twin: files that are not yet of their size count for nothing, and the same disk is
    // refused; so is the build without a partial one to take up.
    void filesCutShortAndAFreshBuildNeedRoomForTheWhole() {
        SmallDisk disk(20);
        QVERIFY(!disk.path().isEmpty());
        const QString partial = disk.path() + QStringLiteral("/chunk-build-x");
        for (int i = 0; i < 3; ++i)
            TestFiles::writeFile(partial + QStringLiteral("/data/pack%1.bin").arg(i), QByteArray(4 * kMiB - 1, 'x'));
        QVERIFY_THROWS_EXCEPTION(DiskSpaceError, requireRoomForChunks(disk.path(), fourFiles(), everythingMissing(),
                                                                      smallCache(), partial));
        QVERIFY(QDir(partial).removeRecursively());
        SmallDisk empty(16);
        QVERIFY(!empty.path().isEmpty());
        QVERIFY_THROWS_EXCEPTION(DiskSpaceError,
                                 requireRoomForChunks(empty.path(), fourFiles(), everythingMissing(), smallCache()));
    }
};

QTEST_GUILESS_MAIN(TestChunkedInstall)
#include "TestChunkedInstall.moc"
