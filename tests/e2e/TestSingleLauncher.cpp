#include "LauncherStorage.h"
#include "TestFiles.h"

#include "storage/InstalledState.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <QUrl>

#include <memory>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString kInvite = QStringLiteral("zentho://join/7F3A-91?host=Pat&region=eu%2Dwest");

// Runs the built launcher executable offline: its manifests are files that do not exist, so
// every start falls back to the stand-in game in the seed runtime, which writes down what it was
// given.
class Launchers {
public:
    Launchers() {
        env_ = QProcessEnvironment::systemEnvironment();
        env_.insert(QStringLiteral("XDG_RUNTIME_DIR"), dir_.filePath(QStringLiteral("run")));
        useStorage(QStringLiteral("data"));
        env_.insert(QStringLiteral("ZENTHO_UPDATE_MANIFEST"),
                    QUrl::fromLocalFile(dir_.filePath(QStringLiteral("none.json"))).toString());
        env_.insert(QStringLiteral("ZENTHO_LAUNCHER_UPDATE_MANIFEST"),
                    QUrl::fromLocalFile(dir_.filePath(QStringLiteral("none-launcher.json"))).toString());
        recordGamesIn(QStringLiteral("game-record"));
        TestFiles::makeFolder(dir_.filePath(QStringLiteral("run")));
        ::chmod(QFile::encodeName(dir_.filePath(QStringLiteral("run"))).constData(), 0700);
    }
    ~Launchers() {
        for (auto& process : started_) {
            if (process->state() != QProcess::NotRunning) {
                process->kill();
                process->waitForFinished(5000);
            }
        }
        for (const QString& record : records_) {
            if (const qint64 pid = gamePid(record); pid > 0)
                ::kill(pid_t(pid), SIGTERM);
        }
    }

