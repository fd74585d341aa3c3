#include "ChunkTraffic.h"
#include "ChunkedInstallSandbox.h"
#include "TestRequirements.h"

#include "formats/ChunkPack.h"
#include "storage/BuildIndexes.h"

#include <algorithm>

// A first install of a release that also comes as chunks: from its pack, many chunks a request,
// each file written as its chunks arrive; from a store alone (a request a chunk, which a far
// player waits a round trip for each), and whenever the pack fails, from its archive.
class TestGameInstallerFirstInstall : public ChunkedInstallSandbox {
    Q_OBJECT

    ChunkIndex indexOf(const Release& release) const {
        return ChunkIndex::decode(TestFiles::readFile(server_->documentRoot() + QStringLiteral("/indexes/") +
                                                      release.manifest.version + QStringLiteral(".json")));
    }
    QString packOnDisk(const Release& release) const { return server_->documentRoot() + packPath(release); }

    // The span in the pack of the chunk of `path` numbered `at` (negative: from the end).
    static ChunkPack::Span spanOf(const ChunkIndex& index, const QString& path, int at) {
        const auto entry = std::find_if(index.entries.cbegin(), index.entries.cend(),
                                        [&](const ChunkIndexEntry& candidate) { return candidate.path == path; });
        if (entry == index.entries.cend() || entry->chunks.size() < 2)
            return {};
        const std::size_t chosen = at < 0 ? entry->chunks.size() - std::size_t(-at) : std::size_t(at);
        return ChunkPack::spans(index).value(entry->chunks[chosen].sha256);
    }

