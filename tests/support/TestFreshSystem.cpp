#include "FreshDebianBase.h"
#include "FreshSystem.h"
#include "MountNamespace.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TestServer.h"
#include "XvfbSession.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDirIterator>
#include <QFileInfo>
#include <QHash>
#include <QTemporaryDir>
#include <QTest>

#include <cstdio>
#include <functional>
#include <memory>

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using User = FreshSystem::User;

const QStringList suites{QStringLiteral("bookworm"), QStringLiteral("trixie")};

void addSuiteRows() {
    QTest::addColumn<QString>("suite");
    for (const QString& suite : suites)
        QTest::newRow(qPrintable(suite)) << suite;
}

void printProgress(const QString& line) {
    qInfo().noquote() << line;
}

// The files under `root` whose names start with `prefix`, leaving out the kernel's folders and
// the fresh mounts of a working root.
QStringList filesNamed(const QString& root, const QString& prefix) {
    QStringList found;
    const QStringList skipped{"proc", "sys", "dev", "run", "tmp"};
    for (const QString& top :
         QDir(root).entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::NoSymLinks)) {
        if (skipped.contains(top))
            continue;
        QDirIterator it(root + QLatin1Char('/') + top, {prefix + QLatin1Char('*')},
                        QDir::Files | QDir::System | QDir::Hidden, QDirIterator::Subdirectories);
        while (it.hasNext())
            found << it.next().mid(root.size());
    }
    return found;
}

// Every entry of `folder` with its mode, size, modification and change times. Any write, even one
// that puts the old modification time back, moves the change time, which nobody can set; and a
// listing needs none of the reading of 600 MB a digest of each file would.
QStringList changeTimesOf(const QString& folder) {
    QStringList lines;
    QDirIterator it(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        struct stat st {};
        if (::lstat(QFile::encodeName(path).constData(), &st) != 0) {
            lines << path + QStringLiteral(" vanished");
            continue;
        }
        lines << QStringLiteral("%1 %2 %3 %4.%5 %6.%7")
                     .arg(path.mid(folder.size()))
                     .arg(st.st_mode, 0, 8)
                     .arg(st.st_size)
                     .arg(st.st_mtim.tv_sec)
                     .arg(st.st_mtim.tv_nsec)
                     .arg(st.st_ctim.tv_sec)
                     .arg(st.st_ctim.tv_nsec);
    }
    lines.sort();
    return lines;
}

QString describe(const FreshSystem::Result& result) {
    return QStringLiteral("exit %1: %2").arg(result.exitCode).arg(QString::fromUtf8(result.output));
}

// The library this test's own Qt Core was loaded from.
QString hostQtCore() {
    Dl_info info{};
    if (::dladdr(reinterpret_cast<void*>(&qVersion), &info) == 0 || !info.dli_fname)
        return {};
    return QFileInfo(QString::fromLocal8Bit(info.dli_fname)).canonicalFilePath();
}

bool waitUntil(const std::function<bool()>& condition, int timeoutMs = 10000) {
    const QDeadlineTimer deadline(timeoutMs);
    while (!condition()) {
        if (deadline.hasExpired())
            return false;
        QTest::qWait(20);
    }
    return true;
}

// The sleep processes in namespace `name`: what the teardown tests leave running in a root.
QList<qint64> sleepersIn(const QString& name) {
    QList<qint64> found;
    for (const qint64 pid : MountNamespace::members(name)) {
        if (TestFiles::readFile(QStringLiteral("/proc/%1/cmdline").arg(pid))
                .startsWith("/bin/sleep"))
            found << pid;
    }
    return found;
}

// Starts a child of the test, and a game that left its session and is nobody's child; true
// once both run.
bool startSleepers(FreshSystem& fresh) {
    fresh.start({"/bin/sleep", "600"});
    return fresh.run({"/bin/sh", "-c", "setsid /bin/sleep 601 </dev/null >/dev/null 2>&1 &"})
               .succeeded() &&
           waitUntil([&] { return sleepersIn(fresh.mountNamespace()).size() == 2; });
}

