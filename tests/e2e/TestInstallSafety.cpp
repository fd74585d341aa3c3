// The real launcher installing archives that try to reach outside the storage, being killed in
// the middle of an install, sharing its storage with a second launcher, and unpacking a large
// archive while its window must keep running. Each case is observed through what runs, what is
// on disk afterwards and what the server was asked for.

#include "InstallFixture.h"
#include "LauncherBundles.h"
#include "ManifestJson.h"
#include "StandinGames.h"
#include "TestArchives.h"
#include "TestFiles.h"
#include "TestRequirements.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <csignal>
#include <memory>
#include <vector>
#include <sys/wait.h>

namespace {

const QString kInvite = QStringLiteral("zentho://invite/install-safety");
const QString kNoLauncherUpdate = QStringLiteral("file:///dev/null/no-launcher-manifest.json");
const QString kPrevious = QStringLiteral("0.5.0");
const QString kNew = QStringLiteral("0.6.0");

// Children of `pid` whose command name is `name`, from /proc.
QList<qint64> childrenNamed(qint64 pid, const QByteArray& name) {
    QList<qint64> found;
    for (const QString& entry : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        bool number = false;
        const qint64 child = entry.toLongLong(&number);
        if (!number)
            continue;
        QFile comm(QStringLiteral("/proc/%1/comm").arg(child));
        if (comm.open(QIODevice::ReadOnly) && comm.readAll().trimmed() == name &&
            StandinGames::parentProcess(child) == std::optional<qint64>(pid))
            found << child;
    }
    return found;
}

// The tar children of `pid` that unpack (the archive is also listed, by another tar, while it
// downloads).
QList<qint64> unpackingTars(qint64 pid) {
    QList<qint64> found;
    for (const qint64 child : childrenNamed(pid, "tar")) {
        QFile cmdline(QStringLiteral("/proc/%1/cmdline").arg(child));
        if (!cmdline.open(QIODevice::ReadOnly))
            continue;
        const QList<QByteArray> arguments = cmdline.readAll().split('\0');
        if (arguments.size() > 1 && arguments[1].startsWith("-x"))
            found << child;
    }
    return found;
}

} // namespace

class TestInstallSafety : public QObject, InstallFixture {
    Q_OBJECT

    QString launcherRoot() const { return storage().root(); }
    QString statePath() const { return storage().state(); }

