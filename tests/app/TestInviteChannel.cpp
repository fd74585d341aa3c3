#include "app/InviteChannel.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QFileInfo>
#include <QLocalServer>
#include <QLocalSocket>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <cstdio>
#include <memory>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const char* const kChildVariable = "ZENTHO_INVITE_CHANNEL_CHILD";
// Set for a child whose launcher, once it listens, refuses every link handed over.
const char* const kRefusingVariable = "ZENTHO_INVITE_CHANNEL_REFUSES";
const QString kInvite = QStringLiteral("zentho://join/7F3A-91?host=Pat&region=eu%2Dwest");

// The start-up of a launcher, as main() does it, in a child process: forward and end with 0, or
// become the listener and print every invite that arrives.
int runLauncherStart(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    InviteChannel channel(args.value(1));
    switch (channel.startOrForward(args.value(2))) {
    case InviteChannel::Role::Forwarded:
        return 0;
    case InviteChannel::Role::Unshared:
        std::printf("unshared\n");
        return 4;
    case InviteChannel::Role::Primary:
        break;
    }
    if (qEnvironmentVariableIsSet(kRefusingVariable)) {
        channel.setAcceptsInvites([] {
            std::printf("refused\n");
            std::fflush(stdout);
            return false;
        });
    }
    QObject::connect(&channel, &InviteChannel::inviteReceived, [](const QString& invite) {
        std::printf("invite:%s\n", qPrintable(invite));
        std::fflush(stdout);
    });
    std::printf("primary\n");
    std::fflush(stdout);
    return app.exec();
}

// A launcher start in its own process.
struct Start {
    enum class Links { taken, refused };
    explicit Start(const QString& address, const QString& invite = {}, Links links = Links::taken) {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QString::fromLatin1(kChildVariable), QStringLiteral("1"));
        if (links == Links::refused)
            env.insert(QString::fromLatin1(kRefusingVariable), QStringLiteral("1"));
        process->setProcessEnvironment(env);
        process->setProcessChannelMode(QProcess::ForwardedErrorChannel);
        QStringList args{address};
        if (!invite.isEmpty())
            args.append(invite);
        process->start(QCoreApplication::applicationFilePath(), args);
    }
    ~Start() {
        if (process->state() != QProcess::NotRunning) {
            process->kill();
            process->waitForFinished(5000);
        }
    }
    // The next line the child prints, or a null string when none comes within the time.
    QString nextLine(int timeoutMs = 60000) {
        QDeadlineTimer deadline(timeoutMs);
        while (!process->canReadLine()) {
            if (deadline.hasExpired() || !process->waitForReadyRead(int(deadline.remainingTime())))
                return {};
        }
        return QString::fromUtf8(process->readLine()).chopped(1);
    }
    bool endsWith(int code) {
        return process->waitForFinished(60000) && process->exitStatus() == QProcess::NormalExit &&
               process->exitCode() == code;
    }

    std::unique_ptr<QProcess> process = std::make_unique<QProcess>();
};

} // namespace

class TestInviteChannel : public QObject {
    Q_OBJECT

    QString address() const { return dir_->filePath(QStringLiteral("zentho-launcher-test")); }

    std::unique_ptr<QTemporaryDir> dir_;

private slots:
    void init() { dir_ = std::make_unique<QTemporaryDir>(); }

    void secondStartForwardsItsLinkAndEnds() {
        Start first(address());
        QCOMPARE(first.nextLine(), QStringLiteral("primary"));
        Start second(address(), kInvite);
        QVERIFY(second.endsWith(0));
        QCOMPARE(first.nextLine(), QStringLiteral("invite:") + kInvite);
    }

    // It is still there to take a link that a later start forwards, and runs on after that.
    void aloneTheStartKeepsRunningAsTheListener() {
        Start only(address(), kInvite);
        QCOMPARE(only.nextLine(), QStringLiteral("primary"));
        QVERIFY(QFileInfo::exists(address()));
        Start later(address(), QStringLiteral("zentho://later"));
        QVERIFY(later.endsWith(0));
        QCOMPARE(only.nextLine(), QStringLiteral("invite:zentho://later"));
        QCOMPARE(only.process->state(), QProcess::Running);
    }

