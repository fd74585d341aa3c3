// The publisher's tool, zentho-release, used as a release engineer would: packed releases and
// their check, and a release it packed, served over HTTPS, installed and started by the real
// launcher. Keys and seals are in TestReleaseKeys.

#include "LauncherBundles.h"
#include "LauncherStorage.h"
#include "LauncherTestScope.h"
#include "RealLauncher.h"
#include "ReleaseTool.h"
#include "StandinGames.h"
#include "TestArchives.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TestServer.h"

#include "formats/ReleaseManifest.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

#include <optional>

#include <sys/stat.h>

using ReleaseTool::Run;

class TestReleaseTool : public QObject {
    Q_OBJECT

    // The test function's folder and what its launchers leave behind.
    std::optional<LauncherTestScope> scope_;

    QString path(const QString& relative) const { return scope_->path(relative); }

    // A game build folder: the 0.2.0 stand-in as "zentho", a data folder and a symlink inside it.
    QString makeGameSource(const QString& name = QStringLiteral("game")) {
        const QString source = path(name);
        TestFiles::makeFolder(source + QStringLiteral("/data"));
        QFile::copy(ReleaseTool::standinGame020(), source + QStringLiteral("/zentho"));
        TestFiles::writeFile(source + QStringLiteral("/data/levels.txt"), "level 1\n");
        QFile::link(QStringLiteral("levels.txt"), source + QStringLiteral("/data/current"));
        return source;
    }
    // A copy of a launcher bundle sealed with the test key.
    QString makeSealedBundle(const QString& from, const QString& folder) {
        TestFiles::makeFolder(path(folder));
        return ReleaseTool::sealedCopy(from, path(folder + QStringLiteral("/ZenthoLauncher.app")));
    }

private slots:
    void initTestCase() {
        QVERIFY(RealLauncher::becomeSubreaper());
        QVERIFY2(ReleaseTool::missingFromTheBuild().isEmpty(), qPrintable(ReleaseTool::missingFromTheBuild()));
    }
    void init() { scope_.emplace(); }
    void cleanup() { scope_.reset(); }

