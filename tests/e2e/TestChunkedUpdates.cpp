// The real launcher installing 0.3.0 from its chunks alone and updating it to 0.3.1, both published
// by zentho-release into one chunk store: it fetches only the chunks it lacks and puts together
// exactly the archive's build. A damaged chunk, an index that is not the one the manifest names,
// an index that reaches out of the build and a launcher killed halfway (updating, or installing
// for the first time) all end in that same build too, from the archive or from what the killed
// try kept. Observed through nginx's access log, the game that starts
// and what is on disk afterwards.

#include "ChunkTraffic.h"
#include "AdoptedProcesses.h"
#include "LauncherBundles.h"
#include "LauncherStorage.h"
#include "TestRequirements.h"
#include "RealLauncher.h"
#include "ReleaseTool.h"
#include "TestArchives.h"
#include "TestFiles.h"
#include "TestServer.h"
#include "TreeSnapshot.h"

#include "formats/ChunkIndex.h"
#include "formats/CompressedChunkIndex.h"
#include "formats/ReleaseManifest.h"
#include "formats/ChunkIndex.h"
#include "storage/BuildIndexes.h"
#include "storage/InstalledState.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>

#include <optional>

#include <algorithm>
#include <csignal>
#include <memory>

using namespace ChunkTraffic;
using ReleaseTool::Run;

namespace {

const QString kInvite = QStringLiteral("zentho://invite/chunked-updates");
const QString kNoLauncherUpdate = QStringLiteral("file:///dev/null/no-launcher-manifest.json");
const QString k030 = QStringLiteral("0.3.0");
const QString k031 = QStringLiteral("0.3.1");
const QByteArray kSentinel = "not the launcher's\n";

// The stand-in game: records where it was started from, then stays up past the launcher's watch
// over its start.
const QByteArray kGame = "{\n"
                         "  printf 'cwd=%s\\n' \"$(pwd -P)\"\n"
                         "  printf 'pid=%s\\n' \"$$\"\n"
                         "} > \"$ZENTHO_STANDIN_RECORD.tmp\"\n"
                         "mv \"$ZENTHO_STANDIN_RECORD.tmp\" \"$ZENTHO_STANDIN_RECORD\"\n"
                         "exec sleep 3\n";

QSet<QString> setOf(const QStringList& list) { return QSet<QString>(list.cbegin(), list.cend()); }

// A set in a stable order, for comparisons that show what differs.
QString printed(const QSet<QString>& set) {
    QStringList list(set.cbegin(), set.cend());
    list.sort();
    return list.join(QLatin1Char(' '));
}

} // namespace

class TestChunkedUpdates : public QObject {
    Q_OBJECT

    std::unique_ptr<TestServer> server_;
    std::unique_ptr<QTemporaryDir> dir_;
    QByteArray index030_;
    QByteArray index031_;
    ReleaseManifest manifest031_;
    qint64 chunks031_ = 0;
    QSet<QString> missing_; // the chunks of 0.3.1 that 0.3.0 lacks
    QStringList expected_;  // a fresh extraction of the 0.3.1 archive
    QStringList expected030_;
    ReleaseManifest manifest030_;
    qsizetype logMark_ = 0; // where the access log stood when the last launcher started
    std::optional<AdoptedProcesses> adopted_;

    QString path(const QString& name) const { return dir_->filePath(name); }
    QString data() const { return path(QStringLiteral("data")); }
    QString root() const { return LauncherStorage(data()).root(); }
    QString build(const QString& version) const { return root() + QStringLiteral("/versions/") + version; }
    QString record() const { return path(QStringLiteral("record")); }
    QString www() const { return server_->documentRoot(); }
    QString archivePath() const { return manifest031_.url.path(); }
    std::optional<QByteArray> keptIndexOf031() const { return BuildIndexes(root()).read(build(k031)); }

