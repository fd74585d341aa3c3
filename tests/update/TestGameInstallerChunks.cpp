#include "ChunkedInstallSandbox.h"
#include "TestRequirements.h"

#include "formats/ChunkStore.h"
#include "formats/TreeChunker.h"
#include "storage/BuildIndexes.h"

#include <QCryptographicHash>
#include <QProcess>
#include <QRandomGenerator>

#include <algorithm>

// A release that also comes as chunks: put together from the build already here and the chunks it
// lacks, and whenever anything on that way is wrong, installed from its archive exactly as one
// without chunks.
class TestGameInstallerChunks : public ChunkedInstallSandbox {
    Q_OBJECT

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(nginx);
        startServer();
    }
    void init() { setUpSandbox(); }
    void cleanup() { tearDownSandbox(); }

    // The current build is read and cut into chunks, and only what it lacks is fetched.
    void onlyTheMissingChunksAreFetched() {
        const Release update = publishUpdateOverCurrent();
        const int before = requestsUnder(QStringLiteral("/store/"));
        QUrl folder;
        QCOMPARE(outcomeOf(install(update.manifest, &folder)), QStringLiteral("ok"));
        QCOMPARE(statuses_, (QStringList{kDownloading, kInstalling}));
        verifyTreeOf(update, folder);
        QCOMPARE(archiveRequests(update), 0);
        const int fetched = requestsUnder(QStringLiteral("/store/")) - before;
        QVERIFY2(fetched > 0 && fetched <= 6, qPrintable(QString::number(fetched))); // the edit and the new file
        QVERIFY(fetched < update.chunks);
        // The chunks' progress reached the taskbar, ending whole, and was taken off after.
        const QList<double> shown = platform_->taskbarProgress;
        QVERIFY2(shown.size() >= 2, qPrintable(QString::number(shown.size())));
        QCOMPARE(shown.at(shown.size() - 2), 1.0);
        QVERIFY(shown.last() < 0);
        // What the build holds is known to the next update without reading it.
        QVERIFY(BuildIndexes(home_->launcherRoot()).read(folder.toLocalFile()).has_value());
        QVERIFY(BuildIndexes(home_->launcherRoot()).read(previousBuild()).has_value());
    }

    // The twin: a manifest without chunks downloads the archive, to the same tree.
    void withoutChunksTheArchiveIsDownloaded() {
        Release update = publishUpdateOverCurrent();
        update.manifest.chunks.reset();
        verifyInstalledFromTheArchive(update);
    }

    // A chunk whose bytes are not what its name says: the archive installs the release instead.
    void corruptedChunkFallsBackToTheArchive() {
        const Release update = publishUpdateOverCurrent();
        const QByteArray other = QByteArray("not the chunk ").repeated(100);
        // Every chunk of the new file is needed; spoil all of them.
        const ChunkIndex index = TreeChunker::index(update.tree, kDefaultChunkSizes);
        for (const ChunkIndexEntry& entry : index.entries) {
            if (entry.path == QStringLiteral("data/new.pak")) {
                for (const ChunkRef& chunk : entry.chunks)
                    server_->writeFile(QStringLiteral("store/") + ChunkStore::relativePath(chunk.sha256),
                                       ChunkStore::compress(other.constData(), std::size_t(other.size())));
            }
        }
        const int before = requestsUnder(QStringLiteral("/store/"));
        QUrl folder;
        QCOMPARE(outcomeOf(install(update.manifest, &folder)), QStringLiteral("ok"));
        QCOMPARE(statuses_, (QStringList{kDownloading, kInstalling}));
        QVERIFY(requestsUnder(QStringLiteral("/store/")) > before);
        QCOMPARE(archiveRequests(update), 1);
        verifyTreeOf(update, folder);
    }

    // A chunk path that fails after it said "Installing verified update..." (here the build it
    // put together lacks the executable) says "Downloading into ZENTHO storage..." again while
    // the archive downloads, and the archive installs the release.
    void failureAfterInstallingShowsTheDownloadAgain() {
        Release update = publishUpdateOverCurrent();
        ChunkIndex index = ChunkIndex::decode(
            TestFiles::readFile(server_->documentRoot() + QStringLiteral("/indexes/0.3.1.json")));
        const auto executable = std::find_if(index.entries.begin(), index.entries.end(),
                                             [](const ChunkIndexEntry& entry) { return entry.path == QStringLiteral("zentho"); });
        QVERIFY(executable != index.entries.end());
        index.entries.erase(executable);
        const QByteArray withoutExecutable = index.encode();
        server_->writeFile(QStringLiteral("indexes/no-executable.json"), withoutExecutable);
        update.manifest.chunks->index = server_->url(QStringLiteral("/indexes/no-executable.json"));
        update.manifest.chunks->sha256 = sha256Of(withoutExecutable);
        QUrl folder;
        QCOMPARE(outcomeOf(install(update.manifest, &folder)), QStringLiteral("ok"));
        QCOMPARE(statuses_, (QStringList{kDownloading, kInstalling, kDownloading, kInstalling}));
        QCOMPARE(archiveRequests(update), 1);
        verifyTreeOf(update, folder);
    }

    // An index that is not the one the manifest names is never read: no chunk is asked for.
    void indexWithAnotherDigestIsNeverUsed() {
        Release update = publishUpdateOverCurrent();
        update.manifest.chunks->sha256 = old_.manifest.chunks->sha256;
        verifyInstalledFromTheArchive(update);
        QVERIFY(!BuildIndexes(home_->launcherRoot()).read(home_->versionsRoot() + QStringLiteral("/0.3.1")).has_value());
    }

    // Indexes no release tool writes, served with the digest the manifest gives: each is refused
    // before anything of it is acted on, and the archive installs the release.
    void hostileIndexIsRefused_data() {
        QTest::addColumn<QByteArray>("entry");
        QTest::newRow("dot-dot") << QByteArray(R"({"path":"../escape","kind":"folder","mode":493})");
        QTest::newRow("absolute") << QByteArray(R"({"path":"/tmp/escape","kind":"folder","mode":493})");
        QTest::newRow("link out") << QByteArray(R"({"path":"out","kind":"symlink","target":"../../outside"})");
        QTest::newRow("setuid") << QByteArray(R"({"path":"suid","kind":"folder","mode":2541})");
    }
    void hostileIndexIsRefused() {
        QFETCH(QByteArray, entry);
        Release update = publishUpdateOverCurrent();
        QByteArray hostile = TestFiles::readFile(server_->documentRoot() + QStringLiteral("/indexes/0.3.1.json"));
        QVERIFY(hostile.contains("\"entries\":["));
        hostile.replace("\"entries\":[", "\"entries\":[" + entry + ',');
        server_->writeFile(QStringLiteral("indexes/hostile.json"), hostile);
        update.manifest.chunks->index = server_->url(QStringLiteral("/indexes/hostile.json"));
        update.manifest.chunks->sha256 = sha256Of(hostile);
        verifyInstalledFromTheArchive(update);
        QCOMPARE(entriesOf(outside()), QStringList());
    }

    // Chunks kept by an earlier try that did not finish are not fetched again.
    void chunksKeptFromAnEarlierTryAreNotFetchedAgain() {
        const Release update = publishUpdateOverCurrent();
        const ChunkIndex index = TreeChunker::index(update.tree, kDefaultChunkSizes);
        QString kept;
        for (const ChunkIndexEntry& entry : index.entries) {
            if (entry.path == QStringLiteral("data/new.pak"))
                kept = entry.chunks.front().sha256;
        }
        const QString keptPath = QStringLiteral("/store/") + ChunkStore::relativePath(kept);
        TestFiles::writeFile(home_->launcherRoot() + QStringLiteral("/chunks/") + kept,
                             ChunkStore::decode(TestFiles::readFile(server_->documentRoot() + keptPath),
                                                chunkNamed(index, kept).size, kept));
        const int keptBefore = requestsUnder(keptPath);
        const int before = requestsUnder(QStringLiteral("/store/"));
        QUrl folder;
        QCOMPARE(outcomeOf(install(update.manifest, &folder)), QStringLiteral("ok"));
        QCOMPARE(requestsUnder(keptPath), keptBefore);
        QVERIFY(requestsUnder(QStringLiteral("/store/")) > before); // the other missing ones
        verifyTreeOf(update, folder);
    }
};

QTEST_GUILESS_MAIN(TestGameInstallerChunks)
#include "TestGameInstallerChunks.moc"
