#include "GameWatch.h"
#include "LauncherModelProbe.h"
#include "RecordingPlatform.h"
#include "ScopedDataHome.h"
#include "TestFiles.h"

#include <QTemporaryDir>
#include <QTest>

#include <memory>

namespace {

const QString kInvite = QStringLiteral("zentho://join/7F3A-91?host=Pat&region=eu%2Dwest");

// A launcher bundle on disk whose seed runtime is a real program that writes down its arguments
// and stays up until the test ends it, watched by the test's start-up watch.
struct OfflineLauncher {
    // `then`: what the game does once it has written its arguments down; by default it stays up.
    explicit OfflineLauncher(const QByteArray& then = "exec sleep 3600\n") {
        const QByteArray record = QFile::encodeName(recordPath());
        TestFiles::writeScript(bundle() + QStringLiteral("/Contents/Resources/SeedRuntime/zentho"),
                               "for a in \"$@\"; do printf 'arg=%s\\n' \"$a\"; done > '" + record +
                                   ".part'\n"
                                   "mv '" +
                                   record + ".part' '" + record +
                                   "'\n" +
                                   then);
        const QString exe = bundle() + QStringLiteral("/Contents/MacOS/ZenthoLauncher");
        platform = std::make_unique<RecordingPlatform>(exe, QStringList{exe});
        model = std::make_unique<LauncherModel>(*platform);
        LauncherModelProbe::setStartupWatch(*model, games.watch());
    }
    QString bundle() const { return dir.filePath(QStringLiteral("ZenthoLauncher.app")); }
    QString recordPath() const { return dir.filePath(QStringLiteral("game-arguments")); }
    // The arguments the game was started with, once it has written them down.
    QStringList gameArguments() const {
        QStringList arguments;
        const QString text = QString::fromUtf8(TestFiles::readFile(recordPath()));
        for (const QString& line : text.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
            arguments.append(line.mid(4)); // after "arg="
        return arguments;
    }

    ScopedDataHome home;
    QTemporaryDir dir;
    GameWatch games; // ends the game before its folder goes
    std::unique_ptr<RecordingPlatform> platform;
    std::unique_ptr<LauncherModel> model;
};

// A start-up watch that first notes whether `model` still follows invites once the game has been
// started, then watches as `watch` does.
QCoro::Task<void> noteThenWatch(const LauncherModel* model, std::optional<bool>* follows,
                                GameLauncher::Watch watch, pid_t game) {
    *follows = model->followsInvites();
    co_await watch(game);
}

void noteWhileWatching(OfflineLauncher& launcher, std::optional<bool>* follows) {
    const LauncherModel* model = launcher.model.get();
    LauncherModelProbe::setStartupWatch(
        *launcher.model, [model, follows, watch = launcher.games.watch()](pid_t game) {
            return noteThenWatch(model, follows, watch, game);
        });
}

} // namespace

class TestInviteOpen : public QObject {
    Q_OBJECT

    QTemporaryDir nowhere_;

private slots:
    // The release manifests are files that do not exist, so every update attempt fails at once and
    // the flow falls back to the seed runtime. The launcher reads these once per process.
    void initTestCase() {
        qputenv("ZENTHO_UPDATE_MANIFEST",
                QUrl::fromLocalFile(nowhere_.filePath(QStringLiteral("game.json"))).toEncoded());
        qputenv("ZENTHO_LAUNCHER_UPDATE_MANIFEST",
                QUrl::fromLocalFile(nowhere_.filePath(QStringLiteral("launcher.json"))).toEncoded());
    }

    void inviteWhileIdleAnnouncesItAndStartsTheFlow() {
        OfflineLauncher launcher;
        QStringList seen;
        connect(launcher.model.get(), &LauncherModel::statusChanged, this,
                [&] { seen.append(launcher.model->status()); });
        launcher.model->openInviteURL(kInvite);
        QCOMPARE(seen.value(0), QStringLiteral("Joining a friend's game..."));
        QVERIFY(launcher.model->busy()); // the flow has started
        QCOMPARE(seen.value(1), QStringLiteral("Checking launcher version..."));
        QCOMPARE(LauncherModelProbe::pendingInvite(*launcher.model), std::optional<QString>(kInvite));
        QTRY_COMPARE_WITH_TIMEOUT(launcher.platform->quitCount, 1, 60000);
        QCOMPARE(launcher.gameArguments(), QStringList{kInvite});
        QCOMPARE(launcher.model->status(), QStringLiteral("Update unavailable; starting installed version..."));
    }