    // Later starts keep their builds under this folder of the test's own.
    void useStorage(const QString& name) {
        env_.insert(QStringLiteral("XDG_DATA_HOME"), dir_.filePath(name));
    }
    // A game that later starts start records itself in this file of the test's own: which file
    // a game wrote tells which launcher started it.
    void recordGamesIn(const QString& name) {
        records_ << dir_.filePath(name);
        env_.insert(QStringLiteral("ZENTHO_STANDIN_RECORD"), records_.last());
    }
    QProcess* start(const QStringList& args = {}) {
        auto process = std::make_unique<QProcess>();
        process->setProcessEnvironment(env_);
        process->setProcessChannelMode(QProcess::ForwardedChannels);
        process->start(qEnvironmentVariable("ZENTHO_BUILD_DIR") +
                           QStringLiteral("/ZenthoLauncher.app/Contents/MacOS/ZenthoLauncher"),
                       args);
        started_.push_back(std::move(process));
        return started_.back().get();
    }
    // Makes the current build of the "data" storage a game that, the first time it starts, stops
    // the launcher that started it (its parent, when that is a launcher): that launcher is then
    // held inside its start-up watch, past the moment it started the game, until the test lets
    // it go on. Stopping it is the game's first command, far within the watch's 750 ms. Like the
    // stand-in game it writes down its arguments and stays up.
    void installGameThatHoldsItsLauncher() {
        const LauncherStorage storage(dir_.filePath(QStringLiteral("data")));
        const QByteArray once = QFile::encodeName(dir_.filePath(QStringLiteral("launcher-held")));
        TestFiles::writeScript(storage.build(QStringLiteral("0.9.0")) + QStringLiteral("/zentho"),
                               "if [ ! -e '" + once + "' ] && : > '" + once + "'; then\n"
                               "  case \"$(readlink /proc/$PPID/exe)\" in */ZenthoLauncher) kill -STOP $PPID;; esac\n"
                               "fi\n"
                               "{ for a in \"$@\"; do echo \"arg=$a\"; done; echo \"pid=$$\"; } > \"$ZENTHO_STANDIN_RECORD.part\"\n"
                               "mv \"$ZENTHO_STANDIN_RECORD.part\" \"$ZENTHO_STANDIN_RECORD\"\n"
                               "exec sleep 3600\n");
        TestFiles::writeFile(storage.state(),
                             InstalledState{QStringLiteral("0.9.0"), storage.build(QStringLiteral("0.9.0"))}.encode());
    }
    // Connections made to the listening launcher's socket that it has not answered yet, from the
    // kernel's table of local sockets: the socket's path is on the listener's line and on one
    // line for each connection made to it.
    int connectionsToListener() const {
        const QStringList names = sockets();
        if (names.size() != 1)
            return 0;
        QFile table(QStringLiteral("/proc/net/unix"));
        if (!table.open(QIODevice::ReadOnly))
            return 0;
        const QByteArray path = QFile::encodeName(dir_.filePath(QStringLiteral("run/") + names.first()));
        int lines = 0;
        for (const QByteArray& line : table.readAll().split('\n'))
            if (line.endsWith(" " + path))
                ++lines;
        return lines - 1;
    }
    // The sockets of the launchers that listen, or once listened, for later starts.
    QStringList sockets() const {
        const QString prefix = QStringLiteral("zentho-launcher-%1-").arg(::getuid());
        return QDir(dir_.filePath(QStringLiteral("run"))).entryList({prefix + QLatin1Char('*')}, QDir::System);
    }
    // Waits until `count` launchers listen for later starts.
    bool waitForListeners(int count = 1) const {
        QDeadlineTimer deadline(20000);
        while (sockets().size() < count) {
            if (deadline.hasExpired())
                return false;
            QTest::qWait(50);
        }
        return true;
    }
    QString recordPath(const QString& name = QStringLiteral("game-record")) const { return dir_.filePath(name); }
    QStringList gameArguments(const QString& name = QStringLiteral("game-record")) const {
        QStringList arguments;
        for (const QByteArray& line : TestFiles::readFile(recordPath(name)).split('\n'))
            if (line.startsWith("arg="))
                arguments.append(QString::fromUtf8(line.mid(4)));
        return arguments;
    }
    qint64 gamePid(const QString& record) const {
        for (const QByteArray& line : TestFiles::readFile(record).split('\n'))
            if (line.startsWith("pid="))
                return line.mid(4).toLongLong();
        return 0;
    }

private:
    QTemporaryDir dir_;
    QProcessEnvironment env_;
    std::vector<std::unique_ptr<QProcess>> started_;
    QStringList records_;
};

bool endsWith(QProcess* process, int code, int timeoutMs = 20000) {
    return process->waitForFinished(timeoutMs) && process->exitStatus() == QProcess::NormalExit &&
           process->exitCode() == code;
}

// The state letter of a process in /proc ("T" when it is stopped), or nothing when it is gone.
char processState(qint64 pid) {
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray text = stat.readAll();
    const qsizetype end = text.lastIndexOf(')');
    return end >= 0 && end + 2 < text.size() ? text.at(end + 2) : char(0);
}

} // namespace

class TestSingleLauncher : public QObject {
    Q_OBJECT

private slots:
    void linkOpenedWhileRunningReachesTheGame() {
        Launchers launchers;
        QProcess* first = launchers.start();
        QVERIFY(launchers.waitForListeners());
        QProcess* second = launchers.start({kInvite});
        QVERIFY(endsWith(second, 0));
        // The running launcher takes the link, falls back to the seed build offline, starts it
        // with the link and quits.
        QVERIFY(endsWith(first, 0));
        QCOMPARE(launchers.gameArguments(), QStringList{kInvite});
    }

    void secondStartWithoutLinkLeavesTheFirstWaiting() {
        Launchers launchers;
        QProcess* first = launchers.start();
        QVERIFY(launchers.waitForListeners());
        QProcess* second = launchers.start();
        QVERIFY(endsWith(second, 0));
        QVERIFY(!QFileInfo::exists(launchers.recordPath()));
        // The first still waits: a link handed over now reaches it (a game it starts records in
        // the first file), rather than being followed by the one that brings it.
        launchers.recordGamesIn(QStringLiteral("third-record"));
        QProcess* third = launchers.start({kInvite});
        QVERIFY(endsWith(third, 0));
        QVERIFY(endsWith(first, 0));
        QCOMPARE(launchers.gameArguments(), QStringList{kInvite});
        QVERIFY(!QFileInfo::exists(launchers.recordPath(QStringLiteral("third-record"))));
    }