    void packWritesAnArchiveAndTheManifestThatNamesIt() {
        const QString source = makeGameSource();
        const QString out = path(QStringLiteral("out"));
        const Run packed = ReleaseTool::packGame(source, QStringLiteral("0.2.0"),
                                                 QStringLiteral("https://cdn.example.invalid/builds/"), out);
        QVERIFY2(packed.ok(), packed.errors.constData());
        const QString manifestPath = out + QStringLiteral("/macos-arm64-manifest.json");
        const QString archive = out + QStringLiteral("/zentho-0.2.0-macos-arm64.tar.gz");
        // What a release engineer copies into the release notes: where, how big, which digest.
        QCOMPARE(packed.output, "archive: " + QFile::encodeName(archive) + "\nsize: " +
                                    QByteArray::number(QFileInfo(archive).size()) + "\nsha256: " +
                                    TestArchives::sha256sum(archive).toUtf8() + "\nmanifest: " +
                                    QFile::encodeName(manifestPath) + '\n');
        QVERIFY(!QFileInfo::exists(manifestPath + QStringLiteral(".sig")));

        const QByteArray json = TestFiles::readFile(manifestPath);
        QCOMPARE(QJsonDocument::fromJson(json).object().keys(),
                 (QStringList{"executable", "platform", "sha256", "url", "version"}));
        const ReleaseManifest manifest = ReleaseManifest::decode(json);
        QCOMPARE(manifest.version, QStringLiteral("0.2.0"));
        QCOMPARE(manifest.platform, QStringLiteral("macos-arm64"));
        QCOMPARE(manifest.url.toString(),
                 QStringLiteral("https://cdn.example.invalid/builds/zentho-0.2.0-macos-arm64.tar.gz"));
        QCOMPARE(manifest.sha256, TestArchives::sha256sum(archive));
        QCOMPARE(manifest.executable, QStringLiteral("zentho"));

        // The content of the folder is the top level, names sorted; the symlink stays a symlink.
        QCOMPARE(TestArchives::tar({QStringLiteral("-tzf"), archive}), QByteArray("data/\ndata/current\ndata/levels.txt\nzentho\n"));

        const Run checked = ReleaseTool::verify(manifestPath, archive);
        QVERIFY2(checked.ok(), checked.errors.constData());
        QCOMPARE(checked.output, QByteArray("ok: macos-arm64 0.2.0: digest, listing, executable checked\n"));
    }
    void aDryRunChecksAndMeasuresButWritesNothing() {
        const QString source = makeGameSource();
        const QString out = path(QStringLiteral("not-yet"));
        const QString base = QStringLiteral("https://cdn.example.invalid/builds");
        const Run dry = ReleaseTool::packGame(source, QStringLiteral("0.2.0"), base, out, {QStringLiteral("--dry-run")});
        QVERIFY2(dry.ok(), dry.errors.constData());
        QVERIFY(!QFileInfo::exists(out));
        QVERIFY(dry.output.endsWith("\ndry run: nothing was written\n"));

        // The real run writes exactly what the dry run announced.
        const Run real = ReleaseTool::packGame(source, QStringLiteral("0.2.0"), base, out);
        QVERIFY2(real.ok(), real.errors.constData());
        for (const QString& key : {QStringLiteral("archive"), QStringLiteral("size"), QStringLiteral("sha256"),
                                   QStringLiteral("manifest")})
            QCOMPARE(dry.line(key), real.line(key));
        QCOMPARE(dry.line(QStringLiteral("content")).toUtf8() + '\n', TestFiles::readFile(real.line(QStringLiteral("manifest"))));

        // A dry run refuses what the real run refuses, and still writes nothing.
        const QByteArray before = TestFiles::readFile(real.line(QStringLiteral("archive")));
        const Run again = ReleaseTool::packGame(source, QStringLiteral("0.2.0"), base, out, {QStringLiteral("--dry-run")});
        QCOMPARE(again.exitCode, 1);
        QVERIFY2(again.errors.endsWith("zentho-0.2.0-macos-arm64.tar.gz already exists; use --force to replace it\n"),
                 again.errors.constData());
        QCOMPARE(TestFiles::readFile(real.line(QStringLiteral("archive"))), before);
        QCOMPARE(QDir(out).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot).size(), 2);
    }

    void packRefusesWhatTheLauncherCouldNotUse_data() {
        QTest::addColumn<QString>("setup");
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("message");
        const QString base = QStringLiteral("https://h.invalid");
        const auto game = [&](const QString& version, const QString& executable, const QString& url) {
            return QStringList{QStringLiteral("--platform"), QStringLiteral("macos-arm64"),
                               QStringLiteral("--version"), version, QStringLiteral("--executable"),
                               executable, QStringLiteral("--url-base"), url};
        };
        QTest::newRow("platform") << "" << (QStringList{QStringLiteral("--platform"), QStringLiteral("macOS-arm64"),
                                            QStringLiteral("--version"), QStringLiteral("1"), QStringLiteral("--executable"),
                                            QStringLiteral("zentho"), QStringLiteral("--url-base"), base})
                                  << 2 << "--platform must be macos-arm64 or macos-launcher-arm64";
        QTest::newRow("version with a slash") << "" << game("0.2/0", "zentho", base) << 2 << "--version:";
        QTest::newRow("version with a blank") << "" << game("0.2.0 ", "zentho", base) << 2 << "--version:";
        // Launchers install a build into the folder its version names: anything but one plain
        // name is refused before a file is written.
        QTest::newRow("version into the chunk cache") << "" << game("../chunks", "zentho", base) << 2 << "--version:";
        QTest::newRow("version of the parent") << "" << game("..", "zentho", base) << 2 << "--version:";
        QTest::newRow("version of the same folder") << "" << game(".", "zentho", base) << 2 << "--version:";
        QTest::newRow("empty version") << "" << game("", "zentho", base) << 2 << "--version";
        QTest::newRow("version with a tab") << "" << game("0.2\t0", "zentho", base) << 2 << "--version:";
        QTest::newRow("executable outside") << "" << game("0.2.0", "../zentho", base) << 2 << "leads out of the archive";
        QTest::newRow("file url") << "" << game("0.2.0", "zentho", "file:///srv") << 2 << "--url-base must be an http or https";
        QTest::newRow("missing executable") << "" << game("0.2.0", "zenth", base) << 1 << "game/zenth: the executable is missing";
        QTest::newRow("not executable") << "" << game("0.2.0", "data/levels.txt", base) << 1 << "not an executable file";
        QTest::newRow("symlink out") << "outlink" << game("0.2.0", "zentho", base) << 1
                                     << "game/data/out: symlink points outside the folder (-> ../../secret)";
        QTest::newRow("absolute symlink") << "abslink" << game("0.2.0", "zentho", base) << 1
                                          << "game/data/abs: symlink points outside the folder (-> /etc/passwd)";
        QTest::newRow("line feed in a name") << "linefeed" << game("0.2.0", "zentho", base) << 1
                                             << "game/data/two\\nlines: the name holds a control character";
        QTest::newRow("pipe") << "fifo" << game("0.2.0", "zentho", base) << 1 << "not a file, folder or symlink";
        QTest::newRow("out inside source") << "outinside" << game("0.2.0", "zentho", base) << 2 << "--out must not be inside SRC";
        QTest::newRow("existing archive") << "existing" << game("0.2.0", "zentho", base) << 1
                                          << "already exists; use --force to replace it";
        QTest::newRow("no source") << "nosource" << game("0.2.0", "zentho", base) << 1 << ": not a folder";
    }
    void packRefusesWhatTheLauncherCouldNotUse() {
        QFETCH(QString, setup);
        QFETCH(QStringList, arguments);
        QFETCH(int, exitCode);
        QFETCH(QString, message);
        QString source = makeGameSource();
        QString out = path(QStringLiteral("out"));
        if (setup == QLatin1String("outlink"))
            QVERIFY(QFile::link(QStringLiteral("../../secret"), source + QStringLiteral("/data/out")));
        if (setup == QLatin1String("abslink"))
            QVERIFY(QFile::link(QStringLiteral("/etc/passwd"), source + QStringLiteral("/data/abs")));
        if (setup == QLatin1String("linefeed"))
            TestFiles::writeFile(source + QStringLiteral("/data/two\nlines"), "x");
        if (setup == QLatin1String("fifo"))
            QCOMPARE(::mkfifo(QFile::encodeName(source + QStringLiteral("/data/pipe")).constData(), 0644), 0);
        if (setup == QLatin1String("outinside"))
            out = source + QStringLiteral("/dist");
        if (setup == QLatin1String("existing"))
            TestFiles::writeFile(out + QStringLiteral("/zentho-0.2.0-macos-arm64.tar.gz"), "earlier");
        if (setup == QLatin1String("nosource"))
            source = path(QStringLiteral("nothing-here"));

        const Run packed = ReleaseTool::run(QStringList{QStringLiteral("pack")} + arguments +
                                            QStringList{QStringLiteral("--out"), out, source});
        QCOMPARE(packed.exitCode, exitCode);
        QVERIFY2(packed.failedWithOneLine(), packed.errors.constData());
        QVERIFY2(packed.errors.startsWith("zentho-release pack: "), packed.errors.constData());
        QVERIFY2(packed.errors.contains(message.toUtf8()), packed.errors.constData());
        QVERIFY(!QFileInfo::exists(out + QStringLiteral("/macos-arm64-manifest.json")));
        QVERIFY(!QFileInfo::exists(source + QStringLiteral("/dist")));
        // Refused before anything is written: not even the output folder is made.
        if (setup != QLatin1String("existing"))
            QVERIFY(!QFileInfo::exists(out));
        if (setup == QLatin1String("existing")) {
            QCOMPARE(TestFiles::readFile(out + QStringLiteral("/zentho-0.2.0-macos-arm64.tar.gz")), QByteArray("earlier"));
            const Run forced = ReleaseTool::run(QStringList{QStringLiteral("pack")} + arguments +
                                                QStringList{QStringLiteral("--force"), QStringLiteral("--out"), out, source});
            QVERIFY2(forced.ok(), forced.errors.constData());
        }
    }

    void verifyNamesTheCheckThatFails_data() {
        QTest::addColumn<QString>("change");
        QTest::addColumn<QString>("message");
        QTest::newRow("not json") << "json" << "manifest: The manifest is not valid JSON";
        QTest::newRow("no executable key") << "nokey" << "manifest: The manifest is missing \"executable\".";
        QTest::newRow("version naming another folder")
            << "version" << "manifest: The manifest's \"version\" is not a plain folder name.";
        QTest::newRow("platform case") << "platform" << "platform: \"macOS-arm64\" is neither";
        QTest::newRow("file url") << "url" << "url: file:///srv/zentho.tar.gz is not an http or https address";
        QTest::newRow("digest with prefix") << "sha" << "sha256: the archive's digest is ";
        QTest::newRow("changed archive") << "archive" << "sha256: the archive's digest is ";
        QTest::newRow("missing executable") << "executable" << "executable: \"zenth\" is not in the archive";
        QTest::newRow("unsafe entry") << "unsafe" << "listing: unsafe entry \"game/../../x\"";
        QTest::newRow("not gzip") << "notgzip" << "listing: ";
    }
    void verifyNamesTheCheckThatFails() {
        QFETCH(QString, change);
        QFETCH(QString, message);
        const QString out = path(QStringLiteral("out"));
        QVERIFY(ReleaseTool::packGame(makeGameSource(), QStringLiteral("0.2.0"), QStringLiteral("http://h.invalid"), out).ok());
        const QString manifestPath = out + QStringLiteral("/macos-arm64-manifest.json");
        QString archive = out + QStringLiteral("/zentho-0.2.0-macos-arm64.tar.gz");
        QVERIFY(ReleaseTool::verify(manifestPath, archive).ok());

        QJsonObject json = QJsonDocument::fromJson(TestFiles::readFile(manifestPath)).object();
        if (change == QLatin1String("nokey"))
            json.remove(QStringLiteral("executable"));
        if (change == QLatin1String("version"))
            json[QStringLiteral("version")] = QStringLiteral("../chunks");
        if (change == QLatin1String("platform"))
            json[QStringLiteral("platform")] = QStringLiteral("macOS-arm64");
        if (change == QLatin1String("url"))
            json[QStringLiteral("url")] = QStringLiteral("file:///srv/zentho.tar.gz");
        if (change == QLatin1String("sha"))
            json[QStringLiteral("sha256")] = QStringLiteral("sha256:") + json[QStringLiteral("sha256")].toString();
        if (change == QLatin1String("executable"))
            json[QStringLiteral("executable")] = QStringLiteral("zenth");
        if (change == QLatin1String("archive"))
            ReleaseTool::flipOneByte(archive);
        if (change == QLatin1String("unsafe") || change == QLatin1String("notgzip")) {
            archive = path(QStringLiteral("other.tar.gz"));
            if (change == QLatin1String("unsafe"))
                TestArchives::createWithName(archive, QStringLiteral("game/../../x"), path(QStringLiteral("scratch")));
            else
                TestFiles::writeFile(archive, "plain text, not an archive\n");
            json[QStringLiteral("sha256")] = TestArchives::sha256sum(archive);
        }
        QByteArray bytes = QJsonDocument(json).toJson();
        if (change == QLatin1String("json"))
            bytes.chop(3);
        TestFiles::writeFile(manifestPath, bytes);

        const Run checked = ReleaseTool::verify(manifestPath, archive);
        QCOMPARE(checked.exitCode, 1);
        QVERIFY2(checked.errors.contains("zentho-release verify: " + message.toUtf8()), checked.errors.constData());
        QCOMPARE(checked.errors.count('\n') - checked.errors.count("warning:"), 1);
    }
    // The whole road of a release: packed by the tool, served over HTTPS, and installed and
    // started by the real launcher, which quits and leaves the game running.
    void aPackedReleaseIsInstalledAndStartedByTheRealLauncher() {
        ZENTHO_REQUIRE(root);
        ZENTHO_REQUIRE(nginx);
        TestServer server;
        const QString release = server.documentRoot() + QStringLiteral("/release");
        const Run game = ReleaseTool::packGame(makeGameSource(), QStringLiteral("0.2.0"),
                                               server.url(QStringLiteral("/release")).toString(), release);
        QVERIFY2(game.ok(), game.errors.constData());
        // The launcher's own manifest names the running version, so it does not update itself.
        const QString bundle = makeSealedBundle(LauncherBundles::builtBundle(), QStringLiteral("launcher"));
        const Run self = ReleaseTool::packLauncher(bundle, QStringLiteral("0.1.190"),
                                                   server.url(QStringLiteral("/release")).toString(), release);
        QVERIFY2(self.ok(), self.errors.constData());

        const QString data = path(QStringLiteral("data"));
        const QString record = path(QStringLiteral("record"));
        RealLauncher launcher(LauncherBundles::builtBundle(), data);
        launcher.useManifests(server.url(QStringLiteral("/release/macos-arm64-manifest.json")).toString(),
                              server.url(QStringLiteral("/release/macos-launcher-arm64-manifest.json")).toString());
        launcher.recordGameStartIn(record);
        const QString invite = QStringLiteral("zentho://invite/release-room?from=tool");
        launcher.start(server, invite);
        QCOMPARE(launcher.waitForExit(), std::optional<int>(0));

        const QByteArray recorded = RealLauncher::waitForGameRecord(record);
        QVERIFY2(!recorded.isEmpty(), launcher.errors().constData());
        const LauncherStorage storage(data);
        const QString installed = storage.build(QStringLiteral("0.2.0"));
        QVERIFY2(recorded.startsWith("version=0.2.0\ncwd=" + QFile::encodeName(installed) + "\narg=" +
                                     invite.toUtf8() + "\n"),
                 recorded.constData());
        QVERIFY(TestFiles::readFile(storage.state()).contains("0.2.0"));
        const qint64 pid = RealLauncher::recordedPid(recorded);
        const auto state = StandinGames::processState(pid);
        QVERIFY2(state && *state != 'Z', "the game did not outlive the launcher");
        RealLauncher::terminateAndCollect(pid);
    }
    void aReleaseWhoseArchiveChangedIsRefusedAndTheSeedRuntimeStarts() {
        ZENTHO_REQUIRE(root);
        ZENTHO_REQUIRE(nginx);
        TestServer server;
        const QString release = server.documentRoot() + QStringLiteral("/release");
        QVERIFY(ReleaseTool::packGame(makeGameSource(), QStringLiteral("0.2.0"),
                                      server.url(QStringLiteral("/release")).toString(), release).ok());
        ReleaseTool::flipOneByte(release + QStringLiteral("/zentho-0.2.0-macos-arm64.tar.gz"));

        const QString data = path(QStringLiteral("data"));
        const QString record = path(QStringLiteral("record"));
        RealLauncher launcher(LauncherBundles::builtBundle(), data);
        launcher.useManifests(server.url(QStringLiteral("/release/macos-arm64-manifest.json")).toString(),
                              QStringLiteral("file:///dev/null/no-launcher-manifest.json"));
        launcher.recordGameStartIn(record);
        launcher.start(server, QStringLiteral("zentho://invite/fallback"));
        QCOMPARE(launcher.waitForExit(), std::optional<int>(0));

        const QByteArray recorded = RealLauncher::waitForGameRecord(record);
        QVERIFY2(recorded.startsWith("version=0.1.190\n"), (recorded + launcher.errors()).constData());
        QVERIFY(!QFileInfo::exists(LauncherStorage(data).build(QStringLiteral("0.2.0"))));
        RealLauncher::terminateAndCollect(RealLauncher::recordedPid(recorded));
    }
};

QTEST_MAIN(TestReleaseTool)
#include "TestReleaseTool.moc"
