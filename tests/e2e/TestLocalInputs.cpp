// The real launcher against inputs that come from the machine rather than from a release: odd
// bytes in a manifest or in the state file, an address override spelled in capitals, a relative
// path in the state file, and the root folder as the user's data folder. Each is observed through
// which program the launcher starts, from which folder, and what it leaves on disk.

#include "AdoptedProcesses.h"
#include "LauncherBundles.h"
#include "LauncherStorage.h"
#include "ManifestJson.h"
#include "RealLauncher.h"
#include "TestArchives.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TestServer.h"
#include "WindowFixture.h"
#include "XvfbSession.h"

#include "storage/InstalledState.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <optional>

namespace {

const QString kNoLauncherManifest = QStringLiteral("file:///dev/null/no-launcher-manifest.json");

// A build whose "zentho" and "alt" both record, into $ZENTHO_STANDIN_RECORD, which of them ran
// and from which folder, then stay up past the launcher's start-up watch.
void makeTwoProgramBuild(const QString& folder) {
    const QByteArray script =
        "{\n"
        "  printf 'program=%s\\n' \"$0\"\n"
        "  printf 'cwd=%s\\n' \"$(pwd -P)\"\n"
        "  printf 'pid=%s\\n' \"$$\"\n"
        "} > \"$ZENTHO_STANDIN_RECORD.tmp\"\n"
        "mv \"$ZENTHO_STANDIN_RECORD.tmp\" \"$ZENTHO_STANDIN_RECORD\"\n"
        "exec sleep 3\n";
    TestFiles::writeScript(folder + QStringLiteral("/zentho"), script);
    TestFiles::writeScript(folder + QStringLiteral("/alt"), script);
}

QByteArray lineOf(const QByteArray& record, const QByteArray& key) {
    for (const QByteArray& line : record.split('\n')) {
        if (line.startsWith(key + '='))
            return line.mid(key.size() + 1);
    }
    return {};
}

} // namespace

class TestLocalInputs : public QObject {
    Q_OBJECT

    TestServer* server_ = nullptr;
    QTemporaryDir* dir_ = nullptr;
    std::optional<AdoptedProcesses> adopted_;

    QString path(const QString& name) const { return dir_->filePath(name); }
    QString data() const { return path(QStringLiteral("data")); }
    LauncherStorage storage() const { return LauncherStorage(data()); }
    QString launcherRoot() const { return storage().root(); }
    QString build(const QString& version) const { return storage().build(version); }
    QString record() const { return path(QStringLiteral("record")); }

    // A current build 0.5.0 recorded in the state file, and a game manifest naming the same
    // version with "alt" as its executable: a manifest that is read starts "alt" without any
    // download; one that is refused falls back to the recorded build's "zentho".
    void prepareCurrentBuild() {
        makeTwoProgramBuild(build(QStringLiteral("0.5.0")));
        TestFiles::writeFile(launcherRoot() + QStringLiteral("/current-macos.json"),
                             InstalledState{QStringLiteral("0.5.0"), build(QStringLiteral("0.5.0"))}.encode());
    }
    QByteArray sameVersionManifest(const QByteArray& extraMember) const {
        return ManifestJson(QStringLiteral("0.5.0"), QStringLiteral("https://127.0.0.1:1/none.tar.gz"), QStringLiteral("00"))
            .executable(QStringLiteral("alt"))
            .member(extraMember);
    }

