// A saved build with a kept index is looked at before it starts, in every way the model starts
// one: the main command on a release of the same version, its fallback, and "PLAY THIS VERSION".
// A build that lost files is put right from its release's chunk store first, under its own status,
// fetching only what it lost; a build that cannot be put right now, and every whole build, start
// as they always did. Real nginx over HTTPS, real chunk store, real game processes; each press of
// the main command runs in its own process (see FlowScenario).

#include "ChunkTraffic.h"
#include "FlowScenario.h"
#include "FlowStatuses.h"
#include "GameWatch.h"
#include "LauncherModelProbe.h"
#include "ManifestJson.h"
#include "RecordingPlatform.h"
#include "ScopedDataHome.h"
#include "StandinGames.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TestServer.h"

#include "formats/ChunkStore.h"
#include "formats/TreeChunker.h"
#include "storage/BuildCheck.h"
#include "storage/BuildIndexes.h"
#include "storage/InstalledState.h"

#include <QDir>
#include <QGuiApplication>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

using namespace FlowStatuses;

namespace {

const QString kVersion = QStringLiteral("0.3.0");
const QString kRepairing = QStringLiteral("Repairing ZENTHO...");
const QString kBundleExe = QStringLiteral("/opt/games/ZenthoLauncher.app/Contents/MacOS/ZenthoLauncher");

} // namespace

class TestRepairBeforeStart : public QObject {
    Q_OBJECT

    std::unique_ptr<TestServer> server_;
    std::unique_ptr<ScopedDataHome> home_;
    std::unique_ptr<QTemporaryDir> scratch_;
    QProcessEnvironment env_;
    QByteArray index_;
    QString store_; // the build's chunk store, a folder of the server's document root
    int stores_ = 0;
    qsizetype logMark_ = 0;

    QString build() const { return home_->versionsRoot() + QLatin1Char('/') + kVersion; }
    QString at(const QString& path) const { return build() + QLatin1Char('/') + path; }
    QString record() const { return scratch_->filePath(QStringLiteral("game.record")); }

