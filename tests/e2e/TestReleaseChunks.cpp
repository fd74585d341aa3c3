// zentho-release with a chunk store, used as a release engineer would: two releases packed into one
// store, the second adding only what changed; verify checking the index and the chunks against
// the archive, and failing on a damaged chunk or index; publish laying chunks and index out
// before the manifest that names them; and the real launcher installing such a release (from a
// store alone a first install is the archive's) as before.

#include "ReleaseChunksScene.h"

class TestReleaseChunks : public ReleaseChunksScene {
    Q_OBJECT

private slots:
    void initTestCase() { setUpScene(); }
    void init() { scope_.emplace(); }
    void cleanup() { scope_.reset(); }

    void aSecondReleaseAddsOnlyTheChunksThatChanged() {
        const QString source030 = makeRelease030();
        const Run first = packWithChunks(source030, QStringLiteral("0.3.0"), path(QStringLiteral("out-0.3.0")));
        QVERIFY2(first.ok(), first.errors.constData());
        const QList<qint64> firstCounts = chunkCounts(first);
        QCOMPARE(firstCounts.size(), 3);
        QCOMPARE(firstCounts[1], firstCounts[0]);
        QCOMPARE(firstCounts[2], qint64(0));
        const QMap<QString, QByteArray> afterFirst = storeContent(store());
        QCOMPARE(qint64(afterFirst.size()), firstCounts[0]);
        qint64 stored = 0;
        for (auto it = afterFirst.cbegin(); it != afterFirst.cend(); ++it) {
            QVERIFY2(QRegularExpression(QStringLiteral("^([0-9a-f]{2})/\\1[0-9a-f]{62}\\.zst$")).match(it.key()).hasMatch(),
                     qPrintable(it.key()));
            stored += it.value().size();
        }
        QCOMPARE(newChunkBytes(first), stored);

        // The index lies beside the archive and the manifest names it, its digest and the store.
        const QString index = first.line(QStringLiteral("index"));
        QCOMPARE(index, path(QStringLiteral("out-0.3.0/zentho-0.3.0-macos-arm64.chunks.json")));
        const ReleaseManifest manifest = ReleaseManifest::decode(TestFiles::readFile(first.line(QStringLiteral("manifest"))));
        QVERIFY(manifest.chunks.has_value());
        QCOMPARE(manifest.chunks->index.toString(), kBase + QStringLiteral("/zentho-0.3.0-macos-arm64.chunks.json"));
        QCOMPARE(manifest.chunks->sha256, TestArchives::sha256sum(index));
        QCOMPARE(manifest.chunks->store.toString(), kStoreUrl);
        const ChunkIndex read = ChunkIndex::decode(TestFiles::readFile(index));
        QCOMPARE(read.chunking, kDefaultChunkSizes);
        QCOMPARE(read.entries.size(), std::size_t(13));

        // 0.3.1 changes 32 KiB of 12 MiB and adds 300 KiB: a handful of chunks, nothing else.
        const QString source031 = makeRelease031(source030);
        QVERIFY(!source031.isEmpty());
        const Run second = packWithChunks(source031, QStringLiteral("0.3.1"), path(QStringLiteral("out-0.3.1")));
        QVERIFY2(second.ok(), second.errors.constData());
        const QList<qint64> secondCounts = chunkCounts(second);
        QCOMPARE(secondCounts.size(), 3);
        QVERIFY2(secondCounts[1] >= 3 && secondCounts[1] <= 8, second.output.constData());
        QCOMPARE(secondCounts[1] + secondCounts[2], secondCounts[0]);
        const qint64 archive031 = QFileInfo(second.line(QStringLiteral("archive"))).size();
        QVERIFY2(newChunkBytes(second) * 5 < archive031, second.output.constData());

        // The store kept every chunk of 0.3.0 as it was and gained exactly the new ones.
        const QMap<QString, QByteArray> afterSecond = storeContent(store());
        QCOMPARE(qint64(afterSecond.size()), firstCounts[0] + secondCounts[1]);
        for (auto it = afterFirst.cbegin(); it != afterFirst.cend(); ++it)
            QCOMPARE(afterSecond.value(it.key()), it.value());

        for (const Run* packed : {&first, &second}) {
            const Run checked = ReleaseTool::verify(*packed, {QStringLiteral("--chunks"), store()});
            QVERIFY2(checked.ok(), checked.errors.constData());
            QVERIFY2(checked.output.endsWith(", chunk index, " +
                                             QByteArray::number(chunkCounts(*packed)[0]) + " chunks checked\n"),
                     checked.output.constData());
        }
        // Without the store, the index is still checked against the archive.
        const Run indexOnly = ReleaseTool::verify(second);
        QVERIFY2(indexOnly.ok() && indexOnly.output.endsWith("executable, chunk index checked\n"), indexOnly.output.constData());
    }

