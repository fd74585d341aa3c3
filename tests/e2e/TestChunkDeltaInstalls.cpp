// The real launcher updating from a pack that holds deltas against the release it has: a chunk
// that 0.3.1 changed comes as the bytes that differ from the chunks it replaces in 0.3.0, read
// back from the saved build. Without those chunks on this disk the whole chunks come instead, and
// a saved build changed since its index was kept never makes a chunk of the new one.

#include "ChunkedReleaseFixture.h"

#include "formats/ChunkPack.h"

class TestChunkDeltaInstalls : public ChunkedReleaseFixture {
    Q_OBJECT

    ReleaseManifest delta031_;
    ChunkIndex deltaIndex_;
    qint64 deltas_ = 0;

    QString pack() const { return delta031_.chunks->pack.path(); }
    QString manifest() const { return serve(QStringLiteral("delta-0.3.1"), delta031_); }
    qint64 packBytesSent(const QList<Get>& gets) const {
        qint64 bytes = 0;
        for (const Get& get : gets)
            bytes += get.path == pack() ? get.bytes : 0;
        return bytes;
    }
    // The bytes of the whole frames of the chunks 0.3.0 lacks: what an update without deltas asks for.
    qint64 wholeFrameBytes() const {
        qint64 bytes = 0;
        for (const QString& chunk : missing_)
            bytes += deltaIndex_.stored.value(chunk);
        return bytes;
    }
    // The same with every delta instead of its whole frame.
    qint64 withDeltasBytes() const {
        qint64 bytes = 0;
        for (const QString& chunk : missing_)
            bytes += deltaIndex_.deltas.contains(chunk) ? deltaIndex_.deltas.value(chunk).stored : deltaIndex_.stored.value(chunk);
        return bytes;
    }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(root);
        ZENTHO_REQUIRE(nginx);
        publishAndInstall030();
        const QString index030 = path(QStringLiteral("out-builds-0.3.0/zentho-0.3.0-macos-arm64.chunks.json"));
        QCOMPARE(TestFiles::readFile(index030), index030_);
        const Run packed = packAndPublish(k031, QStringLiteral("buildsd"), QStringLiteral("store"),
                                          {QStringLiteral("--chunk-pack"), QStringLiteral("--delta-from"), index030});
        QVERIFY2(packed.ok(), packed.errors.constData());
        delta031_ = ReleaseManifest::decode(TestFiles::readFile(packed.line(QStringLiteral("manifest"))));
        deltaIndex_ = ChunkIndex::decode(TestFiles::readFile(packed.line(QStringLiteral("index"))));
        deltas_ = deltaIndex_.deltas.size();
        qInfo("pack --delta-from: %s", qPrintable(packed.line(QStringLiteral("deltas"))));
        // The level script's changed chunk and pack1's around its rewritten 16 KiB; the README
        // compresses to fewer bytes than naming its base takes, and the new map has nothing to be
        // made from.
        QVERIFY2(deltas_ >= 2 && deltas_ < missing_.size(), qPrintable(QString::number(deltas_)));
    }
    void init() {
        restoreInstalled030();
    }
    void cleanup() { adopted_.reset(); }

    // Every chunk with a delta comes as its delta, the others whole, each once, from the pack
    // alone; the pack sends the deltas' bytes where the whole chunks would take many more (a
    // multipart answer adds a few hundred bytes a part), and the build is the archive's.
    void anUpdateFetchesTheDeltasOfTheChunksItLacks() {
        QCOMPARE(press(manifest()), build(k031));
        const QList<Get> gets = getsSinceStart();
        const QSet<QString> viaDeltas = setOf(packedDeltaGets(gets, pack(), deltaIndex_));
        const QStringList whole = packedChunkGets(gets, pack(), deltaIndex_);
        QCOMPARE(qint64(viaDeltas.size()), deltas_);
        QCOMPARE(printed(viaDeltas + setOf(whole)), printed(missing_));
        QVERIFY2((viaDeltas & setOf(whole)).isEmpty(), qPrintable(printed(viaDeltas & setOf(whole))));
        QCOMPARE(chunkGets(gets, QStringLiteral("/chunks")), QStringList());
        QVERIFY(!fetched(gets, delta031_.url.path()));
        const qint64 sent = packBytesSent(gets);
        qInfo("the pack sent %lld bytes for deltas and chunks of %lld bytes; the whole chunks take %lld", sent,
              withDeltasBytes(), wholeFrameBytes());
        QVERIFY2(sent >= withDeltasBytes() && sent < withDeltasBytes() + 4096, qPrintable(QString::number(sent)));
        QVERIFY(withDeltasBytes() + 40000 < wholeFrameBytes());
        verifyInstalled031();
    }

    // The twin: with no index kept for 0.3.0, where its chunks lie is not known without reading
    // it, which a delta is not worth; every chunk comes whole, and the build is the same.
    void withoutTheBasesOnThisDiskTheWholeChunksCome() {
        QDir indexes(root() + QStringLiteral("/indexes"));
        const QStringList kept = indexes.entryList({QStringLiteral("*.json")}, QDir::Files);
        QVERIFY(!kept.isEmpty());
        for (const QString& file : kept)
            QVERIFY(indexes.remove(file));
        QVERIFY(!BuildIndexes(root()).read(build(k030)));
        QCOMPARE(press(manifest()), build(k031));
        const QList<Get> gets = getsSinceStart();
        QCOMPARE(packedDeltaGets(gets, pack(), deltaIndex_), QStringList());
        QCOMPARE(printed(setOf(packedChunkGets(gets, pack(), deltaIndex_))), printed(missing_));
        QVERIFY(packBytesSent(gets) >= wholeFrameBytes());
        verifyInstalled031();
    }

    // A saved build changed on disk after its index was kept (same size, other bytes) makes
    // other bytes of a delta, which fail the chunk's name: nothing of it reaches 0.3.1, which
    // comes from its archive, as the archive has it.
    void aBaseChangedOnDiskNeverMakesAChunk() {
        const QString levels = build(k030) + QStringLiteral("/data/levels.txt");
        QByteArray bytes = TestFiles::readFile(levels);
        bytes.replace("level 9000: ", "LEVEL 9000: ");
        QFile file(levels);
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size());
        file.close();
        QCOMPARE(press(manifest()), build(k031));
        const QList<Get> gets = getsSinceStart();
        QVERIFY(!packedDeltaGets(gets, pack(), deltaIndex_).isEmpty());
        QVERIFY(fetched(gets, delta031_.url.path()));
        verifyInstalled031();
    }
};

QTEST_GUILESS_MAIN(TestChunkDeltaInstalls)
#include "TestChunkDeltaInstalls.moc"
