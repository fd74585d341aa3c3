// The real launcher reading releases from their chunk packs, many chunks a request: a first
// install killed while the pack trickles in goes on where it stopped, an update asks for every
// chunk it lacks in one request, and a server that does not answer ranges gets the archive asked
// for instead. Observed through nginx's access log, the game that starts and what is on disk.

#include "ChunkedReleaseFixture.h"

class TestChunkPackInstalls : public ChunkedReleaseFixture {
    Q_OBJECT

    ReleaseManifest packed031_;

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(root);
        ZENTHO_REQUIRE(nginx);
        publishAndInstall030();
        const Run packed = packAndPublish(k031, QStringLiteral("buildsp"), QStringLiteral("store"), {QStringLiteral("--chunk-pack")});
        QVERIFY2(packed.ok(), packed.errors.constData());
        packed031_ = ReleaseManifest::decode(TestFiles::readFile(packed.line(QStringLiteral("manifest"))));
        QVERIFY(packed031_.chunks && packed031_.chunks->pack.isValid());
    }
    void init() {
        restoreInstalled030();
    }
    void cleanup() { adopted_.reset(); }

    // The chunks 0.3.0 lacks, scattered through 0.3.1's pack, come in one request of many
    // ranges, each once; nothing from the store, never the archive.
    void anUpdateAsksForEveryChunkItLacksInOneRequest() {
        QCOMPARE(press(serve(QStringLiteral("packed-0.3.1"), packed031_)), build(k031));
        const QList<Get> gets = getsSinceStart();
        const QString pack = packed031_.chunks->pack.path();
        const QByteArray index = TestFiles::readFile(www() + packed031_.chunks->index.path());
        const QStringList asked = packedChunkGets(gets, pack, ChunkIndex::decode(index));
        QCOMPARE(qint64(asked.size()), qint64(missing_.size()));
        QCOMPARE(printed(setOf(asked)), printed(missing_));
        const auto packGets = std::count_if(gets.cbegin(), gets.cend(), [&](const Get& get) { return get.path == pack; });
        QCOMPARE(packGets, 1);
        const auto answer = std::find_if(gets.cbegin(), gets.cend(), [&](const Get& get) { return get.path == pack; });
        QCOMPARE(answer->status, 206);
        QVERIFY2(answer->range.count(QLatin1Char(',')) >= 2, qPrintable(answer->range));
        QCOMPARE(chunkGets(gets, QStringLiteral("/chunks")), QStringList());
        QVERIFY(!fetched(gets, packed031_.url.path()));
        verifyInstalled031();
        QCOMPARE(keptIndexOf031(), std::optional<QByteArray>(index));
    }

    // The twin: a server that answers a request for ranges with the whole file; the pack is
    // dropped at the answer's head and the archive installs the release.
    void aServerWithoutRangesGetsTheArchiveAskedFor() {
        ReleaseManifest manifest = packed031_;
        manifest.chunks->pack = server_->url(QStringLiteral("/norange") + packed031_.chunks->pack.path());
        QCOMPARE(press(serve(QStringLiteral("norange-0.3.1"), manifest)), build(k031));
        const QList<Get> gets = getsSinceStart();
        const auto whole = std::find_if(gets.cbegin(), gets.cend(), [&](const Get& get) {
            return get.path == manifest.chunks->pack.path();
        });
        QVERIFY(whole != gets.cend());
        QCOMPARE(whole->status, 200);
        QVERIFY(whole->bytes < QFileInfo(www() + packed031_.chunks->pack.path()).size());
        QVERIFY(fetched(gets, packed031_.url.path()));
        verifyInstalled031();
    }

    // A server that answers one range a request but not several (object stores and CDNs often
    // do): the request for several gets the whole file, refused at its head, and the launcher asks
    // again one range a request; every chunk it lacks comes once, never the archive.
    void aServerOfOneRangeARequestIsAskedOneRangeARequest() {
        ReleaseManifest manifest = packed031_;
        manifest.chunks->pack = server_->url(QStringLiteral("/onerange") + packed031_.chunks->pack.path());
        QCOMPARE(press(serve(QStringLiteral("onerange-0.3.1"), manifest)), build(k031));
        const QList<Get> gets = getsSinceStart();
        const QString pack = manifest.chunks->pack.path();
        QList<Get> answered;
        int whole = 0;
        for (const Get& get : gets) {
            if (get.path != pack)
                continue;
            if (get.status == 200)
                ++whole;
            else if (get.status == 206)
                answered.append(get);
        }
        QCOMPARE(whole, 1);
        QVERIFY(answered.size() >= 2);
        for (const Get& get : answered)
            QVERIFY2(!get.range.contains(QLatin1Char(',')), qPrintable(get.range));
        const QByteArray index = TestFiles::readFile(www() + packed031_.chunks->index.path());
        const QStringList asked = packedChunkGets(answered, pack, ChunkIndex::decode(index));
        QCOMPARE(qint64(asked.size()), qint64(missing_.size()));
        QCOMPARE(printed(setOf(asked)), printed(missing_));
        QVERIFY(!fetched(gets, packed031_.url.path()));
        verifyInstalled031();
    }

    // A first install killed while its pack trickles in, started again: what the first try kept
    // (chunks in the cache, files written whole) is not asked for again, the second try asks for
    // exactly the rest, and the build is the archive's tree with the state file naming it.
    void killedFirstInstallAsksOnlyForWhatItHadNot() {
        QVERIFY(QDir(data()).removeRecursively());
        ReleaseManifest slow = manifest030_;
        slow.chunks->pack = server_->url(QStringLiteral("/trickle") + manifest030_.chunks->pack.path());
        verifyKilledInstallGoesOn(slow, manifest030_, index030_, chunksOf(index030_), k030, expected030_);
        QCOMPARE(TestFiles::readFile(LauncherStorage(data()).state()), (InstalledState{k030, build(k030)}).encode());
    }
};

QTEST_GUILESS_MAIN(TestChunkPackInstalls)
#include "TestChunkPackInstalls.moc"
