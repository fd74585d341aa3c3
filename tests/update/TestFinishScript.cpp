// The finish script: its exact text, and what it does when run on its own by /bin/sh with small
// bundles whose launcher records that it ran.

#include "LauncherBundles.h"
#include "TestFiles.h"

#include "errors/FileError.h"
#include "platform/FileManager.h"
#include "process/ChildReaper.h"
#include "update/FinishScript.h"

#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>

namespace {

const QByteArray kMacScript = "#!/bin/sh\n"
                              "old_pid=\"$1\"\n"
                              "staged=\"$2\"\n"
                              "target=\"$3\"\n"
                              "backup=\"$4\"\n"
                              "waited=0\n"
                              "while kill -0 \"$old_pid\" 2>/dev/null; do\n"
                              "  if [ \"$waited\" -ge 600 ]; then\n"
                              "    /bin/rm -rf \"$staged\"; /bin/rmdir \"${staged%/*}\" 2>/dev/null; exit 2\n"
                              "  fi\n"
                              "  waited=$((waited + 1))\n"
                              "  sleep 0.1\n"
                              "done\n"
                              "if ! /bin/mv \"$target\" \"$backup\"; then exit 1; fi\n"
                              "if /bin/mv \"$staged\" \"$target\"; then\n"
                              "  /usr/bin/open \"$target\"\n"
                              "  exit 0\n"
                              "fi\n"
                              "/bin/mv \"$backup\" \"$target\"\n"
                              "/usr/bin/open \"$target\"\n"
                              "exit 1";

// Two bundles and a place for the backup in one temporary folder.
struct SwapFixture {
    QTemporaryDir dir;
    QString record = dir.path() + QStringLiteral("/record");
    QString target = dir.path() + QStringLiteral("/Apps/ZenthoLauncher.app");
    QString staged = dir.path() + QStringLiteral("/launcher-staging-X/ZenthoLauncher.app");
    QString backup = dir.path() + QStringLiteral("/launcher-backup-0.1.190-X.app");
    QString script = dir.path() + QStringLiteral("/finish.sh");

    // `waitTenths`: how many checks the script makes before it gives up on a running launcher.
    explicit SwapFixture(int waitTenths = FinishScript::kLauncherWaitTenths) {
        LauncherBundles::makeFake(target, "old", record);
        LauncherBundles::makeFake(staged, "new", record);
        TestFiles::writeFile(script, FinishScript::textForThisPlatform(waitTenths), 0755);
    }

    QByteArray labelAt(const QString& bundle) const {
        return TestFiles::readFile(bundle + QStringLiteral("/Contents/Resources/label.txt"));
    }

    // Starts the script as the launcher does, but traced (sh -x): every command it runs is
    // written to its standard error before it runs, so once it has ended the trace says all it
    // did, and what it did not.
    void start(QProcess& sh, qint64 pid, const QString& stagedPath, const QString& backupPath,
               const QStringList& more = {}) const {
        sh.start(QStringLiteral("/bin/sh"),
                 QStringList{QStringLiteral("-x"), script, QString::number(pid), stagedPath, target,
                             backupPath} +
                     more);
    }
    // Runs the script to its end; returns its exit code, or -1 when it did not finish.
    int run(qint64 pid, const QString& stagedPath, const QString& backupPath,
            const QStringList& more = {}) {
        QProcess sh;
        start(sh, pid, stagedPath, backupPath, more);
        const bool finished = sh.waitForFinished(60000);
        trace = QString::fromLocal8Bit(sh.readAllStandardError()).split(QLatin1Char('\n'));
        if (!finished || sh.exitStatus() != QProcess::NormalExit)
            return -1;
        return sh.exitCode();
    }
    // The commands of the last run() that ran `program`.
    QStringList tracedRuns(const QString& program) const {
        return trace.filter(QRegularExpression(QStringLiteral("^\\+ ") +
                                               QRegularExpression::escape(program) +
                                               QStringLiteral("( |$)")));
    }

    QStringList trace;
};

// A launcher that runs until the test ends it.
void startRunningLauncher(QProcess& launcher) {
    launcher.start(QStringLiteral("/bin/sleep"), {QStringLiteral("3600")});
}

// Files under /proc report a size of 0, so they are read until the end instead.
QByteArray procFile(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return {};
    QByteArray bytes;
    char buffer[4096];
    for (qint64 n; (n = file.read(buffer, sizeof buffer)) > 0;)
        bytes.append(buffer, n);
    return bytes;
}

} // namespace