    void installPrevious() { installCurrent(kPrevious); }
    // Serves the archive of `members` of `folder` under `location` (for example "/trickle") and a
    // manifest for version 0.6.0 naming it; returns the manifest's URL.
    QString publish(const QString& folder, const QStringList& members,
                    const QString& location = QString(), const QStringList& tarOptions = {}) {
        return InstallFixture::publish(kNew, TestArchives::bytesOf(folder, members, tarOptions), location).manifest;
    }
    QStringList leftovers() const {
        return QDir(launcherRoot())
            .entryList({QStringLiteral("staging-*"), QStringLiteral("current-macos.json.tmp"),
                        QStringLiteral(".current-macos.json.tmp.*")},
                       QDir::AllEntries | QDir::Hidden | QDir::System);
    }
    // A build folder "big" with a recorder as zentho and `megabytes` of zeros beside it: small
    // to download, slow to unpack.
    QString bigBuild(int megabytes) {
        const QString folder = path(QStringLiteral("big"));
        StandinGames::recorder(folder, record(), 1.5);
        QProcess dd;
        dd.start(QStringLiteral("/bin/dd"), {QStringLiteral("if=/dev/zero"),
                                             QStringLiteral("of=") + folder + QStringLiteral("/pad"),
                                             QStringLiteral("bs=1M"),
                                             QStringLiteral("count=%1").arg(megabytes)});
        dd.waitForFinished(60000);
        return folder;
    }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(root);
        ZENTHO_REQUIRE(nginx);
        setUpSuite();
    }
    void init() { setUp(); }
    void cleanup() { tearDown(); }

    // An archive whose game is a link to a file outside: the file keeps its mode, nothing is
    // recorded, and the installed build starts.
    void executableLinkedOutsideIsRefused() {
        installPrevious();
        const QString outside = path(QStringLiteral("secret"));
        TestFiles::writeFile(outside, "not yours", 0600);
        const QString folder = path(QStringLiteral("linked"));
        QVERIFY(QDir().mkpath(folder));
        QVERIFY(QFile::link(outside, folder + QStringLiteral("/zentho")));
        QCOMPARE(press(publish(folder, {QStringLiteral("zentho")})), build(kPrevious));
        QCOMPARE(TestFiles::modeOf(outside), 0600);
        QVERIFY(!QFileInfo::exists(build(kNew)));
        QVERIFY(TestFiles::readFile(statePath()).contains("0.5.0"));
    }
    // The twin: a link that stays inside the build is a game like any other.
    void executableLinkedInsideInstalls() {
        installPrevious();
        const QString folder = path(QStringLiteral("inside"));
        StandinGames::recorder(folder + QStringLiteral("/bin"), record(), 1.5);
        QVERIFY(QFile::setPermissions(folder + QStringLiteral("/bin/zentho"),
                                      QFile::ReadOwner | QFile::WriteOwner));
        QVERIFY(QFile::link(QStringLiteral("bin/zentho"), folder + QStringLiteral("/zentho")));
        QCOMPARE(press(publish(folder, {QStringLiteral("zentho"), QStringLiteral("bin")})),
                 build(kNew));
        QCOMPARE(TestFiles::modeOf(build(kNew) + QStringLiteral("/bin/zentho")), 0755);
    }

    // A folder in the game's place never becomes current, so every later press still starts the
    // installed build.
    void executableThatIsAFolderIsNeverRecorded() {
        installPrevious();
        const QString folder = path(QStringLiteral("folder"));
        TestFiles::writeFile(folder + QStringLiteral("/zentho/inside"), "x");
        const QString manifest = publish(folder, {QStringLiteral("zentho")});
        QCOMPARE(press(manifest), build(kPrevious));
        QCOMPARE(press(manifest), build(kPrevious));
        QVERIFY(TestFiles::readFile(statePath()).contains("0.5.0"));
        QCOMPARE(leftovers(), QStringList());
    }

    // A launcher archive whose bundle is a link to the running bundle is refused before the swap:
    // the running bundle stays a real folder and no backup is made.
    void linkedLauncherBundleIsRefused() {
        const QString apps = path(QStringLiteral("Applications"));
        QVERIFY(QDir().mkpath(apps));
        QProcess copy;
        copy.start(QStringLiteral("/bin/cp"), {QStringLiteral("-a"), LauncherBundles::builtBundle(), apps});
        QVERIFY(copy.waitForFinished(60000) && copy.exitCode() == 0);
        const QString running = apps + QStringLiteral("/ZenthoLauncher.app");
        const QString source = path(QStringLiteral("bundle-link"));
        QVERIFY(QDir().mkpath(source));
        QVERIFY(QFile::link(running, source + QStringLiteral("/ZenthoLauncher.app")));
        const QString archive = server_->writeFile(
            QStringLiteral("linked-launcher.tar.gz"),
            TestArchives::bytesOf(source, {QStringLiteral("ZenthoLauncher.app")}));
        server_->writeFile(QStringLiteral("launcher.json"),
                           ManifestJson::launcher(QStringLiteral("0.2.0"),
                                                  server_->url(QStringLiteral("/linked-launcher.tar.gz")).toString(),
                                                  TestArchives::sha256sum(archive)));

        RealLauncher real(running, data());
        real.useManifests(kNoLauncherUpdate, server_->url(QStringLiteral("/launcher.json")).toString());
        real.recordGameStartIn(record());
        real.start(*server_, kInvite);
        QCOMPARE(real.waitForExit(60000), std::optional<int>(0));
        // The seed game starts: the launcher went on to the game instead of handing over.
        QCOMPARE(startedFolder(), running + QStringLiteral("/Contents/Resources/SeedRuntime"));
        // Whatever the launcher left has ended: a finish script, had one been started, has
        // done all it would.
        QVERIFY(adopted_->waitUntilAllEnded());
        QVERIFY(QFileInfo(running).isDir() && !QFileInfo(running).isSymLink());
        QVERIFY(QFileInfo(RealLauncher::executableOf(running)).isExecutable());
        QCOMPARE(QDir(launcherRoot()).entryList({QStringLiteral("launcher-backup-*"),
                                                 QStringLiteral("finish-launcher-update-*")}),
                 QStringList());
    }

    // SIGKILL while tar unpacks: the tar ends with the launcher, and the next start removes the
    // unpacking folder and the temporary state files a crash leaves, then installs.
    void killedInstallIsClearedByTheNextStart() {
        installPrevious();
        TestFiles::writeFile(launcherRoot() + QStringLiteral("/staging-EARLIER/file"), "x");
        TestFiles::writeFile(launcherRoot() + QStringLiteral("/current-macos.json.tmp"), "{}");
        TestFiles::writeFile(launcherRoot() + QStringLiteral("/.current-macos.json.tmp.EARLIER"), "{}");
        const QString manifest = publish(bigBuild(400), {QStringLiteral("zentho"), QStringLiteral("pad")});

        std::unique_ptr<RealLauncher> first = launcher(manifest);
        first->start(*server_, kInvite);
        const qint64 pid = first->launcherPid();
        QVERIFY(pid > 0);
        QList<qint64> tars;
        QTRY_VERIFY_WITH_TIMEOUT(!(tars = unpackingTars(pid)).isEmpty(), 30000);
        ::kill(static_cast<pid_t>(pid), SIGKILL);
        first->waitForExit(10000);
        // The orphan comes to this test. Left running, it would go on writing the whole pad; it
        // must end with its launcher instead, its work unfinished.
        int status = 0;
        QCOMPARE(::waitpid(pid_t(tars.first()), &status, 0), pid_t(tars.first()));
        QVERIFY(!WIFEXITED(status) || WEXITSTATUS(status) != 0);
        QVERIFY(adopted_->waitUntilAllEnded());
        const QStringList staged = leftovers().filter(QStringLiteral("staging-"));
        QVERIFY(!staged.isEmpty());
        qint64 unpacked = 0;
        for (const QString& folder : staged)
            unpacked = std::max(unpacked, QFileInfo(launcherRoot() + QLatin1Char('/') + folder + QStringLiteral("/pad")).size());
        QVERIFY2(unpacked < qint64(400) << 20, qPrintable(QString::number(unpacked)));

        QCOMPARE(press(manifest), build(kNew));
        QCOMPARE(leftovers(), QStringList());
        QVERIFY(TestFiles::readFile(statePath()).contains("0.6.0"));
    }

    // While tar runs, the launcher's main thread waits in its event loop, never for tar: the
    // window keeps drawing and answering.
    void mainThreadNeverWaitsForTar() {
        installPrevious();
        const QString manifest = publish(bigBuild(600), {QStringLiteral("zentho"), QStringLiteral("pad")});
        std::unique_ptr<RealLauncher> real = launcher(manifest);
        real->start(*server_, kInvite);
        const qint64 pid = real->launcherPid();
        QVERIFY(pid > 0);
        int samples = 0;
        int waiting = 0;
        for (QDeadlineTimer deadline(120000); !deadline.hasExpired() && ::kill(static_cast<pid_t>(pid), 0) == 0;) {
            if (!childrenNamed(pid, "tar").isEmpty()) {
                QFile syscall(QStringLiteral("/proc/%1/syscall").arg(pid));
                if (syscall.open(QIODevice::ReadOnly)) {
                    const QByteArray number = syscall.readAll().split(' ').first().trimmed();
                    ++samples;
                    if (number == "61") // wait4: blocked until the child ends
                        ++waiting;
                }
            }
            QTest::qWait(5);
            if (QFileInfo::exists(record()))
                break;
        }
        real->waitForExit(60000);
        QCOMPARE(startedFolder(), build(kNew));
        QVERIFY2(samples >= 20, qPrintable(QString::number(samples)));
        QCOMPARE(waiting, 0);
    }

    // A folder the archive makes read-only must not outlive a failed install, also for a
    // launcher without the privilege to ignore permissions.
    void readOnlyFolderOfAFailedInstallIsRemoved() {
        installPrevious();
        const QString folder = path(QStringLiteral("locked"));
        TestFiles::writeFile(folder + QStringLiteral("/locked/file"), "x");
        QVERIFY(QFile::setPermissions(folder + QStringLiteral("/locked"),
                                      QFile::ReadOwner | QFile::ExeOwner));
        // The folder's own entry after its file, so tar makes it read-only once it is filled.
        // There is no game in it, so the install fails and must remove what it unpacked.
        const QString manifest = publish(folder, {QStringLiteral("locked/file"), QStringLiteral("locked")},
                                         QString(), {QStringLiteral("--no-recursion")});
        std::unique_ptr<RealLauncher> real = launcher(manifest);
        real->runThrough({QStringLiteral("/usr/bin/setpriv"),
                          QStringLiteral("--bounding-set=-dac_override,-dac_read_search")});
        QCOMPARE(press(*real), build(kPrevious));
        // The install got as far as unpacking: the archive was fetched.
        QCOMPARE(server_->accessLog().count(QStringLiteral("GET /game-%1.tar.gz ").arg(serial_)), 1);
        QCOMPARE(leftovers(), QStringList());
    }

    // Two launchers on one storage, started from different runtime folders so they cannot hand
    // links to each other, download and install the build once between them.
    void twoLaunchersOnOneStorageInstallOnce() {
        installPrevious();
        const QString folder = path(QStringLiteral("slow"));
        StandinGames::recorder(folder, record(), 1.5);
        QProcess random;
        random.start(QStringLiteral("/bin/dd"), {QStringLiteral("if=/dev/urandom"),
                                                 QStringLiteral("of=") + folder + QStringLiteral("/noise"),
                                                 QStringLiteral("bs=1k"), QStringLiteral("count=12")});
        QVERIFY(random.waitForFinished(10000));
        const QString manifest = publish(folder, {QStringLiteral("zentho"), QStringLiteral("noise")},
                                         QStringLiteral("/trickle"));
        const QString archiveName = QStringLiteral("game-%1.tar.gz").arg(serial_);

        std::vector<std::unique_ptr<RealLauncher>> launchers;
        for (const QString& name : {QStringLiteral("one"), QStringLiteral("two")}) {
            const QString runtime = path(QStringLiteral("runtime-") + name);
            QVERIFY(QDir().mkpath(runtime));
            launchers.push_back(launcher(manifest));
            launchers.back()->environment().insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime);
        }
        for (auto& real : launchers)
            real->start(*server_, kInvite);
        for (auto& real : launchers)
            QCOMPARE(real->waitForExit(60000), std::optional<int>(0));
        // Both games record into the build's one record file: the newer one started from 0.6.0.
        QCOMPARE(startedFolder(), build(kNew));
        QCOMPARE(server_->accessLog().count(QStringLiteral("GET /trickle/") + archiveName), 1);
        QCOMPARE(leftovers(), QStringList());
    }

    // A TMPDIR that names no folder leaves process captures and downloads in /tmp, and the
    // install works.
    void missingTemporaryFolderStillInstalls() {
        installPrevious();
        const QString folder = path(QStringLiteral("plain"));
        StandinGames::recorder(folder, record(), 1.5);
        std::unique_ptr<RealLauncher> real =
            launcher(publish(folder, {QStringLiteral("zentho")}));
        real->environment().insert(QStringLiteral("TMPDIR"), path(QStringLiteral("no-such-folder")));
        QCOMPARE(press(*real), build(kNew));
        QCOMPARE(QDir(QStringLiteral("/")).entryList({QStringLiteral("zentho-*")}), QStringList());
    }

    // The launcher executable checks seals itself, with no window, when asked as the verifier.
    void launcherExecutableVerifiesSeals() {
        const QString launcherExe = RealLauncher::executableOf(LauncherBundles::builtBundle());
        QProcess verify;
        verify.start(launcherExe, {QStringLiteral("--codesign"), QStringLiteral("--verify"),
                                   QStringLiteral("--deep"), QStringLiteral("--strict"),
                                   LauncherBundles::builtBundle()});
        QVERIFY(verify.waitForFinished(20000));
        QCOMPARE(verify.exitCode(), 0);

        const QString copy = path(QStringLiteral("ZenthoLauncher.app"));
        QProcess cp;
        cp.start(QStringLiteral("/bin/cp"), {QStringLiteral("-a"), LauncherBundles::builtBundle(), copy});
        QVERIFY(cp.waitForFinished(60000) && cp.exitCode() == 0);
        TestFiles::writeFile(copy + QStringLiteral("/Contents/Resources/SeedRuntime/zentho"), "changed", 0755);
        verify.start(launcherExe, {QStringLiteral("--codesign"), QStringLiteral("--verify"),
                                   QStringLiteral("--deep"), QStringLiteral("--strict"), copy});
        QVERIFY(verify.waitForFinished(20000));
        QCOMPARE(verify.exitCode(), 1);
        QCOMPARE(verify.readAllStandardError(),
                 QByteArray("Contents/Resources/SeedRuntime/zentho: content changed\n"));
    }
};

QTEST_GUILESS_MAIN(TestInstallSafety)
#include "TestInstallSafety.moc"
