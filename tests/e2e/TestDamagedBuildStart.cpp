// The real launcher looks at a saved build before it starts it: a build that lost a file or had
// one cut short is repaired from its release's chunk store first, fetching only what it lost; a
// whole build starts as it always did without a single chunk request, and a damaged build whose
// chunks cannot be had starts as it is.

#include "AdoptedProcesses.h"
#include "ChunkTraffic.h"
#include "LauncherBundles.h"
#include "LauncherStorage.h"
#include "Player.h"
#include "RealLauncher.h"
#include "ReleaseTool.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TestServer.h"

#include "formats/ChunkIndex.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <memory>
#include <optional>

namespace {

const QString kVersion = QStringLiteral("0.3.0");
const QString kNoLauncherUpdate = QStringLiteral("file:///dev/null/no-launcher-manifest.json");

// What one press of the real launcher did.
struct Press {
    QString startedIn; // the folder the game started in, or empty
    QString errors;    // what the launcher wrote to its standard error
};

} // namespace

class TestDamagedBuildStart : public QObject {
    Q_OBJECT

    std::unique_ptr<TestServer> server_;
    QTemporaryDir dir_;
    std::optional<AdoptedProcesses> adopted_;
    QByteArray index_;
    qsizetype logMark_ = 0;

    QString path(const QString& name) const { return dir_.filePath(name); }
    LauncherStorage storage() const { return LauncherStorage(path(QStringLiteral("data"))); }
    QString installed(const QString& file) const { return storage().build(kVersion) + QLatin1Char('/') + file; }
    QString store() const { return server_->documentRoot() + QStringLiteral("/chunks"); }
    Player player() const {
        return Player(*server_, storage().dataHome(), server_->url(QStringLiteral("/m.json")).toString());
    }

    // One press for an invite, the manifest naming the installed version; the game is ended.
    Press press() {
        server_->awaitLogged();
        logMark_ = server_->accessLog().size();
        const QString record = path(QStringLiteral("record"));
        QFile::remove(record);
        RealLauncher launcher(LauncherBundles::builtBundle(), storage().dataHome());
        launcher.useManifests(server_->url(QStringLiteral("/m.json")).toString(), kNoLauncherUpdate);
        launcher.recordGameStartIn(record);
        launcher.start(*server_, QStringLiteral("zentho://invite/damaged"));
        const std::optional<int> exit = launcher.waitForExit();
        const QByteArray recorded = RealLauncher::waitForGameRecord(record, exit ? 20000 : 1000);
        Press pressed{QString(), QString::fromUtf8(launcher.errors())};
        if (!recorded.isEmpty()) {
            RealLauncher::terminateAndCollect(RealLauncher::recordedPid(recorded));
            pressed.startedIn = RealLauncher::recordedFolder(recorded);
        }
        return pressed;
    }
    QStringList chunksFetchedByThePress() const {
        server_->awaitLogged();
        return ChunkTraffic::chunkGets(ChunkTraffic::getsIn(server_->accessLog().mid(logMark_)),
                                       QStringLiteral("/chunks"));
    }
    QString verified() const { return player().run({QStringLiteral("--verify"), kVersion}).output; }

