// zentho-release's other files of a release with chunks: the compressed index and the chunk
// pack, each packed, checked by verify against what the manifest names and published before the
// index; verify fails, and publish writes nothing, when either is missing, damaged or another.

#include "ReleaseChunksScene.h"

class TestReleaseChunkFiles : public ReleaseChunksScene {
    Q_OBJECT

private slots:
    void initTestCase() { setUpScene(); }
    void init() { scope_.emplace(); }
    void cleanup() { scope_.reset(); }

    // --compressed-index writes the index once more as one zstd frame, which the manifest names
    // beside the JSON; verify checks it holds the very index named, and publish lays it out
    // before the JSON.
    void aCompressedIndexIsPackedCheckedAndPublished() {
        const Run packed = packWithChunks(makeRelease030(), QStringLiteral("0.3.0"), path(QStringLiteral("out")),
                                          {QStringLiteral("--compressed-index")});
        QVERIFY2(packed.ok(), packed.errors.constData());
        const QString compressed = packed.line(QStringLiteral("compressed index"));
        QCOMPARE(compressed, path(QStringLiteral("out/zentho-0.3.0-macos-arm64.chunks.json.zst")));
        const QByteArray json = TestFiles::readFile(packed.line(QStringLiteral("index")));
        const QByteArray frame = TestFiles::readFile(compressed);
        QCOMPARE(CompressedChunkIndex::decompress(frame), json);
        QCOMPARE(packed.line(QStringLiteral("compressed index bytes")),
                 QStringLiteral("%1 (of %2)").arg(frame.size()).arg(json.size()));
        const QString manifestPath = packed.line(QStringLiteral("manifest"));
        const ReleaseManifest manifest = ReleaseManifest::decode(TestFiles::readFile(manifestPath));
        QCOMPARE(manifest.chunks->compressedIndex.toString(), kBase + QStringLiteral("/zentho-0.3.0-macos-arm64.chunks.json.zst"));
        QCOMPARE(manifest.chunks->compressedSha256, TestArchives::sha256sum(compressed));
        QCOMPARE(manifest.chunks->sha256, TestArchives::sha256sum(packed.line(QStringLiteral("index"))));

        const Run checked = ReleaseTool::verify(packed, {QStringLiteral("--chunks"), store()});
        QVERIFY2(checked.ok() && checked.output.endsWith(", chunk index, compressed index, " +
                                                         QByteArray::number(chunkCounts(packed)[0]) + " chunks checked\n"),
                 (checked.output + checked.errors).constData());
        const QString www = path(QStringLiteral("www"));
        const Run published = ReleaseTool::publishWithChunks(www, store(), manifestPath);
        QVERIFY2(published.ok(), published.errors.constData());
        QVERIFY2(published.output.contains("\ncompressed index: " + QFile::encodeName(www) +
                                           "/builds/zentho-0.3.0-macos-arm64.chunks.json.zst\nindex: "),
                 published.output.constData());
        QCOMPARE(TestFiles::readFile(www + QStringLiteral("/builds/zentho-0.3.0-macos-arm64.chunks.json.zst")), frame);
    }