    void inviteWhileBusyIsKeptButStartsNothing() {
        OfflineLauncher launcher;
        LauncherModelProbe::setBusy(*launcher.model, true);
        launcher.model->openInviteURL(kInvite);
        QCOMPARE(launcher.model->status(), QStringLiteral("Joining a friend's game..."));
        QCOMPARE(LauncherModelProbe::pendingInvite(*launcher.model), std::optional<QString>(kInvite));
        // A flow that went ahead would have said so before the call returned, as the twin above
        // shows; so would a game started at once.
        QCOMPARE(launcher.model->status(), QStringLiteral("Joining a friend's game..."));
        QVERIFY(launcher.model->busy());
        QCOMPARE(launcher.platform->quitCount, 0);
        QCOMPARE(launcher.games.watched(), 0);
        QVERIFY(launcher.gameArguments().isEmpty());
    }

    void laterInviteReplacesTheEarlierOne() {
        OfflineLauncher launcher;
        LauncherModelProbe::setBusy(*launcher.model, true);
        launcher.model->openInviteURL(QStringLiteral("zentho://join/first"));
        launcher.model->openInviteURL(QStringLiteral("zentho://join/second"));
        QCOMPARE(LauncherModelProbe::pendingInvite(*launcher.model),
                 std::optional<QString>(QStringLiteral("zentho://join/second")));
        LauncherModelProbe::setBusy(*launcher.model, false);
        launcher.model->updateAndPlay();
        QTRY_COMPARE_WITH_TIMEOUT(launcher.platform->quitCount, 1, 60000);
        QCOMPARE(launcher.gameArguments(), QStringList{QStringLiteral("zentho://join/second")});
    }

    void inviteTextIsKeptVerbatim() {
        OfflineLauncher launcher;
        LauncherModelProbe::setBusy(*launcher.model, true);
        const QString odd = QStringLiteral("not even a url %zz &&  spaced ");
        launcher.model->openInviteURL(odd);
        QCOMPARE(LauncherModelProbe::pendingInvite(*launcher.model), std::optional<QString>(odd));
    }

    // From the moment the game is started with the pending invite, a later one would be kept and
    // never passed on: the model says it follows none, up to its quit.
    void onceTheGameIsStartedNoFurtherInviteIsFollowed() {
        OfflineLauncher launcher;
        std::optional<bool> followsWhileWatching;
        noteWhileWatching(launcher, &followsWhileWatching);
        QVERIFY(launcher.model->followsInvites());
        launcher.model->openInviteURL(kInvite);
        QTRY_COMPARE_WITH_TIMEOUT(launcher.platform->quitCount, 1, 60000);
        QCOMPARE(followsWhileWatching, std::optional<bool>(false));
        QVERIFY(!launcher.model->followsInvites());
        QCOMPARE(launcher.gameArguments(), QStringList{kInvite});
    }
    // The twin: a game that could not stay up took no invite anywhere, and the launcher, staying
    // open, follows the next one again.
    void aFailedStartFollowsInvitesAgain() {
        OfflineLauncher launcher("exit 3\n");
        std::optional<bool> followsWhileWatching;
        noteWhileWatching(launcher, &followsWhileWatching);
        launcher.model->openInviteURL(kInvite);
        QTRY_VERIFY_WITH_TIMEOUT(!launcher.model->busy(), 60000);
        QVERIFY2(launcher.model->status().startsWith(QStringLiteral("Could not launch: ")),
                 qPrintable(launcher.model->status()));
        QCOMPARE(followsWhileWatching, std::optional<bool>(false));
        QVERIFY(launcher.model->followsInvites());
        QCOMPARE(launcher.platform->quitCount, 0);
    }

    void withoutInviteTheGameGetsNoArgument() {
        OfflineLauncher launcher;
        launcher.model->updateAndPlay();
        QTRY_COMPARE_WITH_TIMEOUT(launcher.platform->quitCount, 1, 60000);
        QCOMPARE(launcher.gameArguments(), QStringList());
        QVERIFY(QFile::exists(launcher.recordPath()));
    }
};

QTEST_MAIN(TestInviteOpen)
#include "TestInviteOpen.moc"