    void launchersWithSeparateStorageDoNotShareLinks() {
        Launchers launchers;
        QProcess* first = launchers.start();
        QVERIFY(launchers.waitForListeners());
        launchers.useStorage(QStringLiteral("other-data"));
        launchers.recordGamesIn(QStringLiteral("other-record"));
        QProcess* other = launchers.start({kInvite});
        // The other launcher follows the link itself: it starts the game and quits.
        QVERIFY(endsWith(other, 0));
        QCOMPARE(launchers.gameArguments(QStringLiteral("other-record")), QStringList{kInvite});
        // Had the link gone to the first launcher, that one would have started a game and quit.
        // It still waits: a link for its own storage reaches it.
        QVERIFY(!QFileInfo::exists(launchers.recordPath()));
        launchers.useStorage(QStringLiteral("data"));
        launchers.recordGamesIn(QStringLiteral("third-record"));
        const QString later = kInvite + QStringLiteral("&later=1");
        QProcess* third = launchers.start({later});
        QVERIFY(endsWith(third, 0));
        QVERIFY(endsWith(first, 0));
        QCOMPARE(launchers.gameArguments(), QStringList{later});
        QVERIFY(!QFileInfo::exists(launchers.recordPath(QStringLiteral("third-record"))));
    }

    // A link handed over once the running launcher has started its game with the link it had
    // could only be kept by a launcher about to quit. It is refused, and the launcher that brought
    // it stays and starts the game with it.
    void linkOpenedOnceTheGameIsStartedIsFollowedByItsOwnLauncher() {
        Launchers launchers;
        launchers.installGameThatHoldsItsLauncher();
        QProcess* first = launchers.start({kInvite});
        QVERIFY(QTest::qWaitFor([&] { return processState(first->processId()) == 'T'; }, 20000));
        launchers.recordGamesIn(QStringLiteral("later-record"));
        const QString later = kInvite + QStringLiteral("&later=1");
        QProcess* second = launchers.start({later});
        // The second start has connected to the held launcher and handed over its link, or has
        // ended as though the link had been taken.
        QVERIFY(QTest::qWaitFor(
            [&] { return second->state() == QProcess::NotRunning || launchers.connectionsToListener() > 0; },
            20000));
        QCOMPARE(second->state(), QProcess::Running);
        ::kill(pid_t(first->processId()), SIGCONT);
        QVERIFY(endsWith(first, 0));
        QVERIFY(endsWith(second, 0));
        QCOMPARE(launchers.gameArguments(), QStringList{kInvite});
        QCOMPARE(launchers.gameArguments(QStringLiteral("later-record")), QStringList{later});
    }

    void linkOnTheCommandLineIsFollowedAtOnce() {
        Launchers launchers;
        // "--" ends the options; the link is the first argument after them.
        QProcess* only = launchers.start({QStringLiteral("--"), kInvite});
        QVERIFY(endsWith(only, 0));
        QCOMPARE(launchers.gameArguments(), QStringList{kInvite});
    }

    void crashedLauncherDoesNotSwallowTheNextLink() {
        Launchers launchers;
        QProcess* crashed = launchers.start();
        QVERIFY(launchers.waitForListeners());
        ::kill(pid_t(crashed->processId()), SIGKILL);
        QVERIFY(crashed->waitForFinished(5000));
        QCOMPARE(launchers.sockets().size(), 1); // left behind by the crash
        // Nobody is left to forward to: the new start must follow the link itself.
        QProcess* next = launchers.start({kInvite});
        QVERIFY(endsWith(next, 0));
        QCOMPARE(launchers.gameArguments(), QStringList{kInvite});
    }
};

QTEST_GUILESS_MAIN(TestSingleLauncher)
#include "TestSingleLauncher.moc"
