// The real launcher's window as a desktop sees it, on a private X server with no desktop
// environment: its class is the one the desktop entry names and it carries the launcher's icon,
// whatever path started it; and showing it writes nothing in the user's home.

#include "LauncherBundles.h"
#include "RealLauncher.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "WindowIdentity.h"
#include "XvfbSession.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

class TestWindowOnTheDesktop : public QObject {
    Q_OBJECT

    QTemporaryDir tmp_;

    QString home() const { return tmp_.filePath(QStringLiteral("home")); }

    // Starts `executable` with no link on `screen`, as a player's session would: only HOME
    // and the display are set, so every per-user folder is the default one inside HOME.
    void start(QProcess& launcher, const XvfbSession& screen, const QString& executable) {
        TestFiles::makeFolder(home());
        TestFiles::makeFolder(tmp_.filePath(QStringLiteral("runtime")));
        QProcessEnvironment env;
        env.insert(QStringLiteral("PATH"), qEnvironmentVariable("PATH"));
        env.insert(QStringLiteral("HOME"), home());
        // A sanitized build keeps the sanitizer settings the test run was given.
        for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
            if (qEnvironmentVariableIsSet(name))
                env.insert(QString::fromLatin1(name), qEnvironmentVariable(name));
        }
        env.insert(QStringLiteral("XDG_RUNTIME_DIR"), tmp_.filePath(QStringLiteral("runtime")));
        env.insert(QStringLiteral("DISPLAY"), screen.display());
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
        env.insert(QStringLiteral("QT_QUICK_BACKEND"), QStringLiteral("software"));
        launcher.setProcessEnvironment(env);
        launcher.setStandardOutputFile(QProcess::nullDevice());
        launcher.start(executable, QStringList());
    }

private slots:
    void initTestCase() { ZENTHO_REQUIRE(xvfb); }

    void windowHasTheEntrysClassAndTheIcon_data() {
        QTest::addColumn<QString>("command");
        // From inside the bundle, as a self-update starts it, and through a link named like the
        // installed command.
        QTest::newRow("bundle") << QString();
        QTest::newRow("command") << QStringLiteral("zentho-launcher");
    }
    void windowHasTheEntrysClassAndTheIcon() {
        QFETCH(QString, command);
        QString executable = RealLauncher::executableOf(LauncherBundles::builtBundle());
        if (!command.isEmpty()) {
            const QString link = tmp_.filePath(command);
            QFile::remove(link);
            QVERIFY(QFile::link(executable, link));
            executable = link;
        }
        const QString entryClass = WindowIdentity::entryWindowClass();
        QCOMPARE(entryClass, QStringLiteral("zentho-launcher"));

        XvfbSession screen;
        QVERIFY(!screen.display().isEmpty());
        QProcess launcher;
        start(launcher, screen, executable);
        const std::optional<QString> window = screen.waitForWindowId(QStringLiteral("ZENTHO Launcher"));
        QVERIFY2(window, launcher.readAllStandardError().constData());
        QCOMPARE(WindowIdentity::windowClass(screen, *window), entryClass);
        QString why;
        QVERIFY2(WindowIdentity::carriesTheLauncherIcon(screen, *window, &why), qPrintable(why));
        // The title stays the window's own, with nothing appended.
        QCOMPARE(screen.windowProperty(*window, QStringLiteral("_NET_WM_NAME")),
                 QStringLiteral("_NET_WM_NAME = \"ZENTHO Launcher\""));
        RealLauncher::stop(launcher);
    }

    void aWindowWithoutAnIconIsToldApart() {
        // The check that finds the icon finds its absence: the client leader window Qt maps
        // beside the real one carries none.
        XvfbSession screen;
        QProcess launcher;
        start(launcher, screen, RealLauncher::executableOf(LauncherBundles::builtBundle()));
        QVERIFY(screen.waitForWindowId(QStringLiteral("ZENTHO Launcher")));
        QProcess tree;
        tree.start(QStringLiteral("/usr/bin/xwininfo"), {QStringLiteral("-display"), screen.display(),
                                                         QStringLiteral("-root"), QStringLiteral("-tree")});
        QVERIFY(tree.waitForFinished(5000));
        QString leader;
        for (const QString& line : QString::fromUtf8(tree.readAllStandardOutput()).split(QLatin1Char('\n'))) {
            if (line.contains(QLatin1String("\"ZENTHO Launcher\": ()")))
                leader = line.trimmed().section(QLatin1Char(' '), 0, 0);
        }
        QVERIFY(!leader.isEmpty());
        QVERIFY(!WindowIdentity::carriesTheLauncherIcon(screen, leader));
        QVERIFY(WindowIdentity::windowClass(screen, leader).isEmpty());
        RealLauncher::stop(launcher);
    }

    void showingTheWindowWritesNothingInTheHome() {
        QVERIFY(QDir(home()).removeRecursively());
        XvfbSession screen;
        QProcess launcher;
        start(launcher, screen, RealLauncher::executableOf(LauncherBundles::builtBundle()));
        const std::optional<QString> window = screen.waitForWindowId(QStringLiteral("ZENTHO Launcher"));
        QVERIFY2(window, launcher.readAllStandardError().constData());
        // Closed as a player closes it, the launcher ends by itself: the window was exposed and
        // drawn before that request came, and nothing of its life is left to write anything.
        QVERIFY(screen.askToClose(*window));
        const bool ended = launcher.waitForFinished(30000);
        if (!ended)
            RealLauncher::stop(launcher);
        QVERIFY2(ended && launcher.exitStatus() == QProcess::NormalExit && launcher.exitCode() == 0,
                 launcher.readAllStandardError().constData());
        QStringList written;
        QDirIterator it(home(), QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                        QDirIterator::Subdirectories);
        while (it.hasNext())
            written << it.next();
        QCOMPARE(written, QStringList());
    }
};

QTEST_GUILESS_MAIN(TestWindowOnTheDesktop)
#include "TestWindowOnTheDesktop.moc"