    // 0.3.0: the game, text at the top, incompressible packs, text that compresses, a relative
    // symlink, an empty folder and a nested folder with a script: about 4 MiB.
    void makeBuild030(const QString& folder) const {
        TestFiles::writeScript(folder + QStringLiteral("/zentho"), kGame);
        QByteArray readme = "ZENTHO 0.3.0\n";
        while (readme.size() < 3000)
            readme += "Thanks for playing. ";
        TestFiles::writeFile(folder + QStringLiteral("/README.txt"), readme);
        for (int i = 0; i < 3; ++i)
            TestFiles::writeFile(folder + QStringLiteral("/data/pack%1.bin").arg(i),
                                 TestFiles::randomBytes(1 << 20, quint32(i + 1)));
        QByteArray levels;
        for (int line = 0; levels.size() < 600000; ++line)
            levels += "level " + QByteArray::number(line) + ": spawn=" + QByteArray::number(line * 7 % 113) + "\n";
        TestFiles::writeFile(folder + QStringLiteral("/data/levels.txt"), levels);
        QVERIFY(QFile::link(QStringLiteral("levels.txt"), folder + QStringLiteral("/data/current")));
        TestFiles::makeFolder(folder + QStringLiteral("/data/empty"));
        TestFiles::writeFile(folder + QStringLiteral("/data/maps/intro.map"), TestFiles::randomBytes(300000, 11));
        TestFiles::writeScript(folder + QStringLiteral("/data/maps/tools/bake.sh"), "exit 0\n");
    }
    // 0.3.1: the README's version, 16 KiB rewritten inside one pack, one level changed, a new map.
    void makeBuild031(const QString& from, const QString& folder) const {
        ReleaseTool::copyTree(from, folder);
        QByteArray readme = TestFiles::readFile(folder + QStringLiteral("/README.txt"));
        TestFiles::writeFile(folder + QStringLiteral("/README.txt"), readme.replace("0.3.0", "0.3.1"));
        QFile pack(folder + QStringLiteral("/data/pack1.bin"));
        QVERIFY(pack.open(QIODevice::ReadWrite) && pack.seek(500000));
        pack.write(TestFiles::randomBytes(16384, 99));
        pack.close();
        QByteArray levels = TestFiles::readFile(folder + QStringLiteral("/data/levels.txt"));
        TestFiles::writeFile(folder + QStringLiteral("/data/levels.txt"),
                             levels.replace("level 9000: ", "level 9000: boss "));
        TestFiles::writeFile(folder + QStringLiteral("/data/maps/arena.map"), TestFiles::randomBytes(500000, 12));
    }
    // Packs and publishes `version` into the store `store`, served at /<store>, its archive and
    // index at /<builds>.
    Run packAndPublish(const QString& version, const QString& builds = QStringLiteral("builds"),
                       const QString& store = QStringLiteral("store"), const QStringList& extra = {}) {
        const QString storeUrl = store == QLatin1String("store") ? QStringLiteral("/chunks") : QLatin1Char('/') + store;
        return ReleaseTool::packChunkedAndPublish(
            path(QStringLiteral("game-") + version), version,
            {server_->url(QLatin1Char('/') + builds).toString(), path(QStringLiteral("out-") + builds + QLatin1Char('-') + version),
             path(store), server_->url(storeUrl).toString(), www()},
            extra);
    }
    // Serves `manifest` and returns its address.
    QString serve(const QString& name, const ReleaseManifest& manifest) const {
        server_->writeFile(QStringLiteral("m/") + name + QStringLiteral(".json"), manifest.encode());
        return server_->url(QStringLiteral("/m/") + name + QStringLiteral(".json")).toString();
    }
    std::unique_ptr<RealLauncher> launcher(const QString& manifest) {
        auto real = std::make_unique<RealLauncher>(LauncherBundles::builtBundle(), data());
        real->useManifests(manifest, kNoLauncherUpdate);
        real->recordGameStartIn(record());
        real->environment().insert(QStringLiteral("TMPDIR"), path(QStringLiteral("tmp")));
        real->environment().insert(QStringLiteral("XDG_RUNTIME_DIR"), path(QStringLiteral("runtime")));
        QFile::remove(record());
        logMark_ = server_->accessLog().size();
        return real;
    }
    // One press of the main button; the folder of the game that started, or empty.
    QString press(const QString& manifest) {
        std::unique_ptr<RealLauncher> real = launcher(manifest);
        real->start(*server_, kInvite);
        const std::optional<int> exit = real->waitForExit(60000);
        const QByteArray recorded = RealLauncher::waitForGameRecord(record(), exit ? 20000 : 1000);
        if (exit != std::optional<int>(0) || recorded.isEmpty())
            qWarning("launcher ended with %d: %s", exit.value_or(-1), real->errors().constData());
        if (recorded.isEmpty())
            return {};
        RealLauncher::terminateAndCollect(RealLauncher::recordedPid(recorded));
        return RealLauncher::recordedFolder(recorded);
    }
    QList<Get> getsSinceStart() const { return getsIn(server_->accessLog().mid(logMark_)); }
    QSet<QString> keptChunks() const { return setOf(QDir(LauncherStorage(data()).chunks()).entryList(QDir::Files)); }
    // 0.3.1 is exactly the archive's build, and nothing of the way there is left in the storage.
    void verifyInstalled031() {
        QCOMPARE(TreeSnapshot::of(build(k031)), expected_);
        verifyNothingOfTheWayLeft();
    }
    void verifyNothingOfTheWayLeft() {
        QVERIFY(!QFileInfo::exists(root() + QStringLiteral("/chunks")));
        QCOMPARE(QDir(root()).entryList({QStringLiteral("staging-*"), QStringLiteral("chunk-build-*")},
                                        QDir::AllEntries | QDir::Hidden),
                 QStringList());
    }
    // The chunks of the files a killed install had written whole into its folder.
    QSet<QString> chunksOfFilesWritten(const QByteArray& indexBytes) const {
        const QStringList partial = QDir(root()).entryList({QStringLiteral("chunk-build-*")}, QDir::Dirs);
        if (partial.size() != 1)
            return {};
        QSet<QString> chunks;
        for (const ChunkIndexEntry& entry : ChunkIndex::decode(indexBytes).entries) {
            const QString file = root() + QLatin1Char('/') + partial.first() + QLatin1Char('/') + entry.path;
            if (entry.kind == ChunkIndexEntry::Kind::file && QFileInfo(file).isFile() && !QFileInfo(file).isSymLink() &&
                TestArchives::sha256sum(file) == entry.sha256) {
                for (const ChunkRef& chunk : entry.chunks)
                    chunks.insert(chunk.sha256);
            }
        }
        return chunks;
    }
    // Everything in the test's folder but the launcher's storage and scratch folders.
    QStringList outside() const {
        QStringList lines = TreeSnapshot::of(dir_->path());
        static const QRegularExpression ours(QStringLiteral("^(data|tmp|runtime|record)\\b"));
        lines.removeIf([](const QString& line) { return ours.match(line).hasMatch(); });
        return lines;
    }