class TestFinishScript : public QObject {
    Q_OBJECT

private slots:
    void macScriptIsExact() {
        const QByteArray text = FinishScript::text(FinishScript::Opener::macOS);
        QCOMPARE(text, kMacScript);
        QCOMPARE(text.size(), 445);
        QCOMPARE(text.split('\n').size(), 21);
        QVERIFY(!text.endsWith('\n'));
        QVERIFY(text.contains("\n  /usr/bin/open \"$target\"\n  exit 0\n"));
    }

    void linuxScriptDiffersOnlyInOpenerLines() {
        const QList<QByteArray> mac = kMacScript.split('\n');
        const QList<QByteArray> linux = FinishScript::text(FinishScript::Opener::linuxDesktop).split('\n');
        QCOMPARE(linux.size(), 21);
        const QByteArray start = "/usr/bin/setsid -f \"$target/Contents/MacOS/ZenthoLauncher\""
                                 " ${5:+--} ${5:+\"$5\"} >/dev/null 2>&1";
        for (int i = 0; i < 21; ++i) {
            if (i == 15) {
                QCOMPARE(linux[i], "  " + start);
            } else if (i == 19) {
                QCOMPARE(linux[i], start);
            } else {
                QCOMPARE(linux[i], mac[i]);
            }
        }
        QVERIFY(!FinishScript::text(FinishScript::Opener::linuxDesktop).endsWith('\n'));
        // This launcher runs on Linux, so that is the text it writes.
        QCOMPARE(FinishScript::textForThisPlatform(),
                 FinishScript::text(FinishScript::Opener::linuxDesktop));
        QVERIFY(FinishScript::textForThisPlatform() != kMacScript);
    }

    void cleanup() {
        // The scripts writeAndStart() started end, and are collected, before their folder goes.
        QTRY_COMPARE_WITH_TIMEOUT(ChildReaper::pendingCount(), 0, 60000);
    }

    // The launcher is gone before the script looks: it swaps without ever waiting.
    void endedProcessSwapsAtOnceAndStartsTheNewLauncher() {
        SwapFixture f;
        QCOMPARE(f.run(LauncherBundles::endedProcessIdentifier(), f.staged, f.backup), 0);
        QVERIFY2(f.tracedRuns(QStringLiteral("sleep")).isEmpty(), qPrintable(f.trace.join('\n')));
        QCOMPARE(f.tracedRuns(QStringLiteral("/usr/bin/setsid")).size(), 1);
        QCOMPARE(f.labelAt(f.target), QByteArray("new\n"));
        QCOMPARE(f.labelAt(f.backup), QByteArray("old\n"));
        QVERIFY(!QFileInfo::exists(f.staged));
        QVERIFY(LauncherBundles::waitForRecorded(f.record, "new\n"));
    }

    // The twin: while the launcher runs, the script waits, and nothing moves until it has gone.
    void runningProcessIsWaitedFor() {
        SwapFixture f;
        QProcess launcher;
        startRunningLauncher(launcher);
        QVERIFY(launcher.waitForStarted());
        QProcess sh;
        f.start(sh, launcher.processId(), f.staged, f.backup);
        QVERIFY(sh.waitForStarted());
        QCOMPARE(LauncherBundles::finishScriptWaiting(f.script),
                 std::optional<qint64>(sh.processId()));
        // The script has seen the old launcher running: nothing has moved and nothing was started.
        QCOMPARE(f.labelAt(f.target), QByteArray("old\n"));
        QVERIFY(QFileInfo::exists(f.staged));
        QVERIFY(!QFileInfo::exists(f.backup));
        QCOMPARE(sh.state(), QProcess::Running);
        QVERIFY(
            !QString::fromLocal8Bit(sh.readAllStandardError()).contains(QStringLiteral("setsid")));
        QVERIFY(LauncherBundles::recorded(f.record).isEmpty());
        launcher.kill();
        QVERIFY(launcher.waitForFinished(60000));
        QVERIFY(sh.waitForFinished(60000));
        QCOMPARE(sh.exitCode(), 0);
        QCOMPARE(f.labelAt(f.target), QByteArray("new\n"));
        QVERIFY(LauncherBundles::waitForRecorded(f.record, "new\n"));
    }