    // 0.3.0 saved and current, its index and chunk store kept as an install from chunks keeps
    // them, and its chunks published in a store of its own on the server.
    void saveBuildWithKeptIndex() {
        StandinGames::recorder(build(), record(), StandinGames::untilEnded);
        TestFiles::writeFile(at(QStringLiteral("data/level.pak")), TestFiles::randomBytes(400 * 1024, 9));
        TestFiles::writeFile(at(QStringLiteral("data/notes.txt")), "spawn at the gate\n");
        QVERIFY(QFile::link(QStringLiteral("level.pak"), at(QStringLiteral("data/current"))));
        store_ = QStringLiteral("store-%1").arg(++stores_);
        const ChunkIndex index = TreeChunker::index(
            build(), kDefaultChunkSizes,
            [&](const ChunkIndexEntry&, const ChunkRef& chunk, std::uint64_t, const unsigned char* data, std::size_t size) {
                server_->writeFile(store_ + QLatin1Char('/') + ChunkStore::relativePath(chunk.sha256),
                                   ChunkStore::compress(reinterpret_cast<const char*>(data), size));
            });
        index_ = index.encode();
        const BuildIndexes kept(home_->launcherRoot());
        QVERIFY(kept.write(build(), index_));
        QVERIFY(kept.writeStore(build(), server_->url(QLatin1Char('/') + store_)));
        TestFiles::writeFile(home_->statePath(), InstalledState{kVersion, build()}.encode());
    }
    // The release the server names is the build's own.
    void serveSameVersion() {
        server_->writeFile(QStringLiteral("game.json"),
                           ManifestJson(kVersion, server_->url(QStringLiteral("/none.tar.gz")).toString(),
                                        QString(64, QLatin1Char('0'))));
    }
    // Loses the notes, cuts the level pack short.
    void damageBuild() {
        QVERIFY(QFile::remove(at(QStringLiteral("data/notes.txt"))));
        QVERIFY(QFile::resize(at(QStringLiteral("data/level.pak")), 1000));
    }
    // The chunks of the files damageBuild() hits: all that a repair may fetch, random bytes
    // sharing none with the rest of the build.
    QSet<QString> chunksOfDamagedFiles() const {
        QSet<QString> chunks;
        for (const ChunkIndexEntry& entry : ChunkIndex::decode(index_).entries)
            if (entry.path == QStringLiteral("data/notes.txt") || entry.path == QStringLiteral("data/level.pak"))
                for (const ChunkRef& chunk : entry.chunks)
                    chunks.insert(chunk.sha256);
        return chunks;
    }
    std::vector<BuildDamage> fullCheck() const {
        return checkBuild(build(), ChunkIndex::decode(index_), BuildCheckDepth::full, QStringLiteral("zentho"));
    }
    void markLog() {
        server_->awaitLogged();
        logMark_ = server_->accessLog().size();
    }
    QStringList chunkGetsSinceMark() const {
        server_->awaitLogged();
        return ChunkTraffic::chunkGets(ChunkTraffic::getsIn(server_->accessLog().mid(logMark_)),
                                       QLatin1Char('/') + store_);
    }
    void takeStoreAway() {
        QVERIFY(QDir(server_->documentRoot()).rename(store_, store_ + QStringLiteral("-aside")));
    }
    QString startedIn() const {
        const auto started = StandinGames::waitForRecord(record());
        return started ? started->cwd : QString();
    }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(nginx);
        server_ = std::make_unique<TestServer>();
        TestServer::trustInThisProcess();
    }
    void cleanupTestCase() { server_.reset(); }

    void init() {
        home_ = std::make_unique<ScopedDataHome>();
        scratch_ = std::make_unique<QTemporaryDir>();
        server_->writeFile(QStringLiteral("launcher.json"),
                           ManifestJson::launcher(QStringLiteral("0.1.190"), QStringLiteral("https://127.0.0.1/x"),
                                                  QStringLiteral("0")));
        env_ = QProcessEnvironment::systemEnvironment();
        env_.insert(QStringLiteral("ZENTHO_TEST_BUNDLE_EXE"), scratch_->filePath(QStringLiteral("ZL.app/Contents/MacOS/ZenthoLauncher")));
        env_.insert(QStringLiteral("ZENTHO_UPDATE_MANIFEST"), server_->url(QStringLiteral("/game.json")).toString());
        env_.insert(QStringLiteral("ZENTHO_LAUNCHER_UPDATE_MANIFEST"), server_->url(QStringLiteral("/launcher.json")).toString());
        saveBuildWithKeptIndex();
        serveSameVersion();
        markLog();
    }
    void cleanup() {
        scratch_.reset();
        home_.reset();
    }

    void damagedBuildIsRepairedBeforeTheServersReleaseStarts() {
        damageBuild();
        const FlowOutcome out = FlowScenario::run(env_);
        QCOMPARE(out.statuses, (QStringList{kChecking, kCheckingGame, kRepairing, kStarting}));
        QCOMPARE(out.quitCount, 1);
        QCOMPARE(startedIn(), build());
        QCOMPARE(fullCheck(), std::vector<BuildDamage>());
        const QStringList fetched = chunkGetsSinceMark();
        QCOMPARE(QSet<QString>(fetched.cbegin(), fetched.cend()), chunksOfDamagedFiles());
        QCOMPARE(fetched.size(), chunksOfDamagedFiles().size());
    }
    // The twin: with its chunks nowhere to be had, the damaged build starts as it is, no failure
    // shown, the reason left in the log.
    void buildThatCannotBeRepairedStartsAsItIs() {
        damageBuild();
        const std::vector<BuildDamage> before = fullCheck();
        takeStoreAway();
        const FlowOutcome out = FlowScenario::run(env_);
        QCOMPARE(out.statuses, (QStringList{kChecking, kCheckingGame, kRepairing, kStarting}));
        QCOMPARE(out.quitCount, 1);
        QCOMPARE(startedIn(), build());
        QCOMPARE(fullCheck(), before);
        QVERIFY2(out.childErrors.contains(QStringLiteral("could not be repaired")), qPrintable(out.childErrors));
    }
    // The twin: a whole build starts exactly as before builds were checked, and fetches nothing.
    void wholeBuildStartsAsBeforeWithoutAnyChunk() {
        const FlowOutcome out = FlowScenario::run(env_);
        QCOMPARE(out.statuses, (QStringList{kChecking, kCheckingGame, kStarting}));
        QCOMPARE(out.quitCount, 1);
        QCOMPARE(startedIn(), build());
        QCOMPARE(chunkGetsSinceMark(), QStringList());
    }
    // A whole build whose bytes changed in place is not read before a start: it starts as it is.
    void changedBytesOfTheSameLengthAreNotLookedFor() {
        QFile pack(at(QStringLiteral("data/level.pak")));
        QVERIFY(pack.open(QIODevice::ReadWrite) && pack.seek(1000));
        QCOMPARE(pack.write("X"), qint64(1));
        pack.close();
        const FlowOutcome out = FlowScenario::run(env_);
        QCOMPARE(out.statuses, (QStringList{kChecking, kCheckingGame, kStarting}));
        QCOMPARE(chunkGetsSinceMark(), QStringList());
        QCOMPARE(fullCheck().size(), std::size_t(1));
    }

    // The fallback: no manifest to be had, and the current build lost its executable, which the
    // repair brings back before the fallback looks for it.
    void fallbackRepairsTheCurrentBuildFirst() {
        QVERIFY(QFile::remove(at(QStringLiteral("zentho"))));
        QFile::remove(server_->documentRoot() + QStringLiteral("/game.json"));
        const FlowOutcome out = FlowScenario::run(env_);
        QCOMPARE(out.statuses, (QStringList{kChecking, kCheckingGame, kRepairing, kFallback}));
        QCOMPARE(out.quitCount, 1);
        QCOMPARE(startedIn(), build());
        QCOMPARE(fullCheck(), std::vector<BuildDamage>());
    }
    // Its twin: unrepaired, the build without its executable ends the press as it always did.
    void fallbackWithoutTheChunksEndsAsBefore() {
        QVERIFY(QFile::remove(at(QStringLiteral("zentho"))));
        QFile::remove(server_->documentRoot() + QStringLiteral("/game.json"));
        takeStoreAway();
        const FlowOutcome out = FlowScenario::run(env_);
        QCOMPARE(out.statuses.mid(0, 3), (QStringList{kChecking, kCheckingGame, kRepairing}));
        QCOMPARE(out.statuses.size(), 4);
        QVERIFY2(out.statuses.last().startsWith(QStringLiteral("Update failed: ")), qPrintable(out.statuses.last()));
        QCOMPARE(out.quitCount, 0);
        QCOMPARE(out.busy, false);
    }

    // "PLAY THIS VERSION": the picked build is repaired under its own status, the download shown
    // on the progress divider, then started.
    void pickedBuildIsRepairedBeforeItStarts() {
        damageBuild();
        GameWatch games;
        RecordingPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        LauncherModelProbe::setStartupWatch(model, games.watch());
        QStringList statuses;
        connect(&model, &LauncherModel::statusChanged, this, [&] { statuses.append(model.status()); });
        QList<double> progress;
        connect(&model, &LauncherModel::downloadProgressChanged, this,
                [&] { progress.append(model.downloadProgress()); });
        model.setSelectedInstalledPath(build());
        model.playSelectedInstalledBuild();
        QVERIFY(QTest::qWaitFor([&] { return platform.quitCount > 0 || !model.busy(); }, 60000));
        QCOMPARE(statuses, (QStringList{QStringLiteral("Starting ZENTHO 0.3.0..."), QStringLiteral("Repairing ZENTHO 0.3.0..."),
                                        QStringLiteral("Starting ZENTHO 0.3.0...")}));
        QCOMPARE(platform.quitCount, 1);
        QVERIFY2(progress.size() >= 2 && progress.first() >= 0 && progress.last() == -1, qPrintable(QString::number(progress.size())));
        QCOMPARE(fullCheck(), std::vector<BuildDamage>());
        QCOMPARE(chunkGetsSinceMark().size(), chunksOfDamagedFiles().size());
        QVERIFY(games.endGames());
    }
    // The twin: a whole picked build shows one status and fetches nothing.
    void wholePickedBuildStartsAsBefore() {
        GameWatch games;
        RecordingPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        LauncherModelProbe::setStartupWatch(model, games.watch());
        QStringList statuses;
        connect(&model, &LauncherModel::statusChanged, this, [&] { statuses.append(model.status()); });
        QSignalSpy progress(&model, &LauncherModel::downloadProgressChanged);
        model.setSelectedInstalledPath(build());
        model.playSelectedInstalledBuild();
        QVERIFY(QTest::qWaitFor([&] { return platform.quitCount > 0 || !model.busy(); }, 60000));
        QCOMPARE(statuses, QStringList{QStringLiteral("Starting ZENTHO 0.3.0...")});
        QCOMPARE(platform.quitCount, 1);
        QCOMPARE(progress.count(), 0);
        QCOMPARE(chunkGetsSinceMark(), QStringList());
        QVERIFY(games.endGames());
    }
};

int main(int argc, char** argv) {
    if (const auto code = FlowScenario::runChildIfAsked(argc, argv))
        return *code;
    QGuiApplication app(argc, argv);
    TestRepairBeforeStart test;
    return QTest::qExec(&test, argc, argv);
}

#include "TestRepairBeforeStart.moc"