    // Its twins: a compressed index that is missing, has another digest, or holds another index
    // under its own right digest fails verify; and the option needs a store.
    void verifyFailsOnACompressedIndexThatIsNotTheNamedOne() {
        const QString source = makeRelease030();
        const Run packed = packWithChunks(source, QStringLiteral("0.3.0"), path(QStringLiteral("out")),
                                          {QStringLiteral("--compressed-index")});
        QVERIFY2(packed.ok(), packed.errors.constData());
        const QString compressed = packed.line(QStringLiteral("compressed index"));
        const QByteArray frame = TestFiles::readFile(compressed);
        const QString manifestPath = packed.line(QStringLiteral("manifest"));
        const QByteArray manifest = TestFiles::readFile(manifestPath);

        QVERIFY(QFile::remove(compressed));
        Run checked = ReleaseTool::verify(packed);
        QVERIFY2(checked.failedWithOneLine() && checked.errors.contains("index: " + QFile::encodeName(compressed) + " is missing"),
                 checked.errors.constData());

        const QByteArray other = CompressedChunkIndex::compress(TestFiles::readFile(packed.line(QStringLiteral("index"))) + " ");
        TestFiles::writeFile(compressed, other);
        checked = ReleaseTool::verify(packed);
        QVERIFY2(checked.failedWithOneLine() && checked.errors.contains("index: the compressed index's digest is"),
                 checked.errors.constData());

        QByteArray relinked = manifest;
        relinked.replace(ReleaseManifest::decode(manifest).chunks->compressedSha256.toUtf8(),
                         TestArchives::sha256sum(compressed).toUtf8());
        TestFiles::writeFile(manifestPath, relinked);
        checked = ReleaseTool::verify(packed);
        QVERIFY2(checked.failedWithOneLine() && checked.errors.contains("does not hold the index the manifest names"),
                 checked.errors.constData());

        TestFiles::writeFile(compressed, frame);
        TestFiles::writeFile(manifestPath, manifest);
        QVERIFY(ReleaseTool::verify(packed).ok());
        const Run alone = ReleaseTool::packGame(source, QStringLiteral("0.3.0"), kBase, path(QStringLiteral("out2")),
                                                {QStringLiteral("--compressed-index")});
        QVERIFY2(alone.exitCode == 2 && alone.errors.contains("--compressed-index needs --chunks"), alone.errors.constData());
    }

    // Chunk sizes the chunker or a launcher would refuse, and a size without a store.
    // --chunk-pack writes every chunk once more into one file, in the order the index first names
    // them, the index giving each frame's length; verify reads every chunk from it, publish lays
    // it out before the index.
    void aChunkPackIsPackedCheckedAndPublished() {
        const Run packed = packWithChunks(makeRelease030(), QStringLiteral("0.3.0"), path(QStringLiteral("out")),
                                          {QStringLiteral("--chunk-pack")});
        QVERIFY2(packed.ok(), packed.errors.constData());
        const QString pack = packed.line(QStringLiteral("pack"));
        QCOMPARE(pack, path(QStringLiteral("out/zentho-0.3.0-macos-arm64.chunks.pack")));
        const ChunkIndex index = ChunkIndex::decode(TestFiles::readFile(packed.line(QStringLiteral("index"))));
        const QByteArray bytes = TestFiles::readFile(pack);
        QCOMPARE(packed.line(QStringLiteral("pack bytes")), QString::number(bytes.size()));
        const QHash<QString, ChunkPack::Span> spans = ChunkPack::spans(index);
        QCOMPARE(qint64(spans.size()), chunkCounts(packed)[0]);
        for (auto span = spans.cbegin(); span != spans.cend(); ++span)
            QCOMPARE(bytes.mid(span->offset, span->size),
                     TestFiles::readFile(store() + QLatin1Char('/') + ChunkStore::relativePath(span.key())));
        const QString manifestPath = packed.line(QStringLiteral("manifest"));
        const ReleaseManifest manifest = ReleaseManifest::decode(TestFiles::readFile(manifestPath));
        QCOMPARE(manifest.chunks->pack.toString(), kBase + QStringLiteral("/zentho-0.3.0-macos-arm64.chunks.pack"));

        const Run checked = ReleaseTool::verify(packed, {QStringLiteral("--chunks"), store()});
        QVERIFY2(checked.ok() && checked.output.contains(", chunk index, chunk pack, "),
                 (checked.output + checked.errors).constData());
        const QString www = path(QStringLiteral("www"));
        const Run published = ReleaseTool::publishWithChunks(www, store(), manifestPath);
        QVERIFY2(published.ok(), published.errors.constData());
        QVERIFY2(published.output.contains("\npack: " + QFile::encodeName(www) +
                                           "/builds/zentho-0.3.0-macos-arm64.chunks.pack\nindex: "),
                 published.output.constData());
        QCOMPARE(TestFiles::readFile(www + QStringLiteral("/builds/zentho-0.3.0-macos-arm64.chunks.pack")), bytes);
    }

