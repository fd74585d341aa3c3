#pragma once

// The real launcher and zentho-release over one chunk store: 0.3.0 and 0.3.1 of a small game,
// packed and published, 0.3.0 installed from its chunks, and the ways to press, kill and look at
// what came over the wire and what is on disk.

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

namespace ChunkedReleaseData {

inline const QString kInvite = QStringLiteral("zentho://invite/chunked-updates");
inline const QString kNoLauncherUpdate = QStringLiteral("file:///dev/null/no-launcher-manifest.json");
inline const QString k030 = QStringLiteral("0.3.0");
inline const QString k031 = QStringLiteral("0.3.1");
inline const QByteArray kSentinel = "not the launcher's\n";

// The stand-in game: records where it was started from, then stays up past the launcher's watch
// over its start.
inline const QByteArray kGame = "{\n"
                         "  printf 'cwd=%s\\n' \"$(pwd -P)\"\n"
                         "  printf 'pid=%s\\n' \"$$\"\n"
                         "} > \"$ZENTHO_STANDIN_RECORD.tmp\"\n"
                         "mv \"$ZENTHO_STANDIN_RECORD.tmp\" \"$ZENTHO_STANDIN_RECORD\"\n"
                         "exec sleep 3\n";

inline QSet<QString> setOf(const QStringList& list) { return QSet<QString>(list.cbegin(), list.cend()); }

// A set in a stable order, for comparisons that show what differs.
inline QString printed(const QSet<QString>& set) {
    QStringList list(set.cbegin(), set.cend());
    list.sort();
    return list.join(QLatin1Char(' '));
}

} // namespace ChunkedReleaseData

using namespace ChunkTraffic;
using namespace ChunkedReleaseData;
using ReleaseTool::Run;

class ChunkedReleaseFixture : public QObject {
protected:

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
    // With a pack in `manifest`, the chunks come from it, and what the second try asks for is
    // read from the ranges of its requests.
    void verifyKilledInstallGoesOn(const ReleaseManifest& slow, const ReleaseManifest& manifest, const QByteArray& index,
                                   const QSet<QString>& missing, const QString& version, const QStringList& expected) {
        const bool packed = manifest.chunks->pack.isValid();
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
        // which may be just after the launcher has the last bytes; a pack's answer still under
        // way at the kill is logged only then.
        if (!packed)
            QVERIFY2(QTest::qWaitFor([&] { return sentSoFar().contains(had); }, 30000),
                     qPrintable(printed(had - sentSoFar())));

        QCOMPARE(press(serve(version, manifest)), build(version));
        const QList<Get> gets = getsSinceStart();
        QVERIFY(!fetched(gets, manifest.url.path()));
        const QStringList again = packed ? packedChunkGets(gets, manifest.chunks->pack.path(), ChunkIndex::decode(index))
                                         : chunkGets(gets, QStringLiteral("/chunks"));
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


    // Each test starts from the storage publishAndInstall030() left, its children adopted.
    void restoreInstalled030() {
        adopted_.emplace();
        QVERIFY(QDir(data()).removeRecursively());
        ReleaseTool::copyTree(path(QStringLiteral("installed-0.3.0")), data());
    }

    // Packs and publishes 0.3.0 with its chunks packed too and 0.3.1 into the store alone, and
    // installs 0.3.0 from its pack, keeping that storage to start each test from.
    void publishAndInstall030() {
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
        const Run first = packAndPublish(k030, QStringLiteral("builds"), QStringLiteral("store"), {QStringLiteral("--chunk-pack")});
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
        // once from its pack in a request or two, none from the store, never the archive, the
        // archive's tree, and 0.3.0's index kept.
        manifest030_ = ReleaseManifest::decode(TestFiles::readFile(first.line(QStringLiteral("manifest"))));
        QVERIFY(manifest030_.chunks && manifest030_.chunks->pack.isValid());
        QCOMPARE(press(serve(k030, manifest030_)), build(k030));
        const QList<Get> gets = getsSinceStart();
        QVERIFY(fetched(gets, manifest030_.chunks->index.path()));
        QVERIFY(!fetched(gets, manifest030_.url.path()));
        QCOMPARE(chunkGets(gets, QStringLiteral("/chunks")), QStringList());
        const QStringList chunks = packedChunkGets(gets, manifest030_.chunks->pack.path(), ChunkIndex::decode(index030_));
        QCOMPARE(qint64(chunks.size()), qint64(chunksOf(index030_).size()));
        QCOMPARE(printed(setOf(chunks)), printed(chunksOf(index030_)));
        const auto packGets = std::count_if(gets.cbegin(), gets.cend(),
                                            [&](const Get& get) { return get.path == manifest030_.chunks->pack.path(); });
        qInfo("0.3.0 installed from its pack in %lld requests for %lld chunks", qint64(packGets), qint64(chunks.size()));
        QVERIFY(packGets >= 1 && packGets <= 2);
        QCOMPARE(TreeSnapshot::of(build(k030)), expected030_);
        verifyNothingOfTheWayLeft();
        QCOMPARE(BuildIndexes(root()).read(build(k030)), std::optional<QByteArray>(index030_));
        ReleaseTool::copyTree(data(), path(QStringLiteral("installed-0.3.0")));
    }
};