    // The wait is bounded. The launcher here runs throughout, so the script gives up after
    // exactly as many checks as it was given, whatever the clock says: it moves nothing, starts
    // nothing, ends nothing, and takes the staged bundle and its staging folder away.
    void launcherStillRunningAfterTheWaitIsLeftInPlace_data() {
        QTest::addColumn<int>("waitTenths");
        QTest::newRow("no wait") << 0;
        QTest::newRow("three checks") << 3;
    }
    void launcherStillRunningAfterTheWaitIsLeftInPlace() {
        QFETCH(int, waitTenths);
        SwapFixture f(waitTenths);
        QProcess launcher;
        startRunningLauncher(launcher);
        QVERIFY(launcher.waitForStarted());
        QCOMPARE(f.run(launcher.processId(), f.staged, f.backup), 2);
        QCOMPARE(f.tracedRuns(QStringLiteral("sleep")).size(), waitTenths);
        QCOMPARE(launcher.state(), QProcess::Running);
        QCOMPARE(f.labelAt(f.target), QByteArray("old\n"));
        QVERIFY(!QFileInfo::exists(f.backup));
        QVERIFY(!QFileInfo::exists(f.staged));
        QVERIFY(!QFileInfo::exists(QFileInfo(f.staged).path()));
        QVERIFY2(f.tracedRuns(QStringLiteral("/bin/mv")).isEmpty(), qPrintable(f.trace.join('\n')));
        QVERIFY(f.tracedRuns(QStringLiteral("/usr/bin/setsid")).isEmpty());
        QVERIFY(LauncherBundles::recorded(f.record).isEmpty());
        launcher.kill();
        QVERIFY(launcher.waitForFinished(60000));
    }
    // Giving up removes only what the update brought: a staging folder that holds anything else
    // stays, with that in it.
    void givingUpKeepsAStagingFolderThatHoldsMore() {
        SwapFixture f(0);
        const QString other = QFileInfo(f.staged).path() + QStringLiteral("/other");
        TestFiles::writeFile(other, "kept");
        QProcess launcher;
        startRunningLauncher(launcher);
        QVERIFY(launcher.waitForStarted());
        QCOMPARE(f.run(launcher.processId(), f.staged, f.backup), 2);
        QVERIFY(!QFileInfo::exists(f.staged));
        QCOMPARE(TestFiles::readFile(other), QByteArray("kept"));
        launcher.kill();
        QVERIFY(launcher.waitForFinished(60000));
    }
    // The twin: the same bound with the launcher gone swaps as always.
    void endedProcessSwapsWhateverTheBound() {
        SwapFixture f(0);
        QCOMPARE(f.run(LauncherBundles::endedProcessIdentifier(), f.staged, f.backup), 0);
        QCOMPARE(f.labelAt(f.target), QByteArray("new\n"));
        QCOMPARE(f.labelAt(f.backup), QByteArray("old\n"));
        QVERIFY(LauncherBundles::waitForRecorded(f.record, "new\n"));
    }

    void failedBackupMoveStartsNothing() {
        SwapFixture f;
        const QString unreachable = f.dir.path() + QStringLiteral("/no/such/folder/backup.app");
        QCOMPARE(f.run(LauncherBundles::endedProcessIdentifier(), f.staged, unreachable), 1);
        QCOMPARE(f.labelAt(f.target), QByteArray("old\n"));
        QCOMPARE(f.labelAt(f.staged), QByteArray("new\n"));
        // The script has ended without starting a launcher, so nothing will write the record.
        QVERIFY2(f.tracedRuns(QStringLiteral("/usr/bin/setsid")).isEmpty(),
                 qPrintable(f.trace.join('\n')));
        QVERIFY(LauncherBundles::recorded(f.record).isEmpty());
    }

    void failedStagedMoveRestoresAndStartsTheOldLauncher() {
        SwapFixture f;
        const QString missing = f.dir.path() + QStringLiteral("/launcher-staging-Y/ZenthoLauncher.app");
        QCOMPARE(f.run(LauncherBundles::endedProcessIdentifier(), missing, f.backup), 1);
        QCOMPARE(f.tracedRuns(QStringLiteral("/usr/bin/setsid")).size(), 1);
        QCOMPARE(f.labelAt(f.target), QByteArray("old\n"));
        QVERIFY(!QFileInfo::exists(f.backup));
        QVERIFY(LauncherBundles::waitForRecorded(f.record, "old\n"));
    }

