// A staged release from the publisher's tool to real launchers: zentho-release rollout sets,
// raises and halts the share on the published, signed manifest without repacking anything, verify
// shows it, and three installations with their own places each start the build their place gives
// them, observed through the game that starts.

#include "AdoptedProcesses.h"
#include "LauncherBundles.h"
#include "LauncherStorage.h"
#include "RealLauncher.h"
#include "ReleaseTool.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TestServer.h"
#include "WindowFixture.h"
#include "XvfbSession.h"

#include "storage/InstalledState.h"
#include "storage/RolloutPlace.h"

#include <QCryptographicHash>
#include <QDeadlineTimer>
#include <QDir>
#include <QGuiApplication>
#include <QTemporaryDir>
#include <QTest>

#include <memory>
#include <optional>

using ReleaseTool::Run;

namespace {

const QString kNoLauncherUpdate = QStringLiteral("file:///dev/null/no-launcher-manifest.json");

QByteArray gameScript(const QString& version) {
    return "printf 'version=" + version.toUtf8() + "\\npid=%s\\n' \"$$\" > \"$ZENTHO_STANDIN_RECORD\"\nexec sleep 3\n";
}

} // namespace

class TestStagedRollout : public QObject {
    Q_OBJECT

    std::unique_ptr<TestServer> server_;
    QTemporaryDir dir_;
    std::optional<AdoptedProcesses> adopted_;
    QString manifest_; // as published
    QString archive_;
    QByteArray archiveBytes_;
    QRect button_; // the main button in the window

    QString path(const QString& name) const { return dir_.filePath(name); }
    QString signKey() const { return ReleaseTool::testManifestKey(); }