    void secondStartWithoutLinkOnlyAsksToBeShown() {
        Start first(address());
        QCOMPARE(first.nextLine(), QStringLiteral("primary"));
        Start second(address());
        QVERIFY(second.endsWith(0));
        QCOMPARE(first.nextLine(), QStringLiteral("invite:"));
    }

    void everyLaterStartIsDeliveredInOrder() {
        Start first(address());
        QCOMPARE(first.nextLine(), QStringLiteral("primary"));
        for (const QString& invite : {QStringLiteral("zentho://a"), QStringLiteral("zentho://b")}) {
            Start later(address(), invite);
            QVERIFY(later.endsWith(0));
            QCOMPARE(first.nextLine(), QStringLiteral("invite:") + invite);
        }
    }

    void socketLeftByACrashDoesNotBlockTheNextStart() {
        {
            Start crashed(address());
            QCOMPARE(crashed.nextLine(), QStringLiteral("primary"));
            ::kill(pid_t(crashed.process->processId()), SIGKILL);
            QVERIFY(crashed.process->waitForFinished(5000));
        }
        QVERIFY(QFileInfo::exists(address())); // the crash left its socket behind
        QLocalSocket probe;
        probe.connectToServer(address());
        QVERIFY(!probe.waitForConnected(60000));
        QCOMPARE(probe.error(), QLocalSocket::ConnectionRefusedError);

        Start next(address(), kInvite);
        QCOMPARE(next.nextLine(), QStringLiteral("primary"));
        Start later(address(), QStringLiteral("zentho://after-crash"));
        QVERIFY(later.endsWith(0));
        QCOMPARE(next.nextLine(), QStringLiteral("invite:zentho://after-crash"));
    }

    void aLiveLauncherKeepsItsAddress() {
        Start first(address());
        QCOMPARE(first.nextLine(), QStringLiteral("primary"));
        InviteChannel intruder(address());
        QVERIFY(!intruder.listen());
        QVERIFY(!intruder.isListening());
        // The running launcher still answers.
        Start later(address(), kInvite);
        QVERIFY(later.endsWith(0));
        QCOMPARE(first.nextLine(), QStringLiteral("invite:") + kInvite);
    }

    void forwardingNeedsSomeoneListening() {
        InviteChannel sender(address());
        QVERIFY(!sender.forwardToRunningLauncher(kInvite, 500));
        // The receiver answers from its own event loop, so it runs in a process of its own.
        Start receiver(address());
        QCOMPARE(receiver.nextLine(), QStringLiteral("primary"));
        QVERIFY(sender.forwardToRunningLauncher(kInvite));
        QCOMPARE(receiver.nextLine(), QStringLiteral("invite:") + kInvite);
    }

    // A launcher that can no longer pass a link on refuses it: the later start does not end, it
    // runs alone (the address stays the refusing launcher's) and follows the link itself.
    void aRefusedLinkStaysWithTheLaterStart() {
        Start first(address(), {}, Start::Links::refused);
        QCOMPARE(first.nextLine(), QStringLiteral("primary"));
        Start second(address(), kInvite);
        QVERIFY(second.endsWith(4));
        QCOMPARE(second.nextLine(), QStringLiteral("unshared"));
        // Asked once, then once more after the address proved taken; neither time taken.
        QCOMPARE(first.nextLine(), QStringLiteral("refused"));
        QCOMPARE(first.nextLine(), QStringLiteral("refused"));
        QCOMPARE(first.process->state(), QProcess::Running);
    }

    // A launcher that ends after the link reached its socket, before it read it (it was quitting),
    // never took it: the later start becomes the launcher that listens, with its link.
    void aLinkTheListenerEndedWithoutReadingIsNotTaken() {
        QLocalServer ending;
        QVERIFY(ending.listen(address()));
        Start later(address(), kInvite);
        QVERIFY(ending.waitForNewConnection(60000));
        QLocalSocket* connection = ending.nextPendingConnection();
        QVERIFY(connection->waitForReadyRead(60000)); // the link has arrived
        // The address goes first, then the connection: the later start, finding its link not
        // taken, finds the address free.
        ending.close();
        delete connection;
        QCOMPARE(later.nextLine(), QStringLiteral("primary"));
    }

