#include "TaskOutcome.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TestServer.h"
#include "TreeSnapshot.h"

#include "chunks/ChunkSchedule.h"
#include "chunks/ChunkedBuild.h"
#include "chunks/ChunkedInstall.h"
#include "errors/Failure.h"
#include "formats/ChunkStore.h"
#include "formats/TreeChunker.h"
#include "net/HttpClient.h"
#include "net/ResumableDownload.h"
#include "storage/ChunkCache.h"

#include <QCoroTask>

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <memory>

namespace {

constexpr qint64 kKiB = 1024;

// Bytes in the folder, hidden and half-written chunks included.
qint64 bytesIn(const QString& folder) {
    qint64 total = 0;
    for (QDirIterator it(folder, QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot); it.hasNext();)
        total += QFileInfo(it.next()).size();
    return total;
}

// Looks at the chunk cache every time a chunk has arrived, which is when it grows.
class CacheWatch : public DownloadObserver {
public:
    explicit CacheWatch(QString folder) : folder_(std::move(folder)) {}
    void progressed(qint64, std::optional<qint64>) override { peak = std::max(peak, bytesIn(folder_)); }
    void ended() override { ++ends; }

    qint64 peak = 0;
    int ends = 0;

private:
    QString folder_;
};

} // namespace

// A build written while its chunks arrive: the same tree as the one it was cut from, written
// through a chunk cache that never holds more than its cap, and taken up again where an earlier
// writer stopped.
class TestChunkedBuild : public QObject {
    Q_OBJECT

    std::unique_ptr<TestServer> server_;
    QTemporaryDir dir_;
    QString tree_;
    ChunkIndex index_;
    qint64 largestFile_ = 0;
    int round_ = 0;

    QString storePath() const { return QStringLiteral("/store-%1").arg(round_); }
    QString root() const { return dir_.filePath(QStringLiteral("root-%1").arg(round_)); }
    QString folder() const { return dir_.filePath(QStringLiteral("build-%1").arg(round_)); }

    // Chunk GETs of the store since the last round began.
    QStringList chunkGets() const {
        QStringList gets;
        for (const QString& line : server_->accessLog().split(QLatin1Char('\n')))
            if (line.contains(QStringLiteral("\"GET ") + storePath() + QLatin1Char('/')))
                gets << line;
        return gets;
    }

    // Writes the build into folder() with the chunk cache capped at `cap`; "ok" or the error.
    QString write(qint64 cap, CacheWatch* watch, BuildWriter::Start start = BuildWriter::Start::empty) {
        const ChunkCache cache(root());
        HttpClient client;
        ChunkedBuild build{planChunks(index_, cache, {}), ChunkSource{server_->url(storePath())}, folder(), start, cap, watch, {}};
        const std::exception_ptr error = waitForOutcome(writeBuildFromChunks(client, index_, std::move(build), cache));
        try {
            if (error)
                std::rethrow_exception(error);
            return QStringLiteral("ok");
        } catch (const std::exception& failure) {
            return QString::fromUtf8(failure.what());
        }
    }