    // A player whose installation holds 0.3.0 as its current build and the place `place`.
    QString player(const QString& name, double place) {
        const LauncherStorage storage(path(name));
        TestFiles::writeScript(storage.build(QStringLiteral("0.3.0")) + QStringLiteral("/zentho"), gameScript(QStringLiteral("0.3.0")));
        TestFiles::writeFile(storage.state(), InstalledState{QStringLiteral("0.3.0"), storage.build(QStringLiteral("0.3.0"))}.encode());
        TestFiles::writeFile(storage.root() + QLatin1Char('/') + QLatin1String(RolloutPlace::kFileName),
                             QByteArray::number(place) + '\n');
        return storage.dataHome();
    }
    // One press of the main button by the player at `dataHome`, clicked on an X server as a
    // player clicks it (a link would be an invite, which takes a staged release whatever the
    // share); the version of the game that started.
    QString press(const QString& dataHome) {
        XvfbSession screen;
        RealLauncher launcher(LauncherBundles::builtBundle(), dataHome);
        launcher.useManifests(server_->url(QStringLiteral("/release/macos-arm64-manifest.json")).toString(), kNoLauncherUpdate);
        launcher.environment().insert(QStringLiteral("DISPLAY"), screen.display());
        launcher.environment().insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
        launcher.environment().insert(QStringLiteral("QT_QUICK_BACKEND"), QStringLiteral("software"));
        const QString record = dataHome + QStringLiteral("/record");
        QFile::remove(record);
        launcher.recordGameStartIn(record);
        launcher.start(*server_, QString());
        const std::optional<QRect> window = screen.waitForWindow(QStringLiteral("ZENTHO Launcher"));
        QByteArray recorded;
        // A click that lands before the window takes input is lost; the first that counts ends
        // the launcher, so more are harmless.
        for (QDeadlineTimer deadline(60000); window && recorded.isEmpty() && !deadline.hasExpired();) {
            screen.click(window->topLeft() + button_.center());
            recorded = RealLauncher::waitForGameRecord(record, 2000);
        }
        if (launcher.waitForExit() != std::optional<int>(0))
            qWarning("%s", launcher.errors().constData());
        if (recorded.isEmpty())
            return {};
        RealLauncher::terminateAndCollect(RealLauncher::recordedPid(recorded));
        return QString::fromUtf8(recorded.mid(8, recorded.indexOf('\n') - 8));
    }
    Run rollout(const QStringList& arguments) {
        return ReleaseTool::run(QStringList{QStringLiteral("rollout")} + arguments + QStringList{manifest_});
    }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(root);
        ZENTHO_REQUIRE(nginx);
        ZENTHO_REQUIRE(xvfb);
        QVERIFY(RealLauncher::becomeSubreaper());
        {
            // The same window, offscreen in this process, tells where the button is drawn.
            WindowFixture window({QStringLiteral("0.3.0")});
            button_ = window.rectOf("updateAndPlayButton");
        }
        adopted_.emplace();
        server_ = std::make_unique<TestServer>();
        TestFiles::writeScript(path(QStringLiteral("game/zentho")), gameScript(QStringLiteral("0.3.1")));
        const Run packed = ReleaseTool::packGame(path(QStringLiteral("game")), QStringLiteral("0.3.1"),
                                                 server_->url(QStringLiteral("/release")).toString(), path(QStringLiteral("out")),
                                                 {QStringLiteral("--sign-key"), signKey()});
        QVERIFY2(packed.ok(), packed.errors.constData());
        archive_ = packed.line(QStringLiteral("archive"));
        archiveBytes_ = TestFiles::readFile(archive_);
        const Run published = ReleaseTool::run({QStringLiteral("publish"), QStringLiteral("--manifest-key"),
                                                signKey() + QStringLiteral(".pub"), QStringLiteral("--to"),
                                                server_->documentRoot(), packed.line(QStringLiteral("manifest"))});
        QVERIFY2(published.ok(), published.errors.constData());
        manifest_ = server_->documentRoot() + QStringLiteral("/release/macos-arm64-manifest.json");
        QVERIFY(QFileInfo::exists(manifest_ + QStringLiteral(".sig")));
    }
    void cleanupTestCase() { adopted_.reset(); }

    // Signed manifests stay signed: without the key the tool refuses and changes nothing; a
    // share out of range is a usage error.
    void signedManifestNeedsTheKeyAgain() {
        const QByteArray before = TestFiles::readFile(manifest_);
        const Run unsigned_ = rollout({QStringLiteral("--percent"), QStringLiteral("10")});
        QVERIFY(unsigned_.failedWithOneLine());
        QVERIFY2(unsigned_.errors.contains("is signed; give --sign-key"), unsigned_.errors.constData());
        const Run outOfRange = rollout({QStringLiteral("--percent"), QStringLiteral("120"), QStringLiteral("--sign-key"), signKey()});
        QCOMPARE(outOfRange.exitCode, 2);
        QCOMPARE(TestFiles::readFile(manifest_), before);
    }

    // 25 %, then 50 %, then halted, each on the published manifest: the three players follow
    // their places, the archive is never repacked, and every step verifies with the manifest key.
    void shareReachesExactlyThePlacesInsideIt() {
        const QString early = player(QStringLiteral("early"), 5);
        const QString middle = player(QStringLiteral("middle"), 30);
        const QString late = player(QStringLiteral("late"), 80);
        const QStringList verifyKeys{QStringLiteral("--manifest-key"), signKey() + QStringLiteral(".pub")};

        const Run quarter = rollout({QStringLiteral("--percent"), QStringLiteral("25"), QStringLiteral("--sign-key"), signKey()});
        QVERIFY2(quarter.ok(), quarter.errors.constData());
        QCOMPARE(quarter.line(QStringLiteral("rollout")), QStringLiteral("25 % of installations"));
        const Run verified = ReleaseTool::verify(manifest_, archive_, verifyKeys);
        QVERIFY2(verified.ok(), verified.errors.constData());
        QCOMPARE(verified.line(QStringLiteral("rollout")), QStringLiteral("25 % of installations"));
        QCOMPARE(press(early), QStringLiteral("0.3.1"));
        QCOMPARE(press(middle), QStringLiteral("0.3.0"));
        QCOMPARE(press(late), QStringLiteral("0.3.0"));

        QVERIFY(rollout({QStringLiteral("--percent"), QStringLiteral("50"), QStringLiteral("--sign-key"), signKey()}).ok());
        QCOMPARE(press(middle), QStringLiteral("0.3.1"));
        QCOMPARE(press(late), QStringLiteral("0.3.0"));

        const Run halt = rollout({QStringLiteral("--percent"), QStringLiteral("0"), QStringLiteral("--sign-key"), signKey()});
        QCOMPARE(halt.line(QStringLiteral("rollout")), QStringLiteral("halted: offered to no more installations"));
        QVERIFY(ReleaseTool::verify(manifest_, archive_, verifyKeys).ok());
        QCOMPARE(press(early), QStringLiteral("0.3.1")); // kept: a halt uninstalls nothing
        QCOMPARE(press(late), QStringLiteral("0.3.0"));

        QVERIFY(rollout({QStringLiteral("--all"), QStringLiteral("--sign-key"), signKey()}).ok());
        QVERIFY(!TestFiles::readFile(manifest_).contains("rollout"));
        QCOMPARE(press(late), QStringLiteral("0.3.1"));
        QCOMPARE(TestFiles::readFile(archive_), archiveBytes_);
    }
};

QTEST_MAIN(TestStagedRollout)
#include "TestStagedRollout.moc"