    void verifyFailsOnADamagedChunkOrIndex() {
        const Run packed = packWithChunks(makeRelease030(), QStringLiteral("0.3.0"), path(QStringLiteral("out")));
        QVERIFY2(packed.ok(), packed.errors.constData());
        const QString index = packed.line(QStringLiteral("index"));
        QVERIFY(ReleaseTool::verify(packed, {QStringLiteral("--chunks"), store()}).ok());

        // One flipped byte in one chunk of the store.
        const QMap<QString, QByteArray> chunks = storeContent(store());
        const QString damaged = store() + QLatin1Char('/') + chunks.lastKey();
        const QByteArray good = chunks.last();
        ReleaseTool::flipOneByte(damaged);
        Run checked = ReleaseTool::verify(packed, {QStringLiteral("--chunks"), store()});
        QVERIFY2(checked.failedWithOneLine(), checked.errors.constData());
        QVERIFY2(checked.errors.startsWith("zentho-release verify: chunks: " + QFile::encodeName(damaged)), checked.errors.constData());
        // A missing chunk is named too.
        QVERIFY(QFile::remove(damaged));
        checked = ReleaseTool::verify(packed, {QStringLiteral("--chunks"), store()});
        QVERIFY2(checked.failedWithOneLine() && checked.errors.contains("cannot be read"), checked.errors.constData());
        TestFiles::writeFile(damaged, good);
        QVERIFY(ReleaseTool::verify(packed, {QStringLiteral("--chunks"), store()}).ok());

        // An index changed after packing no longer has the manifest's digest.
        const QByteArray original = TestFiles::readFile(index);
        QByteArray edited = original;
        edited.replace("\"mode\":493", "\"mode\":511");
        QVERIFY(edited != original);
        TestFiles::writeFile(index, edited);
        checked = ReleaseTool::verify(packed);
        QVERIFY2(checked.failedWithOneLine() && checked.errors.contains("verify: index: the index's digest is"),
                 checked.errors.constData());

        // An index with the manifest's digest that says something else than the archive.
        const QString manifestPath = packed.line(QStringLiteral("manifest"));
        const QByteArray manifest = TestFiles::readFile(manifestPath);
        QByteArray lying = original;
        lying.replace("{\"path\":\"data/current\",\"kind\":\"symlink\",\"target\":\"levels.txt\"}",
                      "{\"path\":\"data/current\",\"kind\":\"symlink\",\"target\":\"pack0.bin\"}");
        QVERIFY(lying != original);
        TestFiles::writeFile(index, lying);
        QByteArray relinked = manifest;
        relinked.replace(ReleaseManifest::decode(manifest).chunks->sha256.toUtf8(), TestArchives::sha256sum(index).toUtf8());
        TestFiles::writeFile(manifestPath, relinked);
        checked = ReleaseTool::verify(packed);
        QVERIFY2(checked.failedWithOneLine() &&
                     checked.errors.contains("index: \"data/current\" points to \"pack0.bin\" in the index and to \"levels.txt\" in the archive"),
                 checked.errors.constData());

        // Back as packed, it passes again: the failures were the damage, not the release.
        TestFiles::writeFile(index, original);
        TestFiles::writeFile(manifestPath, manifest);
        QVERIFY(ReleaseTool::verify(packed, {QStringLiteral("--chunks"), store()}).ok());
    }