    // What one press of the main button did: how the launcher ended (none when it did not end
    // by itself in time) and the record of the game it started (empty when none started).
    struct Press {
        std::optional<int> exit;
        QByteArray record;
        QByteArray program() const { return lineOf(record, "program"); }
    };
    // Runs the real launcher with an invite link, which presses the main button.
    Press runLauncher(const QString& gameManifest, int timeoutMs = 40000) {
        RealLauncher launcher(LauncherBundles::builtBundle(), data());
        launcher.useManifests(gameManifest, kNoLauncherManifest);
        launcher.recordGameStartIn(record());
        launcher.start(*server_, QStringLiteral("zentho://invite/local-inputs"));
        Press press;
        press.exit = launcher.waitForExit(timeoutMs);
        press.record = RealLauncher::waitForGameRecord(record(), 5000);
        if (!press.record.isEmpty())
            RealLauncher::terminateAndCollect(RealLauncher::recordedPid(press.record));
        if (press.exit != std::optional<int>(0))
            qWarning("launcher exit %d, errors: %s", press.exit.value_or(-1), launcher.errors().constData());
        return press;
    }
    QString servedManifest(const QByteArray& body) const {
        server_->writeFile(QStringLiteral("game.json"), body);
        return server_->url(QStringLiteral("/game.json")).toString();
    }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(root);
        ZENTHO_REQUIRE(nginx);
        QVERIFY(RealLauncher::becomeSubreaper());
        QVERIFY(QFileInfo(RealLauncher::executableOf(LauncherBundles::builtBundle())).isExecutable());
        server_ = new TestServer;
    }
    void cleanupTestCase() { delete server_; }
    void init() {
        dir_ = new QTemporaryDir;
        adopted_.emplace();
    }
    void cleanup() {
        adopted_.reset();
        delete dir_;
    }

    // Strict JSON in a manifest.

    void manifestThatDecodesStartsItsExecutable() {
        prepareCurrentBuild();
        const Press press = runLauncher(servedManifest(sameVersionManifest("\"notes\":\"tab\\t\\u0001\"")));
        QCOMPARE(press.exit, std::optional<int>(0));
        QCOMPARE(press.program(), QFile::encodeName(build(QStringLiteral("0.5.0")) + "/alt"));
    }
    void manifestWithARawControlCharacterIsRefused() {
        prepareCurrentBuild();
        const Press press = runLauncher(servedManifest(sameVersionManifest("\"notes\":\"tab\t\x01\"")));
        QCOMPARE(press.exit, std::optional<int>(0));
        QCOMPARE(press.program(), QFile::encodeName(build(QStringLiteral("0.5.0")) + "/zentho"));
    }
    void manifestWithALoneSurrogateIsRefused() {
        prepareCurrentBuild();
        const Press press = runLauncher(servedManifest(sameVersionManifest("\"notes\":\"\\udc00\"")));
        QCOMPARE(press.exit, std::optional<int>(0));
        QCOMPARE(press.program(), QFile::encodeName(build(QStringLiteral("0.5.0")) + "/zentho"));
    }
    void outOfRangeNumberInAnIgnoredKeyKeepsTheManifest() {
        prepareCurrentBuild();
        const Press press = runLauncher(servedManifest(sameVersionManifest("\"n\":1e400")));
        QCOMPARE(press.exit, std::optional<int>(0));
        QCOMPARE(press.program(), QFile::encodeName(build(QStringLiteral("0.5.0")) + "/alt"));
    }

    // Strict JSON in the state file: the server is out of reach, so the recorded build starts,
    // unless the record is refused and the seed runtime takes its place.

    void stateFileThatDecodesStartsItsBuild() {
        prepareCurrentBuild();
        TestFiles::writeFile(launcherRoot() + QStringLiteral("/current-macos.json"),
                             "{\"version\":\"0.5.0\",\"path\":\"" + QFile::encodeName(build("0.5.0")) +
                                 "\",\"note\":\"\\u0001\\ud83c\\udfae\"}");
        const Press press = runLauncher(QStringLiteral("file:///dev/null/no-game-manifest.json"));
        QCOMPARE(press.exit, std::optional<int>(0));
        QCOMPARE(press.program(), QFile::encodeName(build(QStringLiteral("0.5.0")) + "/zentho"));
    }
    void stateFileWithARawControlCharacterFallsBackToTheSeed() {
        prepareCurrentBuild();
        TestFiles::writeFile(launcherRoot() + QStringLiteral("/current-macos.json"),
                             "{\"version\":\"0.5.0\",\"path\":\"" + QFile::encodeName(build("0.5.0")) +
                                 "\",\"note\":\"\x01\"}");
        const Press press = runLauncher(QStringLiteral("file:///dev/null/no-game-manifest.json"));
        QCOMPARE(press.exit, std::optional<int>(0));
        QVERIFY2(press.record.startsWith("version=0.1.190\n"), press.record.constData());
    }
    void stateFileWithALoneSurrogateFallsBackToTheSeed() {
        prepareCurrentBuild();
        TestFiles::writeFile(launcherRoot() + QStringLiteral("/current-macos.json"),
                             "{\"version\":\"0.5.0\",\"path\":\"" + QFile::encodeName(build("0.5.0")) +
                                 "\",\"note\":\"\\ud800\"}");
        const Press press = runLauncher(QStringLiteral("file:///dev/null/no-game-manifest.json"));
        QCOMPARE(press.exit, std::optional<int>(0));
        QVERIFY2(press.record.startsWith("version=0.1.190\n"), press.record.constData());
    }

    // The override's scheme as written.

    void httpsOverrideIsFollowed() {
        prepareCurrentBuild();
        const QString address = servedManifest(sameVersionManifest("\"notes\":\"\""));
        QVERIFY(address.startsWith(QLatin1String("https://")));
        const Press press = runLauncher(address);
        QCOMPARE(press.exit, std::optional<int>(0));
        QCOMPARE(press.program(), QFile::encodeName(build(QStringLiteral("0.5.0")) + "/alt"));
    }
    // The default release host does not resolve here, so ignoring the override ends in the
    // fallback to the recorded build.
    void upperCaseHttpsOverrideIsIgnored() {
        prepareCurrentBuild();
        const QString address = servedManifest(sameVersionManifest("\"notes\":\"\""));
        const QString shouted = QStringLiteral("HTTPS") + address.mid(5);
        const Press press = runLauncher(shouted);
        QCOMPARE(press.exit, std::optional<int>(0));
        QCOMPARE(press.program(), QFile::encodeName(build(QStringLiteral("0.5.0")) + "/zentho"));
    }

    // A relative path in the state file: the launcher runs from a folder that holds a decoy build
    // at that same relative path, and must still start the storage's build, in its own folder.
    void relativeStatePathStartsTheStoragesBuild() {
        makeTwoProgramBuild(build(QStringLiteral("0.5.0")));
        const QString elsewhere = path(QStringLiteral("elsewhere"));
        makeTwoProgramBuild(elsewhere + QStringLiteral("/versions/0.5.0"));
        TestFiles::writeFile(launcherRoot() + QStringLiteral("/current-macos.json"),
                             "{\"version\":\"0.5.0\",\"path\":\"versions\\/0.5.0\"}");
        const QString before = QDir::currentPath();
        QVERIFY(QDir::setCurrent(elsewhere));
        const Press press = runLauncher(QStringLiteral("file:///dev/null/no-game-manifest.json"));
        QVERIFY(QDir::setCurrent(before));
        QCOMPARE(press.exit, std::optional<int>(0));
        QCOMPARE(press.program(), QFile::encodeName(build(QStringLiteral("0.5.0")) + "/zentho"));
        QCOMPARE(lineOf(press.record, "cwd"), QFile::encodeName(build(QStringLiteral("0.5.0"))));
    }

    // A link in the versions folder, named as the newest version, to a build folder elsewhere.
    // The real window is shown on a private X server and "PLAY THIS VERSION" pressed with the
    // mouse: it starts the newest real build, so the link was never offered.
    void symlinkedBuildFolderIsNotOffered() {
        ZENTHO_REQUIRE(xvfb);
        QRect button;
        {
            // The same window, offscreen in this process, tells where the button is drawn.
            WindowFixture window({QStringLiteral("0.2.0")});
            button = window.rectOf("playInstalledButton");
        }
        makeTwoProgramBuild(build(QStringLiteral("0.2.0")));
        makeTwoProgramBuild(build(QStringLiteral("1.0.0")));
        makeTwoProgramBuild(path(QStringLiteral("outside/9.0.0")));
        QVERIFY(QFile::link(path(QStringLiteral("outside/9.0.0")), build(QStringLiteral("9.0.0"))));

        XvfbSession screen;
        QVERIFY(!screen.display().isEmpty());
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("XDG_DATA_HOME"), data());
        env.insert(QStringLiteral("DISPLAY"), screen.display());
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
        env.insert(QStringLiteral("QT_QUICK_BACKEND"), QStringLiteral("software"));
        env.insert(QStringLiteral("ZENTHO_UPDATE_MANIFEST"), QStringLiteral("file:///dev/null/no-game-manifest.json"));
        env.insert(QStringLiteral("ZENTHO_LAUNCHER_UPDATE_MANIFEST"), kNoLauncherManifest);
        env.insert(QStringLiteral("ZENTHO_STANDIN_RECORD"), record());
        QProcess launcher;
        launcher.setProcessEnvironment(env);
        launcher.setStandardOutputFile(QProcess::nullDevice());
        launcher.start(RealLauncher::executableOf(LauncherBundles::builtBundle()), QStringList());
        const std::optional<QRect> window = screen.waitForWindow(QStringLiteral("ZENTHO Launcher"));
        QVERIFY2(window, launcher.readAllStandardError().constData());
        QByteArray recorded;
        // A click that lands before the window takes input is lost, so it is clicked until a
        // game starts; more clicks are harmless, since the first one that counts ends the
        // launcher.
        for (QDeadlineTimer deadline(60000); recorded.isEmpty() && !deadline.hasExpired();) {
            QVERIFY(screen.click(window->topLeft() + button.center()));
            recorded = RealLauncher::waitForGameRecord(record(), 2000);
        }
        // The game must outlast the launcher's start-up watch before it is ended here.
        const bool ended = launcher.waitForFinished(20000);
        if (!ended) {
            launcher.kill();
            launcher.waitForFinished();
        }
        if (!recorded.isEmpty())
            RealLauncher::terminateAndCollect(RealLauncher::recordedPid(recorded));
        QCOMPARE(lineOf(recorded, "program"), QFile::encodeName(build(QStringLiteral("1.0.0")) + "/zentho"));
        QVERIFY2(ended && launcher.exitStatus() == QProcess::NormalExit && launcher.exitCode() == 0,
                 qPrintable(QStringLiteral("ended %1, status %2, code %3: %4")
                                .arg(ended)
                                .arg(launcher.exitStatus())
                                .arg(launcher.exitCode())
                                .arg(QString::fromLocal8Bit(launcher.readAllStandardError()))));
    }

    // The root folder as the data folder. The launcher runs chrooted into a folder of this test
    // that mirrors every top-level folder of the machine by bind mounts in a private mount
    // namespace, so its "/Zentho" lands here and nothing is written to the real root.
    void rootFolderAsDataHomeRecordsPathsWithoutADoubledSlash() {
        const QString source = path(QStringLiteral("source"));
        makeTwoProgramBuild(source);
        TestFiles::makeFolder(server_->documentRoot() + QStringLiteral("/builds"));
        const QString archive = server_->documentRoot() + QStringLiteral("/builds/0.2.0.tar.gz");
        TestArchives::create(archive, source, {QStringLiteral("zentho")});
        const QString manifest = servedManifest(ManifestJson(
            QStringLiteral("0.2.0"), server_->url(QStringLiteral("/builds/0.2.0.tar.gz")).toString(), TestArchives::sha256sum(archive)));

        const QString root = path(QStringLiteral("root"));
        TestFiles::makeFolder(root);
        const QString mirror = QStringLiteral(
            "set -e\n"
            "root=$0\n"
            "for entry in /*; do\n"
            "  name=${entry#/}\n"
            "  if [ -L \"$entry\" ]; then cp -P \"$entry\" \"$root/$name\"\n"
            "  elif [ -d \"$entry\" ]; then mkdir \"$root/$name\" && mount --rbind \"$entry\" \"$root/$name\"\n"
            "  fi\n"
            "done\n"
            "exec chroot \"$root\" \"$@\"\n");
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("XDG_DATA_HOME"), QStringLiteral("/"));
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        env.insert(QStringLiteral("QT_QUICK_BACKEND"), QStringLiteral("software"));
        env.insert(QStringLiteral("ZENTHO_UPDATE_MANIFEST"), manifest);
        env.insert(QStringLiteral("ZENTHO_LAUNCHER_UPDATE_MANIFEST"), kNoLauncherManifest);
        env.insert(QStringLiteral("ZENTHO_STANDIN_RECORD"), record());
        const QStringList command = server_->commandTrustingCa(
            QStringLiteral("/bin/sh"),
            {QStringLiteral("-c"), mirror, root, RealLauncher::executableOf(LauncherBundles::builtBundle()),
             QStringLiteral("zentho://invite/root-data")});
        QProcess launcher;
        launcher.setProcessEnvironment(env);
        launcher.setStandardOutputFile(QProcess::nullDevice());
        launcher.start(command.first(), command.mid(1));
        const bool ended = launcher.waitForFinished(40000);
        if (!ended) {
            launcher.kill();
            launcher.waitForFinished();
        }
        const QByteArray recorded = RealLauncher::waitForGameRecord(record(), 5000);
        if (!recorded.isEmpty())
            RealLauncher::terminateAndCollect(RealLauncher::recordedPid(recorded));
        QCOMPARE(TestFiles::readFile(LauncherStorage(root).state()),
                 (InstalledState{QStringLiteral("0.2.0"), QStringLiteral("/Zentho/launcher/versions/0.2.0")}
                      .encode()));
        QVERIFY2(ended && launcher.exitStatus() == QProcess::NormalExit && launcher.exitCode() == 0,
                 launcher.readAllStandardError().constData());
        QCOMPARE(lineOf(recorded, "cwd"), QByteArray("/Zentho/launcher/versions/0.2.0"));
    }
};

QTEST_MAIN(TestLocalInputs)
#include "TestLocalInputs.moc"