    // Presses with `slow` (chunks trickling in), kills the launcher once the storage holds a few
    // of the missing chunks, and presses again with `manifest`: only the chunks the first try did not have
    // come again, each once, never the archive, and the build is `expected`.
    void verifyKilledInstallGoesOn(const ReleaseManifest& slow, const ReleaseManifest& manifest, const QByteArray& index,
                                   const QSet<QString>& missing, const QString& version, const QStringList& expected) {
        const qsizetype logBefore = server_->accessLog().size();
        std::unique_ptr<RealLauncher> first = launcher(serve(QStringLiteral("slow-") + version, slow));
        first->start(*server_, kInvite);
        const qint64 pid = first->launcherPid();
        QVERIFY(pid > 0);
        const auto sentSoFar = [&] {
            QSet<QString> whole;
            for (const Get& get : getsIn(server_->accessLog().mid(logBefore))) {
                if (get.path.startsWith(QLatin1String("/trickle/chunks/")) && get.status == 200 &&
                    get.bytes == QFileInfo(www() + get.path.mid(8)).size())
                    whole.insert(chunkOf(get.path));
            }
            return whole;
        };
        // What the storage holds of the missing chunks: kept in the cache, or in files written whole.
        const auto hadSoFar = [&] { return keptChunks() + (chunksOfFilesWritten(index) & missing); };
        // Killed once it holds some: whichever were still on their way then, whole or cut, count
        // as not had, which is what the storage shows after the kill.
        QVERIFY2(QTest::qWaitFor([&] { return hadSoFar().size() >= 2; }, 120000), qPrintable(printed(hadSoFar())));
        ::kill(pid_t(pid), SIGKILL);
        first->waitForExit(10000);
        const QSet<QString> had = hadSoFar();
        qInfo("killed with %lld of %lld missing chunks had (%lld kept, the rest written)", qint64(had.size()),
              qint64(missing.size()), qint64(keptChunks().size()));
        QVERIFY2(!had.isEmpty() && had.size() < missing.size(), qPrintable(printed(had)));
        QVERIFY2(missing.contains(had), qPrintable(printed(had - missing)));
        // Only a chunk the server sent whole was had. nginx logs a request once its body is sent,
        // which may be just after the launcher has the last bytes.
        QVERIFY2(QTest::qWaitFor([&] { return sentSoFar().contains(had); }, 30000),
                 qPrintable(printed(had - sentSoFar())));

        QCOMPARE(press(serve(version, manifest)), build(version));
        const QList<Get> gets = getsSinceStart();
        QVERIFY(!fetched(gets, manifest.url.path()));
        const QStringList again = chunkGets(gets, QStringLiteral("/chunks"));
        const QSet<QString> second = setOf(again);
        QCOMPARE(qint64(again.size()), qint64(second.size()));
        QCOMPARE(printed(second), printed(missing - had));
        const QSet<QString> inFlight = sentSoFar() - had;
        qInfo("first try: %lld chunks sent whole, %lld of them still on their way at the kill; second try: %lld "
              "chunk GETs",
              qint64(sentSoFar().size()), qint64(inFlight.size()), qint64(second.size()));
        QVERIFY(second.contains(inFlight));
        QCOMPARE(TreeSnapshot::of(build(version)), expected);
        verifyNothingOfTheWayLeft();
    }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(root);
        ZENTHO_REQUIRE(nginx);
        QVERIFY(RealLauncher::becomeSubreaper());
        QVERIFY(QFileInfo(RealLauncher::executableOf(LauncherBundles::builtBundle())).isExecutable());
        QVERIFY2(QFileInfo::exists(LauncherBundles::releaseTool()), "zentho-release is not built");
        server_ = std::make_unique<TestServer>();
        dir_ = std::make_unique<QTemporaryDir>();
        TestFiles::makeFolder(path(QStringLiteral("tmp")));
        TestFiles::makeFolder(path(QStringLiteral("runtime")));
        QVERIFY(QFile::setPermissions(path(QStringLiteral("runtime")),
                                      QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
        TestFiles::writeFile(path(QStringLiteral("outside/sentinel")), kSentinel);

        makeBuild030(path(QStringLiteral("game-0.3.0")));
        makeBuild031(path(QStringLiteral("game-0.3.0")), path(QStringLiteral("game-0.3.1")));
        const Run first = packAndPublish(k030);
        QVERIFY2(first.ok(), first.errors.constData());
        const Run second = packAndPublish(k031);
        QVERIFY2(second.ok(), second.errors.constData());
        index030_ = TestFiles::readFile(first.line(QStringLiteral("index")));
        index031_ = TestFiles::readFile(second.line(QStringLiteral("index")));
        chunks031_ = chunksOf(index031_).size();
        missing_ = chunksOf(index031_) - chunksOf(index030_);
        manifest031_ = ReleaseManifest::decode(TestFiles::readFile(second.line(QStringLiteral("manifest"))));
        QVERIFY(manifest031_.chunks);
        qInfo("0.3.1: %lld chunks, %lld of them not in 0.3.0", chunks031_, qint64(missing_.size()));
        QVERIFY(missing_.size() >= 6 && missing_.size() * 3 < chunks031_);

        TestFiles::makeFolder(path(QStringLiteral("expected")));
        TestArchives::tar({QStringLiteral("-xzf"), second.line(QStringLiteral("archive")), QStringLiteral("-C"),
                           path(QStringLiteral("expected"))});
        expected_ = TreeSnapshot::of(path(QStringLiteral("expected")));
        QVERIFY(expected_.contains(QStringLiteral("data/empty folder 0755")));
        QVERIFY(expected_.contains(QStringLiteral("data/current link 0777 -> levels.txt")));

        TestFiles::makeFolder(path(QStringLiteral("expected-0.3.0")));
        TestArchives::tar({QStringLiteral("-xzf"), first.line(QStringLiteral("archive")), QStringLiteral("-C"),
                           path(QStringLiteral("expected-0.3.0"))});
        expected030_ = TreeSnapshot::of(path(QStringLiteral("expected-0.3.0")));

        // A first install has nothing on this disk to take chunks from: every chunk of 0.3.0
        // once, never the archive, the archive's tree, and 0.3.0's index kept.
        manifest030_ = ReleaseManifest::decode(TestFiles::readFile(first.line(QStringLiteral("manifest"))));
        QCOMPARE(press(serve(k030, manifest030_)), build(k030));
        const QList<Get> gets = getsSinceStart();
        QVERIFY(fetched(gets, manifest030_.chunks->index.path()));
        QVERIFY(!fetched(gets, manifest030_.url.path()));
        const QStringList chunks = chunkGets(gets, QStringLiteral("/chunks"));
        QCOMPARE(qint64(chunks.size()), qint64(chunksOf(index030_).size()));
        QCOMPARE(printed(setOf(chunks)), printed(chunksOf(index030_)));
        QCOMPARE(TreeSnapshot::of(build(k030)), expected030_);
        verifyNothingOfTheWayLeft();
        QCOMPARE(BuildIndexes(root()).read(build(k030)), std::optional<QByteArray>(index030_));
        ReleaseTool::copyTree(data(), path(QStringLiteral("installed-0.3.0")));
    }
    void init() {
        adopted_.emplace();
        QVERIFY(QDir(data()).removeRecursively());
        ReleaseTool::copyTree(path(QStringLiteral("installed-0.3.0")), data());
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

    // A first install killed while chunks trickle in, started again: the same, and the build is
    // the archive's tree with the state file naming it.
    void killedFirstInstallFetchesOnlyWhatItHadNot() {
        QVERIFY(QDir(data()).removeRecursively());
        ReleaseManifest slow = manifest030_;
        slow.chunks->store = server_->url(QStringLiteral("/trickle/chunks"));
        verifyKilledInstallGoesOn(slow, manifest030_, index030_, chunksOf(index030_), k030, expected030_);
        QCOMPARE(TestFiles::readFile(LauncherStorage(data()).state()),
                 (InstalledState{k030, build(k030)}).encode());
    }

    // An index that is not the one the manifest names is never used    // An index that is not the one the manifest names is never used, even a good one of another
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