    // Its twins: a pack with a spoilt byte, one cut short and one missing fail verify, and
    // publish writes nothing of them.
    void verifyFailsOnADamagedPack() {
        const QString source = makeRelease030();
        const Run packed = packWithChunks(source, QStringLiteral("0.3.0"), path(QStringLiteral("out")),
                                          {QStringLiteral("--chunk-pack")});
        QVERIFY2(packed.ok(), packed.errors.constData());
        const QString pack = packed.line(QStringLiteral("pack"));
        const QByteArray bytes = TestFiles::readFile(pack);
        QByteArray spoilt = bytes;
        spoilt[spoilt.size() / 2] = char(spoilt[spoilt.size() / 2] ^ 0x20);
        TestFiles::writeFile(pack, spoilt);
        Run checked = ReleaseTool::verify(packed, {QStringLiteral("--chunks"), store()});
        QVERIFY2(checked.failedWithOneLine() && checked.errors.contains("chunks: the pack's chunk at "), checked.errors.constData());
        const Run published = ReleaseTool::publishWithChunks(path(QStringLiteral("www")), store(),
                                                             packed.line(QStringLiteral("manifest")));
        QVERIFY(!published.ok());
        QVERIFY(!QFileInfo::exists(path(QStringLiteral("www/builds/zentho-0.3.0-macos-arm64.chunks.pack"))));
        QVERIFY(!QFileInfo::exists(path(QStringLiteral("www/release/macos-arm64-manifest.json"))));
        TestFiles::writeFile(pack, bytes.chopped(1));
        checked = ReleaseTool::verify(packed, {QStringLiteral("--chunks"), store()});
        QVERIFY2(checked.failedWithOneLine() && checked.errors.contains("chunks: the pack is "), checked.errors.constData());
        QVERIFY(QFile::remove(pack));
        checked = ReleaseTool::verify(packed, {QStringLiteral("--chunks"), store()});
        QVERIFY2(checked.failedWithOneLine() && checked.errors.contains(" is missing or cannot be read"), checked.errors.constData());
        const Run alone = ReleaseTool::packGame(source, QStringLiteral("0.3.1"), kBase, path(QStringLiteral("o2")),
                                                {QStringLiteral("--chunk-pack")});
        QVERIFY2(alone.exitCode == 2 && alone.errors.contains("--chunk-pack needs --chunks"), alone.errors.constData());
    }

    // --delta-from packs each new chunk of 0.3.1 also as a delta against the chunks it replaces in
    // 0.3.0, after every whole frame, where that is much smaller: the two chunks around each
    // rewritten 16 KiB. Each delta makes its chunk from those chunks in the store; verify reads
    // them all.
    void deltasArePackedAndChecked() {
        const QString source = makeRelease030();
        const Run base = packWithChunks(source, QStringLiteral("0.3.0"), path(QStringLiteral("out")), {QStringLiteral("--chunk-pack")});
        QVERIFY2(base.ok(), base.errors.constData());
        const Run packed = packWithDeltas(makeRelease031(source), base);
        QVERIFY2(packed.ok(), packed.errors.constData());
        const ChunkIndex index = ChunkIndex::decode(TestFiles::readFile(packed.line(QStringLiteral("index"))));
        const QByteArray bytes = TestFiles::readFile(packed.line(QStringLiteral("pack")));
        QVERIFY2(index.deltas.size() >= 2 && index.deltas.size() <= 6, qPrintable(QString::number(index.deltas.size())));
        qint64 deltaBytes = 0;
        for (auto delta = index.deltas.cbegin(); delta != index.deltas.cend(); ++delta)
            deltaBytes += delta->stored;
        QCOMPARE(packed.line(QStringLiteral("deltas")), QStringLiteral("%1 (%2 bytes)").arg(index.deltas.size()).arg(deltaBytes));
        QCOMPARE(qint64(bytes.size()), ChunkPack::bytes(index));
        const QHash<QString, ChunkPack::Span> spans = ChunkPack::deltaSpans(index);
        for (auto delta = index.deltas.cbegin(); delta != index.deltas.cend(); ++delta) {
            QByteArray against;
            for (const ChunkRef& from : delta->from)
                against += ChunkStore::decode(TestFiles::readFile(store() + QLatin1Char('/') + ChunkStore::relativePath(from.sha256)),
                                              from.size, from.sha256);
            const QByteArray whole = TestFiles::readFile(store() + QLatin1Char('/') + ChunkStore::relativePath(delta.key()));
            const QByteArray chunk = ChunkStore::decodeAgainst(bytes.mid(spans.value(delta.key()).offset, delta->stored),
                                                               against, sizeOf(index, delta.key()), delta.key());
            QCOMPARE(ChunkStore::decode(whole, chunk.size(), delta.key()), chunk);
            QVERIFY(delta->stored * 4 < whole.size() * 3);
        }
        const Run checked = ReleaseTool::verify(packed, {QStringLiteral("--chunks"), store()});
        QVERIFY2(checked.ok() && checked.output.contains(", chunk pack, "), (checked.output + checked.errors).constData());
    }

