// Links opened the way a desktop opens them, on the launcher installed into a fresh home: xdg-open
// in its generic mode (no desktop environment) and in a GNOME session, on a private X server,
// with the stand-in game recording the link it receives. Then the uninstaller, which takes the
// install away again, handler included, and keeps the player's builds and data.

#include "AdoptedProcesses.h"
#include "LauncherBundles.h"
#include "LauncherStorage.h"
#include "RealLauncher.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "XvfbSession.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <memory>
#include <optional>

namespace {

const QString kLink = QStringLiteral("zentho://join/abc?from=friend&seat=2");
const QString kHandler = QStringLiteral("x-scheme-handler/zentho=zentho-launcher.desktop");

struct Run {
    int exitCode = -1;
    QString output;
};

} // namespace

class TestDesktopLinks : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> dir_;
    std::unique_ptr<XvfbSession> screen_;
    std::optional<AdoptedProcesses> adopted_;

    QString home() const { return dir_->filePath(QStringLiteral("home")); }
    QString prefix() const { return home() + QStringLiteral("/.local"); }
    QString entry() const { return prefix() + QStringLiteral("/share/applications/zentho-launcher.desktop"); }
    QString mimeapps() const { return home() + QStringLiteral("/.config/mimeapps.list"); }
    QString record() const { return dir_->filePath(QStringLiteral("record")); }
    QString storage() const { return home() + QStringLiteral("/.local/share/Zentho"); }
    LauncherStorage launcherStorage() const { return LauncherStorage(home() + QStringLiteral("/.local/share")); }

    // No game started and none can start any more: everything the last command left behind has
    // ended (a launcher it started would have started a game and left it running).
    bool noGameStarted() {
        return adopted_->waitUntilAllEnded() && !QFileInfo::exists(record());
    }

    // A player's session: HOME, a display, no session bus and, unless `desktop` names one, no
    // desktop environment. The launcher finds no manifest (offline) and starts its seed game.
    QProcessEnvironment session(const QString& desktop = {}) const {
        QProcessEnvironment env;
        env.insert(QStringLiteral("PATH"), qEnvironmentVariable("PATH"));
        env.insert(QStringLiteral("HOME"), home());
        // A sanitized build keeps the sanitizer settings the test run was given.
        for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
            if (qEnvironmentVariableIsSet(name))
                env.insert(QString::fromLatin1(name), qEnvironmentVariable(name));
        }
        env.insert(QStringLiteral("XDG_RUNTIME_DIR"), dir_->filePath(QStringLiteral("runtime")));
        env.insert(QStringLiteral("DISPLAY"), screen_->display());
        env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), QStringLiteral("disabled:"));
        if (!desktop.isEmpty())
            env.insert(QStringLiteral("XDG_CURRENT_DESKTOP"), desktop);
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
        env.insert(QStringLiteral("QT_QUICK_BACKEND"), QStringLiteral("software"));
        env.insert(QStringLiteral("ZENTHO_UPDATE_MANIFEST"), QStringLiteral("file:///nonexistent/game.json"));
        env.insert(QStringLiteral("ZENTHO_LAUNCHER_UPDATE_MANIFEST"), QStringLiteral("file:///nonexistent/launcher.json"));
        env.insert(QStringLiteral("ZENTHO_STANDIN_RECORD"), record());
        return env;
    }

    // Runs `program` to its end. Its output goes to a file, not a pipe: what it leaves running
    // (gio open returns at once) must not die writing to a pipe nobody reads any more.
    Run run(const QString& program, const QStringList& arguments, const QProcessEnvironment& env) const {
        const QString output = dir_->filePath(QStringLiteral("output"));
        QFile::remove(output);
        QProcess process;
        process.setProcessEnvironment(env);
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.setStandardOutputFile(output);
        process.start(program, arguments);
        if (!process.waitForFinished(240000) || process.exitStatus() != QProcess::NormalExit) {
            process.kill();
            process.waitForFinished();
            return {};
        }
        return {process.exitCode(), QString::fromUtf8(TestFiles::readFile(output))};
    }

    Run install(const QString& where) const {
        return run(QStandardPaths::findExecutable(QStringLiteral("cmake")),
                   {QStringLiteral("--install"), LauncherBundles::buildDir(), QStringLiteral("--prefix"), where},
                   session());
    }

    // Every path under the home folder, relative to it, with a link's target.
    QStringList homeTree() const {
        QStringList paths;
        QDirIterator it(home(), QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                        QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QFileInfo info(it.next());
            paths << QDir(home()).relativeFilePath(info.filePath()) +
                         (info.isSymLink() ? QStringLiteral(" -> ") + info.symLinkTarget() : QString());
        }
        paths.sort();
        return paths;
    }

    // The game's record of the link it got, once it has started; the game is then ended.
    QByteArray gameRecord(int timeoutMs = 20000) const {
        const QByteArray recorded = RealLauncher::waitForGameRecord(record(), timeoutMs);
        if (const qint64 pid = RealLauncher::recordedPid(recorded))
            RealLauncher::terminateAndCollect(pid);
        return recorded;
    }

    QByteArray seedFolder() const {
        return QFile::encodeName(prefix()) + "/lib/zentho/ZenthoLauncher.app/Contents/Resources/SeedRuntime";
    }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(xvfb);
        QVERIFY(RealLauncher::becomeSubreaper());
        screen_ = std::make_unique<XvfbSession>();
        QVERIFY(!screen_->display().isEmpty());
    }

    void init() {
        dir_ = std::make_unique<QTemporaryDir>();
        adopted_.emplace();
        TestFiles::makeFolder(home());
        TestFiles::makeFolder(dir_->filePath(QStringLiteral("runtime")));
        QFile::setPermissions(dir_->filePath(QStringLiteral("runtime")),
                              QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    }
    void cleanup() { adopted_.reset(); }

    void genericXdgOpenStartsTheInstalledLauncherWithTheLink() {
        const Run installed = install(prefix());
        QVERIFY2(installed.exitCode == 0, qPrintable(installed.output));
        const Run opened = run(QStringLiteral("/usr/bin/xdg-open"), {kLink}, session());
        const QByteArray recorded = gameRecord();
        QVERIFY2(opened.exitCode == 0, qPrintable(opened.output));
        // The installed launcher's seed game, given the link as it stands.
        QVERIFY2(recorded.contains("\ncwd=" + seedFolder() + "\n"), recorded.constData());
        QVERIFY(recorded.contains("\narg=" + kLink.toUtf8() + "\npid="));
    }

    void gnomeOpensTheLinkToo() {
        QVERIFY2(install(prefix()).exitCode == 0, "install");
        const Run opened = run(QStringLiteral("/usr/bin/xdg-open"), {kLink}, session(QStringLiteral("GNOME")));
        QVERIFY2(opened.exitCode == 0, qPrintable(opened.output));
        const QByteArray recorded = gameRecord();
        QVERIFY2(recorded.contains("\ncwd=" + seedFolder() + "\n"), (recorded + opened.output.toUtf8()).constData());
        QVERIFY(recorded.contains("\narg=" + kLink.toUtf8() + "\npid="));
    }

    void genericModeCannotRunAQuotedExec() {
        // Why the entry's Exec stands unquoted: the same entry with the path quoted fails.
        QVERIFY2(install(prefix()).exitCode == 0, "install");
        QString text = QString::fromUtf8(TestFiles::readFile(entry()));
        const QString launcher = prefix() + QStringLiteral("/lib/zentho/ZenthoLauncher.app/Contents/MacOS/ZenthoLauncher");
        const QString plain = QStringLiteral("Exec=%1 %u").arg(launcher);
        QVERIFY(text.contains(plain));
        text.replace(plain, QStringLiteral("Exec=\"%1\" %u").arg(launcher));
        TestFiles::writeFile(entry(), text.toUtf8());
        const Run opened = run(QStringLiteral("/usr/bin/xdg-open"), {kLink}, session());
        QCOMPARE(opened.exitCode, 4);
        QVERIFY2(opened.output.contains(QStringLiteral("Permission denied")), qPrintable(opened.output));
        QVERIFY(noGameStarted());
    }

    void uninstallRemovesTheInstallAndKeepsThePlayersData() {
        // What the player had before: another tool, other link choices.
        TestFiles::writeScript(prefix() + QStringLiteral("/bin/other-tool"), "exit 0\n");
        const QByteArray choices = "[Default Applications]\ntext/html=browser.desktop\n";
        TestFiles::writeFile(mimeapps(), choices);
        const QStringList before = homeTree();

        QVERIFY2(install(prefix()).exitCode == 0, "install");
        QVERIFY(QString::fromUtf8(TestFiles::readFile(mimeapps())).contains(kHandler));
        // The player plays: the launcher keeps a build and its record in the storage.
        QCOMPARE(run(QStringLiteral("/usr/bin/xdg-open"), {kLink}, session()).exitCode, 0);
        QVERIFY(!gameRecord().isEmpty());
        TestFiles::makeBuild(launcherStorage().build(QStringLiteral("0.2.0")));
        TestFiles::writeFile(launcherStorage().state(),
                             "{\"version\":\"0.2.0\",\"path\":\"x\"}");
        TestFiles::writeFile(storage() + QStringLiteral("/saves/slot1"), "progress");
        QStringList kept{QStringLiteral(".local/share")};
        for (const QString& path : homeTree()) {
            if (path.startsWith(QLatin1String(".local/share/Zentho")))
                kept << path;
        }
        QVERIFY(kept.size() >= 6);

        const Run removed = run(prefix() + QStringLiteral("/bin/zentho-launcher-uninstall"), {}, session());
        QVERIFY2(removed.exitCode == 0, qPrintable(removed.output));
        QVERIFY2(removed.output.contains(QStringLiteral("Kept the player's builds, the current-build record and "
                                                        "the game's data in %1\n").arg(storage())),
                 qPrintable(removed.output));
        QStringList expected = before + kept;
        expected.sort();
        QCOMPARE(homeTree(), expected);
        QCOMPARE(TestFiles::readFile(mimeapps()), choices);
        // Nothing handles the links any more.
        QVERIFY(QFile::remove(record()));
        QVERIFY(run(QStringLiteral("/usr/bin/xdg-open"), {kLink}, session()).exitCode != 0);
        QVERIFY(noGameStarted());
    }

    void uninstallInAFreshHomeLeavesNothingButTheData() {
        QVERIFY2(install(prefix()).exitCode == 0, "install");
        TestFiles::makeBuild(launcherStorage().build(QStringLiteral("0.2.0")));
        const Run removed = run(prefix() + QStringLiteral("/bin/zentho-launcher-uninstall"), {}, session());
        QVERIFY2(removed.exitCode == 0, qPrintable(removed.output));
        // No handler registration (the list the install made is gone), no cache, no entry.
        QCOMPARE(homeTree(), (QStringList{QStringLiteral(".config"), QStringLiteral(".local"),
                                          QStringLiteral(".local/share"), QStringLiteral(".local/share/Zentho"),
                                          QStringLiteral(".local/share/Zentho/launcher"),
                                          QStringLiteral(".local/share/Zentho/launcher/versions"),
                                          QStringLiteral(".local/share/Zentho/launcher/versions/0.2.0"),
                                          QStringLiteral(".local/share/Zentho/launcher/versions/0.2.0/zentho")}));
    }

    void uninstallAtAPrefixThatNeedsQuoting() {
        const QString odd = dir_->filePath(QStringLiteral("it's $HOME & co"));
        QVERIFY2(install(odd).exitCode == 0, "install");
        QVERIFY(QFileInfo(odd + QStringLiteral("/lib/zentho/ZenthoLauncher.app")).isDir());
        const Run removed = run(odd + QStringLiteral("/bin/zentho-launcher-uninstall"), {}, session());
        QVERIFY2(removed.exitCode == 0, qPrintable(removed.output));
        QVERIFY2(!QFileInfo::exists(odd), qPrintable(QDir(odd).entryList(QDir::AllEntries | QDir::NoDotAndDotDot).join(' ')));
    }
};

QTEST_GUILESS_MAIN(TestDesktopLinks)
#include "TestDesktopLinks.moc"