// Run as a child process by aDyingTestLeavesNothingBehind: holds a root with sleepers in it,
// prints its namespace and work folder, and waits to be killed.
int holdARootUntilKilled(const QString& suite) {
    FreshSystem fresh(suite);
    if (!startSleepers(fresh))
        return 1;
    std::printf("%s %s\n", qPrintable(fresh.mountNamespace()), qPrintable(fresh.workFolder()));
    std::fflush(stdout);
    for (;;)
        ::pause();
}

} // namespace

class TestFreshSystem : public QObject {
    Q_OBJECT

    std::unique_ptr<TestServer> server;
    QHash<QString, QStringList> cacheBefore;

    // A GET of /fresh/hello.txt over HTTPS by the root's own openssl, which verifies the server
    // against the root's own CA store and nothing else.
    FreshSystem::Result fetchHello(const FreshSystem& fresh) const {
        const QString connect = QStringLiteral("127.0.0.1:%1").arg(server->httpsPort());
        return fresh.run(
            {"/usr/bin/openssl", "s_client", "-connect", connect, "-verify_return_error",
             "-verify_ip", "127.0.0.1", "-quiet"},
            User::player, {},
            "GET /fresh/hello.txt HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
    }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(root);
        ZENTHO_REQUIRE(debootstrap);
        ZENTHO_REQUIRE(nginx);
        // Minutes the first time for each suite, then only the stamp is read.
        for (const QString& suite : suites) {
            const FreshDebianBase base(suite);
            base.ensure(printProgress);
            cacheBefore.insert(suite, changeTimesOf(base.folder()));
        }
        server = std::make_unique<TestServer>();
        server->writeFile(QStringLiteral("fresh/hello.txt"), "hello from the test server\n");
    }

    void theBaseHoldsNothingTheBuildUses_data() {
        QTest::addColumn<QString>("suite");
        QTest::addColumn<bool>("icuComesWithMesa");
        // Mesa's LLVM needs libxml2; bookworm's libxml2 needs ICU 72, trixie's no ICU at all.
        QTest::newRow("bookworm") << QStringLiteral("bookworm") << true;
        QTest::newRow("trixie") << QStringLiteral("trixie") << false;
    }
    void theBaseHoldsNothingTheBuildUses() {
        QFETCH(QString, suite);
        QFETCH(bool, icuComesWithMesa);
        const QString root = FreshDebianBase(suite).root();
        QVERIFY(QFileInfo(root + QStringLiteral("/usr/lib/x86_64-linux-gnu/libc.so.6")).exists());
        for (const char* prefix : {"libQt6Core.so", "libQt6", "libQCoro", "libisal"})
            QCOMPARE(filesNamed(root, QString::fromLatin1(prefix)), QStringList());
        QCOMPARE(!filesNamed(root, QStringLiteral("libicuuc")).isEmpty(), icuComesWithMesa);

        // Whatever ICU there is came with a dependency; nothing of the build was asked for.
        FreshSystem fresh(suite);
        const FreshSystem::Result manual =
            fresh.run({"/usr/bin/apt-mark", "showmanual"}, User::root);
        QVERIFY2(manual.succeeded(), qPrintable(describe(manual)));
        for (const QString& package : FreshDebianBase::desktopPackages(suite))
            QVERIFY2(manual.output.split('\n').contains(package.toUtf8()), qPrintable(package));
        for (const char* unwanted :
             {"libicu", "libqt6", "qt6", "libqcoro", "libisal", "libzstd-dev"})
            QVERIFY2(!manual.output.contains(unwanted), unwanted);
    }