    void damage() {
        QVERIFY(QFile::remove(installed(QStringLiteral("data/levels.txt"))));
        QVERIFY(QFile::resize(installed(QStringLiteral("data/pack.bin")), 4096));
    }
    // The chunks of the two files damage() hits, which share none with the rest of the build.
    QSet<QString> chunksOfDamagedFiles() const {
        QSet<QString> chunks;
        for (const ChunkIndexEntry& entry : ChunkIndex::decode(index_).entries)
            if (entry.path == QStringLiteral("data/levels.txt") || entry.path == QStringLiteral("data/pack.bin"))
                for (const ChunkRef& chunk : entry.chunks)
                    chunks.insert(chunk.sha256);
        return chunks;
    }

private slots:
    // 0.3.0, packed with chunks and published, installed by one press of the real launcher, which
    // keeps the release's index beside the build.
    void initTestCase() {
        ZENTHO_REQUIRE(root);
        ZENTHO_REQUIRE(nginx);
        QVERIFY(RealLauncher::becomeSubreaper());
        adopted_.emplace();
        server_ = std::make_unique<TestServer>();
        const QString game = path(QStringLiteral("game"));
        TestFiles::writeScript(game + QStringLiteral("/zentho"),
                               "printf 'cwd=%s\\npid=%s\\n' \"$(pwd -P)\" \"$$\" > \"$ZENTHO_STANDIN_RECORD\"\nexec sleep 3\n");
        TestFiles::writeFile(game + QStringLiteral("/data/pack.bin"), TestFiles::randomBytes(600000, 3));
        TestFiles::writeFile(game + QStringLiteral("/data/levels.txt"), QByteArray("level 1: gate\n").repeated(500));
        TestFiles::writeFile(game + QStringLiteral("/data/intro.txt"), QByteArray("the gate opens\n").repeated(300));
        const ReleaseTool::Run packed = ReleaseTool::packChunkedAndPublish(
            game, kVersion,
            {server_->url(QStringLiteral("/builds")).toString(), path(QStringLiteral("out")), path(QStringLiteral("store")),
             server_->url(QStringLiteral("/chunks")).toString(), server_->documentRoot()});
        QVERIFY2(packed.ok(), packed.errors.constData());
        server_->writeFile(QStringLiteral("m.json"), TestFiles::readFile(packed.line(QStringLiteral("manifest"))));
        QCOMPARE(player().press(), storage().build(kVersion));
        QCOMPARE(verified(), QStringLiteral("0.3.0: whole\n"));
        const QStringList indexes = QDir(storage().root() + QStringLiteral("/indexes")).entryList({QStringLiteral("*.json")});
        QCOMPARE(indexes.size(), 1);
        const QByteArray kept = TestFiles::readFile(storage().root() + QStringLiteral("/indexes/") + indexes.first());
        index_ = kept.mid(kept.indexOf('\n') + 1);
    }
    void cleanupTestCase() { adopted_.reset(); }

    // A whole build starts with no chunk asked for and nothing logged.
    void wholeBuildStartsWithoutAChunkRequest() {
        const Press pressed = press();
        QCOMPARE(pressed.startedIn, storage().build(kVersion));
        QCOMPARE(chunksFetchedByThePress(), QStringList());
        QVERIFY2(!pressed.errors.contains(QStringLiteral("repaired")), qPrintable(pressed.errors));
    }

    // The twin of the repair below: with the store gone, the damaged build starts as it is and
    // stays as it was; the reason goes to the log only.
    void damagedBuildWithoutItsStoreStartsAsItIs() {
        damage();
        const QString before = verified();
        QVERIFY2(before.startsWith(QStringLiteral("0.3.0: damaged\n")), qPrintable(before));
        const QString aside = store() + QStringLiteral("-aside");
        QVERIFY(QDir().rename(store(), aside));
        const Press pressed = press();
        QVERIFY(QDir().rename(aside, store()));
        QCOMPARE(pressed.startedIn, storage().build(kVersion));
        QVERIFY2(pressed.errors.contains(QStringLiteral("could not be repaired")), qPrintable(pressed.errors));
        QCOMPARE(verified(), before);
    }

    // Runs after its twin, on the build it left damaged.
    void damagedBuildIsRepairedFetchingOnlyWhatItLost() {
        QVERIFY(verified().startsWith(QStringLiteral("0.3.0: damaged\n")));
        const Press pressed = press();
        QCOMPARE(pressed.startedIn, storage().build(kVersion));
        const QStringList fetched = chunksFetchedByThePress();
        QCOMPARE(QSet<QString>(fetched.cbegin(), fetched.cend()), chunksOfDamagedFiles());
        QCOMPARE(fetched.size(), chunksOfDamagedFiles().size());
        QVERIFY(!server_->accessLog().mid(logMark_).contains(QStringLiteral(".tar.gz")));
        QCOMPARE(verified(), QStringLiteral("0.3.0: whole\n"));
    }
};

QTEST_GUILESS_MAIN(TestDamagedBuildStart)
#include "TestDamagedBuildStart.moc"
