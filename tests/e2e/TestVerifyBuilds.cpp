// `--verify` and `--repair` on the real launcher: a build installed from a release with chunks
// keeps its index, and the commands compare the build on disk with it, naming what a crash, a
// disk error or a player changed, and put it right from the chunks it lost.

#include "AdoptedProcesses.h"
#include "LauncherBundles.h"
#include "LauncherStorage.h"
#include "Player.h"
#include "RealLauncher.h"
#include "ReleaseTool.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TestServer.h"

#include <QFile>
#include <QDir>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <memory>
#include <optional>

namespace {

const QString kVersion = QStringLiteral("0.3.0");
const QString kNoLauncherUpdate = QStringLiteral("file:///dev/null/no-launcher-manifest.json");

using Verified = Player::Run;

} // namespace

class TestVerifyBuilds : public QObject {
    Q_OBJECT

    std::unique_ptr<TestServer> server_;
    QTemporaryDir dir_;
    std::optional<AdoptedProcesses> adopted_;

    QString path(const QString& name) const { return dir_.filePath(name); }
    LauncherStorage storage() const { return LauncherStorage(path(QStringLiteral("data"))); }
    QString installed(const QString& file) const { return storage().build(kVersion) + QLatin1Char('/') + file; }

    Verified verify(const QStringList& arguments) const { return run(QStringList{QStringLiteral("--verify")} + arguments); }
    Verified repair() const { return run({QStringLiteral("--repair"), kVersion}); }
    Verified run(const QStringList& arguments) const {
        return Player(*server_, storage().dataHome(), server_->url(QStringLiteral("/m.json")).toString()).run(arguments);
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
                               "printf 'pid=%s\\n' \"$$\" > \"$ZENTHO_STANDIN_RECORD\"\nexec sleep 3\n");
        TestFiles::writeFile(game + QStringLiteral("/data/pack.bin"), TestFiles::randomBytes(600000, 3));
        TestFiles::writeFile(game + QStringLiteral("/data/levels.txt"), QByteArray("level 1: gate\n").repeated(500));
        QVERIFY(QFile::link(QStringLiteral("levels.txt"), game + QStringLiteral("/data/current")));
        const ReleaseTool::Run packed = ReleaseTool::packChunkedAndPublish(
            game, kVersion,
            {server_->url(QStringLiteral("/builds")).toString(), path(QStringLiteral("out")), path(QStringLiteral("store")),
             server_->url(QStringLiteral("/chunks")).toString(), server_->documentRoot()});
        QVERIFY2(packed.ok(), packed.errors.constData());
        server_->writeFile(QStringLiteral("m.json"), TestFiles::readFile(packed.line(QStringLiteral("manifest"))));

        RealLauncher launcher(LauncherBundles::builtBundle(), storage().dataHome());
        launcher.useManifests(server_->url(QStringLiteral("/m.json")).toString(), kNoLauncherUpdate);
        launcher.recordGameStartIn(path(QStringLiteral("record")));
        launcher.start(*server_, QStringLiteral("zentho://invite/verify"));
        QCOMPARE(launcher.waitForExit(), std::optional<int>(0));
        const QByteArray record = RealLauncher::waitForGameRecord(path(QStringLiteral("record")));
        QVERIFY(!record.isEmpty());
        RealLauncher::terminateAndCollect(RealLauncher::recordedPid(record));
    }
    void cleanupTestCase() { adopted_.reset(); }

    void buildAsInstalledIsWhole() {
        const Verified all = verify({});
        QCOMPARE(all.output, QStringLiteral("0.3.0: whole\n"));
        QCOMPARE(all.exitCode, 0);
        QCOMPARE(verify({kVersion}).exitCode, 0);
    }

    // The twin: a build no launcher saved cannot be vouched for.
    void unknownBuildFails() {
        const Verified unknown = verify({QStringLiteral("9.9.9")});
        QCOMPARE(unknown.exitCode, 1);
        QVERIFY2(unknown.errors.startsWith(QStringLiteral("No saved build 9.9.9 in ")), qPrintable(unknown.errors));
    }

    // Runs after the tests above: it damages the build, which the next one repairs.
    void damageOnDiskIsNamedAndFails() {
        QFile pack(installed(QStringLiteral("data/pack.bin")));
        QVERIFY(pack.open(QIODevice::ReadWrite) && pack.seek(1000));
        QCOMPARE(pack.write("X"), qint64(1));
        pack.close();
        QVERIFY(QFile::remove(installed(QStringLiteral("data/current"))));
        TestFiles::writeFile(installed(QStringLiteral("stray.txt")), "not the release's\n");
        const Verified damaged = verify({kVersion});
        QCOMPARE(damaged.exitCode, 1);
        const QStringList lines = damaged.output.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        QCOMPARE(lines.value(0), QStringLiteral("0.3.0: damaged"));
        QCOMPARE(lines.mid(1).size(), 3);
        for (const char* line : {"  data/pack.bin: changed content", "  data/current: missing",
                                 "  stray.txt: not part of the build"})
            QVERIFY2(lines.contains(QLatin1String(line)), qPrintable(damaged.output));
    }

    // The twin first: with the release's chunk store gone the damaged build cannot be put right,
    // and it is left no worse. Then, with the store back, --repair fetches only what the damage
    // took, and the build verifies whole.
    void damagedBuildIsRepairedFetchingOnlyWhatIsLost() {
        const QString store = server_->documentRoot() + QStringLiteral("/chunks");
        const QString aside = server_->documentRoot() + QStringLiteral("/chunks-aside");
        const QString before = verify({kVersion}).output;
        QVERIFY(QDir().rename(store, aside));
        const Verified failed = repair();
        QVERIFY(QDir().rename(aside, store));
        QVERIFY2(failed.exitCode == 1, qPrintable(failed.output + failed.errors));
        QVERIFY2(failed.output.startsWith(QStringLiteral("0.3.0: cannot be repaired: ")), qPrintable(failed.output));
        QCOMPARE(verify({kVersion}).output, before);

        server_->awaitLogged();
        const qsizetype mark = server_->accessLog().size();
        const Verified repaired = repair();
        QCOMPARE(repaired.exitCode, 0);
        static const QRegularExpression line(QStringLiteral("^0\\.3\\.0: repaired, 3 entries put right, (\\d+) chunks \\(\\d+ bytes\\) fetched\n$"));
        const QRegularExpressionMatch match = line.match(repaired.output);
        QVERIFY2(match.hasMatch(), qPrintable(repaired.output));
        server_->awaitLogged();
        const QString log = server_->accessLog().mid(mark);
        const int fetched = int(log.count(QStringLiteral("GET /chunks/")));
        QCOMPARE(fetched, match.captured(1).toInt());
        // The one changed byte of the pack lies in one chunk; the link and the stray need none.
        QCOMPARE(fetched, 1);
        QVERIFY(!log.contains(QStringLiteral(".tar.gz")));
        const Verified whole = verify({kVersion});
        QCOMPARE(whole.output, QStringLiteral("0.3.0: whole\n"));
        QCOMPARE(whole.exitCode, 0);
    }
};

QTEST_GUILESS_MAIN(TestVerifyBuilds)
#include "TestVerifyBuilds.moc"