    void writeAndStartRunsTheScriptDetachedFromOurOutput() {
        SwapFixture f;
        QProcess launcher;
        startRunningLauncher(launcher);
        QVERIFY(launcher.waitForStarted());
        const QString script = f.dir.path() + QStringLiteral("/finish-launcher-update-X.sh");
        const pid_t pid = FinishScript::writeAndStart(FileManager::defaultManager(), script,
                                                      launcher.processId(), f.staged, f.target,
                                                      f.backup);
        QCOMPARE(TestFiles::readFile(script), FinishScript::textForThisPlatform());
        struct stat info {};
        QCOMPARE(::stat(QFile::encodeName(script).constData(), &info), 0);
        QCOMPARE(info.st_mode & 07777, 0755u);
        // Started as "/bin/sh script pid staged target backup", output going nowhere.
        QVERIFY(LauncherBundles::processRuns(pid));
        QByteArray commandLine;
        QVERIFY(QTest::qWaitFor(
            [&] {
                commandLine = procFile(QStringLiteral("/proc/%1/cmdline").arg(pid));
                return commandLine.startsWith("/bin/sh");
            },
            60000));
        QCOMPARE(commandLine.split('\0').mid(0, 6),
                 (QList<QByteArray>{"/bin/sh", QFile::encodeName(script),
                                    QByteArray::number(launcher.processId()),
                                    QFile::encodeName(f.staged), QFile::encodeName(f.target),
                                    QFile::encodeName(f.backup)}));
        QCOMPARE(QFileInfo(QStringLiteral("/proc/%1/fd/1").arg(pid)).symLinkTarget(),
                 QStringLiteral("/dev/null"));
        QCOMPARE(QFileInfo(QStringLiteral("/proc/%1/fd/2").arg(pid)).symLinkTarget(),
                 QStringLiteral("/dev/null"));
        // Once the launcher has gone, the swap happens and the script is collected, not left
        // behind as a zombie.
        QCOMPARE(LauncherBundles::finishScriptWaiting(script), std::optional<qint64>(pid));
        QCOMPARE(f.labelAt(f.target), QByteArray("old\n"));
        launcher.kill();
        QVERIFY(launcher.waitForFinished(60000));
        QVERIFY(LauncherBundles::waitForRecorded(f.record, "new\n", 60000));
        QCOMPARE(f.labelAt(f.target), QByteArray("new\n"));
        QVERIFY(QTest::qWaitFor(
            [&] { return !QFileInfo::exists(QStringLiteral("/proc/%1").arg(pid)); }, 60000));
    }

    void theNewLauncherFollowsTheInviteWhateverItBeginsWith() {
        SwapFixture f;
        const QString invite = QStringLiteral("-zentho://join/a b *  $HOME");
        QCOMPARE(f.run(LauncherBundles::endedProcessIdentifier(), f.staged, f.backup, {invite}), 0);
        QVERIFY(LauncherBundles::waitForRecorded(f.record, "new\n--\n" + invite.toUtf8() + "\n"));
    }

    void theRestoredLauncherFollowsTheInviteToo() {
        SwapFixture f;
        const QString missing = f.dir.path() + QStringLiteral("/launcher-staging-Y/ZenthoLauncher.app");
        const QString invite = QStringLiteral("zentho://join/abc");
        QCOMPARE(f.run(LauncherBundles::endedProcessIdentifier(), missing, f.backup, {invite}), 1);
        QVERIFY(LauncherBundles::waitForRecorded(f.record, "old\n--\n" + invite.toUtf8() + "\n"));
    }

    void withoutAnInviteTheLauncherGetsNoArguments() {
        for (const QStringList& more : {QStringList{}, QStringList{QString()}}) {
            SwapFixture f;
            QCOMPARE(f.run(LauncherBundles::endedProcessIdentifier(), f.staged, f.backup, more), 0);
            QVERIFY(LauncherBundles::waitForRecorded(f.record, "new\n"));
        }
    }

    void writeAndStartHandsOverTheInvite() {
        SwapFixture f;
        const QString script = f.dir.path() + QStringLiteral("/finish-launcher-update-X.sh");
        const QString invite = QStringLiteral("zentho://join/after-update");
        const pid_t pid = FinishScript::writeAndStart(FileManager::defaultManager(), script,
                                                      LauncherBundles::endedProcessIdentifier(),
                                                      f.staged, f.target, f.backup, invite);
        QVERIFY(pid > 0);
        QVERIFY(LauncherBundles::waitForRecorded(f.record, "new\n--\n" + invite.toUtf8() + "\n"));
        // An empty invite is no invite.
        SwapFixture g;
        FinishScript::writeAndStart(FileManager::defaultManager(), script, LauncherBundles::endedProcessIdentifier(),
                                    g.staged, g.target, g.backup, QString());
        QVERIFY(LauncherBundles::waitForRecorded(g.record, "new\n"));
    }

    void writeAndStartFailsWithoutStartingWhenTheScriptCannotBeWritten() {
        SwapFixture f;
        const QString script = f.dir.path() + QStringLiteral("/missing/finish.sh");
        QVERIFY_THROWS_EXCEPTION(FileError,
                                 FinishScript::writeAndStart(FileManager::defaultManager(), script,
                                                             LauncherBundles::endedProcessIdentifier(),
                                                             f.staged, f.target, f.backup));
        // A script is adopted by the reaper as it is started, before the call returns.
        QCOMPARE(ChildReaper::pendingCount(), 0);
        QCOMPARE(f.labelAt(f.target), QByteArray("old\n"));
        QVERIFY(LauncherBundles::recorded(f.record).isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestFinishScript)
#include "TestFinishScript.moc"