    void aLibraryCopiedInIsFoundInThatRootOnly_data() { addSuiteRows(); }
    void aLibraryCopiedInIsFoundInThatRootOnly() {
        QFETCH(QString, suite);
        const QString qtCore = hostQtCore();
        QVERIFY(!qtCore.isEmpty());
        QTemporaryDir bundle;
        TestFiles::makeFolder(bundle.filePath(QStringLiteral("Frameworks")));
        QVERIFY(QFile::copy(qtCore, bundle.filePath(QStringLiteral("Frameworks/libQt6Core.so.6"))));

        FreshSystem fresh(suite);
        fresh.copyIn(bundle.filePath(QStringLiteral("Frameworks")),
                     QStringLiteral("/home/player/ZenthoLauncher.app/Contents/Frameworks"));
        QCOMPARE(filesNamed(fresh.hostPath(QStringLiteral("/")), QStringLiteral("libQt6Core.so")),
                 QStringList{QStringLiteral(
                     "/home/player/ZenthoLauncher.app/Contents/Frameworks/libQt6Core.so.6")});
        QCOMPARE(filesNamed(fresh.baseRoot(), QStringLiteral("libQt6Core.so")), QStringList());
    }

    void runsInsideTheRootNotOnTheHost_data() { addSuiteRows(); }
    void runsInsideTheRootNotOnTheHost() {
        QFETCH(QString, suite);
        FreshSystem fresh(suite);
        const FreshSystem::Result release =
            fresh.run({"/bin/sh", "-c", ". /etc/os-release && echo \"$VERSION_CODENAME\""});
        QCOMPARE(release.output.trimmed(), suite.toUtf8());
        const FreshSystem::Result xdgOpen = fresh.run({"/usr/bin/xdg-open", "--version"});
        QVERIFY2(xdgOpen.succeeded() && xdgOpen.output.startsWith("xdg-open "),
                 qPrintable(describe(xdgOpen)));

        // The host's nginx is right here, and not in there.
        QVERIFY(QFileInfo(QStringLiteral("/usr/sbin/nginx")).isExecutable());
        const FreshSystem::Result nginx = fresh.run({"/usr/bin/test", "-e", "/usr/sbin/nginx"});
        QCOMPARE(nginx.exitCode, 1);
    }

    void aPlayerRunsInItsOwnHome_data() { addSuiteRows(); }
    void aPlayerRunsInItsOwnHome() {
        QFETCH(QString, suite);
        FreshSystem fresh(suite);
        const FreshSystem::Result player = fresh.run(
            {"/bin/sh", "-c",
             "echo \"$(id -u) $HOME $(pwd) $XDG_DATA_HOME $(stat -c %u \"$XDG_RUNTIME_DIR\")\" && "
             "touch \"$HOME/mine\""});
        QCOMPARE(player.output,
                 QByteArray("1000 /home/player /home/player /home/player/.local/share 1000\n"));
        struct stat made {};
        QCOMPARE(
            ::stat(
                QFile::encodeName(fresh.hostPath(QStringLiteral("/home/player/mine"))).constData(),
                &made),
            0);
        QCOMPARE(int(made.st_uid), FreshSystem::playerUid);

        // A player is no administrator; root is.
        const FreshSystem::Result denied = fresh.run({"/usr/bin/touch", "/etc/zentho"});
        QVERIFY2(denied.exitCode == 1 && denied.output.contains("Permission denied"),
                 qPrintable(describe(denied)));
        const FreshSystem::Result root =
            fresh.run({"/bin/sh", "-c", "id -u && pwd && touch /etc/zentho"}, User::root);
        QCOMPARE(root.output, QByteArray("0\n/root\n"));
    }

