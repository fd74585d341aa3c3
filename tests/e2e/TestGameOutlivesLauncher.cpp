// Runs a real launcher process (this same program in its launcher role) that plays a saved build
// of the stand-in game and quits, and checks that the game is still running after the launcher
// has gone.

#include "AdoptedProcesses.h"
#include "LauncherModelProbe.h"
#include "RealLauncher.h"
#include "ScopedDataHome.h"
#include "StandinGames.h"
#include "TestFiles.h"

#include "desktop/LinuxPlatform.h"

#include <QFile>
#include <QGuiApplication>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const char* const kLauncherRole = "--launcher";

// The launcher role: a real application with the real platform, which plays the selected saved
// build as the window's button would. Exits 0 through the platform's quit after a good start,
// 4 when the start failed, 5 when nothing could be played.
int runLauncher(int argc, char** argv) {
    QGuiApplication app(argc, argv);
    LinuxPlatform platform;
    LauncherModel model(platform);
    const QString invite = qEnvironmentVariable("ZENTHO_E2E_INVITE");
    if (!invite.isEmpty())
        LauncherModelProbe::setPendingInvite(model, invite);
    QObject::connect(&model, &LauncherModel::statusChanged, &app, [&] {
        std::fprintf(stderr, "status: %s\n", qPrintable(model.status()));
        if (model.status().startsWith(QStringLiteral("Could not launch")))
            app.exit(4);
    });
    QTimer::singleShot(0, &model, [&] {
        model.playSelectedInstalledBuild();
        if (!model.busy())
            app.exit(5);
    });
    return app.exec();
}

std::optional<qint64> recordedPid(const QString& recordPath) {
    for (const QByteArray& line : TestFiles::readFile(recordPath).split('\n'))
        if (line.startsWith("pid="))
            return line.mid(4).toLongLong();
    return std::nullopt;
}

} // namespace

class TestGameOutlivesLauncher : public QObject {
    Q_OBJECT

    QTemporaryDir* tmp_ = nullptr;
    ScopedDataHome* home_ = nullptr;
    std::optional<AdoptedProcesses> adopted_;
    QString record_;

    // Runs the launcher role to its end; returns its exit code, or -1 when it did not end.
    int runLauncherProcess(const QString& invite = {}) {
        QProcess launcher;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("ZENTHO_STANDIN_RECORD"), record_);
        env.insert(QStringLiteral("ZENTHO_E2E_INVITE"), invite);
        launcher.setProcessEnvironment(env);
        launcher.setStandardOutputFile(tmp_->path() + QStringLiteral("/launcher.out"));
        launcher.setStandardErrorFile(tmp_->path() + QStringLiteral("/launcher.err"));
        launcher.start(QCoreApplication::applicationFilePath(), {QString::fromLatin1(kLauncherRole)});
        if (!launcher.waitForFinished(20000)) {
            launcher.kill();
            launcher.waitForFinished();
            return -1;
        }
        return launcher.exitStatus() == QProcess::NormalExit ? launcher.exitCode() : -1;
    }
    QByteArray launcherOutput() const { return TestFiles::readFile(tmp_->path() + "/launcher.out"); }
    QByteArray launcherErrors() const { return TestFiles::readFile(tmp_->path() + "/launcher.err"); }

private slots:
    void initTestCase() {
        // Orphans of our launchers come to us, so an outliving game can be seen and collected.
        QCOMPARE(::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0), 0);
        QVERIFY2(QFile::exists(StandinGames::builtStandinGame()),
                 qPrintable(StandinGames::builtStandinGame()));
    }
    void init() {
        tmp_ = new QTemporaryDir;
        home_ = new ScopedDataHome;
        record_ = tmp_->path() + QStringLiteral("/record");
        adopted_.emplace();
    }
    void cleanup() {
        // A game a failed check left behind goes with the test function.
        adopted_.reset();
        delete home_;
        delete tmp_;
    }

    void theGameKeepsRunningAfterTheLauncherHasQuit() {
        const QString game = home_->versionsRoot() + QStringLiteral("/0.2.0/zentho");
        TestFiles::makeFolder(home_->versionsRoot() + QStringLiteral("/0.2.0"));
        QVERIFY(QFile::copy(StandinGames::builtStandinGame(), game));
        const QString invite = QStringLiteral("zentho://invite/room 7?from=\u00e5sa&x=1");

        const int exitCode = runLauncherProcess(invite);
        QVERIFY2(exitCode == 0, launcherErrors().constData());
        QVERIFY(launcherErrors().contains("status: Starting ZENTHO 0.2.0..."));

        // The game records itself as it starts, which on a busy machine may come after the
        // launcher's watch over its start is over.
        const QByteArray record = RealLauncher::waitForGameRecord(record_);
        const std::optional<qint64> pid = recordedPid(record_);
        QVERIFY2(pid, record.constData());
        QVERIFY(record.contains("arg=" + invite.toUtf8() + "\n"));
        QCOMPARE(record.count("arg="), 1);
        QVERIFY(record.contains("cwd=" + QFile::encodeName(home_->versionsRoot()) + "/0.2.0\n"));

        // The launcher is gone and the game lives on, handed to us as the nearest subreaper. That
        // it lived until now, and not just until a moment ago, shows in how it ends below: only
        // a running game answers SIGTERM by exiting 0.
        const auto state = StandinGames::processState(*pid);
        QVERIFY(state);
        QVERIFY(*state != 'Z');
        QCOMPARE(StandinGames::parentProcess(*pid), std::optional<qint64>(::getpid()));
        QCOMPARE(StandinGames::processSession(*pid), *pid);
        // It kept the launcher's standard output.
        QVERIFY2(launcherOutput().contains("ZENTHO 0.1.190\nInvite: " + invite.toUtf8()),
                 launcherOutput().constData());

        QCOMPARE(::kill(static_cast<pid_t>(*pid), SIGTERM), 0);
        int status = 0;
        QCOMPARE(::waitpid(static_cast<pid_t>(*pid), &status, 0), static_cast<pid_t>(*pid));
        QVERIFY(WIFEXITED(status));
        QCOMPARE(WEXITSTATUS(status), 0);
    }
    void aGameThatCannotStayUpKeepsTheLauncherOpen() {
        TestFiles::writeScript(home_->versionsRoot() + QStringLiteral("/0.2.0/zentho"),
                               "echo \"pid=$$\" > \"$ZENTHO_STANDIN_RECORD\"\nexit 3\n");
        const int exitCode = runLauncherProcess();
        QCOMPARE(exitCode, 4);
        QVERIFY2(launcherErrors().contains(
                     "status: Could not launch 0.2.0: The game exited during startup (status 3)."),
                 launcherErrors().constData());
        const auto pid = recordedPid(record_);
        QVERIFY(pid);
        QCOMPARE(StandinGames::processState(*pid), std::nullopt);
    }
    void withNoSavedBuildTheLauncherPlaysNothing() {
        QCOMPARE(runLauncherProcess(), 5);
        QVERIFY(!QFile::exists(record_));
    }
};

int main(int argc, char** argv) {
    if (argc >= 2 && std::strcmp(argv[1], kLauncherRole) == 0)
        return runLauncher(argc, argv);
    QGuiApplication app(argc, argv);
    TestGameOutlivesLauncher test;
    return QTest::qExec(&test, argc, argv);
}

#include "TestGameOutlivesLauncher.moc"