    void publishLaysOutChunksAndIndexBeforeTheManifest() {
        const QString source030 = makeRelease030();
        const Run first = packWithChunks(source030, QStringLiteral("0.3.0"), path(QStringLiteral("out-0.3.0")));
        QVERIFY2(first.ok(), first.errors.constData());
        const QString www = path(QStringLiteral("www"));

        // A release with chunks is not published without its store.
        const Run withoutStore = ReleaseTool::run({QStringLiteral("publish"), QStringLiteral("--to"), www,
                                                   first.line(QStringLiteral("manifest"))});
        QCOMPARE(withoutStore.exitCode, 2);
        QVERIFY(!QFileInfo::exists(www));

        const Run published = ReleaseTool::run({QStringLiteral("publish"), QStringLiteral("--to"), www, QStringLiteral("--chunks"),
                                                store(), first.line(QStringLiteral("manifest"))});
        QVERIFY2(published.ok(), published.errors.constData());
        const qint64 count = chunkCounts(first)[0];
        QCOMPARE(published.output, "chunks: " + QFile::encodeName(www) + "/chunks (" + QByteArray::number(count) +
                                       " copied, 0 kept)\nindex: " + QFile::encodeName(www) +
                                       "/builds/zentho-0.3.0-macos-arm64.chunks.json\narchive: " + QFile::encodeName(www) +
                                       "/builds/zentho-0.3.0-macos-arm64.tar.gz\nmanifest: " + QFile::encodeName(www) +
                                       "/release/macos-arm64-manifest.json\n");
        QCOMPARE(storeContent(www + QStringLiteral("/chunks")), storeContent(store()));
        QCOMPARE(TestFiles::readFile(www + QStringLiteral("/builds/zentho-0.3.0-macos-arm64.chunks.json")),
                 TestFiles::readFile(first.line(QStringLiteral("index"))));

        // The next release copies only its new chunks and keeps the rest.
        const QString source031 = makeRelease031(source030);
        const Run second = packWithChunks(source031, QStringLiteral("0.3.1"), path(QStringLiteral("out-0.3.1")));
        QVERIFY2(second.ok(), second.errors.constData());
        const Run again = ReleaseTool::run({QStringLiteral("publish"), QStringLiteral("--to"), www, QStringLiteral("--chunks"),
                                            store(), second.line(QStringLiteral("manifest"))});
        QVERIFY2(again.ok(), again.errors.constData());
        QCOMPARE(again.line(QStringLiteral("chunks")),
                 www + QStringLiteral("/chunks (%1 copied, %2 kept)").arg(chunkCounts(second)[1]).arg(chunkCounts(second)[2]));
        QCOMPARE(storeContent(www + QStringLiteral("/chunks")), storeContent(store()));
        QVERIFY(QFileInfo::exists(www + QStringLiteral("/builds/zentho-0.3.0-macos-arm64.chunks.json")));
    }

    // A game release packed without chunks, published with a store: verify --chunks refuses
    // it, and publish --chunks, which checks as verify does, refuses it alike, writing nothing.
    void publishWithChunksRefusesWhatVerifyWithChunksRefuses() {
        const QString out = path(QStringLiteral("out-0.3.0"));
        const Run packed = ReleaseTool::packGame(makeRelease030(), QStringLiteral("0.3.0"), kBase, out);
        QVERIFY2(packed.ok(), packed.errors.constData());
        TestFiles::makeFolder(store());
        const QByteArray refusal = "chunks: the manifest names no chunks";

        const Run checked = ReleaseTool::verify(packed, {QStringLiteral("--chunks"), store()});
        QCOMPARE(checked.exitCode, 1);
        QVERIFY2(checked.errors.contains("zentho-release verify: " + refusal), checked.errors.constData());

        const QString www = path(QStringLiteral("www"));
        const Run published = ReleaseTool::publishWithChunks(www, store(), packed.line(QStringLiteral("manifest")));
        QCOMPARE(published.exitCode, 1);
        QVERIFY2(published.errors.contains("zentho-release publish: " + refusal), published.errors.constData());
        QVERIFY(!QFileInfo::exists(www));

        // The twin: without a store neither has chunks to check, and the release goes out.
        QVERIFY(ReleaseTool::verify(packed).ok());
        const Run plain = ReleaseTool::run({QStringLiteral("publish"), QStringLiteral("--to"), www,
                                            packed.line(QStringLiteral("manifest"))});
        QVERIFY2(plain.ok(), plain.errors.constData());
    }

