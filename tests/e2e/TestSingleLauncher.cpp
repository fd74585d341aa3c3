#include "TestFiles.h"

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