    // Its twins: a spoilt byte in a delta fails verify; deltas without a pack, or from a file
    // that is no chunk index, are refused.
    void verifyFailsOnASpoiltDelta() {
        const QString source = makeRelease030();
        const Run base = packWithChunks(source, QStringLiteral("0.3.0"), path(QStringLiteral("out")), {QStringLiteral("--chunk-pack")});
        QVERIFY2(base.ok(), base.errors.constData());
        const QString source031 = makeRelease031(source);
        const Run packed = packWithDeltas(source031, base);
        QVERIFY2(packed.ok(), packed.errors.constData());
        const QString pack = packed.line(QStringLiteral("pack"));
        QByteArray spoilt = TestFiles::readFile(pack);
        spoilt[spoilt.size() - 10] = char(spoilt[spoilt.size() - 10] ^ 0x20);
        TestFiles::writeFile(pack, spoilt);
        const Run checked = ReleaseTool::verify(packed, {QStringLiteral("--chunks"), store()});
        QVERIFY2(checked.failedWithOneLine() && checked.errors.contains("chunks: the pack's delta at "), checked.errors.constData());

        const QString index030 = base.line(QStringLiteral("index"));
        const Run unpacked = packWithChunks(source031, QStringLiteral("0.3.1"), path(QStringLiteral("o2")),
                                            {QStringLiteral("--delta-from"), index030});
        QVERIFY2(unpacked.exitCode == 2 && unpacked.errors.contains("--delta-from needs --chunk-pack"), unpacked.errors.constData());
        const Run notAnIndex = packWithChunks(source031, QStringLiteral("0.3.1"), path(QStringLiteral("o3")),
                                              {QStringLiteral("--chunk-pack"), QStringLiteral("--delta-from"), source + QStringLiteral("/data/levels.txt")});
        QVERIFY2(!notAnIndex.ok() && notAnIndex.errors.contains("not a chunk index"), notAnIndex.errors.constData());
    }

private:
    Run packWithDeltas(const QString& source, const Run& base) {
        return packWithChunks(source, QStringLiteral("0.3.1"), path(QStringLiteral("out-0.3.1")),
                              {QStringLiteral("--chunk-pack"), QStringLiteral("--delta-from"), base.line(QStringLiteral("index"))});
    }
    static qint64 sizeOf(const ChunkIndex& index, const QString& sha256) {
        for (const ChunkIndexEntry& entry : index.entries)
            for (const ChunkRef& chunk : entry.chunks)
                if (chunk.sha256 == sha256)
                    return chunk.size;
        return -1;
    }
};

QTEST_GUILESS_MAIN(TestReleaseChunkFiles)
#include "TestReleaseChunkFiles.moc"