    // Launchers from before the answer take every link they read and never answer: one that
    // stays connected without a word is taken to have the link, as it always was.
    void aListenerThatNeverAnswersIsTakenToHaveTheLink() {
        QLocalServer silent;
        QVERIFY(silent.listen(address()));
        QVERIFY(InviteChannel(address()).forwardToRunningLauncher(kInvite, 60000, 200));
        QVERIFY(silent.waitForNewConnection(60000));
    }

    void garbageFromAPeerIsDroppedAndLaterLinksStillArrive() {
        InviteChannel receiver(address());
        QVERIFY(receiver.listen());
        QSignalSpy received(&receiver, &InviteChannel::inviteReceived);
        QLocalSocket peer;
        peer.connectToServer(address());
        QVERIFY(peer.waitForConnected(60000));
        peer.write(QByteArray(8, '\x7f')); // a length no link has, then nothing
        QVERIFY(peer.waitForBytesWritten(60000));
        // The receiver drops such a peer once it has read it, which the peer sees.
        QTRY_COMPARE_WITH_TIMEOUT(peer.state(), QLocalSocket::UnconnectedState, 60000);
        QCOMPARE(received.size(), 0);
        // Forwarded from another process: this one's event loop must run to answer it.
        Start later(address(), kInvite);
        QTRY_COMPARE_WITH_TIMEOUT(received.size(), 1, 60000);
        QCOMPARE(received.first().first().toString(), kInvite);
        // Taken: it ends with 0, having been answered while this process's event loop ran.
        QTRY_COMPARE_WITH_TIMEOUT(later.process->state(), QProcess::NotRunning, 60000);
        QCOMPARE(later.process->exitStatus(), QProcess::NormalExit);
        QCOMPARE(later.process->exitCode(), 0);
    }

    void socketIsPrivateToTheUser() {
        InviteChannel receiver(address());
        QVERIFY(receiver.listen());
        struct stat info {};
        QCOMPARE(::stat(QFile::encodeName(address()).constData(), &info), 0);
        QCOMPARE(info.st_mode & 077, 0u);
        // A server without that option is reachable by others, which the check above would see.
        QLocalServer open;
        const QString openAddress = dir_->filePath(QStringLiteral("open"));
        const mode_t umaskBefore = ::umask(022);
        const bool openListening = open.listen(openAddress);
        ::umask(umaskBefore);
        QVERIFY(openListening);
        QCOMPARE(::stat(QFile::encodeName(openAddress).constData(), &info), 0);
        QVERIFY((info.st_mode & 077) != 0u);
    }

    void defaultAddressIsPerUserAndStorageInTheRuntimeFolder() {
        const QByteArray previous = qgetenv("XDG_RUNTIME_DIR");
        const QString root = QStringLiteral("/home/pat/.local/share/Zentho/launcher");
        const QString name = QStringLiteral("zentho-launcher-%1-").arg(::getuid());
        qputenv("XDG_RUNTIME_DIR", QFile::encodeName(dir_->path()));
        const QString address = InviteChannel::defaultAddress(root);
        QVERIFY2(address.startsWith(dir_->filePath(name)), qPrintable(address));
        QCOMPARE(InviteChannel::defaultAddress(root), address);
        QVERIFY(InviteChannel::defaultAddress(QStringLiteral("/srv/other/Zentho/launcher")) != address);
        qputenv("XDG_RUNTIME_DIR", QFile::encodeName(dir_->filePath(QStringLiteral("missing"))));
        QVERIFY(InviteChannel::defaultAddress(root).startsWith(name));
        qunsetenv("XDG_RUNTIME_DIR");
        QVERIFY(InviteChannel::defaultAddress(root).startsWith(name));
        QCOMPARE(InviteChannel::defaultAddress(root).size(), name.size() + 12);
        if (!previous.isNull())
            qputenv("XDG_RUNTIME_DIR", previous);
    }
};

int main(int argc, char** argv) {
    if (qEnvironmentVariableIsSet(kChildVariable))
        return runLauncherStart(argc, argv);
    QCoreApplication app(argc, argv);
    TestInviteChannel test;
    return QTest::qExec(&test, argc, argv);
}

#include "TestInviteChannel.moc"