    void aCopiedBundleBelongsToItsOwner_data() { addSuiteRows(); }
    void aCopiedBundleBelongsToItsOwner() {
        QFETCH(QString, suite);
        QTemporaryDir bundle;
        TestFiles::writeScript(bundle.filePath(QStringLiteral("Contents/MacOS/run")),
                               "cd \"$(dirname \"$0\")\" && touch written && echo ran\n");
        // A temporary folder is the test's alone (0700); a bundle is open to everyone.
        QVERIFY(QFile::setPermissions(bundle.path(), QFile::ReadOwner | QFile::WriteOwner |
                                                         QFile::ExeOwner | QFile::ReadGroup |
                                                         QFile::ExeGroup | QFile::ReadOther |
                                                         QFile::ExeOther));
        FreshSystem fresh(suite);
        fresh.copyIn(bundle.path(), QStringLiteral("/home/player/Apps/Mine.app"));
        fresh.copyIn(bundle.path(), QStringLiteral("/opt/Shared.app"), User::root);

        const FreshSystem::Result own =
            fresh.run({"/home/player/Apps/Mine.app/Contents/MacOS/run"});
        QVERIFY2(own.succeeded() && own.output == "ran\n", qPrintable(describe(own)));
        QVERIFY(QFileInfo::exists(
            fresh.hostPath(QStringLiteral("/home/player/Apps/Mine.app/Contents/MacOS/written"))));
        // Root's copy runs for the player but cannot be changed by it.
        const FreshSystem::Result shared = fresh.run({"/opt/Shared.app/Contents/MacOS/run"});
        QVERIFY2(shared.exitCode == 1 && shared.output.contains("Permission denied"),
                 qPrintable(describe(shared)));
    }

    void theRootTrustsOnlyWhatItsOwnStoreHolds_data() {
        QTest::addColumn<QString>("suite");
        QTest::addColumn<bool>("caAdded");
        for (const QString& suite : suites) {
            QTest::newRow(qPrintable(suite + QStringLiteral(" with the test CA"))) << suite << true;
            QTest::newRow(qPrintable(suite + QStringLiteral(" without it"))) << suite << false;
        }
    }
    void theRootTrustsOnlyWhatItsOwnStoreHolds() {
        QFETCH(QString, suite);
        QFETCH(bool, caAdded);
        FreshSystem fresh(suite);
        if (caAdded)
            fresh.trustCa(TestServer::caPath());
        const FreshSystem::Result fetched = fetchHello(fresh);
        if (caAdded) {
            QVERIFY2(fetched.succeeded(), qPrintable(describe(fetched)));
            QVERIFY2(fetched.output.contains("\r\n\r\nhello from the test server\n"),
                     qPrintable(describe(fetched)));
        } else {
            QVERIFY2(!fetched.succeeded(), qPrintable(describe(fetched)));
            QVERIFY2(fetched.output.contains("unable to get local issuer certificate"),
                     qPrintable(describe(fetched)));
            QVERIFY(!fetched.output.contains("hello from the test server"));
        }
    }

    void theDisplayReachesTheRootOnlyWhenGiven_data() { addSuiteRows(); }
    void theDisplayReachesTheRootOnlyWhenGiven() {
        ZENTHO_REQUIRE(xvfb);
        QFETCH(QString, suite);
        XvfbSession xvfb;
        QVERIFY(!xvfb.display().isEmpty());
        const QString socket = QStringLiteral("/tmp/.X11-unix/X") + xvfb.display().mid(1);
        const QStringList check{"/bin/sh", "-c", "test -S \"$1\" && echo \"$DISPLAY\"", "sh",
                                socket};

        FreshSystem withDisplay(suite, xvfb.display());
        const FreshSystem::Result seen = withDisplay.run(check);
        QVERIFY2(seen.succeeded() && seen.output == xvfb.display().toUtf8() + '\n',
                 qPrintable(describe(seen)));
        FreshSystem without(suite);
        QCOMPARE(without.run(check).exitCode, 1);
    }

