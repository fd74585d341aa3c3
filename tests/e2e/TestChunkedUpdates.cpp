// The real launcher updating 0.3.0 to 0.3.1 from their chunks, both published by zentho-release
// into one chunk store: it fetches only the chunks it lacks and puts together exactly the
// archive's build. A damaged chunk, an index that is not the one the manifest names and an index
// that reaches out of the build all end in that same build too, from the archive. Observed
// through nginx's access log, the game that starts and what is on disk afterwards.

#include "ChunkedReleaseFixture.h"

class TestChunkedUpdates : public ChunkedReleaseFixture {
    Q_OBJECT

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(root);
        ZENTHO_REQUIRE(nginx);
        publishAndInstall030();
    }
    void init() {
        restoreInstalled030();
    }
    void cleanup() { adopted_.reset(); }

    // Only the chunks 0.3.0 lacks come over the network, never the archive.
    void updateFetchesOnlyTheMissingChunks() {
        QCOMPARE(press(serve(k031, manifest031_)), build(k031));
        const QList<Get> gets = getsSinceStart();
        const QStringList chunks = chunkGets(gets, QStringLiteral("/chunks"));
        qInfo("%lld chunk GETs of %lld chunks in the index", qint64(chunks.size()), chunks031_);
        QCOMPARE(qint64(chunks.size()), qint64(missing_.size()));
        QCOMPARE(printed(setOf(chunks)), printed(missing_));
        QVERIFY(chunks.size() < chunks031_);
        for (const Get& get : gets) {
            QVERIFY2(get.path == manifest031_.chunks->index.path() || get.path.startsWith(QLatin1String("/m/")) ||
                         !chunkOf(get.path).isEmpty(),
                     qPrintable(get.path));
            QCOMPARE(get.status, 200);
        }
        QVERIFY(fetched(gets, manifest031_.chunks->index.path()));
        verifyInstalled031();
        QCOMPARE(keptIndexOf031(), std::optional<QByteArray>(index031_));
    }

    // A release cut into smaller chunks than the build on disk was: the launcher cuts 0.3.0 the
    // new way to find what it has, and fetches only the small chunks it lacks.
    void smallerChunksThanTheKeptIndexComeTheSameWay() {
        const QStringList small{QStringLiteral("--chunk-average"), QStringLiteral("16384")};
        // 0.3.0 only into the store (a lower version is not published after 0.3.1): its index
        // tells which chunks the launcher finds in the build on disk.
        const Run first = ReleaseTool::packGameWithChunks(
            path(QStringLiteral("game-0.3.0")), k030, server_->url(QStringLiteral("/builds16")).toString(),
            path(QStringLiteral("out-builds16-0.3.0")), path(QStringLiteral("store16")),
            server_->url(QStringLiteral("/store16")).toString(), small);
        QVERIFY2(first.ok(), first.errors.constData());
        const Run second = packAndPublish(k031, QStringLiteral("builds16"), QStringLiteral("store16"), small);
        QVERIFY2(second.ok(), second.errors.constData());
        const QByteArray index031 = TestFiles::readFile(second.line(QStringLiteral("index")));
        QCOMPARE(ChunkIndex::decode(index031).chunking, (ChunkSizes{4096, 16384, 65536}));
        const QSet<QString> missing = chunksOf(index031) - chunksOf(TestFiles::readFile(first.line(QStringLiteral("index"))));
        QVERIFY(chunksOf(index031).size() > chunks031_ * 2);
        const ReleaseManifest manifest = ReleaseManifest::decode(TestFiles::readFile(second.line(QStringLiteral("manifest"))));

        QCOMPARE(press(serve(QStringLiteral("small-0.3.1"), manifest)), build(k031));
        const QList<Get> gets = getsSinceStart();
        QCOMPARE(printed(setOf(chunkGets(gets, QStringLiteral("/store16")))), printed(missing));
        QVERIFY(!fetched(gets, manifest.url.path()));
        verifyInstalled031();
        QCOMPARE(keptIndexOf031(), std::optional<QByteArray>(index031));
    }

    // 0.3.1 packed with its index compressed too: the launcher fetches that file instead of the
    // JSON, and keeps the very JSON it holds.
    void aCompressedIndexIsFetchedInsteadOfTheJson() {
        const Run packed = packAndPublish(k031, QStringLiteral("buildsz"), QStringLiteral("store"),
                                          {QStringLiteral("--compressed-index")});
        QVERIFY2(packed.ok(), packed.errors.constData());
        const ReleaseManifest manifest = ReleaseManifest::decode(TestFiles::readFile(packed.line(QStringLiteral("manifest"))));
        QVERIFY(manifest.chunks && manifest.chunks->compressedIndex.isValid());
        QCOMPARE(manifest.chunks->sha256, manifest031_.chunks->sha256);
        const qint64 compressedBytes = QFileInfo(www() + manifest.chunks->compressedIndex.path()).size();
        QVERIFY2(compressedBytes > 0 && compressedBytes * 2 < index031_.size(), qPrintable(QString::number(compressedBytes)));

        QCOMPARE(press(serve(QStringLiteral("compressed-0.3.1"), manifest)), build(k031));
        const QList<Get> gets = getsSinceStart();
        QVERIFY(fetched(gets, manifest.chunks->compressedIndex.path()));
        QVERIFY(!fetched(gets, manifest.chunks->index.path()));
        QVERIFY(!fetched(gets, manifest.url.path()));
        QCOMPARE(printed(setOf(chunkGets(gets, QStringLiteral("/chunks")))), printed(missing_));
        verifyInstalled031();
        QCOMPARE(keptIndexOf031(), std::optional<QByteArray>(index031_));
    }
    // Its twins: a compressed index whose file is not the one named, or which holds another
    // index than the one named (0.3.0's, under its own right digest), is never used: the archive.
    void aCompressedIndexThatIsNotTheNamedOneIsNeverUsed_data() {
        QTest::addColumn<bool>("otherFileDigest");
        QTest::newRow("file of another digest") << true;
        QTest::newRow("holds another index") << false;
    }
    void aCompressedIndexThatIsNotTheNamedOneIsNeverUsed() {
        QFETCH(bool, otherFileDigest);
        const QByteArray frame = CompressedChunkIndex::compress(otherFileDigest ? index031_ : index030_);
        server_->writeFile(QStringLiteral("other/index.chunks.json.zst"), frame);
        ReleaseManifest manifest = manifest031_;
        manifest.chunks->compressedIndex = server_->url(QStringLiteral("/other/index.chunks.json.zst"));
        manifest.chunks->compressedSha256 =
            otherFileDigest ? QString::fromLatin1(QByteArray(64, 'e'))
                            : QString::fromLatin1(QCryptographicHash::hash(frame, QCryptographicHash::Sha256).toHex());

        QCOMPARE(press(serve(QStringLiteral("other-compressed-0.3.1"), manifest)), build(k031));
        const QList<Get> gets = getsSinceStart();
        QVERIFY(fetched(gets, QStringLiteral("/other/index.chunks.json.zst")));
        QCOMPARE(chunkGets(gets, QStringLiteral("/chunks")), QStringList());
        QVERIFY(fetched(gets, archivePath()));
        verifyInstalled031();
    }

    // The same release without chunks comes as its archive and gives the same build.
    void updateWithoutChunksTakesTheArchive() {
        ReleaseManifest plain = manifest031_;
        plain.chunks = std::nullopt;
        QCOMPARE(press(serve(QStringLiteral("plain-0.3.1"), plain)), build(k031));
        const QList<Get> gets = getsSinceStart();
        QVERIFY(fetched(gets, archivePath()));
        QVERIFY(!fetched(gets, manifest031_.chunks->index.path()));
        QCOMPARE(chunkGets(gets, QStringLiteral("/chunks")), QStringList());
        verifyInstalled031();
    }

    // A chunk whose bytes are another chunk's (a good zstd frame of other content): the archive.
    void damagedChunkFallsBackToTheArchive() {
        ReleaseTool::copyTree(www() + QStringLiteral("/chunks"), www() + QStringLiteral("/chunks-damaged"));
        const QString damaged = *std::min_element(missing_.cbegin(), missing_.cend());
        const QString other = chunksOf(index030_).values().first();
        const QString chunkFile = QStringLiteral("/chunks-damaged/%1/%2.zst").arg(damaged.left(2), damaged);
        const QString otherFile = QStringLiteral("/chunks/%1/%2.zst").arg(other.left(2), other);
        TestFiles::writeFile(www() + chunkFile, TestFiles::readFile(www() + otherFile));
        ReleaseManifest manifest = manifest031_;
        manifest.chunks->store = server_->url(QStringLiteral("/chunks-damaged"));

        QCOMPARE(press(serve(QStringLiteral("damaged-0.3.1"), manifest)), build(k031));
        const QList<Get> gets = getsSinceStart();
        QVERIFY(fetched(gets, chunkFile));
        QVERIFY(fetched(gets, archivePath()));
        verifyInstalled031();
    }

    // Killed while chunks trickle in, started again: what the first try kept (chunks in the cache,
    // files written whole) is not fetched again, and the second try fetches exactly the rest.
    void killedUpdateFetchesOnlyWhatItHadNot() {
        ReleaseManifest slow = manifest031_;
        slow.chunks->store = server_->url(QStringLiteral("/trickle/chunks"));
        verifyKilledInstallGoesOn(slow, manifest031_, index031_, missing_, k031, expected_);
    }

    // An index that is not the one the manifest names is never used, even a good one of another
    // release.
    void indexWithAnotherDigestIsNeverUsed_data() {
        QTest::addColumn<bool>("otherRelease");
        QTest::newRow("0.3.0's index at the address") << true;
        QTest::newRow("one digit of the digest changed") << false;
    }
    void indexWithAnotherDigestIsNeverUsed() {
        QFETCH(bool, otherRelease);
        ReleaseManifest manifest = manifest031_;
        if (otherRelease) {
            server_->writeFile(QStringLiteral("m/other.chunks.json"), index030_);
            manifest.chunks->index = server_->url(QStringLiteral("/m/other.chunks.json"));
        } else {
            QString& digest = manifest.chunks->sha256;
            digest[10] = digest[10] == QLatin1Char('0') ? QLatin1Char('1') : QLatin1Char('0');
        }
        QCOMPARE(press(serve(QStringLiteral("digest-0.3.1"), manifest)), build(k031));
        const QList<Get> gets = getsSinceStart();
        QVERIFY(fetched(gets, manifest.chunks->index.path()));
        QCOMPARE(chunkGets(gets, QStringLiteral("/chunks")), QStringList());
        QVERIFY(fetched(gets, archivePath()));
        verifyInstalled031();
        QCOMPARE(keptIndexOf031(), std::optional<QByteArray>());
    }

    // An index with the manifest's digest whose content reaches out of the build is refused as a
    // whole; the same bytes unchanged are used.
    void hostileIndexIsNeverUsed_data() {
        QTest::addColumn<QByteArray>("from");
        QTest::addColumn<QByteArray>("to");
        QTest::newRow("as published") << QByteArray() << QByteArray();
        QTest::newRow("dot-dot path") << QByteArray("\"path\":\"README.txt\"")
                                      << QByteArray("\"path\":\"../../../../outside/sentinel\"");
        QTest::newRow("absolute path") << QByteArray("\"path\":\"README.txt\"") << QByteArray("\"path\":\"@OUTSIDE@\"");
        QTest::newRow("link leading out") << QByteArray("\"target\":\"levels.txt\"")
                                          << QByteArray("\"target\":\"../../../../../outside/sentinel\"");
        QTest::newRow("link to /etc") << QByteArray("\"target\":\"levels.txt\"") << QByteArray("\"target\":\"/etc\"");
        QTest::newRow("setuid") << QByteArray("\"path\":\"zentho\",\"kind\":\"file\",\"mode\":493")
                                << QByteArray("\"path\":\"zentho\",\"kind\":\"file\",\"mode\":2541");
    }
    void hostileIndexIsNeverUsed() {
        QFETCH(QByteArray, from);
        QFETCH(QByteArray, to);
        QByteArray index = index031_;
        if (!from.isEmpty()) {
            index.replace(from, to.replace("@OUTSIDE@", QFile::encodeName(path(QStringLiteral("outside/sentinel")))));
            QVERIFY2(index != index031_, from.constData());
        }
        server_->writeFile(QStringLiteral("m/hostile.chunks.json"), index);
        ReleaseManifest manifest = manifest031_;
        manifest.chunks->index = server_->url(QStringLiteral("/m/hostile.chunks.json"));
        manifest.chunks->sha256 = TestArchives::sha256sum(www() + QStringLiteral("/m/hostile.chunks.json"));
        const QStringList before = outside();

        QCOMPARE(press(serve(QStringLiteral("hostile-0.3.1"), manifest)), build(k031));
        const QList<Get> gets = getsSinceStart();
        QVERIFY(fetched(gets, QStringLiteral("/m/hostile.chunks.json")));
        const QStringList chunks = chunkGets(gets, QStringLiteral("/chunks"));
        if (from.isEmpty()) {
            QCOMPARE(printed(setOf(chunks)), printed(missing_));
            QVERIFY(!fetched(gets, archivePath()));
            QCOMPARE(keptIndexOf031(), std::optional<QByteArray>(index));
        } else {
            QCOMPARE(chunks, QStringList());
            QVERIFY(fetched(gets, archivePath()));
            QCOMPARE(keptIndexOf031(), std::optional<QByteArray>());
        }
        verifyInstalled031();
        QCOMPARE(outside(), before);
        QCOMPARE(TestFiles::readFile(path(QStringLiteral("outside/sentinel"))), kSentinel);
    }
};

QTEST_GUILESS_MAIN(TestChunkedUpdates)
#include "TestChunkedUpdates.moc"