    QList<ChunkTraffic::Get> getsSince(qsizetype mark) const {
        server_->awaitLogged();
        return ChunkTraffic::getsIn(server_->accessLog().mid(mark));
    }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(nginx);
        startServer();
    }
    void init() { setUpSandbox(); }
    void cleanup() { tearDownSandbox(); }

    // Every chunk no build here holds (the sandbox's previous build shares a couple) comes from
    // the pack exactly once, in far fewer requests than chunks, never from the store, and the
    // archive is never asked for. The index is kept for the next update.
    void firstInstallComesFromThePackAndKeepsItsIndex() {
        const Release update = publish(QStringLiteral("0.3.1"), true, true);
        const qsizetype mark = server_->accessLog().size();
        QUrl folder;
        QCOMPARE(outcomeOf(install(update.manifest, &folder)), QStringLiteral("ok"));
        QCOMPARE(statuses_, (QStringList{kDownloading, kInstalling}));
        const QList<ChunkTraffic::Get> gets = getsSince(mark);
        QCOMPARE(archiveRequests(update), 0);
        QCOMPARE(requestsUnder(QStringLiteral("/store/")), 0);
        const QStringList asked = ChunkTraffic::packedChunkGets(gets, packPath(update), indexOf(update));
        // The previous build here shares a chunk or two with it.
        const int missing = chunksNotIn(update, previousBuild());
        QCOMPARE(asked.size(), missing);
        QCOMPARE(QSet<QString>(asked.cbegin(), asked.cend()).size(), missing);
        const auto packGets = std::count_if(gets.cbegin(), gets.cend(), [&](const ChunkTraffic::Get& get) {
            return get.path == packPath(update) && get.status == 206;
        });
        QVERIFY2(packGets >= 1 && packGets < missing / 4, qPrintable(QString::number(packGets)));
        verifyTreeOf(update, folder);
        const QList<double> shown = platform_->taskbarProgress;
        QVERIFY2(shown.size() >= 2, qPrintable(QString::number(shown.size())));
        QCOMPARE(shown.at(shown.size() - 2), 1.0);
        QVERIFY(BuildIndexes(home_->launcherRoot()).read(home_->versionsRoot() + QStringLiteral("/0.3.1")).has_value());
    }

    // The twin: from a store alone a first install would be a request a chunk, so it is the
    // archive's, with the statuses of any install and no chunk asked for.
    void firstInstallFromAStoreAloneComesFromTheArchive() {
        const Release update = publish(QStringLiteral("0.3.1"), true);
        verifyInstalledFromTheArchive(update);
    }

    // A chunk spoilt in the pack: the release comes from its archive, to the same tree.
    void firstInstallWithACorruptedChunkComesFromTheArchive() {
        const Release update = publish(QStringLiteral("0.3.1"), true, true);
        const ChunkPack::Span spoilt = spanOf(indexOf(update), QStringLiteral("data/big.pak"), 1);
        QVERIFY(spoilt.size > 16);
        QByteArray pack = TestFiles::readFile(packOnDisk(update));
        pack[spoilt.offset + spoilt.size / 2] = char(pack[spoilt.offset + spoilt.size / 2] ^ 0x5a);
        TestFiles::writeFile(packOnDisk(update), pack);
        QUrl folder;
        QCOMPARE(outcomeOf(install(update.manifest, &folder)), QStringLiteral("ok"));
        QCOMPARE(statuses_, (QStringList{kDownloading, kInstalling}));
        QCOMPARE(archiveRequests(update), 1);
        verifyTreeOf(update, folder);
    }

    // A server that answers a request for ranges with the whole file: the pack is dropped at its
    // head and the archive installs the release.
    void aServerThatIgnoresRangesGetsTheArchive() {
        Release update = publish(QStringLiteral("0.3.1"), true, true);
        update.manifest.chunks->pack = server_->url(QStringLiteral("/norange") + packPath(update));
        const qsizetype mark = server_->accessLog().size();
        QUrl folder;
        QCOMPARE(outcomeOf(install(update.manifest, &folder)), QStringLiteral("ok"));
        const QList<ChunkTraffic::Get> gets = getsSince(mark);
        const auto whole = std::find_if(gets.cbegin(), gets.cend(), [](const ChunkTraffic::Get& get) {
            return get.path.startsWith(QStringLiteral("/norange/")) && get.status == 200;
        });
        QVERIFY(whole != gets.cend());
        QVERIFY2(whole->bytes < TestFiles::readFile(packOnDisk(update)).size(), qPrintable(QString::number(whole->bytes)));
        QCOMPARE(archiveRequests(update), 1);
        verifyTreeOf(update, folder);
    }

    // What a first install cut short (here: the pack ends early on the server and the archive is
    // not there) fetched and wrote stays for the next try of the same release, which asks only
    // for what the first did not get and keeps the files already written.
    void firstInstallCutShortGoesOnWhereItStopped() {
        const Release update = publish(QStringLiteral("0.3.1"), true, true);
        const ChunkIndex index = indexOf(update);
        const ChunkPack::Span cut = spanOf(index, QStringLiteral("data/new.pak"), -1);
        QVERIFY(cut.size > 0);
        const QByteArray pack = TestFiles::readFile(packOnDisk(update));
        TestFiles::writeFile(packOnDisk(update), pack.left(cut.offset + cut.size / 2));
        const QString archive = server_->documentRoot() + update.manifest.url.path();
        QVERIFY(QFile::rename(archive, archive + QStringLiteral(".held")));
        QVERIFY(outcomeOf(install(update.manifest)) != QStringLiteral("ok"));
        const QStringList partial =
            QDir(home_->launcherRoot()).entryList({QStringLiteral("chunk-build-*")}, QDir::Dirs | QDir::NoDotAndDotDot);
        QCOMPARE(partial.size(), 1);
        const QString written = home_->launcherRoot() + QLatin1Char('/') + partial.first() + QStringLiteral("/data/big.pak");
        QCOMPARE(TestFiles::readFile(written), TestFiles::readFile(update.tree + QStringLiteral("/data/big.pak")));
        const QDateTime writtenAt = QFileInfo(written).birthTime();

        TestFiles::writeFile(packOnDisk(update), pack);
        QVERIFY(QFile::rename(archive + QStringLiteral(".held"), archive));
        const qsizetype mark = server_->accessLog().size();
        QUrl folder;
        QCOMPARE(outcomeOf(install(update.manifest, &folder)), QStringLiteral("ok"));
        const QList<ChunkTraffic::Get> again = getsSince(mark);
        const QStringList asked = ChunkTraffic::packedChunkGets(again, packPath(update), index);
        const QHash<QString, ChunkPack::Span> spans = ChunkPack::spans(index);
        QVERIFY(!asked.isEmpty());
        for (const QString& chunk : asked)
            QVERIFY2(spans.value(chunk).end() > cut.offset, qPrintable(chunk)); // whole before the cut: kept
        QCOMPARE(QSet<QString>(asked.cbegin(), asked.cend()).size(), asked.size());
        QVERIFY(!ChunkTraffic::fetched(again, update.manifest.url.path()));
        verifyTreeOf(update, folder);
        if (writtenAt.isValid())
            QCOMPARE(QFileInfo(folder.toLocalFile() + QStringLiteral("/data/big.pak")).birthTime(), writtenAt);
    }

    // The twin: a partial build of another release is no use to this one and goes; every chunk
    // is asked for.
    void partialBuildOfAnotherReleaseGoes() {
        const Release update = publish(QStringLiteral("0.3.1"), true, true);
        const QString stale = home_->launcherRoot() + QStringLiteral("/chunk-build-") + QString(64, QLatin1Char('a'));
        TestFiles::writeFile(stale + QStringLiteral("/data/big.pak"), "left by another release");
        const qsizetype mark = server_->accessLog().size();
        QUrl folder;
        QCOMPARE(outcomeOf(install(update.manifest, &folder)), QStringLiteral("ok"));
        QCOMPARE(ChunkTraffic::packedChunkGets(getsSince(mark), packPath(update), indexOf(update)).size(),
                 chunksNotIn(update, previousBuild()));
        verifyTreeOf(update, folder);
    }
};

QTEST_GUILESS_MAIN(TestGameInstallerFirstInstall)
#include "TestGameInstallerFirstInstall.moc"