    // A fresh round: its own store, storage root and build folder.
    void nextRound() {
        ++round_;
        TestFiles::makeFolder(folder());
        TreeChunker::index(tree_, kDefaultChunkSizes,
                           [&](const ChunkIndexEntry&, const ChunkRef& chunk, std::uint64_t, const unsigned char* data,
                               std::size_t size) {
                               server_->writeFile(storePath().mid(1) + QLatin1Char('/') + ChunkStore::relativePath(chunk.sha256),
                                                  ChunkStore::compress(reinterpret_cast<const char*>(data), size));
                           });
    }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(nginx);
        server_ = std::make_unique<TestServer>();
        TestServer::trustInThisProcess();
        // Eight files of 256 KiB that do not compress, a small one, a script, a link and folders.
        tree_ = dir_.filePath(QStringLiteral("tree"));
        for (int i = 0; i < 8; ++i)
            TestFiles::writeFile(tree_ + QStringLiteral("/data/pack%1.bin").arg(i), TestFiles::randomBytes(256 * kKiB, quint32(i + 1)));
        TestFiles::writeFile(tree_ + QStringLiteral("/data/notes.txt"), "notes\n", 0600);
        TestFiles::writeFile(tree_ + QStringLiteral("/zentho"), "#!/bin/sh\nexit 0\n", 0755);
        TestFiles::makeFolder(tree_ + QStringLiteral("/saves"));
        QVERIFY(QFile::link(QStringLiteral("notes.txt"), tree_ + QStringLiteral("/data/current")));
        index_ = TreeChunker::index(tree_, kDefaultChunkSizes);
        for (const ChunkIndexEntry& entry : index_.entries)
            largestFile_ = std::max(largestFile_, entry.size);
        QCOMPARE(largestFile_, 256 * kKiB);
    }
    void init() { nextRound(); }

    // A build four times the cache's cap comes out whole, and the cache never held more than the cap.
    void cacheStaysUnderItsCapWhileALargerBuildIsWritten() {
        const qint64 cap = 512 * kKiB;
        QVERIFY(buildBytes(index_) > 4 * cap);
        const ChunkCache cache(root());
        const ChunkPlan plan = planChunks(index_, cache, {});
        const qint64 peak = peakCachedBytes(filesOf(index_), plan, cache);
        QVERIFY2(peak >= largestFile_ && peak <= cap, qPrintable(QString::number(peak)));
        QVERIFY(chunksArePaying(peak, cap));

        CacheWatch watch(cache.path());
        QCOMPARE(write(cap, &watch), QStringLiteral("ok"));
        QVERIFY2(watch.peak > 0 && watch.peak <= cap, qPrintable(QString::number(watch.peak)));
        QCOMPARE(watch.ends, 1);
        QCOMPARE(TreeSnapshot::of(folder()), TreeSnapshot::of(tree_));
        QCOMPARE(chunkGets().size(), qsizetype(plan.missing.size()));
        // Every chunk went once its file was written.
        QCOMPARE(bytesIn(cache.path()), 0);
    }

    // The twin: a cap below one file's chunks is a release the rule gives to the archive, and a
    // writer handed it all the same stops rather than hold more than the cap.
    void capBelowOneFilesChunksIsRefusedAndNeverExceeded() {
        const qint64 cap = 192 * kKiB;
        QVERIFY(cap < largestFile_);
        const ChunkCache cache(root());
        const ChunkPlan plan = planChunks(index_, cache, {});
        QVERIFY(!chunksArePaying(peakCachedBytes(filesOf(index_), plan, cache), cap));

        CacheWatch watch(cache.path());
        const QString outcome = write(cap, &watch);
        QVERIFY2(outcome.contains(QStringLiteral("do not fit in the chunk cache")), qPrintable(outcome));
        QVERIFY2(watch.peak > 0 && watch.peak <= cap, qPrintable(QString::number(watch.peak)));
    }

    // Taken up again, the writer keeps every file already whole and fetches only the chunks of the
    // others: one cut short, one of the right size with other bytes, one missing; what the index
    // does not name goes, and a folder where a file belongs makes way.
    void resumedBuildKeepsWhatIsWhole() {
        const auto copy = [&](const QString& relative) {
            TestFiles::writeFile(folder() + QLatin1Char('/') + relative, TestFiles::readFile(tree_ + QLatin1Char('/') + relative));
        };
        for (int i = 0; i < 4; ++i)
            copy(QStringLiteral("data/pack%1.bin").arg(i));
        const QByteArray five = TestFiles::readFile(tree_ + QStringLiteral("/data/pack5.bin"));
        TestFiles::writeFile(folder() + QStringLiteral("/data/pack4.bin"), five.left(100000));
        TestFiles::writeFile(folder() + QStringLiteral("/data/pack5.bin"), QByteArray(five.size(), 'x'));
        TestFiles::writeFile(folder() + QStringLiteral("/data/pack6.bin/inside"), "a folder in the way");
        TestFiles::writeFile(folder() + QStringLiteral("/data/stray.tmp"), "not of this build");
        QVERIFY(QFile::setPermissions(folder() + QStringLiteral("/data"), QFile::ReadOwner | QFile::ExeOwner));

        QSet<QString> keptChunks, otherChunks;
        for (const ChunkIndexEntry& entry : index_.entries) {
            for (const ChunkRef& chunk : entry.chunks) {
                const bool kept = entry.path < QStringLiteral("data/pack4.bin") && entry.path.startsWith(QStringLiteral("data/pack"));
                (kept ? keptChunks : otherChunks).insert(chunk.sha256);
            }
        }
        CacheWatch watch(ChunkCache(root()).path());
        QCOMPARE(write(1 << 30, &watch, BuildWriter::Start::resume), QStringLiteral("ok"));
        QCOMPARE(TreeSnapshot::of(folder()), TreeSnapshot::of(tree_));
        const QStringList gets = chunkGets();
        QCOMPARE(gets.size(), qsizetype((otherChunks - keptChunks).size()));
        for (const QString& chunk : keptChunks - otherChunks)
            QVERIFY2(!gets.join(QLatin1Char('\n')).contains(chunk), qPrintable(chunk));
    }

    // The twin: the same folder written afresh takes nothing from what is there.
    void freshBuildRefusesAFolderThatHoldsAnything() {
        TestFiles::writeFile(folder() + QStringLiteral("/data/pack0.bin"),
                             TestFiles::readFile(tree_ + QStringLiteral("/data/pack0.bin")));
        const QString outcome = write(1 << 30, nullptr);
        QVERIFY2(outcome.contains(QStringLiteral("cannot be made")), qPrintable(outcome));
    }
};

QTEST_GUILESS_MAIN(TestChunkedBuild)
#include "TestChunkedBuild.moc"