    void endingTheRootEndsEverythingInIt_data() { addSuiteRows(); }
    void endingTheRootEndsEverythingInIt() {
        QFETCH(QString, suite);
        auto fresh = std::make_unique<FreshSystem>(suite);
        const QString name = fresh->mountNamespace();
        const QString work = fresh->workFolder();
        // While it lives, its processes and mounts are there to be found, but only inside.
        QVERIFY(startSleepers(*fresh));
        QVERIFY(MountNamespace::mountPointsUnder(work, fresh->holderPid())
                    .contains(fresh->mountPoint() + QStringLiteral("/proc")));
        QCOMPARE(MountNamespace::mountPointsUnder(work), QStringList());
        const QList<qint64> inside = MountNamespace::members(name);

        fresh.reset();
        QCOMPARE(MountNamespace::members(name), QList<qint64>());
        // Gone, not only out of the namespace: the orphan must not linger even as a zombie.
        for (const qint64 pid : inside)
            QVERIFY2(
                waitUntil([&] { return !QFileInfo::exists(QStringLiteral("/proc/%1").arg(pid)); }),
                qPrintable(QString::number(pid)));
        QCOMPARE(MountNamespace::mountPointsUnder(work), QStringList());
        QVERIFY(!QFileInfo::exists(work));
    }

    // Killed, the test runs no destructor; the root still goes with it.
    void aDyingTestLeavesNothingBehind_data() { addSuiteRows(); }
    void aDyingTestLeavesNothingBehind() {
        QFETCH(QString, suite);
        QTemporaryDir scratch; // the dead test's own temporary folder, removed here
        QProcess dying;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("ZENTHO_HOLD_FRESH_ROOT"), suite);
        environment.insert(QStringLiteral("TMPDIR"), scratch.path());
        dying.setProcessEnvironment(environment);
        dying.start(QCoreApplication::applicationFilePath(), {});
        QVERIFY(waitUntil(
            [&] { return dying.canReadLine() || dying.state() == QProcess::NotRunning; }, 60000));
        const QStringList said =
            QString::fromLocal8Bit(dying.readLine()).trimmed().split(QLatin1Char(' '));
        QVERIFY2(said.size() == 2,
                 qPrintable(said.join(' ') + QString::fromLocal8Bit(dying.readAllStandardError())));
        const QString name = said[0];
        const QString work = said[1];
        QVERIFY(work.startsWith(scratch.path() + QLatin1Char('/')));
        QCOMPARE(sleepersIn(name).size(), 2);

        dying.kill();
        QVERIFY(dying.waitForFinished());
        QVERIFY2(waitUntil([&] { return MountNamespace::members(name).isEmpty(); }, 30000),
                 qPrintable(QString::number(MountNamespace::members(name).size())));
        QCOMPARE(MountNamespace::mountPointsUnder(work), QStringList());
    }

    void aWriteInsideLeavesTheBaseAlone_data() { addSuiteRows(); }
    void aWriteInsideLeavesTheBaseAlone() {
        QFETCH(QString, suite);
        FreshSystem fresh(suite);
        const FreshSystem::Result changed = fresh.run(
            {"/bin/sh", "-c", "rm /usr/bin/xdg-open && echo x > /etc/zentho-was-here"}, User::root);
        QVERIFY2(changed.succeeded(), qPrintable(describe(changed)));
        QCOMPARE(fresh.run({"/usr/bin/test", "-e", "/usr/bin/xdg-open"}).exitCode, 1);
        QCOMPARE(fresh.run({"/bin/cat", "/etc/zentho-was-here"}).output, QByteArray("x\n"));
        QVERIFY(QFileInfo(fresh.baseRoot() + QStringLiteral("/usr/bin/xdg-open")).isExecutable());
        QVERIFY(!QFileInfo::exists(fresh.baseRoot() + QStringLiteral("/etc/zentho-was-here")));
    }

    // Last: after everything above, the cached bases are as they were made.
    void theCachedBasesAreUnchanged_data() { addSuiteRows(); }
    void theCachedBasesAreUnchanged() {
        QFETCH(QString, suite);
        QVERIFY(!cacheBefore.value(suite).isEmpty());
        QCOMPARE(changeTimesOf(FreshDebianBase(suite).folder()), cacheBefore.value(suite));
    }
};

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const QString held = qEnvironmentVariable("ZENTHO_HOLD_FRESH_ROOT");
    if (!held.isEmpty())
        return holdARootUntilKilled(held);
    TestFreshSystem test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}
#include "TestFreshSystem.moc"
