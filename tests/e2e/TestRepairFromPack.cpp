// `--repair` on the real launcher for a build whose release was published with a pack: the chunks
// the damage took come from the pack in one request of many ranges, not a request a chunk from
// the store; a pack the server no longer has leaves the store to ask, one chunk a request.

#include "ChunkedReleaseFixture.h"

#include "Player.h"

class TestRepairFromPack : public ChunkedReleaseFixture {
    Q_OBJECT

    QSet<QString> damagedChunks_; // of 0.3.0, after damage()

    Player::Run repair() const {
        return Player(*server_, LauncherStorage(data()).dataHome(), serve(k030, manifest030_)).run({QStringLiteral("--repair"), k030});
    }

    // One byte changed in the middle of one pack and a whole map deleted: the chunk around the
    // byte and every chunk of the map are lost.
    void damage() {
        const QString folder = build(k030);
        QFile pack(folder + QStringLiteral("/data/pack1.bin"));
        QVERIFY(pack.open(QIODevice::ReadWrite) && pack.seek(500000));
        QCOMPARE(pack.write("X"), qint64(1));
        pack.close();
        QVERIFY(QFile::remove(folder + QStringLiteral("/data/maps/intro.map")));
        damagedChunks_.clear();
        for (const ChunkIndexEntry& entry : ChunkIndex::decode(index030_).entries) {
            qint64 offset = 0;
            for (const ChunkRef& chunk : entry.chunks) {
                const bool hit = entry.path == QLatin1String("data/maps/intro.map") ||
                                 (entry.path == QLatin1String("data/pack1.bin") && offset <= 500000 && 500000 < offset + chunk.size);
                if (hit)
                    damagedChunks_.insert(chunk.sha256);
                offset += chunk.size;
            }
        }
        QVERIFY(damagedChunks_.size() >= 3);
    }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(root);
        ZENTHO_REQUIRE(nginx);
        publishAndInstall030();
    }
    void init() {
        restoreInstalled030();
        damage();
    }
    void cleanup() { adopted_.reset(); }

    // Every lost chunk comes once, from the pack in one request, none from the store, and the
    // build is the archive's again.
    void aRepairAsksThePackForWhatWasLostInOneRequest() {
        server_->awaitLogged();
        const qsizetype mark = server_->accessLog().size();
        const Player::Run repaired = repair();
        QVERIFY2(repaired.exitCode == 0, qPrintable(repaired.output + repaired.errors));
        server_->awaitLogged();
        const QList<Get> gets = getsIn(server_->accessLog().mid(mark));
        const QString pack = manifest030_.chunks->pack.path();
        const auto packGets = std::count_if(gets.cbegin(), gets.cend(), [&](const Get& get) { return get.path == pack; });
        QCOMPARE(packGets, 1);
        const QStringList asked = packedChunkGets(gets, pack, ChunkIndex::decode(index030_));
        QCOMPARE(printed(setOf(asked)), printed(damagedChunks_));
        QCOMPARE(qint64(asked.size()), qint64(damagedChunks_.size()));
        QCOMPARE(chunkGets(gets, QStringLiteral("/chunks")), QStringList());
        QCOMPARE(TreeSnapshot::of(build(k030)), expected030_);
    }

    // The twin: the server no longer has the pack; the store gives the same chunks, one a request,
    // and the build is as whole.
    void withThePackGoneTheStoreIsAsked() {
        const QString pack = www() + manifest030_.chunks->pack.path();
        QVERIFY(QFile::rename(pack, pack + QStringLiteral(".gone")));
        server_->awaitLogged();
        const qsizetype mark = server_->accessLog().size();
        const Player::Run repaired = repair();
        QVERIFY(QFile::rename(pack + QStringLiteral(".gone"), pack));
        QVERIFY2(repaired.exitCode == 0, qPrintable(repaired.output + repaired.errors));
        server_->awaitLogged();
        const QList<Get> gets = getsIn(server_->accessLog().mid(mark));
        const QStringList fromStore = chunkGets(gets, QStringLiteral("/chunks"));
        QCOMPARE(printed(setOf(fromStore)), printed(damagedChunks_));
        QCOMPARE(qint64(fromStore.size()), qint64(damagedChunks_.size()));
        QCOMPARE(TreeSnapshot::of(build(k030)), expected030_);
    }
};

QTEST_GUILESS_MAIN(TestRepairFromPack)
#include "TestRepairFromPack.moc"