    void aReleaseWithChunksIsInstalledFromItsArchiveByTheRealLauncher() {
        ZENTHO_REQUIRE(root);
        ZENTHO_REQUIRE(nginx);
        TestServer server;
        const QString www = server.documentRoot();
        const Run packed = ReleaseTool::packGameWithChunks(
            makeRelease030(), QStringLiteral("0.3.0"), server.url(QStringLiteral("/builds")).toString(), path(QStringLiteral("out")),
            store(), server.url(QStringLiteral("/chunks")).toString());
        QVERIFY2(packed.ok(), packed.errors.constData());
        const Run published = ReleaseTool::publishWithChunks(www, store(), packed.line(QStringLiteral("manifest")));
        QVERIFY2(published.ok(), published.errors.constData());
        QVERIFY(ReleaseManifest::decode(TestFiles::readFile(www + QStringLiteral("/release/macos-arm64-manifest.json"))).chunks);

        const QString data = path(QStringLiteral("data"));
        const QString record = path(QStringLiteral("record"));
        RealLauncher launcher(LauncherBundles::builtBundle(), data);
        launcher.useManifests(server.url(QStringLiteral("/release/macos-arm64-manifest.json")).toString(),
                              QStringLiteral("file:///dev/null/no-launcher-manifest.json"));
        launcher.recordGameStartIn(record);
        launcher.start(server, QStringLiteral("zentho://invite/chunks"));
        QCOMPARE(launcher.waitForExit(), std::optional<int>(0));

        const QByteArray recorded = RealLauncher::waitForGameRecord(record);
        const QString installed = LauncherStorage(data).build(QStringLiteral("0.3.0"));
        QVERIFY2(recorded.contains("\ncwd=" + QFile::encodeName(installed) + "\n"), (recorded + launcher.errors()).constData());
        QCOMPARE(TestFiles::readFile(installed + QStringLiteral("/data/levels.txt")),
                 TestFiles::readFile(path(QStringLiteral("game-0.3.0/data/levels.txt"))));
        RealLauncher::terminateAndCollect(RealLauncher::recordedPid(recorded));
    }

    void packRefusesChunksItCannotMakeRight() {
        const QString source = makeRelease030();
        // The two options go together, and only for the game.
        Run refused = ReleaseTool::packGame(source, QStringLiteral("0.3.0"), kBase, path(QStringLiteral("out")),
                                            {QStringLiteral("--chunks"), store()});
        QCOMPARE(refused.exitCode, 2);
        refused = ReleaseTool::packGame(source, QStringLiteral("0.3.0"), kBase, path(QStringLiteral("out")),
                                        {QStringLiteral("--chunks"), store(), QStringLiteral("--chunks-url"),
                                         QStringLiteral("ftp://cdn.example.invalid/chunks")});
        QCOMPARE(refused.exitCode, 2);
        // A store inside the build would change the build while it is cut.
        refused = ReleaseTool::packGame(source, QStringLiteral("0.3.0"), kBase, path(QStringLiteral("out")),
                                        {QStringLiteral("--chunks"), source + QStringLiteral("/store"),
                                         QStringLiteral("--chunks-url"), kStoreUrl});
        QCOMPARE(refused.exitCode, 2);
        QVERIFY(!QFileInfo::exists(source + QStringLiteral("/store")));
        // A setuid file is refused, as launchers would refuse the index that holds it.
        ::chmod(QFile::encodeName(source + QStringLiteral("/zentho")).constData(), 04755);
        refused = packWithChunks(source, QStringLiteral("0.3.0"), path(QStringLiteral("out")));
        QVERIFY2(refused.failedWithOneLine() && refused.errors.contains("\"zentho\" has a setuid"), refused.errors.constData());
        QVERIFY(!QFileInfo::exists(path(QStringLiteral("out/macos-arm64-manifest.json"))));
        // The same build without the bit packs.
        ::chmod(QFile::encodeName(source + QStringLiteral("/zentho")).constData(), 0755);
        const Run packed = packWithChunks(source, QStringLiteral("0.3.0"), path(QStringLiteral("out")), {QStringLiteral("--force")});
        QVERIFY2(packed.ok(), packed.errors.constData());
    }

    // --chunk-average cuts the same build into smaller chunks, which a launcher reads from the
    // index's sizes: more chunks, and fewer new bytes for the same small edits.
    void aSmallerChunkAverageMakesSmallerPatches() {
        const QString source030 = makeRelease030();
        const QString source031 = makeRelease031(source030);
        QVERIFY(!source031.isEmpty());
        const QString store16 = path(QStringLiteral("store16"));
        const QStringList small{QStringLiteral("--chunk-average"), QStringLiteral("16384")};
        QList<Run> runs;
        for (const QString& version : {QStringLiteral("0.3.0"), QStringLiteral("0.3.1")}) {
            const QString source = version == QLatin1String("0.3.0") ? source030 : source031;
            runs << packWithChunks(source, version, path(QStringLiteral("out-") + version));
            runs << ReleaseTool::packGameWithChunks(source, version, kBase, path(QStringLiteral("out16-") + version),
                                                    store16, kStoreUrl, small);
        }
        for (const Run& run : runs)
            QVERIFY2(run.ok(), run.errors.constData());
        const ChunkIndex small031 = ChunkIndex::decode(TestFiles::readFile(runs[3].line(QStringLiteral("index"))));
        QCOMPARE(small031.chunking, (ChunkSizes{4096, 16384, 65536}));
        QVERIFY2(chunkCounts(runs[3])[0] > 3 * chunkCounts(runs[2])[0], runs[3].output.constData());
        QVERIFY2(newChunkBytes(runs[3]) < newChunkBytes(runs[2]),
                 (runs[2].output + runs[3].output).constData());
        const Run checked = ReleaseTool::verify(runs[3], {QStringLiteral("--chunks"), store16});
        QVERIFY2(checked.ok(), checked.errors.constData());
    }

    void packRefusesAChunkAverageItCannotUse() {
        const QString source = makeRelease030();
        for (const char* average : {"3000", "2048", "4097", "2097152", "16k", "+16384"}) {
            const Run refused = packWithChunks(source, QStringLiteral("0.3.0"), path(QStringLiteral("out")),
                                               {QStringLiteral("--chunk-average"), QString::fromLatin1(average)});
            QVERIFY2(refused.exitCode == 2 && refused.errors.contains("--chunk-average"), average);
        }
        const Run alone = ReleaseTool::packGame(source, QStringLiteral("0.3.0"), kBase, path(QStringLiteral("out")),
                                                {QStringLiteral("--chunk-average"), QStringLiteral("16384")});
        QVERIFY2(alone.exitCode == 2 && alone.errors.contains("--chunk-average needs --chunks"), alone.errors.constData());
        QVERIFY(!QFileInfo::exists(path(QStringLiteral("out"))));
        QVERIFY(!QFileInfo::exists(store()));
    }

    void aDryRunCountsTheChunksAndWritesNone() {
        const QString source = makeRelease030();
        const Run dry = packWithChunks(source, QStringLiteral("0.3.0"), path(QStringLiteral("out")), {QStringLiteral("--dry-run")});
        QVERIFY2(dry.ok(), dry.errors.constData());
        QVERIFY(!QFileInfo::exists(store()));
        QVERIFY(!QFileInfo::exists(path(QStringLiteral("out"))));
        const Run real = packWithChunks(source, QStringLiteral("0.3.0"), path(QStringLiteral("out")));
        QVERIFY2(real.ok(), real.errors.constData());
        for (const QString& key : {QStringLiteral("index sha256"), QStringLiteral("chunks"), QStringLiteral("new chunk bytes")})
            QCOMPARE(dry.line(key), real.line(key));
    }
};

QTEST_GUILESS_MAIN(TestReleaseChunks)
#include "TestReleaseChunks.moc"
